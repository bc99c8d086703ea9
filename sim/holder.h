// The other one who wants the EEPROM, and how he behaves towards a manager.
#ifndef SIM_HOLDER_H
#define SIM_HOLDER_H

#include "card.h"

void holder_take(card_t &card);
void holder_give(card_t &card);

// A habit takes the place of the one before. Times 0: for ever.
void holder_keep(card_t &card, u32 times);
void holder_visit(card_t &card, u32 ms, u32 times);
void holder_fight(card_t &card, u32 times);
void holder_gone(card_t &card);

// He watches the lock: called before a frame reads the register of the bit lock, and after one has written to a
// register of either lock.
void holder_sees_read(card_t &card);
void holder_sees_write(card_t &card, bool managers_before, bool others_before);

#endif
