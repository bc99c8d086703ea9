// Reading, checking and dispatching of received frames. Runs on the receive threads.
#include "wire/fxm_recv.h"

#include <cerrno>
#include <cstdint>
#include <iterator>

#include "access/fxm_tags.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_devinfo.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_port.h"

fxm_wait_source_t fxm_recv_source[FXM_PORT_NUM];

static const fxm_frame_kind_t frame_kinds[] = {
    {"1G/10G DEVINFO", FXM_STATS_R_DEV, FXM_SUBTYPE_DEVINFO, false},
    {"1G/10G NOTIFY", FXM_STATS_R_NOTI, FXM_SUBTYPE_NOTIFY, false},
    {"40G DEVINFO", FXM_STATS_R_DEV40, FXM_SUBTYPE_DEVINFO40, true},
    {"40G NOTIFY", FXM_STATS_R_NOTI40, FXM_SUBTYPE_NOTIFY40, true},
    {"Completion", FXM_STATS_R_COMP, FXM_SUBTYPE_COMP, false},
};

const fxm_frame_kind_t *_fxm_frame_kind(uint8_t subtype)
{
    for (const fxm_frame_kind_t &kind : frame_kinds) {
        if (kind.subtype == subtype)
            return &kind;
    }
    return nullptr;
}

// The least length of a frame by kind, host and low nibble of the second status byte. Every frame has these bytes: they
// lie within the first 28.
static uint32_t _min_length(const fxm_frame_kind_t &kind, const uint8_t *frame)
{
    if (kind.subtype == FXM_SUBTYPE_COMP)
        return FXM_LEN_MIN;
    switch (u8(frame, DEV_HOST)) {
    case FXM_HOST_FXSV:
        return kind.is_40g ? FXM_LEN_FXSV40 : FXM_LEN_FXSV;
    case FXM_HOST_FXIO:
        return (u8(frame, DEV_STATUS2) & FXM_STATUS2_VER) == FXM_VER_MULTIROOT ? FXM_LEN_FXIO_MR : FXM_LEN_FXIO;
    default:
        return FXM_LEN_MIN;
    }
}

// The priority bits of a TCI, where they stand in its first byte.
static uint8_t _priority(const uint8_t *frame, be16_at tci) { return frame[tci.at] & FXM_PRIORITY_MASK; }

static int _check_tagged(const char *func, const uint8_t *frame)
{
    const uint8_t pri = _priority(frame, ETH_TAG_TCI);
    if (pri != FXM_PRIORITY) {
        fxm_log_trace("%s: priority is not 100(bit). pri=0x%.2X", func, pri);
        return -1;
    }
    const uint16_t type = be16(frame, ETH_TAG_TYPE);
    if (type != g_config.ether_type) {
        fxm_log_trace("%s: Ether type is mismatch. type=0x%.4X", func, type);
        return -1;
    }
    return 0;
}

static int _check_change(const char *func, const uint8_t *frame)
{
    const uint16_t type = be16(frame, ETH_CHANGE_TYPE);
    if (type != g_config.ether_type) {
        fxm_log_trace("%s: Ether type is mismatch.(VlanTag change mode) type=0x%.4X", func, type);
        return -1;
    }
    const uint16_t tpid = be16(frame, ETH_CHANGE_TPID);
    if (tpid != FXM_TPID) {
        fxm_log_trace("%s: TPID type is mismatch.(VlanTag change mode) tpid=0x%.4X", func, tpid);
        return -1;
    }
    const uint8_t pri = _priority(frame, ETH_CHANGE_TCI);
    if (pri != FXM_PRIORITY) {
        fxm_log_trace("%s: priority is not 100(bit).(VlanTag change mode) pri=0x%.2X", func, pri);
        return -1;
    }
    return 0;
}

int _check_frame(const uint8_t *frame, uint32_t length, uint8_t *mode)
{
    if (length < FXM_LEN_MIN) {
        fxm_log_trace("%s: Recv size is too short. len=%llu", __func__, _ull(length));
        return -1;
    }
    const bool tagged = be16(frame, ETH_TAG_TPID) == FXM_TPID;
    if ((tagged ? _check_tagged(__func__, frame) : _check_change(__func__, frame)) != 0)
        return -1;
    *mode = tagged ? FXM_VLAN_MODE_NORMAL : FXM_VLAN_MODE_CHANGE;

    const uint8_t subtype = u8(frame, FRAME_SUBTYPE);
    const fxm_frame_kind_t *kind = _fxm_frame_kind(subtype);
    if (kind == nullptr) {
        fxm_log_trace("%s: Subtype is mismatch. subtype=0x%.2X", __func__, subtype);
        return -1;
    }

    const uint32_t least = _min_length(*kind, frame);
    if (length < least) {
        fxm_log_trace("%s: Recv size is not enough. subtype=0x%.2X, recv_size=%llu, msg_size=%llu", __func__, subtype,
                      _ull(length), _ull(least));
        return -1;
    }

    // A card of the 40G generation announces itself in the 40G form only.
    const uint32_t ver = u8(frame, DEV_VER);
    if (subtype != FXM_SUBTYPE_COMP && !kind->is_40g && ver != 0) {
        fxm_log_trace("%s: Drop %s to send from (ver=%u) FX card.", __func__, kind->name, ver);
        return -1;
    }
    return 0;
}

static void _fxm_recv_completion(uint32_t port, const uint8_t *frame)
{
    _fxm_recv_comp(u8(frame, COMP_TAG), port, mac48(frame, ETH_SRC), le32(frame, COMP_DATA));
}

// One call of _fxm_recv_frame.
struct reading_t {
    const char *func;
    uint32_t port;
    bool woken;                               // the lines of the wake for the next frame have been written
    uint32_t handled[std::size(frame_kinds)]; // frames by kind, not yet counted
};

// A frame that has passed _check_frame. It counts when its handler is done, whatever that did with it.
static void _dispatch_frame(reading_t *reading, const uint8_t *frame, uint8_t mode)
{
    const uint8_t subtype = u8(frame, FRAME_SUBTYPE);
    const fxm_frame_kind_t *kind = _fxm_frame_kind(subtype);
    if (kind == nullptr) {
        fxm_log_trace("%s: Unknown frame is received. subtype=%.2X", __func__, subtype);
        return;
    }
    fxm_log_trace("%s: %s is received.", __func__, kind->name);
    if (subtype == FXM_SUBTYPE_COMP)
        _fxm_recv_completion(reading->port, frame);
    else
        _fxm_recv_devinfo(reading->port, frame, mode);
    reading->handled[kind - frame_kinds] += 1;
}

// Adds what has been handled to the counters: one lock for all frames of a wake.
static void _count_handled(const reading_t &reading)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    uint64_t(&counters)[FXM_STATS_FRAMES] = g_stats.port_frames[reading.port];
    for (size_t i = 0; i < std::size(frame_kinds); ++i) {
        counters[frame_kinds[i].counter] += reading.handled[i];
        counters[FXM_STATS_R_TOTAL] += reading.handled[i];
    }
}

// A frame that has been read: drops it or handles it to the end.
static void _carry_frame(reading_t *reading, const uint8_t *frame, uint32_t length)
{
    if (g_start_flag.load() != FXM_ON) {
        fxm_log_trace("%s: Drop packet because start flag is not set. port_num=%u", reading->func, reading->port);
        return;
    }
    uint8_t mode = FXM_VLAN_MODE_NORMAL;
    if (_check_frame(frame, length, &mode) == 0)
        _dispatch_frame(reading, frame, mode);
    fxm_log_trace("%s: end. port_num=%u, ret=%d", reading->func, reading->port, 0);
}

// The first line belongs to the wait, and has its name.
static void _log_wake(const reading_t &reading)
{
    fxm_log_trace("%s: WaitForMultipleObjects() catch recv-event. port_num=%u", "_fxm_recv_win", reading.port);
    fxm_log_trace("%s: start. port_num=%u, ret=%d", reading.func, reading.port, 0);
}

// The length is that on the wire. The captured part of a frame is as long as any check or handler needs.
static void _take_frame(u_char *arg, const pcap_pkthdr *header, const u_char *frame)
{
    auto *reading = reinterpret_cast<reading_t *>(arg);
    if (!reading->woken)
        _log_wake(*reading);
    reading->woken = false;
    _carry_frame(reading, frame, header->len);
}

// 0, ETIMEDOUT when the capture held no frame, or EPROTO.
static int _fxm_recv_pcap(reading_t *reading)
{
    pcap_t *handle = fxm_ports[reading->port].pt_pcap;
    const int rc = pcap_dispatch(handle, FXM_RECV_MOST, _take_frame, reinterpret_cast<u_char *>(reading));
    if (rc != 0)
        _count_handled(*reading);
    _fxm_capture_read_done(handle, &fxm_recv_source[reading->port], rc == FXM_RECV_MOST);
    if (rc > 0)
        return 0;
    if (rc == 0)
        return ETIMEDOUT;
    if (rc == -1)
        fxm_log_fatal("%s: Failed to pcap_next_ex().", __func__);
    else
        fxm_log_error("%s: Failed to pcap_next_ex(). err = %d", __func__, rc);
    return EPROTO;
}

int _fxm_recv_frame(uint32_t port)
{
    fxm_assert(port < FXM_PORT_NUM);
    reading_t reading = {__func__, port, true, {}};
    _log_wake(reading);
    switch (_fxm_recv_pcap(&reading)) {
    case 0:
        return 0;
    case ETIMEDOUT:
        fxm_log_debug("%s: _fxm_recv_pcap() returned ETIMEDOUT. port_num=%u", __func__, port);
        return 0;
    default:
        fxm_log_error("%s: Failed to _fxm_recv_pcap(). port_num=%u", __func__, port);
        return -1;
    }
}

void *_fxm_recv_task(void *arg)
{
    const auto port = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    const fxm_port_t &record = fxm_ports[port];
    // This thread does little for each frame, and others wait for it. A thread that it wakes must not preempt it.
    _fxm_thread_prompt();
    fxm_log_info("%s: start. if_index=%u, mac=%.12llx", __func__, record.pt_if_index, _ull(record.pt_mac));
    _fxm_recv_win(port);
    fxm_log_info("%s: end. if_index=%u, mac=%.12llx", __func__, record.pt_if_index, _ull(record.pt_mac));
    return nullptr;
}
