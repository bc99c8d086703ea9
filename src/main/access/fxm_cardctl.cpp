// The commands to a card that are not register accesses: VLAN, reset, multi-root pages. They run on host threads and
// take no write lock.
#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "access/fxm_operation.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_send.h"

// With FXM_FLAG_VERIFY, waits until the card's record has the VLAN: the card confirms it only by tagging its next
// announcement with it. retry.timeout is the time that each frame is given.
static int _fxm_set_vlanid(const fxm_card_data_t *card, uint16_t vlanid, const fxm_retry_t &retry, uint32_t flags)
{
    const uint32_t poll_interval = std::min(g_config.vlan_check_interval, retry.timeout);
    int err = _fxm_send_vlanset(card, vlanid);
    if (err != 0 || (flags & FXM_FLAG_VERIFY) == 0)
        return err;
    uint64_t last_sent = _fxm_get_time_ms();
    uint32_t repeated = 0;
    for (;;) {
        if (_fxm_sleep(poll_interval) != 0)
            return ENOSYS;
        fxm_card_data_t fresh;
        uint32_t ignore_state = 0;
        if (_fxm_copy_card(card->fcd_id, &fresh, &ignore_state) != 0)
            return EPROTO; // the card was deleted meanwhile
        if (fresh.fcd_vlan_id == vlanid)
            return 0;
        const uint64_t now = _fxm_get_time_ms();
        if (now < last_sent)
            last_sent = now; // the clock was set back: do not wait for it to catch up
        if (last_sent + retry.timeout > now)
            continue;
        if (repeated >= retry.retries)
            return ETIMEDOUT;
        err = _fxm_send_vlanset(card, vlanid);
        if (err != 0)
            return err;
        last_sent = _fxm_get_time_ms();
        repeated += 1;
    }
}

int fxm_set_vlanid(uint64_t id, uint16_t vlanid, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, vlanid=%u, %s, flags=0x%.8X", __func__, _ull(id), vlanid,
                 fxm_retry_text_t(retry_param).text, flags);
    const bool valid = vlanid >= FXM_VLAN_FIRST && vlanid <= FXM_VLAN_LAST;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_set_vlanid(card, vlanid, retry, flags);
    };
    const int result = _fxm_card_api(call, {__func__, id, flags, FXM_NO_WRITE_LOCK}, valid, retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx, vlanid=%u", __func__, result, _ull(id), vlanid);
    return _fxm_stats_api(FXM_ROW_SET_VLANID, result);
}

int fxm_send_resetframe(uint64_t id, uint8_t status, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, status=0x%X, %s, flags=0x%.8X", __func__, _ull(id), status,
                 fxm_retry_text_t(retry_param).text, flags);
    // An ignored card gets no reset, whatever the flags, and nothing is retried: both arguments are only logged.
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &) { return _fxm_send_reset(card, status); };
    const int result = _fxm_card_api(call, {__func__, id, 0, FXM_NO_WRITE_LOCK}, true, nullptr, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_SEND_RESETFRAME, result);
}

// Looks the id up among the FXIO cards only: an FXSV card has no pages.
static int _write_mmspage(const char *func, uint64_t id, uint32_t page, const void *data, uint32_t flags)
{
    fxm_fxio_t fxio;
    uint32_t ignore_state = 0;
    int err = 0;
    {
        fxm_fx_guard_t guard;
        err = _fxm_get_fxio(id, &fxio, &ignore_state, FXM_TBL_RECORD | FXM_TBL_IGNORE_STATE);
    }
    fxm_card_data_t *card = &fxio.fio_card;
    if (err == 0)
        err = _fxm_apply_ignore_state(ignore_state, flags, card);
    if (err != 0)
        return err;
    if (card->fcd_ver != FXM_VER_MULTIROOT) {
        fxm_log_error("%s: The ID is not MR-FX. id=0x%.12llx", func, _ull(id));
        return ENOENT;
    }
    err = _fxm_front_livecheck(func, flags, card);
    return err != 0 ? err : _fxm_send_mms(card, page, data);
}

int fxm_write_mmspage(uint64_t id, uint32_t page, const void *data, uint32_t flags)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN). id=0x%.12llx, page=%u, flags=0x%.8X", __func__, _ull(id), page, flags);
    int err = 0;
    if (!call.running)
        err = ENOSYS;
    else if (page >= FXM_MMS_PAGES || data == nullptr)
        err = EINVAL;
    else
        err = _write_mmspage(__func__, id, page, data, flags);
    const int result = _fxm_errno_to_result(err);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_WRITE_MMSPAGE, result);
}
