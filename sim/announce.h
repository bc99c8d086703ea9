// When and where cards announce themselves. Run by the main loop and by commands.
#ifndef SIM_ANNOUNCE_H
#define SIM_ANNOUNCE_H

#include "card.h"

// Every card announces itself once in each period, at a moment of its own: spread out, the announcements of very many
// cards are an even stream and no burst.
void announce_begin(u32 period_ms);
void announce_join(card_t &card);  // from now on, besides once at the next announce_waiting
void announce_leave(card_t &card); // no more

u64 announce_due(); // when the next cards have their moment, or NEVER
void announce_run(u64 now);

// One DEVINFO or NOTIFY on those of the channels that the card has, at once.
void announce_now(card_t &card, unsigned channels, bool notify);

// Once, at the next announce_waiting, unless it is silent there.
void announce_soon(const card_t &card, unsigned channels);

// Lets those speak that are to do it soon, at the end of a command or of a whole scenario. If there are very many they
// do not all speak at once, which no receiver would stand, but have to wait for their moment in the period.
void announce_waiting();

#endif
