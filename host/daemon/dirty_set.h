// The cards of which the library has reported a change that the model has not looked at yet. The library's event thread
// marks, the model takes. It holds at most one entry for each card, so a slow model cannot make it grow.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace fxm
{

struct dirty_card {
    uint32_t kinds = 0;     // bit N: an event of the kind N
    uint32_t events = 0;    // of all kinds
    uint8_t interrupts = 0; // all bits that the vector showed when an event said so
};

class dirty_set
{
  public:
    using cards = std::unordered_map<uint64_t, dirty_card>;
    static constexpr size_t MANY = 4096; // so many cards are looked at before the tick is over
    static constexpr auto TICK = std::chrono::milliseconds(20);

    void mark(uint64_t id, uint32_t kind, uint8_t interrupts)
    {
        std::lock_guard guard(mutex_);
        dirty_card &card = cards_[id];
        card.kinds |= 1u << kind;
        card.events += 1;
        card.interrupts = static_cast<uint8_t>(card.interrupts | interrupts);
        if (cards_.size() == 1 || cards_.size() == MANY)
            marked_.notify_one();
    }

    // Waits for the first mark, at most `timeout`, and then for the end of the tick. May return none.
    cards take(std::chrono::milliseconds timeout)
    {
        std::unique_lock guard(mutex_);
        if (marked_.wait_for(guard, timeout, [this] { return !cards_.empty() || woken_; }) && !woken_)
            marked_.wait_for(guard, TICK, [this] { return cards_.size() >= MANY || woken_; });
        woken_ = false;
        return std::exchange(cards_, {});
    }

    // Ends a wait.
    void wake()
    {
        {
            std::lock_guard guard(mutex_);
            woken_ = true;
        }
        marked_.notify_one();
    }

  private:
    std::mutex mutex_;
    std::condition_variable marked_;
    cards cards_;
    bool woken_ = false;
};

} // namespace fxm
