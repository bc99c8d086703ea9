#include "daemon/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

namespace fxm
{

const char *word(log_level level)
{
    constexpr const char *words[] = {"error", "warning", "info", "debug"};
    return words[static_cast<size_t>(level)];
}

int64_t clock_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The service manager names device and inode of the journal's stream; stderr may have been redirected since.
static bool stderr_is_journal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    struct stat status {
    };
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

logger::logger(log_level level) : level_(level), journal_(stderr_is_journal()) {}

void logger::write(log_level level, std::string text)
{
    if (level <= level_.load(std::memory_order_relaxed))
        put(level, std::move(text));
}

void logger::audit(std::string text) { put(log_level::info, std::move(text)); }

void logger::put(log_level level, std::string text)
{
    // A text of a client or of the system must not begin a line of its own.
    for (char &c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7f)
            c = '?';
    }
    const int64_t now = clock_ms();
    std::string line;
    if (journal_) {
        constexpr int priorities[] = {3, 4, 6, 7};
        line = fmt::format("<{}>{}\n", priorities[static_cast<size_t>(level)], text);
    } else {
        const time_t seconds = now / 1000;
        tm local{};
        localtime_r(&seconds, &local);
        line =
            fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {:<7} {}\n", local.tm_year + 1900, local.tm_mon + 1,
                        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, now % 1000, word(level), text);
    }
    std::lock_guard guard(mutex_);
    // A log that cannot be written must not stop the service.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    kept_.push_back({now, level, std::move(text)});
    if (kept_.size() > KEPT)
        kept_.pop_front();
}

std::vector<log_line> logger::lines(int64_t since_ms) const
{
    std::vector<log_line> result;
    std::lock_guard guard(mutex_);
    for (const log_line &line : kept_) {
        if (line.time_ms >= since_ms)
            result.push_back(line);
    }
    return result;
}

} // namespace fxm
