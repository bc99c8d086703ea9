// The filter of the log at run time. Host threads, and fxm_init_manager once a start.
#include "core/fxm_loglevel.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"

void _fxm_set_loglevel(fxm_log_level_t level)
{
    if (level == FXM_LOG_CONFIGURED)
        level = static_cast<fxm_log_level_t>(g_config.log_level);
    fxm_log_info("%s: Set loglevel. old=%d, new=%d", __func__, g_log_level.load(), level);
    g_log_level.store(level);
}

bool _fxm_loglevel_valid(int32_t level) { return level >= FXM_LOG_CONFIGURED && level <= FXM_LOG_TRACE; }

int fxm_set_loglevel(int32_t log_level)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) log_level=%d", __func__, log_level);
    int result = FXM_API_SUCCESS;
    if (!call.running)
        result = FXM_API_ENOSYS;
    else if (!_fxm_loglevel_valid(log_level))
        result = FXM_API_EINVAL;
    else
        _fxm_set_loglevel(log_level);
    fxm_log_info("%s: (OUT) ret=%d, g_log_level=%d", __func__, result, g_log_level.load());
    return _fxm_stats_api(FXM_ROW_SET_LOGLEVEL, result);
}
