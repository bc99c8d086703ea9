#include "ctl/output.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>

#include "ctl/client.h"

namespace fxm
{

void put(std::string_view text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size())
        throw ctl_error(EXIT_FAILED, "cannot write to the standard output");
}

void flush()
{
    if (fflush(stdout) != 0)
        throw ctl_error(EXIT_FAILED, "cannot write to the standard output");
}

std::string coloured(std::string_view health, bool colour)
{
    if (!colour)
        return std::string(health);
    const char *code = health == "well"       ? "32"
                       : health == "degraded" ? "33"
                       : health == "error"    ? "31;1"
                       : health == "lost"     ? "35"
                                              : "2";
    return fmt::format("\x1b[{}m{}\x1b[0m", code, health);
}

// Characters, not bytes.
static size_t width(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

static bool is_health(std::string_view text)
{
    return text == "well" || text == "degraded" || text == "error" || text == "lost" || text == "unmonitored";
}

void table::print(const std::vector<std::string> &right, bool colour) const
{
    std::vector<size_t> widths;
    for (const std::string &cell : head_)
        widths.push_back(width(cell));
    for (const auto &row : rows_) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], width(row[i]));
    }
    const auto line = [&](const std::vector<std::string> &row, bool is_head) {
        std::string text;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string blanks(widths[i] - width(row[i]), ' ');
            const bool to_right = std::find(right.begin(), right.end(), head_[i]) != right.end();
            const std::string shown = !is_head && is_health(row[i]) ? coloured(row[i], colour) : row[i];
            text += (i == 0 ? "" : "  ") + (to_right ? blanks + shown : shown + blanks);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        put(text + '\n');
    };
    line(head_, true);
    for (const auto &row : rows_)
        line(row, false);
}

std::string with_commas(uint64_t number)
{
    std::string text = std::to_string(number);
    for (auto at = static_cast<ptrdiff_t>(text.size()) - 3; at > 0; at -= 3)
        text.insert(static_cast<size_t>(at), ",");
    return text;
}

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string format_duration(int64_t ms)
{
    ms = std::max<int64_t>(ms, 0);
    const int64_t seconds = ms / 1000;
    if (seconds < 10)
        return fmt::format("{}.{} s", seconds, ms % 1000 / 100);
    if (seconds < 120)
        return fmt::format("{} s", seconds);
    if (seconds < 7200)
        return fmt::format("{} min", seconds / 60);
    if (seconds < 86400)
        return fmt::format("{}:{:02} h", seconds / 3600, seconds / 60 % 60);
    return fmt::format("{} d {:02}:{:02}", seconds / 86400, seconds / 3600 % 24, seconds / 60 % 60);
}

std::string format_time(int64_t ms)
{
    const auto convert = [](int64_t time) {
        const time_t seconds = time / 1000;
        tm local{};
        localtime_r(&seconds, &local);
        return local;
    };
    const tm when = convert(ms);
    const tm today = convert(now_ms());
    std::string clock = fmt::format("{:02}:{:02}:{:02}.{:03}", when.tm_hour, when.tm_min, when.tm_sec, ms % 1000);
    if (when.tm_yday == today.tm_yday && when.tm_year == today.tm_year)
        return clock;
    return fmt::format("{:04}-{:02}-{:02} {}", when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, clock);
}

std::string format_seconds(int64_t ms)
{
    const std::string exact = format_time(ms);
    return exact.substr(0, exact.rfind('.'));
}

progress_bar::progress_bar(std::string title)
    : title_(std::move(title)), terminal_(isatty(STDERR_FILENO) != 0), began_ms_(now_ms())
{
}

progress_bar::~progress_bar()
{
    if (shown_)
        fputs("\r\x1b[K", stderr);
}

void progress_bar::show(uint64_t done, uint64_t total, const char *unit)
{
    // What is over within half a second needs no bar.
    const int64_t passed = now_ms() - began_ms_;
    if (!terminal_ || total == 0 || passed < 500)
        return;
    constexpr uint64_t CELLS = 20;
    const uint64_t full = std::min(CELLS, done * CELLS / total);
    std::string left;
    if (done != 0) {
        const int64_t seconds =
            passed * static_cast<int64_t>(total - std::min(done, total)) / static_cast<int64_t>(done) / 1000;
        left = fmt::format("  {}:{:02} left", seconds / 60, seconds % 60);
    }
    fmt::print(stderr, "\r\x1b[K{} [{}{}] {:3} %  {}/{} {}{}", title_, std::string(full, '#'),
               std::string(CELLS - full, '-'), std::min<uint64_t>(100, done * 100 / total), done, total, unit, left);
    fflush(stderr);
    shown_ = true;
}

void confirm(const output_options &how, const std::string &target, const std::string &typed)
{
    if (how.yes || how.dry_run)
        return;
    if (isatty(STDIN_FILENO) == 0)
        throw ctl_error(EXIT_USAGE,
                        fmt::format("nothing was written, because there is no terminal to ask on: {}", target),
                        "say --yes to write without a question, or --dry-run to see what would happen");
    flush();
    fmt::print(stderr, "{}{}", target, typed.empty() ? "? [y/N] " : fmt::format(". Type {}: ", typed));
    std::string answer;
    std::getline(std::cin, answer);
    const bool agreed = typed.empty() ? answer == "y" || answer == "Y" || answer == "yes" : answer == typed;
    if (!agreed)
        throw ctl_error(EXIT_FAILED, "nothing was written");
}

} // namespace fxm
