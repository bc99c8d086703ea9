// The cards that the host excludes from monitoring. They are stored by id alone: an id need not belong to a known card.
#ifndef FXM_BLACKLIST_H
#define FXM_BLACKLIST_H

#include <cstdint>

[[nodiscard]] int _fxm_blacklist_init(); // 0 or EPROTO
int _fxm_blacklist_fini();               // always 0
void _fxm_lock_blacklist();
void _fxm_unlock_blacklist();
[[nodiscard]] bool _fxm_blacklist_lookup(uint64_t id); // whether the id is in; the caller holds blacklist_lock
void _fxm_blacklist_dump();                            // writes its section of the status dump

struct fxm_blacklist_guard_t {
    fxm_blacklist_guard_t() { _fxm_lock_blacklist(); }
    ~fxm_blacklist_guard_t() { _fxm_unlock_blacklist(); }
    fxm_blacklist_guard_t(const fxm_blacklist_guard_t &) = delete;
    fxm_blacklist_guard_t &operator=(const fxm_blacklist_guard_t &) = delete;
};

#endif
