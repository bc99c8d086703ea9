// The front of all exported operations on a card: the test of the state and of the arguments, the copy of the card, its
// ignore state, the write lock and the live check. It runs on host threads.
#ifndef FXM_OPERATION_H
#define FXM_OPERATION_H

#include <cerrno>
#include <cstdint>

#include "access/fxm_register.h"
#include "access/fxm_wreg.h"
#include "core/fxm_state.h"
#include "fxm.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

// The values of the caller's record, or the configured values for a null pointer.
fxm_retry_t _fxm_retry_of(const fxm_retry_param_t *retry_param);

// "retry_cnt=%u, retry_int=%u" or "retry_param=NULL", for the (IN) lines.
struct fxm_retry_text_t {
    explicit fxm_retry_text_t(const fxm_retry_param_t *retry_param);
    char text[48];
};

// Takes the in/out size of a dump: sets it to 0, its value until the dump stores something, and returns whether the
// range fits in it. An empty range does not fit, and nothing fits in a null pointer.
bool _fxm_take_size(uint64_t *size, uint32_t startaddr, uint32_t endaddr);

// Logs a failed step of the exported function `func` and returns `err`.
int _fxm_check_step(const char *func, const char *step, int err);

// Copies the card of `id`, of either class, under fx_lock: 0, ENOENT, EPROTO.
[[nodiscard]] int _fxm_copy_card(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state)
    FXM_EXCLUDES(fxm_fx_tbl.fx_lock);

// Applies the ignore state: an operation on an ignored card fails with ENOLINK unless it asks for the live check. The
// copy then loses its channels, so that the check probes them.
[[nodiscard]] int _fxm_apply_ignore_state(uint32_t ignore_state, uint32_t flags, fxm_card_data_t *card);

// Runs the live check if the flags ask for it. Logs a failure under `func`.
[[nodiscard]] int _fxm_front_livecheck(const char *func, uint32_t flags, fxm_card_data_t *card);

enum fxm_write_lock_t { FXM_NO_WRITE_LOCK, FXM_WRITE_LOCK };

// One call of an exported operation on a card.
struct fxm_operation_t {
    const char *func; // the exported function, for messages
    uint64_t id;
    uint32_t flags;
    fxm_write_lock_t write_lock;
};

// Runs `work(card)` on a copy of the card, behind look-up, ignore state, write lock and live check. Returns 0 or an
// errno value. Logs failures.
template <typename Work> int _fxm_card_operation(const fxm_operation_t &operation, Work work)
{
    fxm_card_data_t card;
    uint32_t ignore_state = 0;
    int err = _fxm_copy_card(operation.id, &card, &ignore_state);
    if (err == 0)
        err = _fxm_apply_ignore_state(ignore_state, operation.flags, &card);
    if (err != 0)
        return err;
    const auto checked_work = [&] {
        const int check_err = _fxm_front_livecheck(operation.func, operation.flags, &card);
        return check_err != 0 ? check_err : work(&card);
    };
    if (operation.write_lock == FXM_NO_WRITE_LOCK)
        return checked_work();
    fxm_wreg_guard_t guard(operation.id);
    if (!guard.locked()) {
        fxm_log_error("%s: Failed to FXM_WREG_LOCK().", operation.func);
        return ENOENT;
    }
    // The wait for the lock has no limit, so the library may be stopping by now.
    return _fxm_stopping() ? ENOSYS : checked_work();
}

// Does what lies between the (IN) and the (OUT) line of an exported operation: tests the state and the arguments
// (`valid` is the result of the operation's own tests), then runs `work(card, retry)`. Returns a result code.
template <typename Work>
int _fxm_card_api(const fxm_call_t &call, const fxm_operation_t &operation, bool valid,
                  const fxm_retry_param_t *retry_param, Work work)
{
    if (!call.running)
        return FXM_API_ENOSYS;
    if (!valid || (retry_param != nullptr && retry_param->retry_int == 0))
        return FXM_API_EINVAL;
    const fxm_retry_t retry = _fxm_retry_of(retry_param);
    return _fxm_errno_to_result(
        _fxm_card_operation(operation, [&](fxm_card_data_t *card) { return work(card, retry); }));
}

#endif
