// The lock that guards a card's EEPROM: a register with one bit for each holder, or an arbiter that serves holders in
// the order in which they ask. A holder is named by its bit.
#ifndef SIM_LOCK_H
#define SIM_LOCK_H

#include "card.h"

constexpr u32 LOCK_MANAGER = 4;
constexpr u32 LOCK_OTHER = 8;

bool lock_has(const card_t &card, u32 holder); // with the arbiter also true while the holder waits
void lock_take(card_t &card, u32 holder);
void lock_give(card_t &card, u32 holder);
bool lock_is_managers_alone(const card_t &card);

constexpr u32 REG_LOCK_BITS = 0x50f0; // bit lock: a bit for each holder
constexpr u32 REG_LOCK_TYPE = 0x520c; // bit 0: 1 with the arbiter

// Whether the register belongs to the lock that this card has. The type register belongs to neither.
bool lock_has_register(const card_t &card, u32 address);

// Registers of the arbiter. On a card without one they are ordinary memory.
bool arbiter_has_register(const card_t &card, u32 address);
u32 arbiter_peek(const card_t &card, u32 address);
void arbiter_poke(card_t &card, u32 address, u32 value);

#endif
