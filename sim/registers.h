// A card's registers: those that only keep a value, and those of the EEPROM and its lock, which do something.
#ifndef SIM_REGISTERS_H
#define SIM_REGISTERS_H

#include "card.h"

// Accesses by a frame, with everything that they set going.
u32 register_read(card_t &card, u32 address);
void register_write(card_t &card, u32 address, u32 value);

// Accesses from the command line: looking at a register changes nothing, and nobody takes notice of them.
u32 register_peek(const card_t &card, u32 address);
void register_poke(card_t &card, u32 address, u32 value);

constexpr u32 EEPROM_SIZE = 2048;
u32 eeprom_get(const card_t &card, u32 address);
void eeprom_set(card_t &card, u32 address, u32 word);

#endif
