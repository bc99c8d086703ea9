// Register operations. Threads of the host; the EEPROM operations are built on the internal ones.
#include "access/fxm_register.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "access/fxm_tags.h"
#include "core/fxm_config.h"
#include "diag/fxm_stats.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"
#include "wire/fxm_send.h"

// ------------------------------------------------------------------------------------------------------------- front

fxm_retry_t _fxm_retry_of(const fxm_retry_param_t *retry_param)
{
    if (retry_param == nullptr)
        return {g_config.frame_retry_interval, g_config.frame_retry_count};
    return {retry_param->retry_int, retry_param->retry_cnt};
}

fxm_retry_text_t::fxm_retry_text_t(const fxm_retry_param_t *retry_param)
{
    if (retry_param == nullptr)
        snprintf(text, sizeof(text), "retry_param=NULL");
    else
        snprintf(text, sizeof(text), "retry_cnt=%u, retry_int=%u", retry_param->retry_cnt, retry_param->retry_int);
}

bool _fxm_take_size(uint64_t *size, uint32_t startaddr, uint32_t endaddr)
{
    if (size == nullptr)
        return false;
    const uint64_t capacity = *size;
    *size = 0;
    return endaddr > startaddr && capacity >= endaddr - startaddr;
}

int _fxm_copy_card(uint64_t id, fxm_card_data_t *card, uint32_t *ignore_state)
{
    fxm_fx_guard_t guard;
    return _fxm_get_fxdev_rid(id, card, ignore_state, nullptr);
}

int _fxm_apply_ignore_state(uint32_t ignore_state, uint32_t flags, fxm_card_data_t *card)
{
    if (ignore_state != FXM_IGNORE)
        return 0;
    if ((flags & FXM_FLAG_LIVECHECK) == 0)
        return ENOLINK;
    memset(card->fcd_state, 0, sizeof(card->fcd_state));
    return 0;
}

int _fxm_front_livecheck(const char *func, uint32_t flags, fxm_card_data_t *card)
{
    if ((flags & FXM_FLAG_LIVECHECK) == 0)
        return 0;
    const int err = _fxm_livecheck(card);
    if (err != 0)
        fxm_log_error("%s: Failed to _fxm_livecheck(). err=%d", func, err);
    return err;
}

// -------------------------------------------------------------------------------------------------------------- read

// Sends the request and waits for its answer, with all resends. The tag is the caller's to release.
static int _request(const fxm_card_data_t *card, uint32_t addr, uint32_t tag, uint32_t *value, uint32_t timeout,
                    uint32_t retries)
{
    for (uint32_t sent = 0;; ++sent) {
        int err = _fxm_send_regread(card, addr, tag);
        if (err != 0)
            return err;
        if (_fxm_sigwait_comp(tag, timeout) == EPROTO)
            return EPROTO;
        if (_fxm_stopping())
            return ENOSYS;
        // The state counts, not how the wait ended: an answer in the moment after the time-out is taken.
        err = _fxm_get_readreg(tag, value);
        if (err != ENOENT)
            return err;
        if (sent >= retries)
            return ETIMEDOUT;
    }
}

int _fxm_read_register(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, uint32_t timeout, uint32_t retries)
{
    uint32_t tag = 0;
    uint32_t value = 0;
    int err = EPROTO;
    if (_fxm_get_tag(&tag) == 0) {
        err = _request(card, addr, tag, &value, timeout, retries);
        _fxm_release_tag(tag);
    }
    if (err == 0)
        *data = value;
    fxm_log_trace("%s: called. ret=%d, id=0x%.12llx, addr=0x%.8X, data=0x%.8X, tag=%d", __func__, err,
                  _ull(card->fcd_id), addr, value, static_cast<int>(tag));
    return err;
}

// ------------------------------------------------------------------------------------------------- write and modify

// Writes, and reads back until the value is there.
static int _write_verified(const char *func, const fxm_card_data_t *card, uint32_t addr, uint32_t data,
                           uint32_t timeout, uint32_t retries, bool verify)
{
    for (uint32_t repeated = 0;; ++repeated) {
        int err = _fxm_send_regwrite(card, addr, data);
        if (err != 0) {
            fxm_log_error("%s: Failed to _fxm_send_regwrite(). err=%d", func, err);
            return err;
        }
        if (!verify)
            return 0;
        uint32_t value = 0;
        err = _fxm_read_register(card, addr, &value, timeout, retries);
        if (err != 0) {
            fxm_log_trace("%s: Failed to _fxm_read_register() err=%d", func, err);
            return err;
        }
        if (value == data)
            return 0;
        if (_fxm_stopping())
            return ENOSYS;
        if (repeated >= retries)
            return ETIMEDOUT;
        _fxm_sleep(g_config.register_verify_interval);
    }
}

int _fxm_write_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t timeout, uint32_t retries,
                        uint32_t flags)
{
    const bool verify = (flags & FXM_FLAG_VERIFY) != 0;
    const int err = _write_verified(__func__, card, addr, data, timeout, retries, verify);
    fxm_log_trace("%s: called. ret=%d, id=0x%.12llx, addr=0x%.8X, data=0x%.8X, flags=0x%.8X, ", __func__, err,
                  _ull(card->fcd_id), addr, data, flags);
    return err;
}

int _fxm_modify_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t mask, uint32_t timeout,
                         uint32_t retries, uint32_t flags)
{
    uint32_t value = 0;
    int err = _fxm_read_register(card, addr, &value, timeout, retries);
    if (err != 0 || ((value ^ data) & mask) == 0)
        return err;
    // Worked out once: a repeat writes the bits outside the mask as they stood at the first read.
    const uint32_t wanted = (value & ~mask) | (data & mask);
    for (uint32_t repeated = 0;; ++repeated) {
        err = _fxm_write_register(card, addr, wanted, timeout, retries, 0);
        if (err != 0 || (flags & FXM_FLAG_VERIFY) == 0)
            return err;
        err = _fxm_read_register(card, addr, &value, timeout, retries);
        if (err != 0 || ((value ^ wanted) & mask) == 0)
            return err;
        if (_fxm_stopping())
            return ENOSYS;
        if (repeated >= retries)
            return ETIMEDOUT;
        _fxm_sleep(g_config.register_verify_interval);
    }
}

// ---------------------------------------------------------------------------------------------- dump and live check

int _fxm_dump_register(const fxm_card_data_t *card, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer,
                       uint64_t *size, uint32_t timeout, uint32_t retries)
{
    int err = 0;
    *size = 0;
    // In 64 bits: an end near the top of the address range must end the walk too.
    for (uint64_t addr = startaddr; addr < endaddr; addr += sizeof(uint32_t)) {
        uint32_t value = 0;
        err = _fxm_read_register(card, static_cast<uint32_t>(addr), &value, timeout, retries);
        if (err != 0)
            break;
        *buffer++ = value;
        *size += sizeof(uint32_t);
    }
    return err;
}

int _fxm_livecheck(fxm_card_data_t *card)
{
    constexpr uint32_t probe = 0; // register 0, whatever it holds
    for (const auto &states : card->fcd_state) {
        if (states[0] == 1 || states[1] == 1)
            return 0; // the table's word is taken
    }
    const uint32_t macs = card->fcd_type != 0 ? 2 : 1;
    for (uint32_t port = 0; port < FXM_PORT_NUM && port < _fxm_config_port_num(); ++port) {
        if (fxm_ports[port].pt_link.load() == 0)
            continue;
        for (uint32_t mac = 0; mac < macs; ++mac) {
            uint32_t scratch = 0;
            card->fcd_state[port][mac] = 1;
            const int err = _fxm_read_register(card, probe, &scratch, g_config.frame_retry_interval_livecheck,
                                               g_config.frame_retry_count_livecheck);
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
        return _fxm_read_register(card, addr, data, retry.timeout, retry.retries);
    };
    const int result = _fxm_card_api(call, __func__, id, _aligned(addr) && data != nullptr, retry_param, flags,
                                     FXM_NO_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_READ_REGISTER, result);
}

int fxm_write_register(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, data=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id), addr, data,
                 fxm_retry_text_t(retry_param).text, flags);
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_write_register(card, addr, data, retry.timeout, retry.retries, flags);
    };
    const int result = _fxm_card_api(call, __func__, id, _aligned(addr), retry_param, flags, FXM_WRITE_LOCK, work);
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
        return _fxm_modify_register(card, addr, data, mask, retry.timeout, retry.retries, flags);
    };
    const int result = _fxm_card_api(call, __func__, id, _aligned(addr), retry_param, flags, FXM_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_MODIFY_REGISTER, result);
}

int fxm_dump_register(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                      const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, startaddr=0x%.8X, endaddr=0x%.8X, %s, flags=0x%.8X", __func__, _ull(id),
                 startaddr, endaddr, fxm_retry_text_t(retry_param).text, flags);
    const bool aligned = _aligned(startaddr) && _aligned(endaddr);
    const bool valid = _fxm_take_size(size, startaddr, endaddr) && aligned && buffer != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_dump_register(card, startaddr, endaddr, buffer, size, retry.timeout, retry.retries);
    };
    const int result = _fxm_card_api(call, __func__, id, valid, retry_param, flags, FXM_NO_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_DUMP_REGISTER, result);
}
