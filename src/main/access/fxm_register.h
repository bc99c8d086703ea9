// Register operations: reliable read, verified write, masked modify, range dump, and the live check; and the front that
// the exported operations on a card share. Threads of the host.
#ifndef FXM_REGISTER_H
#define FXM_REGISTER_H

#include <cerrno>
#include <cstdint>

#include "access/fxm_wreg.h"
#include "core/fxm_state.h"
#include "fxm.h"
#include "fxm_log4cxxif.h"

// `card` below is the operation's own copy of the card's data, never a table node, so all attempts of an operation use
// one channel. Only the live check writes to it, and only to fcd_state.
//
// timeout: wait for one answer, ms. retries: further attempts after the first. Of the flags FXM_FLAG_VERIFY matters.
// Results: 0, ENOLINK, ETIMEDOUT, EPROTO, ENOSYS. *data is written on 0 only.
int _fxm_read_register(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, uint32_t timeout, uint32_t retries);
int _fxm_write_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t timeout, uint32_t retries,
                        uint32_t flags);
int _fxm_modify_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t mask, uint32_t timeout,
                         uint32_t retries, uint32_t flags);

// *size becomes the bytes stored, also on a failure.
int _fxm_dump_register(const fxm_card_data_t *card, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer,
                       uint64_t *size, uint32_t timeout, uint32_t retries);

// Makes sure that `card` has a channel to use: 0, ENOLINK, EPROTO, ENOSYS.
int _fxm_livecheck(fxm_card_data_t *card);

// ------------------------------------------------------------------------------------- the front of the operations

inline bool _aligned(uint32_t addr) { return (addr & 3) == 0; }

struct fxm_retry_t {
    uint32_t timeout;
    uint32_t retries;
};

// The caller's record, or the configured values for null.
fxm_retry_t _fxm_retry_of(const fxm_retry_param_t *retry_param);

// "retry_cnt=%u, retry_int=%u" or "retry_param=NULL", for the (IN) lines.
struct fxm_retry_text_t {
    explicit fxm_retry_text_t(const fxm_retry_param_t *retry_param);
    char text[48];
};

// The in/out size of a dump: whether it holds the range, which must not be empty. It becomes 0, for a dump that is
// refused or fails tells so with it.
bool _fxm_take_size(uint64_t *size, uint32_t startaddr, uint32_t endaddr);

// Copies the card of `id`, of either class, under fx_lock: 0, ENOENT, EPROTO.
int _fxm_copy_card(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state);

// What the ignore state means for an operation: ENOLINK for a card out of monitoring, unless the live check is asked
// for. Then the copy loses its channels, for the check cannot rely on them.
int _fxm_apply_ignore_state(uint32_t ignore_state, uint32_t flags, fxm_card_data_t *card);

// Runs the live check if the flags ask for it. A failure is logged under `func`.
int _fxm_front_livecheck(const char *func, uint32_t flags, fxm_card_data_t *card);

enum fxm_write_lock_t { FXM_NO_WRITE_LOCK, FXM_WRITE_LOCK };

// From the copy of the card to the result of `work(card)`: look-up, ignore state, write lock, live check. Gives an
// errno value; failures are logged under `func`.
template <typename Work>
int _fxm_card_operation(const char *func, uint64_t id, uint32_t flags, fxm_write_lock_t write_lock, Work work)
{
    fxm_card_data_t card;
    uint32_t ignore_state = 0;
    int err = _fxm_copy_card(id, &card, &ignore_state);
    if (err == 0)
        err = _fxm_apply_ignore_state(ignore_state, flags, &card);
    if (err != 0)
        return err;
    if (write_lock == FXM_WRITE_LOCK) {
        err = FXM_WREG_LOCK(id);
        if (err != 0) {
            fxm_log_error("%s: Failed to FXM_WREG_LOCK().", func);
            return err;
        }
        // The wait for the lock has no limit, so the stop may have come behind it.
        if (_fxm_stopping())
            err = ENOSYS;
    }
    if (err == 0)
        err = _fxm_front_livecheck(func, flags, &card);
    if (err == 0)
        err = work(&card);
    if (write_lock == FXM_WRITE_LOCK)
        FXM_WREG_UNLOCK(id);
    return err;
}

// What an exported operation on a card does between its (IN) and its (OUT) line: the test of the state, of the
// arguments (`valid` are the operation's own), and `work(card, retry)`. Gives a result code.
template <typename Work>
int _fxm_card_api(const fxm_call_t &call, const char *func, uint64_t id, bool valid,
                  const fxm_retry_param_t *retry_param, uint32_t flags, fxm_write_lock_t write_lock, Work work)
{
    if (!call.running)
        return FXM_API_ENOSYS;
    if (!valid || (retry_param != nullptr && retry_param->retry_int == 0))
        return FXM_API_EINVAL;
    const fxm_retry_t retry = _fxm_retry_of(retry_param);
    return _fxm_errno_to_result(
        _fxm_card_operation(func, id, flags, write_lock, [&](fxm_card_data_t *card) { return work(card, retry); }));
}

#endif
