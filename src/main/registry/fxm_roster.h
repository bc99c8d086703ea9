// A roster: what the busy paths need of every card of a class, packed closely beside the map of its nodes.
//
// - By id, for each received frame: one step through a hash table to the card's seat.
// - By seat, in the order of memory, for the keepalive pass: whether any card has a channel that may expire.
// - In ascending id order, for lists and for passes that visit nodes. The walk asks for each node's memory before it
//   gets there.
//
// A card costs about 48 bytes here. The roster owns its arrays and no node. It has no lock: the lock of the nodes guards
// it. A node must begin with its id.
#ifndef FXM_ROSTER_H
#define FXM_ROSTER_H

#include <cstddef>
#include <cstdint>

// The time of a card of which no channel can expire.
constexpr uint64_t FXM_NEVER = (uint64_t{1} << 62) - 1;

// What a pass must know of a card before it reads the node.
struct fxm_watch_t {
    uint64_t ports : 2;   // bit p: a channel of port p is up
    uint64_t oldest : 62; // ms; no channel that is up was last heard before this time
};

struct fxm_seat_t {
    fxm_watch_t watch;
    void *node;
};
static_assert(sizeof(fxm_seat_t) == 16);

// The hash of an id, and the number of its seat plus 1; 0 marks a free bucket.
struct fxm_bucket_t {
    uint32_t hash;
    uint32_t place;
};

// A stretch of the ascending order. The first ids of the stretches ascend too.
constexpr uint32_t FXM_STRETCH = 256;
struct fxm_stretch_t {
    uint32_t count; // never 0
    uint32_t seat[FXM_STRETCH];
    uint64_t id[FXM_STRETCH];
};

struct fxm_roster_t {
    uint32_t count;
    uint32_t seat_room;
    fxm_seat_t *seats; // the first `count` are taken
    fxm_bucket_t *buckets;
    uint32_t bucket_mask;
    uint32_t stretch_count;
    uint32_t stretch_room;
    fxm_stretch_t **stretches;
    uint64_t multiplier; // of the hash; differs from start to start, so nobody can choose ids that share a bucket
};

void _fxm_roster_init(fxm_roster_t *roster);
void _fxm_roster_clear(fxm_roster_t *roster); // frees everything but the nodes

// Gives the node a seat; its id must not have one. The seat, or null when memory is out; then nothing has changed.
[[nodiscard]] fxm_seat_t *_fxm_roster_add(fxm_roster_t *roster, void *node, fxm_watch_t watch);

// Takes a card out. Another card may move to its seat.
void _fxm_roster_remove(fxm_roster_t *roster, fxm_seat_t *seat);

inline uint64_t _fxm_node_id(const void *node) { return *static_cast<const uint64_t *>(node); }

inline uint32_t _fxm_roster_hash(const fxm_roster_t *roster, uint64_t id)
{
    return static_cast<uint32_t>((id * roster->multiplier) >> 32);
}

// The seat of an id, or null.
inline fxm_seat_t *_fxm_roster_find(const fxm_roster_t *roster, uint64_t id)
{
    if (roster->count == 0)
        return nullptr;
    const uint32_t hash = _fxm_roster_hash(roster, id);
    for (uint32_t at = hash & roster->bucket_mask;; at = (at + 1) & roster->bucket_mask) {
        const fxm_bucket_t bucket = roster->buckets[at];
        if (bucket.place == 0)
            return nullptr;
        if (bucket.hash != hash)
            continue;
        fxm_seat_t *seat = &roster->seats[bucket.place - 1];
        if (_fxm_node_id(seat->node) == id)
            return seat;
    }
}

// Whether any card has a channel last heard at `limit` or before.
[[nodiscard]] bool _fxm_roster_any_heard_by(const fxm_roster_t *roster, uint64_t limit);

// Copies all ids in ascending order.
void _fxm_roster_ids(const fxm_roster_t *roster, uint64_t *ids);

// Asks for the ends of a node's memory: its times and states stand first, its ignore state last.
inline void _fxm_prefetch_node(const void *node, size_t size)
{
    const auto *bytes = static_cast<const char *>(node);
    __builtin_prefetch(bytes);
    __builtin_prefetch(bytes + 64);
    __builtin_prefetch(bytes + size - 1);
}

// Visits in ascending id order the seats for which `wanted(seat)` holds. `visit(seat)` returns false to end the walk. It
// may change the seat, but neither add nor remove one.
template <typename Wanted, typename Visit>
void _fxm_roster_walk(fxm_roster_t *roster, size_t node_size, Wanted wanted, Visit visit)
{
    constexpr uint32_t ahead = 8; // nodes that are on their way from memory at once
    for (uint32_t i = 0; i < roster->stretch_count; ++i) {
        const fxm_stretch_t *stretch = roster->stretches[i];
        for (uint32_t k = 0; k < stretch->count; ++k) {
            if (k + 2 * ahead < stretch->count)
                __builtin_prefetch(&roster->seats[stretch->seat[k + 2 * ahead]]);
            if (k + ahead < stretch->count) {
                const fxm_seat_t &next = roster->seats[stretch->seat[k + ahead]];
                if (wanted(next))
                    _fxm_prefetch_node(next.node, node_size);
            }
            fxm_seat_t *seat = &roster->seats[stretch->seat[k]];
            if (wanted(*seat) && !visit(seat))
                return;
        }
    }
}

#endif
