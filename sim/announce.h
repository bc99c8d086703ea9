// When and where cards announce themselves. Run by the main loop and by commands.
#ifndef SIM_ANNOUNCE_H
#define SIM_ANNOUNCE_H

#include "card.h"

// Every card announces itself once per period. The cards are spread over the period, so that the announcements of very
// many cards form an even stream instead of a burst.
void announce_begin(u32 period_ms);
void announce_join(card_t &card);  // starts it, with one announcement at the next announce_waiting
void announce_leave(card_t &card); // ends it

u64 announce_due(); // when the next cards have to announce themselves, or NEVER
void announce_run(u64 now);

// Sends one DEVINFO or NOTIFY at once, on those of the channels that the card has.
void announce_now(card_t &card, unsigned channels, bool notify);

// Has the card announce itself once at the next announce_waiting, on those channels where it is not silent.
void announce_soon(const card_t &card, unsigned channels);

// Sends what announce_soon has collected, at the end of a command or a scenario. Very many cards would overrun any
// receiver at once, so they wait for their moment in the period instead.
void announce_waiting();

#endif
