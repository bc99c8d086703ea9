// The log adapter, the only user of log4cxx: three loggers, a level filter in front of log4cxx's own, and printf-like
// log calls. Any thread may log under any lock: each call has its buffer on its own stack, and log4cxx serialises its
// appenders. A call that the filter stops costs one load and one comparison.
#ifndef FXM_LOG4CXXIF_H
#define FXM_LOG4CXXIF_H

#include <atomic>
#include <cstdint>

#include "fxm.h"

// The filter, 0 to 5; 3 in a fresh process, kept over a stop. Relaxed: a level change needs no order with anything.
extern std::atomic<fxm_log_level_t> g_log_level;

enum fxm_logger_t { FXM_LOGFILE, FXM_SYSLOGFILE, FXM_STATSLOGFILE };

// Configures log4cxx from the properties file below `dir`. 0 or FXM_API_EPROTO. Nothing undoes it.
[[nodiscard]] int fxm_log_init(const char *dir);

const char *_fxm_loglevel_name(fxm_log_level_t level);

// Hands a finished message to a logger.
void _fxm_output_log(fxm_logger_t logger, const char *message, fxm_log_level_t level) noexcept;

// Formats into 512 bytes, cutting what is longer, and hands it on.
void _fxm_format_log(fxm_logger_t logger, fxm_log_level_t level, const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

#define _FXM_LOG_FILTERED(logger, filter, level, ...)                                                                  \
    do {                                                                                                               \
        if (g_log_level.load(std::memory_order_relaxed) >= (filter))                                                   \
            _fxm_format_log(logger, level, __VA_ARGS__);                                                               \
    } while (0)

#define fxm_log_fatal(...) _FXM_LOG_FILTERED(FXM_LOGFILE, 0, 0, __VA_ARGS__)
#define fxm_log_error(...) _FXM_LOG_FILTERED(FXM_LOGFILE, 1, 1, __VA_ARGS__)
#define fxm_log_warn(...)  _FXM_LOG_FILTERED(FXM_LOGFILE, 2, 2, __VA_ARGS__)
#define fxm_log_info(...)  _FXM_LOG_FILTERED(FXM_LOGFILE, 3, 3, __VA_ARGS__)
#define fxm_log_debug(...) _FXM_LOG_FILTERED(FXM_LOGFILE, 4, 4, __VA_ARGS__)
#define fxm_log_trace(...) _FXM_LOG_FILTERED(FXM_LOGFILE, 5, 5, __VA_ARGS__)
#define fxm_log_sys(...)   _FXM_LOG_FILTERED(FXM_SYSLOGFILE, 3, 3, __VA_ARGS__)
#define fxm_log_stats(...) _fxm_format_log(FXM_STATSLOGFILE, 3, __VA_ARGS__) // past the filter

// uint64_t is `unsigned long` here, and the formats say %llu and %llx.
static inline unsigned long long _ull(uint64_t value) { return value; }

#endif
