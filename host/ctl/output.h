// What fxmctl shows and asks: tables, colours, times, progress, and the question before a write.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fxm
{

struct output_options {
    bool json = false;
    bool ndjson = false;
    bool colour = false; // stdout is a terminal, and nobody has said no
    bool yes = false;
    bool dry_run = false;
};

// Prints columns that are as wide as their longest cell. Cells may be UTF-8.
class table
{
  public:
    explicit table(std::vector<std::string> head) : head_(std::move(head)) {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    // Columns named in `right` are aligned to the right. A cell that is a health word gets its colour.
    void print(const std::vector<std::string> &right, bool colour) const;
    size_t rows() const { return rows_.size(); }

  private:
    std::vector<std::string> head_;
    std::vector<std::vector<std::string>> rows_;
};

std::string coloured(std::string_view health, bool colour);
std::string with_commas(uint64_t number); // 12,345
std::string format_duration(int64_t ms);  // 3 d 02:11, 4 min, 0.4 s
std::string format_time(int64_t ms);      // 21:35:33.004, with the date in front if it is not today
std::string format_seconds(int64_t ms);   // the same without milliseconds
int64_t now_ms();

// A bar on stderr, if that is a terminal. Erases itself at its end.
class progress_bar
{
  public:
    explicit progress_bar(std::string title);
    ~progress_bar();
    progress_bar(const progress_bar &) = delete;
    progress_bar &operator=(const progress_bar &) = delete;
    void show(uint64_t done, uint64_t total, const char *unit);

  private:
    const std::string title_;
    const bool terminal_;
    const int64_t began_ms_;
    bool shown_ = false;
};

// Shows the target of a write and asks. Returns only if the write may go on. `typed` is what the user must type; if it is
// empty, y is enough. Without a terminal and without --yes: EXIT_USAGE, and nothing is written.
void confirm(const output_options &how, const std::string &target, const std::string &typed = "");

// Writes to stdout; a failure there is EXIT_FAILED. A closed pipe ends the program quietly.
void put(std::string_view text);
void flush();

} // namespace fxm
