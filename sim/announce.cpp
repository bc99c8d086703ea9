// A wheel of slots that turns once per period. A card never changes its slot.
#include "announce.h"

#include <algorithm>

#include "frames.h"
#include "timers.h"
#include "wire.h"

// A slot is at least a millisecond, and the wheel is small enough to search it in each round of the loop.
static constexpr u32 SLOTS_MAX = 1000;

// This many announcements at once overrun no receiver.
static constexpr size_t CROWD = 64;

struct waiting_t {
    u64 id;
    unsigned channels;
};

static std::vector<std::vector<card_t *>> _slots;
static u64 _slot_width; // ns
static size_t _slot;    // the next one
static u64 _slot_due;
static constexpr u64 UNKNOWN = 0;
static u64 _due = UNKNOWN; // of the next slot that holds a card
static std::vector<waiting_t> _waiting;

void announce_begin(u32 period_ms)
{
    const u32 slots = std::min(period_ms, SLOTS_MAX);
    _slots.resize(slots);
    _slot_width = period_ms * NS_PER_MS / slots;
    _slot_due = time_now() + _slot_width;
}

// Steps of the golden section spread any number of cards evenly, whenever they are added.
static std::vector<card_t *> &_slot_of(const card_t &card)
{
    const u64 turn = static_cast<u32>(card.serial * 2654435769U);
    return _slots[static_cast<size_t>(turn * _slots.size() >> 32)];
}

void announce_join(card_t &card)
{
    _slot_of(card).push_back(&card);
    _due = UNKNOWN;
    announce_soon(card, ALL_CHANNELS);
}

void announce_leave(card_t &card)
{
    std::erase(_slot_of(card), &card);
    _due = UNKNOWN;
}

static void _queue(card_t &card, unsigned channels, bool notify)
{
    u8 frame[FRAME_ROOM];

    channels &= card_channels(card);
    for (unsigned port = 0; port < PORTS; port++)
        for (unsigned mac = 0; mac < card_macs(card); mac++)
            if (channels & channel_bit(port, mac)) {
                wire_queue(port, frame, frame_announcement(frame, card, mac, notify));
                card.counts.announced++;
            }
}

// Empty slots are skipped, so that a few cards do not keep the loop awake.
u64 announce_due()
{
    if (_due == UNKNOWN) {
        _due = NEVER;
        for (size_t i = 0; i < _slots.size() && _due == NEVER; i++)
            if (!_slots[(_slot + i) % _slots.size()].empty())
                _due = _slot_due + i * _slot_width;
    }
    return _due;
}

void announce_run(u64 now)
{
    // After a delay of more than a period, missed announcements are not caught up.
    if (_slot_due + _slot_width * _slots.size() < now)
        _slot_due = now;
    bool spoken = false;
    // Only one slot that holds cards: frames that wait for an answer come before the next slot.
    while (_slot_due <= now && !spoken) {
        for (card_t *card : _slots[_slot]) {
            _queue(*card, ALL_CHANNELS & ~card->silent, false);
            spoken = true;
        }
        _slot = (_slot + 1) % _slots.size();
        _slot_due += _slot_width;
    }
    wire_flush();
    _due = UNKNOWN;
}

void announce_now(card_t &card, unsigned channels, bool notify)
{
    _queue(card, channels, notify);
    wire_flush();
}

void announce_soon(const card_t &card, unsigned channels) { _waiting.push_back({card.id, channels}); }

void announce_waiting()
{
    if (_waiting.size() <= CROWD)
        for (const waiting_t &waiting : _waiting)
            if (card_t *card = card_find(waiting.id))
                _queue(*card, waiting.channels & ~card->silent, false);
    wire_flush();
    _waiting.clear();
}
