// Tags and completions. Requesters run on host threads, _fxm_recv_comp on the receive threads.
#include "access/fxm_tags.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "core/fxm_config.h"
#include "core/fxm_locks.h"
#include "core/fxm_state.h"
#include "fxm_log4cxxif.h"
#include "platform/fxm_platform.h"

constexpr uint32_t FXM_TAGS = 256; // whatever the configured range: slots are indexed by the tag itself

enum fxm_cmp_state_t : uint32_t {
    FXM_CMP_IDLE = 0,     // no Completion is expected, one that comes is dropped
    FXM_CMP_WAIT = 1,     // armed: cmp_mac and cmp_port are valid
    FXM_CMP_RECEIVED = 2, // answered: cmp_data is valid
};

static struct {
    // Guards all fields below but cmp_event, for a few statements. A leaf: no other lock is taken while it is held, and
    // no frame is sent and nothing waited for.
    fxm_mutex_t cmp_lock{FXM_LOCK_CMP};
    uint32_t cmp_last_tag;
    fxm_event_t cmp_event[FXM_TAGS];
    uint32_t cmp_state[FXM_TAGS];
    uint64_t cmp_mac[FXM_TAGS]; // where the Completion must come from, bit 0 as it was asked
    uint32_t cmp_data[FXM_TAGS];
    uint32_t cmp_port[FXM_TAGS]; // the port that the Register Read left through
    uint32_t cmp_in_use[FXM_TAGS];

    // A Completion carries the tag and no address, so an answer that comes after its request has ended could pass for
    // the answer to the next request with that tag. A request that was sent again or that ended without an answer may
    // still be answered: its tag rests, and other tags are handed out meanwhile.
    bool cmp_resent[FXM_TAGS];        // the present request has armed its slot more than once
    uint64_t cmp_waited[FXM_TAGS];    // ms that the present request has granted its answers so far
    uint64_t cmp_rest_from[FXM_TAGS]; // monotonic ns; 0 the tag does not rest
    uint64_t cmp_rest_to[FXM_TAGS];
} fxm_cmp_tbl;

constexpr uint64_t FXM_TAG_REST_MIN = 1000; // ms

int _fxm_cmp_init()
{
    fxm_log_info("%s: start.", __func__);
    std::fill_n(fxm_cmp_tbl.cmp_data, FXM_TAGS, 0u);
    std::fill_n(fxm_cmp_tbl.cmp_in_use, FXM_TAGS, 0u);
    std::fill_n(fxm_cmp_tbl.cmp_state, FXM_TAGS, static_cast<uint32_t>(FXM_CMP_IDLE));
    std::fill_n(fxm_cmp_tbl.cmp_port, FXM_TAGS, 0u);
    std::fill_n(fxm_cmp_tbl.cmp_mac, FXM_TAGS, uint64_t{0});
    std::fill_n(fxm_cmp_tbl.cmp_rest_from, FXM_TAGS, uint64_t{0});
    fxm_cmp_tbl.cmp_last_tag = g_config.tag_min;

    int err = _fxm_mutex_init_st(&fxm_cmp_tbl.cmp_lock);
    if (err != 0)
        fxm_log_error("%s: Failed to _fxm_mutex_init_st()", __func__);
    for (uint32_t tag = 0; err == 0 && tag < FXM_TAGS; ++tag) {
        err = _fxm_event_init(&fxm_cmp_tbl.cmp_event[tag]);
        if (err == 0)
            continue;
        fxm_log_error("%s: Failed to _fxm_event_init()", __func__);
        while (tag-- > 0)
            _fxm_event_destroy(&fxm_cmp_tbl.cmp_event[tag]);
        _fxm_mutex_destroy(&fxm_cmp_tbl.cmp_lock);
        break;
    }
    fxm_log_info("%s: end. ret=%d", __func__, err);
    return err;
}

int _fxm_cmp_fini()
{
    fxm_log_info("%s: start.", __func__);
    uint32_t states[FXM_TAGS];
    {
        fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
        std::copy_n(fxm_cmp_tbl.cmp_state, FXM_TAGS, states);
    }
    for (uint32_t tag = 0; tag < FXM_TAGS; ++tag) {
        if (states[tag] == FXM_CMP_WAIT)
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

// Hands out a free tag. Under cmp_lock.
static void _take_tag(uint32_t tag)
{
    fxm_cmp_tbl.cmp_in_use[tag] = 1;
    fxm_cmp_tbl.cmp_state[tag] = FXM_CMP_IDLE;
    fxm_cmp_tbl.cmp_resent[tag] = false;
    fxm_cmp_tbl.cmp_waited[tag] = 0;
    fxm_cmp_tbl.cmp_rest_from[tag] = 0;
    fxm_cmp_tbl.cmp_last_tag = tag;
}

int _fxm_get_tag(uint32_t *tag)
{
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    const auto &rest_from = fxm_cmp_tbl.cmp_rest_from;
    uint32_t last = fxm_cmp_tbl.cmp_last_tag;
    if (last < g_config.tag_min || last > g_config.tag_max)
        last = g_config.tag_min;

    uint64_t now = 0;                // read for the first resting tag only
    uint32_t most_rested = FXM_TAGS; // of the free tags that still rest; FXM_TAGS none
    // Cyclic, ending with the last one: the tag of a request that has just ended is the last to be used again.
    uint32_t candidate = last;
    do {
        candidate = candidate >= g_config.tag_max ? g_config.tag_min : candidate + 1;
        if (fxm_cmp_tbl.cmp_in_use[candidate] != 0)
            continue;
        if (rest_from[candidate] != 0) {
            if (now == 0)
                now = _fxm_monotonic_ns();
            if (now < fxm_cmp_tbl.cmp_rest_to[candidate]) {
                if (most_rested == FXM_TAGS || rest_from[candidate] < rest_from[most_rested])
                    most_rested = candidate;
                continue;
            }
        }
        _take_tag(candidate);
        *tag = candidate;
        return 0;
    } while (candidate != last);
    if (most_rested != FXM_TAGS) {
        _take_tag(most_rested);
        *tag = most_rested;
        return 0;
    }
    fxm_log_error("%s: Can't get a tag value, because all tags are used.", __func__);
    return -1;
}

// Lets the tag of a request rest as long as the request would have waited. Under cmp_lock.
static void _rest_tag(uint32_t tag)
{
    constexpr uint64_t ns_per_ms = 1000000;
    constexpr uint64_t longest = UINT64_MAX / 2 / ns_per_ms;
    const uint64_t rest = std::clamp(fxm_cmp_tbl.cmp_waited[tag], FXM_TAG_REST_MIN, longest);
    fxm_cmp_tbl.cmp_rest_from[tag] = _fxm_monotonic_ns();
    fxm_cmp_tbl.cmp_rest_to[tag] = fxm_cmp_tbl.cmp_rest_from[tag] + rest * ns_per_ms;
}

void _fxm_release_tag(uint32_t tag)
{
    if (!_valid(__func__, tag))
        return;
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    // A request that has not waited was never sent.
    const bool sent = fxm_cmp_tbl.cmp_waited[tag] != 0;
    if (sent && (fxm_cmp_tbl.cmp_resent[tag] || fxm_cmp_tbl.cmp_state[tag] == FXM_CMP_WAIT))
        _rest_tag(tag);
    fxm_cmp_tbl.cmp_in_use[tag] = 0;
    fxm_cmp_tbl.cmp_state[tag] = FXM_CMP_IDLE;
    fxm_cmp_tbl.cmp_data[tag] = 0;
}

void _fxm_set_comp_recv_wait(uint32_t tag, uint64_t mac, uint32_t port)
{
    if (!_valid(__func__, tag))
        return;
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    if (fxm_cmp_tbl.cmp_state[tag] != FXM_CMP_IDLE)
        fxm_cmp_tbl.cmp_resent[tag] = true;
    // An answer that came between the last look and the resend is kept.
    if (fxm_cmp_tbl.cmp_state[tag] != FXM_CMP_RECEIVED)
        fxm_cmp_tbl.cmp_state[tag] = FXM_CMP_WAIT;
    fxm_cmp_tbl.cmp_mac[tag] = mac;
    fxm_cmp_tbl.cmp_port[tag] = port;
}

int _fxm_sigwait_comp(uint32_t tag, uint32_t timeout)
{
    if (!_valid(__func__, tag))
        return EPROTO;
    {
        fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
        fxm_cmp_tbl.cmp_waited[tag] += timeout;
    }
    // In slices, so that a stop ends the longest wait soon.
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
    if (fxm_cmp_tbl.cmp_state[tag] != FXM_CMP_RECEIVED)
        return ENOENT;
    *data = fxm_cmp_tbl.cmp_data[tag];
    return 0;
}

// Whether the Completion is the one that the slot waits for; it is taken then.
static bool _accept(const char *func, uint32_t tag, uint32_t port, uint64_t mac, uint32_t data)
{
    fxm_mutex_guard_t guard(&fxm_cmp_tbl.cmp_lock);
    if (fxm_cmp_tbl.cmp_state[tag] != FXM_CMP_WAIT)
        return false; // a second answer, or one to a request that has given up
    if (port != fxm_cmp_tbl.cmp_port[tag]) {
        fxm_log_trace("%s: Completion frame is received from the port which isn't used by sending Register Read frame.",
                      func);
        return false;
    }
    if (mac != fxm_cmp_tbl.cmp_mac[tag]) {
        fxm_log_trace("%s: The MAC address which isn't used by sending Register Read frame received set Completion "
                      "frame.",
                      func);
        return false;
    }
    fxm_cmp_tbl.cmp_data[tag] = data;
    fxm_cmp_tbl.cmp_state[tag] = FXM_CMP_RECEIVED;
    return true;
}

void _fxm_recv_comp(uint32_t tag, uint32_t port, uint64_t mac, uint32_t data)
{
    if (_valid(__func__, tag) && _accept(__func__, tag, port, mac, data))
        _fxm_event_set(&fxm_cmp_tbl.cmp_event[tag]);
}
