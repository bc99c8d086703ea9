// Tags and Completions. Requests run on host threads, _fxm_recv_comp on the receive threads.
#include "access/fxm_tags.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>

#include "core/fxm_config.h"
#include "core/fxm_locks.h"
#include "core/fxm_state.h"
#include "core/fxm_undo.h"
#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"

constexpr uint32_t FXM_TAGS = 256; // whatever the configured range is: the tag itself is the index of its slot

enum fxm_cmp_state_t : uint32_t {
    FXM_CMP_IDLE = 0,     // no Completion is expected, and one that comes is dropped
    FXM_CMP_WAIT = 1,     // a request is armed; cmp_mac and cmp_port are valid
    FXM_CMP_RECEIVED = 2, // the Completion has come; cmp_data is valid
};

// One tag.
struct fxm_cmp_slot_t {
    fxm_cmp_state_t cmp_state;
    bool cmp_in_use;
    uint64_t cmp_mac;  // the Completion must come from this MAC address; bit 0 as the request was sent
    uint32_t cmp_port; // and through this port, by which the request left
    uint32_t cmp_data;

    // A Completion carries the tag but no address, so an answer that comes after its request has ended could pass for
    // the answer to the next request with that tag. A request that was sent again, or that ended without an answer, may
    // still be answered. Its tag then rests, and other tags are handed out meanwhile.
    bool cmp_resent;        // the present request has armed the slot more than once
    uint64_t cmp_waiting;   // ms that the present request waits for answers, all resends included
    uint64_t cmp_rest_from; // monotonic ns; 0: the tag does not rest
    uint64_t cmp_rest_to;
};

static struct {
    // Held for a few statements. No other lock is taken under it, no frame is sent and nothing is waited for.
    fxm_mutex_t cmp_lock{FXM_LOCK_CMP};
    uint32_t cmp_last_tag FXM_GUARDED_BY(cmp_lock); // the tag handed out last
    fxm_cmp_slot_t slots[FXM_TAGS] FXM_GUARDED_BY(cmp_lock);
    fxm_event_t cmp_event[FXM_TAGS];
} fxm_cmp_tbl;

constexpr uint64_t FXM_TAG_REST_MIN = 1000; // ms

static int _cmp_init(const char *func)
{
    int err = _fxm_mutex_init_st(&fxm_cmp_tbl.cmp_lock);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_mutex_init_st()", func);
        return err;
    }
    fxm_undo_t undo_lock([] { _fxm_mutex_destroy(&fxm_cmp_tbl.cmp_lock); });
    uint32_t made = 0;
    fxm_undo_t undo_events([&] {
        while (made > 0)
            _fxm_event_destroy(&fxm_cmp_tbl.cmp_event[--made]);
    });
    for (; made < FXM_TAGS; ++made) {
        err = _fxm_event_init(&fxm_cmp_tbl.cmp_event[made]);
        if (err != 0) {
            fxm_log_error("%s: Failed to _fxm_event_init()", func);
            return err;
        }
    }
    undo_events.keep();
    undo_lock.keep();
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    std::fill_n(fxm_cmp_tbl.slots, FXM_TAGS, fxm_cmp_slot_t{});
    fxm_cmp_tbl.cmp_last_tag = g_config.tag_min;
    return 0;
}

int _fxm_cmp_init()
{
    fxm_log_info("%s: start.", __func__);
    const int err = _cmp_init(__func__);
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

int _fxm_cmp_fini()
{
    fxm_log_info("%s: start.", __func__);
    bool armed[FXM_TAGS];
    {
        fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
        std::transform(std::begin(fxm_cmp_tbl.slots), std::end(fxm_cmp_tbl.slots), armed,
                       [](const fxm_cmp_slot_t &slot) { return slot.cmp_state == FXM_CMP_WAIT; });
    }
    for (uint32_t tag = 0; tag < FXM_TAGS; ++tag) {
        if (armed[tag])
            _fxm_event_set(&fxm_cmp_tbl.cmp_event[tag]);
    }
    for (fxm_event_t &event : fxm_cmp_tbl.cmp_event)
        _fxm_event_destroy(&event);
    _fxm_mutex_destroy(&fxm_cmp_tbl.cmp_lock);
    fxm_log_info("%s: end.", __func__);
    return 0;
}

static bool _valid(const char *func, uint32_t tag)
{
    if (tag >= g_config.tag_min && tag <= g_config.tag_max)
        return true;
    fxm_log_warn("%s: Invalid tag. tag=%d", func, static_cast<int>(tag));
    return false;
}

// Hands out a free tag.
static void _take_tag(uint32_t tag, uint64_t waiting) FXM_REQUIRES(fxm_cmp_tbl.cmp_lock)
{
    fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[tag];
    fxm_assert(!slot.cmp_in_use && slot.cmp_state == FXM_CMP_IDLE);
    slot.cmp_in_use = true;
    slot.cmp_state = FXM_CMP_IDLE;
    slot.cmp_resent = false;
    slot.cmp_waiting = waiting;
    slot.cmp_rest_from = 0;
    fxm_cmp_tbl.cmp_last_tag = tag;
}

// The free tag to hand out, or FXM_TAGS when all are in use. The search is cyclic and ends with the tag
// handed out last, so the tag of a request that has just ended is the last to be used again.
static uint32_t _find_tag() FXM_REQUIRES(fxm_cmp_tbl.cmp_lock)
{
    uint32_t last = fxm_cmp_tbl.cmp_last_tag;
    if (last < g_config.tag_min || last > g_config.tag_max)
        last = g_config.tag_min;
    uint64_t now = 0;                // read for the first resting tag only
    uint32_t most_rested = FXM_TAGS; // of the free tags that still rest
    uint32_t candidate = last;
    do {
        candidate = candidate >= g_config.tag_max ? g_config.tag_min : candidate + 1;
        const fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[candidate];
        if (slot.cmp_in_use)
            continue;
        if (slot.cmp_rest_from == 0)
            return candidate;
        if (now == 0)
            now = _fxm_monotonic_ns();
        if (now >= slot.cmp_rest_to)
            return candidate;
        if (most_rested == FXM_TAGS || slot.cmp_rest_from < fxm_cmp_tbl.slots[most_rested].cmp_rest_from)
            most_rested = candidate;
    } while (candidate != last);
    return most_rested;
}

int _fxm_get_tag(uint32_t *tag, uint64_t waiting)
{
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    const uint32_t found = _find_tag();
    if (found == FXM_TAGS) {
        fxm_log_error("%s: Can't get a tag value, because all tags are used.", __func__);
        return -1;
    }
    _take_tag(found, waiting);
    *tag = found;
    return 0;
}

// Lets the tag of a request rest for as long as the request could have waited.
static void _rest_tag(fxm_cmp_slot_t *slot) FXM_REQUIRES(fxm_cmp_tbl.cmp_lock)
{
    constexpr uint64_t ns_per_ms = 1000000;
    constexpr uint64_t longest = UINT64_MAX / 2 / ns_per_ms;
    const uint64_t rest = std::clamp(slot->cmp_waiting, FXM_TAG_REST_MIN, longest);
    slot->cmp_rest_from = _fxm_monotonic_ns();
    slot->cmp_rest_to = slot->cmp_rest_from + rest * ns_per_ms;
}

void _fxm_release_tag(uint32_t tag)
{
    if (!_valid(__func__, tag))
        return;
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[tag];
    fxm_assert(slot.cmp_in_use);
    if (slot.cmp_resent || slot.cmp_state == FXM_CMP_WAIT)
        _rest_tag(&slot);
    slot.cmp_in_use = false;
    slot.cmp_state = FXM_CMP_IDLE;
    slot.cmp_data = 0;
}

void _fxm_set_comp_recv_wait(uint32_t tag, uint64_t mac, uint32_t port)
{
    if (!_valid(__func__, tag))
        return;
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[tag];
    fxm_assert(slot.cmp_in_use);
    if (slot.cmp_state != FXM_CMP_IDLE)
        slot.cmp_resent = true;
    // An answer that came between the last look and the resend is kept.
    if (slot.cmp_state != FXM_CMP_RECEIVED)
        slot.cmp_state = FXM_CMP_WAIT;
    slot.cmp_mac = mac;
    slot.cmp_port = port;
}

int _fxm_sigwait_comp(uint32_t tag, uint32_t timeout)
{
    if (!_valid(__func__, tag))
        return EPROTO;
    // Waits in slices, so that a stop soon ends even the longest wait.
    int err = ETIMEDOUT;
    while (err == ETIMEDOUT && timeout > 0 && !_fxm_stopping()) {
        const uint32_t slice = std::min(timeout, FXM_STOP_SLICE);
        err = _fxm_event_timedwait(&fxm_cmp_tbl.cmp_event[tag], slice);
        timeout -= slice;
    }
    return err;
}

int _fxm_get_readreg(uint32_t tag, uint32_t *data)
{
    if (!_valid(__func__, tag))
        return EPROTO;
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    const fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[tag];
    if (slot.cmp_state != FXM_CMP_RECEIVED)
        return ENOENT;
    *data = slot.cmp_data;
    return 0;
}

// Stores the Completion if it is the one that the slot waits for, and returns whether it is.
static bool _accept(const char *func, uint32_t tag, uint32_t port, uint64_t mac, uint32_t data)
{
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    fxm_cmp_slot_t &slot = fxm_cmp_tbl.slots[tag];
    if (slot.cmp_state != FXM_CMP_WAIT)
        return false; // a second answer, or the answer to a request that has given up
    if (port != slot.cmp_port) {
        fxm_log_trace("%s: Completion frame is received from the port which isn't used by sending Register Read frame.",
                      func);
        return false;
    }
    if (mac != slot.cmp_mac) {
        fxm_log_trace("%s: The MAC address which isn't used by sending Register Read frame received set Completion "
                      "frame.",
                      func);
        return false;
    }
    fxm_assert(slot.cmp_in_use);
    slot.cmp_data = data;
    slot.cmp_state = FXM_CMP_RECEIVED;
    return true;
}

void _fxm_recv_comp(uint32_t tag, uint32_t port, uint64_t mac, uint32_t data)
{
    if (_valid(__func__, tag) && _accept(__func__, tag, port, mac, data))
        _fxm_event_set(&fxm_cmp_tbl.cmp_event[tag]);
}
