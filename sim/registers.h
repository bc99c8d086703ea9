// A card's registers: ordinary memory, and the registers of the EEPROM and its lock, which have effects.
#ifndef SIM_REGISTERS_H
#define SIM_REGISTERS_H

#include "card.h"

// Accesses by a frame, with all their effects.
u32 register_read(card_t &card, u32 address);
void register_write(card_t &card, u32 address, u32 value);

// Accesses by a command: a peek has no effect, and the other holder does not notice either of them.
u32 register_peek(const card_t &card, u32 address);
void register_poke(card_t &card, u32 address, u32 value);

constexpr u32 EEPROM_SIZE = 2048;
u32 eeprom_get(const card_t &card, u32 address);
void eeprom_set(card_t &card, u32 address, u32 word);

#endif
