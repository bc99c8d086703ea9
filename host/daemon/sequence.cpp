#include "daemon/sequence.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace fxm
{

// One record of fixed size, overwritten in place: that needs no room on a full disk, and one page is written whole.
constexpr size_t RECORD = 21;                // 20 digits and a line end
constexpr uint64_t LAST = uint64_t{1} << 53; // what every reader of JSON can hold

static uint64_t from_clock() { return static_cast<uint64_t>(clock_ms()) * 1024; }

sequence_store::sequence_store(const std::filesystem::path &state_dir, logger *log) : log_(log)
{
    const std::filesystem::path file = state_dir / "sequence";
    fd_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    char text[RECORD + 1] = "";
    const ssize_t size = fd_ >= 0 ? pread(fd_, text, RECORD, 0) : -1;
    uint64_t end = 0;
    bool good = size == 0; // a new file
    if (size == static_cast<ssize_t>(RECORD)) {
        const auto [stop, error] = std::from_chars(text, text + RECORD - 1, end);
        good = error == std::errc{} && stop == text + RECORD - 1 && end < LAST;
    }
    start_ = good ? end : from_clock();
    end_ = start_ + 2 * BLOCK;
    if (fd_ < 0)
        log_->warning("cannot use {}: {}; the numbers of events come from the clock", file.string(), strerror(errno));
    else if (!good)
        log_->warning("{} is damaged; the numbers of events come from the clock", file.string());
    if (fd_ >= 0 && !write_end(end_)) {
        log_->warning("cannot write {}: {}; the numbers of events come from the clock", file.string(), strerror(errno));
        start_ = std::max(start_, from_clock());
        end_ = LAST;
    }
}

sequence_store::~sequence_store()
{
    if (fd_ >= 0)
        close(fd_);
}

bool sequence_store::write_end(uint64_t end)
{
    const std::string text = fmt::format("{:020}\n", end);
    return pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) && fdatasync(fd_) == 0;
}

void sequence_store::reserve(uint64_t last_used)
{
    if (fd_ < 0 || last_used + BLOCK < end_)
        return;
    const uint64_t end = last_used + 2 * BLOCK;
    if (write_end(end)) {
        end_ = end;
    } else if (!warned_) {
        warned_ = true;
        log_->warning("cannot reserve numbers of events: {}; after a kill, numbers may come again", strerror(errno));
    }
}

} // namespace fxm
