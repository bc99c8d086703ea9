// The log adapter. log4cxx reports by exceptions; none of them leaves this file.
#include "fxm_log4cxxif.h"

#include <log4cxx/file.h>
#include <log4cxx/helpers/exception.h>
#include <log4cxx/helpers/messagebuffer.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/propertyconfigurator.h>
#include <log4cxx/spi/location/locationinfo.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <type_traits>

#include "fxm.h"
#include "platform/fxm_platform.h"

std::atomic<fxm_log_level_t> g_log_level{FXM_LOG_INFO};

// A process may exit without a stop, while workers and calls still log. The exit destroys log4cxx, so every use of it
// passes this door. Both words are sequentially consistent: a user counts itself in and then reads whether the door is
// open, the exit closes the door and then reads the count, and one of the two must see the other.
static std::atomic<bool> door_open{true};
static std::atomic<uint32_t> users_inside{0};

struct fxm_log_user_t {
    fxm_log_user_t()
    {
        users_inside.fetch_add(1);
        admitted = door_open.load();
    }
    ~fxm_log_user_t() { users_inside.fetch_sub(1); }
    fxm_log_user_t(const fxm_log_user_t &) = delete;
    fxm_log_user_t &operator=(const fxm_log_user_t &) = delete;
    bool admitted;
};

// Waits until the users inside have left, one second at most: a user that hangs in a blocked write must not hold up the
// exit.
static void _close_door()
{
    constexpr int longest = 1000;
    door_open.store(false);
    for (int ms = 0; ms < longest && users_inside.load() != 0; ++ms)
        Sleep(1);
}

// log4cxx makes some of its objects when they are first used, and the exit destroys the last made first. The door must
// close before all of them. So its closing is registered again after the first line of each logger and level, when
// everything that such a line needs has been made.
static void _close_door_first(fxm_logger_t logger, fxm_log_level_t level)
{
    static std::atomic<uint32_t> seen{0};
    const uint32_t bit = 1u << (logger * (FXM_LOG_TRACE + 1) + level);
    if ((seen.load(std::memory_order_relaxed) & bit) == 0 && (seen.fetch_or(bit) & bit) == 0)
        std::atexit(_close_door);
}

// Looked up while the library is loaded, released when the process exits. The levels are made here too, so that the first
// line of a level cannot race with the exit.
static struct fxm_loggers_t {
    log4cxx::LoggerPtr logger[3] = {log4cxx::Logger::getLogger("logfile"), log4cxx::Logger::getLogger("syslogfile"),
                                    log4cxx::Logger::getLogger("statslogfile")};
    log4cxx::LevelPtr level[6] = {log4cxx::Level::getFatal(), log4cxx::Level::getError(), log4cxx::Level::getWarn(),
                                  log4cxx::Level::getInfo(),  log4cxx::Level::getDebug(), log4cxx::Level::getTrace()};
    ~fxm_loggers_t() { _close_door(); }
} loggers;

// Set when fxm_log_init has configured log4cxx. A host may have configured it for its own use before that.
static std::atomic<bool> configured{false};

// Whether a line has an appender to go to. log4cxx prints a complaint on stderr about one that has not.
static bool _has_appender(log4cxx::LoggerPtr logger)
{
    if (configured.load(std::memory_order_relaxed))
        return true;
    for (; logger != nullptr; logger = logger->getParent()) {
        if (!logger->getAllAppenders().empty())
            return true;
    }
    return false;
}

constexpr size_t FXM_LOG_BUFFER = 512;

const char *_fxm_loglevel_name(fxm_log_level_t level)
{
    static const char *const names[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
    return level >= FXM_LOG_FATAL && level <= FXM_LOG_TRACE ? names[level] : "";
}

// The location for log4cxx: always this adapter, with a fixed line for each level. log4cxx 1.0 has added an argument for
// the file's short name.
template <typename Location> static Location _location(const char *function, int line)
{
    static const char *const file = "src\\main\\fxm_log4cxxif";
    if constexpr (std::is_constructible_v<Location, const char *, const char *, const char *, int>)
        return Location(file, "fxm_log4cxxif", function, line);
    else
        return Location(file, function, line);
}

void _fxm_output_log(fxm_logger_t logger, const char *message, fxm_log_level_t level) noexcept
try {
    using log4cxx::Logger;
    static constexpr bool (Logger::*is_enabled[])()
        const = {&Logger::isFatalEnabled, &Logger::isErrorEnabled, &Logger::isWarnEnabled,
                 &Logger::isInfoEnabled,  &Logger::isDebugEnabled, &Logger::isTraceEnabled};
    const fxm_log_user_t user;
    if (!user.admitted || level < FXM_LOG_FATAL || level > FXM_LOG_TRACE)
        return;
    Logger &target = *loggers.logger[logger];
    if (!_has_appender(loggers.logger[logger]) || !(target.*is_enabled[level])())
        return;
    log4cxx::helpers::MessageBuffer text;
    target.forcedLog(loggers.level[level], text.str(text << message),
                     _location<log4cxx::spi::LocationInfo>(__PRETTY_FUNCTION__, level + 1));
    _close_door_first(logger, level);
} catch (...) {
    // A log that cannot be written is no reason to stop, and there is nobody left to report to.
}

void _fxm_format_log(fxm_logger_t logger, fxm_log_level_t level, const char *format, ...) noexcept
{
    char message[FXM_LOG_BUFFER];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    _fxm_output_log(logger, message, level);
}

int fxm_log_init(const char *dir)
{
    char path[FXM_PATH_SIZE];
    if (!_fxm_path_below(dir, "conf/fxm_log4c_win.properties", path) || _fxm_file_exist(path) != 0)
        return FXM_API_EPROTO;
    try {
        log4cxx::PropertyConfigurator::configure(log4cxx::File(path));
        configured.store(true, std::memory_order_relaxed);
        fxm_log_info("%s: Log initialize is done. logconfig_filepath:%s", __func__, dir != nullptr ? dir : "(null)");
    } catch (const std::exception &) {
        // A broken properties file leaves logging as log4cxx left it; the library runs all the same.
    }
    return 0;
}
