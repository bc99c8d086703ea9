// fxmd's own log: lines on stderr, with the priority that the journal understands when stderr goes there, and the last
// 1,000 of them in memory for the API. Any thread.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace fxm
{

enum class log_level : int { error, warning, info, debug };
const char *word(log_level level);

struct log_line {
    int64_t time_ms;
    log_level level;
    std::string text;
};

class logger
{
  public:
    explicit logger(log_level level);

    template <typename... Args> void error(fmt::format_string<Args...> form, Args &&...args)
    {
        write(log_level::error, fmt::format(form, std::forward<Args>(args)...));
    }
    template <typename... Args> void warning(fmt::format_string<Args...> form, Args &&...args)
    {
        write(log_level::warning, fmt::format(form, std::forward<Args>(args)...));
    }
    template <typename... Args> void info(fmt::format_string<Args...> form, Args &&...args)
    {
        write(log_level::info, fmt::format(form, std::forward<Args>(args)...));
    }
    template <typename... Args> void debug(fmt::format_string<Args...> form, Args &&...args)
    {
        if (level_.load(std::memory_order_relaxed) == log_level::debug)
            write(log_level::debug, fmt::format(form, std::forward<Args>(args)...));
    }
    void write(log_level level, std::string text);
    void audit(std::string text); // a write to a card: at any level

    void set_level(log_level level) { level_ = level; }

    // The lines that are kept, not older than `since_ms`.
    std::vector<log_line> lines(int64_t since_ms) const;

  private:
    void put(log_level level, std::string text);

    static constexpr size_t KEPT = 1000;

    std::atomic<log_level> level_;
    const bool journal_;
    mutable std::mutex mutex_; // guards kept_ and the order on stderr
    std::deque<log_line> kept_;
};

int64_t clock_ms(); // wall clock

} // namespace fxm
