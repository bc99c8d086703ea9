// The other holder: another manager that wants the EEPROM, and how it behaves.
#ifndef SIM_HOLDER_H
#define SIM_HOLDER_H

#include "card.h"

void holder_take(card_t &card);
void holder_give(card_t &card);

// A new habit replaces the previous one. `times` 0 means for ever.
void holder_keep(card_t &card, u32 times);
void holder_visit(card_t &card, u32 ms, u32 times);
void holder_fight(card_t &card, u32 times);
void holder_gone(card_t &card);

// The other holder watches the lock. Call these before a frame reads the register of the bit lock, and after a frame
// has written to a register of either lock.
void holder_sees_read(card_t &card);
void holder_sees_write(card_t &card, bool managers_before, bool others_before);

#endif
