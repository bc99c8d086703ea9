// How long register accesses take and how they end. Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

namespace fxm
{

class register_timing
{
  public:
    // Upper bounds of the buckets in microseconds: from a round trip on an idle network, over one that was retried, to an
    // access that came near the end of its retries.
    static constexpr std::array<uint32_t, 10> BOUNDS = {10, 25, 50, 100, 250, 500, 1000, 10000, 100000, 1000000};
    static constexpr size_t RESULTS = 10; // FXM_API_ codes
    enum operation { read, range, write, OPERATIONS };

    // Of one operation. The durations are those of accesses that succeeded.
    struct numbers {
        std::array<uint64_t, BOUNDS.size() + 1> buckets{}; // each by itself; the last one has no bound
        uint64_t sum_us = 0;
        uint64_t count = 0;
        std::array<uint64_t, RESULTS> results{};
    };

    void add(operation kind, int result, uint64_t duration_us)
    {
        std::lock_guard guard(mutex_);
        numbers &of = numbers_[kind];
        of.results[static_cast<size_t>(result)] += 1;
        if (result != 0)
            return;
        size_t bucket = 0;
        while (bucket < BOUNDS.size() && duration_us > BOUNDS[bucket])
            ++bucket;
        of.buckets[bucket] += 1;
        of.sum_us += duration_us;
        of.count += 1;
    }

    std::array<numbers, OPERATIONS> get() const
    {
        std::lock_guard guard(mutex_);
        return numbers_;
    }

  private:
    mutable std::mutex mutex_;
    std::array<numbers, OPERATIONS> numbers_;
};

} // namespace fxm
