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
    // Upper bounds of the buckets in microseconds: from a round trip on an idle network to a read that was retried.
    static constexpr std::array<uint32_t, 10> BOUNDS = {50, 100, 250, 500, 1000, 5000, 25000, 100000, 500000, 2000000};
    static constexpr size_t RESULTS = 10; // FXM_API_ codes
    enum operation { read, write, OPERATIONS };

    struct numbers {
        std::array<uint64_t, BOUNDS.size() + 1> buckets{}; // of successful reads
        uint64_t sum_us = 0;
        uint64_t count = 0;
        std::array<std::array<uint64_t, RESULTS>, OPERATIONS> results{};
    };

    void add(operation kind, int result, uint64_t duration_us)
    {
        std::lock_guard guard(mutex_);
        numbers_.results[kind][static_cast<size_t>(result)] += 1;
        if (kind != read || result != 0)
            return;
        size_t bucket = 0;
        while (bucket < BOUNDS.size() && duration_us > BOUNDS[bucket])
            ++bucket;
        numbers_.buckets[bucket] += 1;
        numbers_.sum_us += duration_us;
        numbers_.count += 1;
    }

    numbers get() const
    {
        std::lock_guard guard(mutex_);
        return numbers_;
    }

  private:
    mutable std::mutex mutex_;
    numbers numbers_;
};

} // namespace fxm
