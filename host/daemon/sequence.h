// The numbers of events rise for ever, also across a kill and a full disk. A file holds the end of a reserved block of
// numbers; a start goes on behind it, so a number that has been given out never comes again.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "daemon/log.h"

namespace fxm
{

class sequence_store
{
  public:
    static constexpr uint64_t BLOCK = 65536;

    // Uses the file `sequence` below `state_dir`. If it cannot be used, the numbers come from the clock, which is far above
    // any number of a file, with a warning.
    sequence_store(const std::filesystem::path &state_dir, logger *log);
    ~sequence_store();
    sequence_store(const sequence_store &) = delete;
    sequence_store &operator=(const sequence_store &) = delete;

    uint64_t start() const { return start_; } // all numbers of this run are above it

    // Called now and then by one thread with the last number in use; reserves the next block in time. A file that could
    // not be used, or is gone, is tried again every `retry_ms`.
    void reserve(uint64_t last_used, int64_t retry_ms = 10000);

  private:
    std::string open_file();
    std::string write_end(uint64_t end);
    bool is_gone() const;

    const std::filesystem::path file_;
    logger *log_;
    int fd_ = -1;
    uint64_t start_ = 0;
    uint64_t end_ = 0; // as the file has it; 0: it has none
    std::chrono::steady_clock::time_point tried_;
    bool warned_ = false;
};

} // namespace fxm
