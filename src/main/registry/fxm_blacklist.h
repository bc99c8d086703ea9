// The cards that the host keeps out of monitoring, by id alone: an id need not belong to a known card.
#ifndef FXM_BLACKLIST_H
#define FXM_BLACKLIST_H

#include <cstdint>

int _fxm_blacklist_init(); // 0 or EPROTO
int _fxm_blacklist_fini(); // 0
int _fxm_lock_blacklist();
int _fxm_unlock_blacklist();
bool _fxm_blacklist_lookup(uint64_t id); // under blacklist_lock
void _fxm_blacklist_dump();              // its section of the status dump

struct fxm_blacklist_guard_t {
    fxm_blacklist_guard_t() { _fxm_lock_blacklist(); }
    ~fxm_blacklist_guard_t() { _fxm_unlock_blacklist(); }
    fxm_blacklist_guard_t(const fxm_blacklist_guard_t &) = delete;
    fxm_blacklist_guard_t &operator=(const fxm_blacklist_guard_t &) = delete;
};

#endif
