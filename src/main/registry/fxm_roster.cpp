// The rosters of the card tables. Runs under fx_lock, on any thread that holds it.
#include "registry/fxm_roster.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/fxm_platform.h"

// Room for `room` elements that begins with the first `used` ones of `*array`, which it replaces. False when memory is
// out; then `*array` stays.
template <typename Element> static bool _move_to(Element **array, size_t used, size_t room)
{
    // An array of pointers is meant, where the elements are pointers.
    auto *larger = static_cast<Element *>(_fxm_allocate(room * sizeof(Element))); // NOLINT(bugprone-sizeof-expression)
    if (larger == nullptr)
        return false;
    std::copy_n(*array, used, larger);
    free(*array);
    *array = larger;
    return true;
}

// --------------------------------------------------------------------------------------------------------- the buckets

static void _put_bucket(fxm_roster_t *roster, fxm_bucket_t bucket)
{
    uint32_t at = bucket.hash & roster->bucket_mask;
    while (roster->buckets[at].place != 0)
        at = (at + 1) & roster->bucket_mask;
    roster->buckets[at] = bucket;
}

// Keeps a quarter of the buckets free, so that a search ends after a step or two.
static bool _reserve_bucket(fxm_roster_t *roster)
{
    const uint64_t room = roster->buckets != nullptr ? uint64_t{roster->bucket_mask} + 1 : 0;
    if ((uint64_t{roster->count} + 1) * 4 <= room * 3)
        return true;
    const uint64_t larger = std::max<uint64_t>(64, room * 2);
    auto *buckets = static_cast<fxm_bucket_t *>(_fxm_allocate(larger * sizeof(fxm_bucket_t)));
    if (buckets == nullptr)
        return false;
    memset(buckets, 0, larger * sizeof(fxm_bucket_t));
    fxm_bucket_t *old = roster->buckets;
    roster->buckets = buckets;
    roster->bucket_mask = static_cast<uint32_t>(larger - 1);
    for (uint64_t i = 0; i < room; ++i) {
        if (old[i].place != 0)
            _put_bucket(roster, old[i]);
    }
    free(old);
    return true;
}

// Where the bucket of a taken seat stands.
static uint32_t _bucket_of(const fxm_roster_t *roster, uint32_t hash, uint32_t seat)
{
    uint32_t at = hash & roster->bucket_mask;
    while (roster->buckets[at].place != seat + 1)
        at = (at + 1) & roster->bucket_mask;
    return at;
}

// Frees a bucket and closes the gap: a search ends at the first free bucket.
static void _free_bucket(fxm_roster_t *roster, uint32_t at)
{
    for (uint32_t next = (at + 1) & roster->bucket_mask; roster->buckets[next].place != 0;
         next = (next + 1) & roster->bucket_mask) {
        // A bucket may move to the gap unless the gap lies before the place where its search begins.
        const uint32_t wanted = roster->buckets[next].hash & roster->bucket_mask;
        if (((next - wanted) & roster->bucket_mask) < ((next - at) & roster->bucket_mask))
            continue;
        roster->buckets[at] = roster->buckets[next];
        at = next;
    }
    roster->buckets[at] = {};
}

// ----------------------------------------------------------------------------------------------------------- the order

// The stretch in which an id stands or belongs: the last one that does not begin behind it, or else the first one.
static uint32_t _stretch_of(const fxm_roster_t *roster, uint64_t id)
{
    fxm_stretch_t **first = roster->stretches;
    fxm_stretch_t **found = std::upper_bound(first, first + roster->stretch_count, id,
                                             [](uint64_t key, const fxm_stretch_t *s) { return key < s->id[0]; });
    return found == first ? 0 : static_cast<uint32_t>(found - first - 1);
}

static uint32_t _place_in(const fxm_stretch_t *stretch, uint64_t id)
{
    return static_cast<uint32_t>(std::lower_bound(stretch->id, stretch->id + stretch->count, id) - stretch->id);
}

static void _move_ids(fxm_stretch_t *to, uint32_t to_at, const fxm_stretch_t *from, uint32_t from_at, uint32_t count)
{
    memmove(&to->id[to_at], &from->id[from_at], count * sizeof(to->id[0]));
    memmove(&to->seat[to_at], &from->seat[from_at], count * sizeof(to->seat[0]));
}

// A new, empty stretch at place `at` of the order.
static fxm_stretch_t *_insert_stretch(fxm_roster_t *roster, uint32_t at)
{
    if (roster->stretch_count == roster->stretch_room) {
        const uint32_t room = std::max(16u, roster->stretch_room * 2);
        if (!_move_to(&roster->stretches, roster->stretch_count, room))
            return nullptr;
        roster->stretch_room = room;
    }
    auto *stretch = static_cast<fxm_stretch_t *>(_fxm_allocate(sizeof(fxm_stretch_t)));
    if (stretch == nullptr)
        return nullptr;
    stretch->count = 0;
    fxm_stretch_t **end = roster->stretches + roster->stretch_count;
    std::copy_backward(roster->stretches + at, end, end + 1);
    roster->stretches[at] = stretch;
    roster->stretch_count += 1;
    return stretch;
}

// The stretch for a new id, with room for it, or null when memory is out. Ids that come in ascending order fill each
// stretch; otherwise a full one is halved.
static fxm_stretch_t *_reserve_place(fxm_roster_t *roster, uint64_t id)
{
    if (roster->stretch_count == 0)
        return _insert_stretch(roster, 0);
    const uint32_t at = _stretch_of(roster, id);
    fxm_stretch_t *stretch = roster->stretches[at];
    if (stretch->count < FXM_STRETCH)
        return stretch;
    fxm_stretch_t *next = _insert_stretch(roster, at + 1);
    if (next == nullptr || (at + 2 == roster->stretch_count && id > stretch->id[FXM_STRETCH - 1]))
        return next;
    constexpr uint32_t half = FXM_STRETCH / 2;
    _move_ids(next, 0, stretch, half, FXM_STRETCH - half);
    next->count = FXM_STRETCH - half;
    stretch->count = half;
    return id < next->id[0] ? stretch : next;
}

static void _remove_from_order(fxm_roster_t *roster, uint64_t id)
{
    const uint32_t at = _stretch_of(roster, id);
    fxm_stretch_t *stretch = roster->stretches[at];
    const uint32_t place = _place_in(stretch, id);
    stretch->count -= 1;
    _move_ids(stretch, place, stretch, place + 1, stretch->count - place);
    if (stretch->count > 0)
        return;
    free(stretch);
    std::copy(roster->stretches + at + 1, roster->stretches + roster->stretch_count, roster->stretches + at);
    roster->stretch_count -= 1;
}

// ---------------------------------------------------------------------------------------------------------- the roster

void _fxm_roster_init(fxm_roster_t *roster)
{
    *roster = {};
    roster->multiplier = (_fxm_monotonic_ns() * 0x9E3779B97F4A7C15) | 1;
}

void _fxm_roster_clear(fxm_roster_t *roster)
{
    for (uint32_t i = 0; i < roster->stretch_count; ++i)
        free(roster->stretches[i]);
    free(roster->stretches);
    free(roster->buckets);
    free(roster->seats);
    _fxm_roster_init(roster);
}

fxm_seat_t *_fxm_roster_add(fxm_roster_t *roster, void *node, fxm_watch_t watch)
{
    const uint64_t id = _fxm_node_id(node);
    if (roster->count == roster->seat_room) {
        const uint32_t room = std::max(64u, roster->seat_room * 2);
        if (!_move_to(&roster->seats, roster->count, room))
            return nullptr;
        roster->seat_room = room;
    }
    if (!_reserve_bucket(roster))
        return nullptr;
    fxm_stretch_t *stretch = _reserve_place(roster, id); // last: an empty stretch must not stay
    if (stretch == nullptr)
        return nullptr;

    const uint32_t number = roster->count++;
    roster->seats[number] = {watch, node};
    _put_bucket(roster, {_fxm_roster_hash(roster, id), number + 1});
    const uint32_t place = _place_in(stretch, id);
    _move_ids(stretch, place + 1, stretch, place, stretch->count - place);
    stretch->id[place] = id;
    stretch->seat[place] = number;
    stretch->count += 1;
    return &roster->seats[number];
}

void _fxm_roster_remove(fxm_roster_t *roster, fxm_seat_t *seat)
{
    const uint64_t id = _fxm_node_id(seat->node);
    const auto number = static_cast<uint32_t>(seat - roster->seats);
    _free_bucket(roster, _bucket_of(roster, _fxm_roster_hash(roster, id), number));
    _remove_from_order(roster, id);

    // The last seat moves to the free one, so that the seats stay without gaps.
    const uint32_t last = --roster->count;
    if (number == last)
        return;
    *seat = roster->seats[last];
    const uint64_t moved = _fxm_node_id(seat->node);
    roster->buckets[_bucket_of(roster, _fxm_roster_hash(roster, moved), last)].place = number + 1;
    fxm_stretch_t *stretch = roster->stretches[_stretch_of(roster, moved)];
    stretch->seat[_place_in(stretch, moved)] = number;
}

bool _fxm_roster_any_heard_by(const fxm_roster_t *roster, uint64_t limit)
{
    // Without an end in between, so that it runs as fast as memory is read.
    uint64_t oldest = FXM_NEVER;
    for (uint32_t i = 0; i < roster->count; ++i)
        oldest = std::min<uint64_t>(oldest, roster->seats[i].watch.oldest);
    return roster->count > 0 && oldest <= limit;
}

void _fxm_roster_ids(const fxm_roster_t *roster, uint64_t *ids)
{
    for (uint32_t i = 0; i < roster->stretch_count; ++i) {
        const fxm_stretch_t *stretch = roster->stretches[i];
        memcpy(ids, stretch->id, stretch->count * sizeof(*ids));
        ids += stretch->count;
    }
}
