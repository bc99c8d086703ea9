// Timers for late answers and for the end of the other holder's turns. Run by the main loop.
#ifndef SIM_TIMERS_H
#define SIM_TIMERS_H

#include <functional>

#include "card.h"

constexpr u64 NEVER = ~u64{0};
constexpr u64 NS_PER_MS = 1000000;

// Monotonic, in nanoseconds.
u64 time_now();

// Calls `act` after `ms` milliseconds if the card still exists then.
void timer_set(const card_t &card, u32 ms, std::function<void(card_t &)> act);

u64 timers_due(); // when the next one is, or NEVER
void timers_run(u64 now);

#endif
