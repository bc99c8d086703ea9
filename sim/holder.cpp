// The other holder acts when the lock is accessed, and by timers.
#include "holder.h"

#include "lock.h"
#include "timers.h"

static constexpr u32 FIGHT_READS = 3;
static constexpr u32 FIGHT_MS = 20;

void holder_take(card_t &card)
{
    card.holder.turn++;
    lock_take(card, LOCK_OTHER);
}

void holder_give(card_t &card)
{
    card.holder.turn++;
    lock_give(card, LOCK_OTHER);
}

static void _take_for(card_t &card, u32 ms)
{
    holder_take(card);
    timer_set(card, ms, [turn = card.holder.turn](card_t &later) {
        if (later.holder.turn == turn)
            holder_give(later);
    });
}

static void _habit(card_t &card, decltype(holder_t::habit) habit, u32 times)
{
    card.holder.habit = habit;
    card.holder.for_ever = times == 0;
    card.holder.left = times;
    card.holder.reads_left = 0;
}

static bool _once_more(holder_t &holder)
{
    if (holder.for_ever)
        return true;
    if (holder.left == 0)
        return false;
    holder.left--;
    return true;
}

void holder_keep(card_t &card, u32 times)
{
    _habit(card, holder_t::KEEP, times);
    holder_take(card);
}

void holder_visit(card_t &card, u32 ms, u32 times)
{
    _habit(card, holder_t::VISIT, times);
    card.holder.ms = ms;
}

void holder_fight(card_t &card, u32 times) { _habit(card, holder_t::FIGHT, times); }

void holder_gone(card_t &card)
{
    _habit(card, holder_t::QUIET, 0);
    holder_give(card);
}

void holder_sees_read(card_t &card)
{
    holder_t &holder = card.holder;
    if (holder.reads_left > 0 && --holder.reads_left == 0 && _once_more(holder))
        _take_for(card, FIGHT_MS);
}

void holder_sees_write(card_t &card, bool managers_before, bool others_before)
{
    holder_t &holder = card.holder;
    const bool managers = lock_has(card, LOCK_MANAGER);
    const bool others = lock_has(card, LOCK_OTHER);

    if (holder.habit == holder_t::KEEP && others_before && !others && _once_more(holder))
        holder_take(card);
    if (holder.habit == holder_t::VISIT && managers_before && !managers && !others && _once_more(holder))
        _take_for(card, holder.ms);
    // A manager that gives up before the third read has had no fight.
    if (holder.habit == holder_t::FIGHT && managers_before != managers)
        holder.reads_left = managers ? FIGHT_READS : 0;
}
