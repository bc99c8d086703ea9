// The cards that the host keeps out of monitoring, by id alone: an id need not belong to a known card.
#ifndef FXM_BLACKLIST_H
#define FXM_BLACKLIST_H

#include <cstdint>

#include "platform/fxm_platform.h"

int _fxm_blacklist_init(); // 0 or EPROTO
int _fxm_blacklist_fini(); // 0
// Guards the list of ids. Taken under fx_lock by stop, restart and the adding of a card, so that a card being stopped is
// handled wholly before or wholly after; alone by dump and fini. Under it only the stats lock is taken.
extern fxm_mutex_t blacklist_lock;

int _fxm_lock_blacklist() FXM_ACQUIRE(blacklist_lock);
int _fxm_unlock_blacklist() FXM_RELEASE(blacklist_lock);
bool _fxm_blacklist_lookup(uint64_t id) FXM_REQUIRES(blacklist_lock);
void _fxm_blacklist_dump(); // its section of the status dump

struct FXM_SCOPED_CAPABILITY fxm_blacklist_guard_t {
    fxm_blacklist_guard_t() FXM_ACQUIRE(blacklist_lock) { _fxm_lock_blacklist(); }
    ~fxm_blacklist_guard_t() FXM_RELEASE() { _fxm_unlock_blacklist(); }
    fxm_blacklist_guard_t(const fxm_blacklist_guard_t &) = delete;
    fxm_blacklist_guard_t &operator=(const fxm_blacklist_guard_t &) = delete;
};

#endif
