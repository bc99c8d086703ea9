// Register operations, and the exported functions for them. They run on host threads.
#include "access/fxm_register.h"

#include <cerrno>
#include <cstdint>

#include "access/fxm_operation.h"
#include "access/fxm_tags.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "wire/fxm_port.h"
#include "wire/fxm_send.h"

// -------------------------------------------------------------------------------------------------------------- read

// Sends the request and waits for its answer, with all resends. The caller releases the tag.
static int _request(const fxm_card_data_t *card, uint32_t addr, uint32_t tag, uint32_t *value, const fxm_retry_t &retry)
{
    for (uint32_t resent = 0;; ++resent) {
        int err = _fxm_send_regread(card, addr, tag);
        if (err != 0)
            return err;
        if (_fxm_sigwait_comp(tag, retry.timeout) == EPROTO)
            return EPROTO;
        if (_fxm_stopping())
            return ENOSYS;
        // The state of the slot decides, not how the wait ended: an answer just after the time-out is taken.
        err = _fxm_get_readreg(tag, value);
        if (err != ENOENT)
            return err;
        if (resent >= retry.retries)
            return ETIMEDOUT;
    }
}

int _fxm_read_register(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, const fxm_retry_t &retry)
{
    fxm_assert(_fxm_aligned(addr));
    uint32_t tag = 0;
    uint32_t value = 0;
    int err = EPROTO;
    const uint64_t waiting = (uint64_t{retry.retries} + 1) * retry.timeout;
    if (_fxm_get_tag(&tag, waiting) == 0) {
        err = _request(card, addr, tag, &value, retry);
        _fxm_release_tag(tag);
    }
    if (err == 0)
        *data = value;
    fxm_log_trace("%s: called. ret=%d, id=0x%.12llx, addr=0x%.8X, data=0x%.8X, tag=%d", __func__, err,
                  _ull(card->fcd_id), addr, value, static_cast<int>(tag));
    return err;
}

// ------------------------------------------------------------------------------------------------- write and modify

// Writes once, or with `verify` until the register shows `data` in all bits of `mask`.
template <typename Write, typename Read>
static int _write_until(uint32_t data, uint32_t mask, const fxm_retry_t &retry, bool verify, Write write, Read read)
{
    for (uint32_t repeated = 0;; ++repeated) {
        int err = write();
        if (err != 0 || !verify)
            return err;
        uint32_t value = 0;
        err = read(&value);
        if (err != 0 || ((value ^ data) & mask) == 0)
            return err;
        if (_fxm_stopping())
            return ENOSYS;
        if (repeated >= retry.retries)
            return ETIMEDOUT;
        // After a stop during this pause, the next read ends the operation.
        (void)_fxm_sleep(g_config.register_verify_interval);
    }
}

int _fxm_write_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, const fxm_retry_t &retry,
                        uint32_t flags)
{
    const char *func = __func__;
    const auto write = [=] {
        const int err = _fxm_send_regwrite(card, addr, data);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_send_regwrite(). err=%d", func, err);
        return err;
    };
    const auto read = [&](uint32_t *value) {
        const int err = _fxm_read_register(card, addr, value, retry);
        if (err != 0)
            fxm_log_trace("%s: Failed to _fxm_read_register() err=%d", func, err);
        return err;
    };
    const int err = _write_until(data, UINT32_MAX, retry, (flags & FXM_FLAG_VERIFY) != 0, write, read);
    fxm_log_trace("%s: called. ret=%d, id=0x%.12llx, addr=0x%.8X, data=0x%.8X, flags=0x%.8X, ", func, err,
                  _ull(card->fcd_id), addr, data, flags);
    return err;
}

int _fxm_modify_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t mask,
                         const fxm_retry_t &retry, uint32_t flags)
{
    const auto read = [&](uint32_t *value) { return _fxm_read_register(card, addr, value, retry); };
    uint32_t current = 0;
    const int err = read(&current);
    if (err != 0 || ((current ^ data) & mask) == 0)
        return err;
    // Computed once: a repeat writes the bits outside the mask as this first read found them.
    const uint32_t wanted = (current & ~mask) | (data & mask);
    const auto write = [&] { return _fxm_write_register(card, addr, wanted, retry, 0); };
    return _write_until(wanted, mask, retry, (flags & FXM_FLAG_VERIFY) != 0, write, read);
}

// ---------------------------------------------------------------------------------------------- dump and live check

// *size becomes the number of bytes stored, also on a failure.
static int _fxm_dump_register(const fxm_card_data_t *card, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer,
                              uint64_t *size, const fxm_retry_t &retry)
{
    *size = 0;
    // A 64-bit address: the walk must also end when the end is close to the top of the address range.
    for (uint64_t addr = startaddr; addr < endaddr; addr += sizeof(uint32_t)) {
        uint32_t value = 0;
        const int err = _fxm_read_register(card, static_cast<uint32_t>(addr), &value, retry);
        if (err != 0)
            return err;
        *buffer++ = value;
        *size += sizeof(uint32_t);
    }
    return 0;
}

int _fxm_livecheck(fxm_card_data_t *card)
{
    constexpr uint32_t probe = 0; // register 0; its value does not matter
    for (const auto &states : card->fcd_state) {
        if (states[0] == 1 || states[1] == 1)
            return 0; // the table says that this channel is connected
    }
    const fxm_retry_t retry = {g_config.frame_retry_interval_livecheck, g_config.frame_retry_count_livecheck};
    const uint32_t macs = card->fcd_type != 0 ? 2 : 1;
    for (uint32_t port = 0; port < FXM_PORT_NUM && port < _fxm_config_port_num(); ++port) {
        if (fxm_ports[port].pt_link.load() == 0)
            continue;
        for (uint32_t mac = 0; mac < macs; ++mac) {
            uint32_t scratch = 0;
            card->fcd_state[port][mac] = 1;
            const int err = _fxm_read_register(card, probe, &scratch, retry);
            if (err != ETIMEDOUT)
                return err;
            card->fcd_state[port][mac] = 0;
        }
    }
    return ENOLINK;
}

// -------------------------------------------------------------------------------------------------- exported functions

int fxm_read_register(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id), addr,
                 fxm_retry_text_t(retry_param).text, flags);
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_read_register(card, addr, data, retry);
    };
    const int result = _fxm_card_api(call, {__func__, id, flags, FXM_NO_WRITE_LOCK},
                                     _fxm_aligned(addr) && data != nullptr, retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_READ_REGISTER, result);
}

int fxm_write_register(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, data=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id), addr, data,
                 fxm_retry_text_t(retry_param).text, flags);
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_write_register(card, addr, data, retry, flags);
    };
    const int result =
        _fxm_card_api(call, {__func__, id, flags, FXM_WRITE_LOCK}, _fxm_aligned(addr), retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_WRITE_REGISTER, result);
}

int fxm_modify_register(uint64_t id, uint32_t addr, uint32_t data, uint32_t mask, const fxm_retry_param_t *retry_param,
                        uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, data=0x%.8X, mask=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id),
                 addr, data, mask, fxm_retry_text_t(retry_param).text, flags);
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_modify_register(card, addr, data, mask, retry, flags);
    };
    const int result =
        _fxm_card_api(call, {__func__, id, flags, FXM_WRITE_LOCK}, _fxm_aligned(addr), retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_MODIFY_REGISTER, result);
}

int fxm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                      const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, startaddr=0x%.8X, endaddr=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id),
                 startaddr, endaddr, fxm_retry_text_t(retry_param).text, flags);
    const bool aligned = _fxm_aligned(startaddr) && _fxm_aligned(endaddr);
    const bool valid = _fxm_take_size(size, startaddr, endaddr) && aligned && buffer != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_dump_register(card, startaddr, endaddr, buffer, size, retry);
    };
    const int result = _fxm_card_api(call, {__func__, id, flags, FXM_NO_WRITE_LOCK}, valid, retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_DUMP_REGISTER, result);
}
