// The front of the exported operations on a card. Runs on host threads.
#include "access/fxm_operation.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/fxm_config.h"

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

int _fxm_check_step(const char *func, const char *step, int err)
{
    if (err != 0)
        fxm_log_error("%s: Failed to %s(). err=%d", func, step, err);
    return err;
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
    return _fxm_check_step(func, "_fxm_livecheck", _fxm_livecheck(card));
}
