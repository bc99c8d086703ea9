// Both kinds of lock. The bit lock is a register like any other; the arbiter keeps a queue.
#include "lock.h"

#include <algorithm>

static constexpr u32 REG_LOCK_OWNER = 0x5200;   // written to ask, reads as the bit of the owner
static constexpr u32 REG_LOCK_RELEASE = 0x5204; // written to remove holders
static constexpr u32 REG_LOCK_PENDING = 0x5208; // reads as the bits of all holders that have asked

bool lock_has(const card_t &card, u32 holder)
{
    if (card.lock == BIT_LOCK)
        return (card_register(card, REG_LOCK_BITS) & holder) != 0;
    return std::find(card.arbiter.begin(), card.arbiter.end(), holder) != card.arbiter.end();
}

void lock_take(card_t &card, u32 holder)
{
    if (card.lock == BIT_LOCK)
        card.registers[REG_LOCK_BITS] |= holder;
    else if (!lock_has(card, holder))
        card.arbiter.push_back(holder);
}

void lock_give(card_t &card, u32 holder)
{
    if (card.lock == BIT_LOCK)
        card.registers[REG_LOCK_BITS] &= ~holder;
    else
        std::erase(card.arbiter, holder);
}

bool lock_is_managers_alone(const card_t &card)
{
    if (card.lock == BIT_LOCK)
        return (card_register(card, REG_LOCK_BITS) & (LOCK_MANAGER | LOCK_OTHER)) == LOCK_MANAGER;
    return !card.arbiter.empty() && card.arbiter.front() == LOCK_MANAGER;
}

bool arbiter_has_register(const card_t &card, u32 address)
{
    return card.lock == ID_LOCK && address >= REG_LOCK_OWNER && address <= REG_LOCK_PENDING;
}

bool lock_has_register(const card_t &card, u32 address)
{
    return card.lock == BIT_LOCK ? address == REG_LOCK_BITS : arbiter_has_register(card, address);
}

u32 arbiter_peek(const card_t &card, u32 address)
{
    u32 value = 0;
    if (address == REG_LOCK_OWNER && !card.arbiter.empty())
        value = card.arbiter.front();
    if (address == REG_LOCK_PENDING)
        for (u32 holder : card.arbiter)
            value |= holder;
    return value;
}

void arbiter_poke(card_t &card, u32 address, u32 value)
{
    if (address == REG_LOCK_OWNER)
        for (u32 bit = 1; bit != 0; bit <<= 1)
            if (value & bit)
                lock_take(card, bit);
    if (address == REG_LOCK_RELEASE)
        std::erase_if(card.arbiter, [value](u32 holder) { return (holder & value) != 0; });
}
