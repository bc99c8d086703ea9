#include "daemon/sequence.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
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

sequence_store::sequence_store(const std::filesystem::path &state_dir, logger *log)
    : file_(state_dir / "sequence"), log_(log), tried_(std::chrono::steady_clock::now())
{
    std::string failure = open_file();
    if (failure.empty()) {
        char text[RECORD] = "";
        const ssize_t size = pread(fd_, text, RECORD, 0);
        if (size == static_cast<ssize_t>(RECORD)) {
            const auto [stop, error] = std::from_chars(text, text + RECORD - 1, start_);
            if (error != std::errc{} || stop != text + RECORD - 1 || start_ >= LAST)
                failure = "it is damaged";
        } else if (size != 0) { // 0: a new file
            failure = size < 0 ? strerror(errno) : "it is damaged";
        }
    }
    if (!failure.empty())
        start_ = from_clock();
    const std::string unwritten = write_end(start_ + 2 * BLOCK);
    if (!unwritten.empty())
        start_ = std::max(start_, from_clock());
    if (failure.empty())
        failure = unwritten;
    warned_ = !failure.empty();
    if (warned_)
        log_->warning("cannot use {}: {}; the numbers of events come from the clock", file_.string(), failure);
}

sequence_store::~sequence_store()
{
    if (fd_ >= 0)
        close(fd_);
}

// Both return the reason of a failure, or nothing.
std::string sequence_store::open_file()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    return fd_ >= 0 ? "" : strerror(errno);
}

std::string sequence_store::write_end(uint64_t end)
{
    const std::string text = fmt::format("{:020}\n", end);
    errno = EIO;
    const bool good = fd_ >= 0 && pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
                      fdatasync(fd_) == 0;
    end_ = good ? end : 0;
    return good ? "" : strerror(errno);
}

bool sequence_store::is_gone() const
{
    struct stat status {
    };
    return fd_ < 0 || (fstat(fd_, &status) == 0 && status.st_nlink == 0);
}

void sequence_store::reserve(uint64_t last_used, int64_t retry_ms)
{
    const bool gone = is_gone();
    if (!gone && last_used + BLOCK < end_)
        return;
    const auto now = std::chrono::steady_clock::now();
    const bool held = !gone && end_ != 0;
    if (!held && now - tried_ < std::chrono::milliseconds(retry_ms))
        return;
    tried_ = now;
    std::string failure = gone ? open_file() : "";
    if (failure.empty())
        failure = write_end(last_used + 2 * BLOCK);
    if (!failure.empty() && !warned_)
        log_->warning("cannot reserve numbers of events in {}: {}; after a kill, numbers may come again",
                      file_.string(), failure);
    if (failure.empty() && warned_)
        log_->warning("{} holds the numbers of events again", file_.string());
    warned_ = !failure.empty();
}

} // namespace fxm
