// The write locks, one for each card id ever seen. A host thread holds the card's write lock during a conversation that
// writes to the card, so that two threads do not interleave theirs. A lock outlives its card and a stop of the library.
#ifndef FXM_WREG_H
#define FXM_WREG_H

#include <cstdint>

#include "platform/fxm_platform.h"

[[nodiscard]] int _fxm_reg_init(); // 0 or EPROTO; a later start in the same process keeps all locks
void _fxm_reg_fini();

[[nodiscard]] int _fxm_create_reg_lock_node(uint64_t id); // 0, EEXIST, ENOMEM, EPROTO; receive threads, under fx_lock

// Holds the write lock of a card for a scope. Waits for it without a time limit; the caller holds no other lock.
struct FXM_SCOPED_CAPABILITY fxm_wreg_guard_t {
    explicit fxm_wreg_guard_t(uint64_t id) FXM_ACQUIRE(wn_lock);
    ~fxm_wreg_guard_t() FXM_RELEASE();
    fxm_wreg_guard_t(const fxm_wreg_guard_t &) = delete;
    fxm_wreg_guard_t &operator=(const fxm_wreg_guard_t &) = delete;

    // False if no frame has brought the id: such a card has no lock.
    [[nodiscard]] bool locked() const { return wn_lock != nullptr; }

    fxm_mutex_t *wn_lock;
};

#endif
