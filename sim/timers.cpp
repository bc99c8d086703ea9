// The timers, ordered by their times.
#include "timers.h"

#include <ctime>
#include <utility>

struct pending_t {
    u64 id;
    u64 serial;
    std::function<void(card_t &)> act;
};

static std::multimap<u64, pending_t> _timers;

u64 time_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<u64>(now.tv_sec) * 1000 * NS_PER_MS + static_cast<u64>(now.tv_nsec);
}

void timer_set(const card_t &card, u32 ms, std::function<void(card_t &)> act)
{
    _timers.emplace(time_now() + ms * NS_PER_MS, pending_t{card.id, card.serial, std::move(act)});
}

u64 timers_due() { return _timers.empty() ? NEVER : _timers.begin()->first; }

void timers_run(u64 now)
{
    // A timer may set others. One of 0 ms waits for the next round, so that timers cannot block the loop.
    while (!_timers.empty() && _timers.begin()->first <= now) {
        auto timer = _timers.extract(_timers.begin());
        card_t *card = card_find(timer.mapped().id);
        if (card && card->serial == timer.mapped().serial)
            timer.mapped().act(*card);
    }
}
