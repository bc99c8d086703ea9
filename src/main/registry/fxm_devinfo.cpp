// DEVINFO and NOTIFY processing: from a received frame to a stored record and its events. Only this file writes the
// fields of a record other than channel states and times. Runs on the receive threads. The candidate record is filled
// from the frame without a lock. Look-up, comparison, store and the queueing of events run under fx_lock, so two ports
// that hear the same card take turns.
#include "registry/fxm_devinfo.h"

#include <cerrno>
#include <cstring>

#include "access/fxm_wreg.h"
#include "core/fxm_config.h"
#include "events/fxm_event.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_blacklist.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_recv.h"

// Where and when the frame arrived.
struct arrival_t {
    uint32_t port;
    uint32_t mac_index;
    uint64_t now;
};

// -------------------------------------------------------------------------------------------- from frame to candidate

static void _set_config(const uint8_t *frame, size_t block, fxm_pci_config_t *config)
{
    config->fcp_pri_bus_num = u8(frame, in_block(block, CFG_PRI_BUS));
    config->fcp_sec_bus_num = u8(frame, in_block(block, CFG_SEC_BUS));
    config->fcp_sub_bus_num = u8(frame, in_block(block, CFG_SUB_BUS));
    config->fcp_command = u8(frame, in_block(block, CFG_COMMAND));
    config->fcp_memory_base = le16(frame, in_block(block, CFG_MEM_BASE));
    config->fcp_memory_limit = le16(frame, in_block(block, CFG_MEM_LIMIT));
    config->fcp_pre_memory_base = le16(frame, in_block(block, CFG_PRE_BASE));
    config->fcp_pre_memory_limit = le16(frame, in_block(block, CFG_PRE_LIMIT));
    config->fcp_pre_base_upper = le32(frame, in_block(block, CFG_PRE_BASE_UP));
    config->fcp_pre_limit_upper = le32(frame, in_block(block, CFG_PRE_LIMIT_UP));
}

static void _set_common_devinfo(const arrival_t &arrival, const uint8_t *frame, uint8_t mode, fxm_card_data_t *card)
{
    const uint8_t flags = u8(frame, DEV_FLAGS);
    const uint8_t status2 = u8(frame, DEV_STATUS2);
    const uint16_t tci = mode == FXM_VLAN_MODE_NORMAL ? be16(frame, ETH_TAG_TCI) : be16(frame, ETH_CHANGE_TCI);

    card->fcd_id = _fxm_frame_id(frame);
    put_mac48(card->fcd_macaddr, mac48_at{0}, card->fcd_id);
    card->fcd_type = u8(frame, DEV_VER);
    card->fcd_updatetime = arrival.now;
    card->fcd_recvtime[arrival.port][arrival.mac_index] = arrival.now;
    card->fcd_state[arrival.port][arrival.mac_index] = 1;
    card->fcd_uidsw = (flags & FXM_DEV_UIDSW) != 0 ? 1 : 0;
    card->fcd_power = (flags & FXM_DEV_POWER) != 0 ? 1 : 0;
    card->fcd_port0_link = (status2 & FXM_STATUS2_PORT0) != 0 ? 1 : 0;
    card->fcd_port1_link = (status2 & FXM_STATUS2_PORT1) != 0 ? 1 : 0;
    card->fcd_vlan_id = tci & FXM_VLAN_MASK;
    raw(card->fcd_swstatus, frame, DEV_SW_STATUS);
    card->fcd_vlan_mode = mode;
    card->fcd_flowid = u8(frame, DEV_FLOW_ID);
    card->fcd_linkstatus = u8(frame, DEV_LINK_STATUS);
    card->fcd_int_vector = u8(frame, DEV_INT_VECTOR);
    card->fcd_ver = status2 & FXM_STATUS2_VER;
}

static void _set_port_devinfo(const uint8_t *frame, fxm_down_port_t *down_ports)
{
    const bool is_40g = _fxm_frame_kind(u8(frame, FRAME_SUBTYPE))->is_40g;
    const uint32_t entries = is_40g ? FXSV_DOWN_PORTS_40G : FXSV_DOWN_PORTS_10G;
    for (uint32_t i = 0; i < entries; ++i) {
        const size_t entry = FXSV_DOWN_PORTS + i * FXSV_DOWN_PORT_SIZE;
        raw(down_ports[i].fdp_port_status, frame, in_block(entry, DOWN_STATUS));
        raw(down_ports[i].fdp_io_mac, frame, in_block(entry, DOWN_IO_MAC));
        if ((down_ports[i].fdp_port_status[1] & FXM_CONNECTED_BIT) != 0)
            _set_config(frame, entry + DOWN_CONFIG, &down_ports[i].fdp_config);
    }
}

static void _set_fxio_body(const uint8_t *frame, fxm_fxio_t *fxio)
{
    const bool multiroot = fxio->fio_card.fcd_ver == FXM_VER_MULTIROOT;
    const uint8_t flags = u8(frame, DEV_FLAGS);
    const uint8_t fault_a = (flags & FXM_DEV_FAULT_A) != 0 ? 1 : 0;
    const uint8_t fault_b = (flags & FXM_DEV_FAULT_B) != 0 ? 1 : 0;

    fxio->fio_class_code = le24(frame, IO_CLASS_CODE);
    fxio->fio_device_id = le16(frame, IO_DEVICE_ID);
    fxio->fio_vendor_id = le16(frame, IO_VENDOR_ID);
    raw(fxio->fio_sermacaddr, frame, IO_SER_MAC);
    raw(fxio->fio_substate, frame, IO_SUBSTATE);
    fxio->fio_pcie_presence = (u8(frame, DEV_STATUS2) & FXM_STATUS2_PCIE) != 0 ? 1 : 0;
    fxio->fio_link0fault = multiroot ? fault_b : fault_a;
    fxio->fio_link1fault = multiroot ? fault_a : fault_b;
    if (multiroot)
        fxio->fio_mr_resource_num = be16(frame, IO_RESOURCE_NUM);
}

// ------------------------------------------------------------------------------- what differs between the classes

// Clears the status bits whose change does not count as an update when update_evt_mask is 2.
static void _mask_status(uint8_t *status)
{
    status[0] &= 0xF8;
    status[1] &= 0xFE;
}

static void _mask_record(fxm_fxsv_t *fxsv)
{
    for (fxm_down_port_t &port : fxsv->fsv_down_port)
        _mask_status(port.fdp_port_status);
}

static void _mask_record(fxm_fxio_t *fxio) { _mask_status(fxio->fio_substate); }

static bool _connection_differs(const uint8_t *status1, const uint8_t *status2)
{
    return ((status1[1] ^ status2[1]) & FXM_CONNECTED_BIT) != 0;
}

static bool _connection_changed(const fxm_fxsv_t &stored, const fxm_fxsv_t &candidate)
{
    // The generation of the card decides, not that of the frame: a 40G frame of a 1G/10G card fills 16 entries, but only
    // the first 8 are compared.
    const uint32_t entries = candidate.fsv_card.fcd_type != 0 ? FXSV_DOWN_PORTS_40G : FXSV_DOWN_PORTS_10G;
    for (uint32_t i = 0; i < entries; ++i) {
        if (_connection_differs(stored.fsv_down_port[i].fdp_port_status, candidate.fsv_down_port[i].fdp_port_status))
            return true;
    }
    return false;
}

static bool _connection_changed(const fxm_fxio_t &stored, const fxm_fxio_t &candidate)
{
    return _connection_differs(stored.fio_substate, candidate.fio_substate);
}

static bool _path_changed(const fxm_fxsv_t &, const fxm_fxsv_t &) { return false; } // an FXSV card has no path flags

static bool _path_changed(const fxm_fxio_t &stored, const fxm_fxio_t &candidate)
{
    return stored.fio_link0fault != candidate.fio_link0fault || stored.fio_link1fault != candidate.fio_link1fault;
}

// --------------------------------------------------------------------------------------------------------------- add

template <typename Class>
static void _add_devinfo(const typename Class::record_t &candidate) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const char *func = Class::add_devinfo_name;
    const fxm_card_data_t &card = Class::card(candidate);
    const uint64_t id = card.fcd_id;

    // Before anything is allocated for the card: ids on the wire are free, memory is not.
    if (fxm_fx_tbl.fxsv_total + fxm_fx_tbl.fxio_total >= fxm_card_limit.load(std::memory_order_relaxed)) {
        fxm_cards_refused.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    // Every card in the tables has a write lock. The lock outlives the card, so a card that was deleted still has one.
    int err = _fxm_create_reg_lock_node(id);
    if (err != 0 && err != EEXIST) {
        fxm_log_warn("%s: Failed to _fxm_create_reg_lock_node(). Drop DEVINFO Frame. err=%d, id=0x%.12llx", func, err,
                     _ull(id));
        return;
    }
    {
        // Held across the look-up and the store. A card that is being stopped is found either here or in its table.
        fxm_blacklist_guard_t guard;
        if (_fxm_blacklist_lookup(id))
            return;
        err = _fxm_tbl_set<Class>(id, &candidate, FXM_WATCH, FXM_TBL_ALL);
        if (err != 0) {
            fxm_log_error("%s: Failed to %s(). err=%d, id=0x%.12llx", func, Class::set_name, err, _ull(id));
            return;
        }
        fxm_log_info("%s: %s information is added. id=0x%.12llx, %s", func, Class::word, _ull(id),
                     fxm_channels_text_t(card).text);
    }
    _fxm_raise_event(func, FXM_EVT_NEWDEVINFO, id);
    if (card.fcd_int_vector != 0)
        _fxm_raise_event(func, FXM_EVT_MAJORMINORERROR, id);
}

// ------------------------------------------------------------------------------------------------------------ update

// Records start as zeroed memory and are copied as bytes, so equal frames give equal bytes, padding included.
template <typename Record> static bool _bytes_differ(const Record &record1, const Record &record2)
{
    return memcmp(&record1, &record2, sizeof(Record)) != 0; // NOLINT(bugprone-suspicious-memory-comparison)
}

// The id, the times and the channel states stand first in a record. What follows comes from the last frame alone.
constexpr size_t FROM_FRAME = offsetof(fxm_card_data_t, fcd_uidsw);
static_assert(offsetof(fxm_card_data_t, fcd_id) < FROM_FRAME && offsetof(fxm_card_data_t, fcd_recvtime) < FROM_FRAME &&
              offsetof(fxm_card_data_t, fcd_updatetime) < FROM_FRAME &&
              offsetof(fxm_card_data_t, fcd_state) < FROM_FRAME);

template <typename Record> static bool _contents_differ(const Record &stored, const Record &candidate)
{
    const auto *old_bytes = reinterpret_cast<const uint8_t *>(&stored);
    const auto *new_bytes = reinterpret_cast<const uint8_t *>(&candidate);
    return memcmp(old_bytes + FROM_FRAME, new_bytes + FROM_FRAME, sizeof(Record) - FROM_FRAME) != 0;
}

template <typename Class>
static bool _records_differ(const typename Class::record_t &stored, const typename Class::record_t &candidate)
{
    const bool differ = _bytes_differ(stored, candidate);
    if (g_config.update_evt_mask == 2) {
        if (!differ)
            return false; // most frames change nothing and need no masked copies
        typename Class::record_t masked_stored;
        typename Class::record_t masked_candidate;
        memcpy(&masked_stored, &stored, sizeof(stored));
        memcpy(&masked_candidate, &candidate, sizeof(candidate));
        _mask_record(&masked_stored);
        _mask_record(&masked_candidate);
        return _bytes_differ(masked_stored, masked_candidate);
    }
    if (g_config.update_evt_mask != 1)
        fxm_log_warn("%s: Invalid config parameter. update_evt_mask=%u", Class::update_state_name,
                     g_config.update_evt_mask);
    return differ;
}

struct change_t {
    bool updated;      // the record differs from the stored one
    bool channel_rose; // the channel of the frame was down
};

// Carries over what a frame does not contain, and finds what has changed.
template <typename Class>
static change_t _update_state(const arrival_t &arrival, const typename Class::record_t &stored,
                              typename Class::record_t *candidate)
{
    fxm_card_data_t &card = Class::card(*candidate);
    const fxm_card_data_t &old = Class::card(stored);
    memcpy(card.fcd_recvtime, old.fcd_recvtime, sizeof(card.fcd_recvtime));
    memcpy(card.fcd_state, old.fcd_state, sizeof(card.fcd_state));
    card.fcd_updatetime = old.fcd_updatetime;

    uint32_t &state = card.fcd_state[arrival.port][arrival.mac_index];
    change_t change{};
    change.channel_rose = state == 0;
    if (change.channel_rose)
        state = 1;
    change.updated = _records_differ<Class>(stored, *candidate);
    if (change.updated)
        card.fcd_updatetime = arrival.now;
    // After the comparison: a later time alone is no difference.
    card.fcd_recvtime[arrival.port][arrival.mac_index] = arrival.now;
    return change;
}

template <typename Class>
static void _compare_events(const typename Class::record_t &stored, const typename Class::record_t &candidate,
                            bool channel_rose)
{
    const char *func = Class::update_devinfo_name;
    const fxm_card_data_t &card = Class::card(candidate);
    if (_connection_changed(stored, candidate))
        _fxm_raise_event(func, FXM_EVT_CONNECTIONCHANGE, card.fcd_id);
    if ((card.fcd_int_vector & ~Class::card(stored).fcd_int_vector) != 0)
        _fxm_raise_event(func, FXM_EVT_MAJORMINORERROR, card.fcd_id);
    if (_path_changed(stored, candidate))
        _fxm_raise_event(func, FXM_EVT_PATHSTATECHANGE, card.fcd_id);
    if (channel_rose)
        _fxm_raise_event(func, FXM_EVT_CHANNELSTATECHANGE, card.fcd_id);
}

template <typename Class> static void _log_updated(uint64_t id, const char *ignore_state_name)
{
    fxm_log_trace("%s: %s information is updated. id=0x%.12llx, ignore_state=%s", Class::update_devinfo_name,
                  Class::word, _ull(id), ignore_state_name);
}

// Stores the candidate and returns the card to normal monitoring. False when it could not be stored.
template <typename Class>
static bool _store_candidate(const typename Class::record_t &candidate, const char *ignore_state_name)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const char *func = Class::update_devinfo_name;
    const uint64_t id = Class::card(candidate).fcd_id;
    const int err = _fxm_tbl_set<Class>(id, &candidate, FXM_WATCH, FXM_TBL_ALL);
    if (err != 0) {
        fxm_log_error("%s: Failed to %s(). err=%d, id=0x%.12llx, ignore_state=%s", func, Class::set_name, err, _ull(id),
                      ignore_state_name);
        return false;
    }
    _log_updated<Class>(id, ignore_state_name);
    return true;
}

template <typename Class>
static void _update_devinfo(const arrival_t &arrival, const typename Class::record_t &stored,
                            typename Class::record_t *candidate, uint32_t ignore_state) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const char *func = Class::update_devinfo_name;
    const fxm_card_data_t &card = Class::card(*candidate);

    switch (ignore_state) {
    case FXM_WATCH: {
        const change_t change = _update_state<Class>(arrival, stored, candidate);
        if (!_store_candidate<Class>(*candidate, "WATCH"))
            return;
        if (change.channel_rose)
            fxm_log_info("%s: %s id=0x%.12llx state change to connect. %s", func, Class::word, _ull(card.fcd_id),
                         fxm_channels_text_t(card).text);
        if (change.updated)
            _fxm_raise_event(func, FXM_EVT_UPDATEDEVINFO, card.fcd_id);
        _compare_events<Class>(stored, *candidate, change.channel_rose);
        return;
    }
    case FXM_IGNORE:
        return; // the frame has no effect at all

    case FXM_WATCH_RESTART:
        // The candidate replaces the record whole: only the channel of this frame is up.
        if (!_store_candidate<Class>(*candidate, "WATCH_RESTART"))
            return;
        fxm_log_info("%s: %s id=0x%.12llx state change to connect. ignore_state=WATCH_RESTART, %s", func, Class::word,
                     _ull(card.fcd_id), fxm_channels_text_t(card).text);
        _fxm_raise_event(func, FXM_EVT_UPDATEDEVINFO, card.fcd_id);
        _compare_events<Class>(stored, *candidate, true);
        return;

    default:
        fxm_log_warn("%s: Unknown ignore_state. state=%u", func, ignore_state);
        return;
    }
}

// ----------------------------------------------------------------------------------------------------- add or update

// The road of nearly all frames: a card in WATCH says what it said before, on a channel that is up. Such a frame writes
// its time and nothing else. False when the frame is none of these.
template <typename Class>
static bool _refresh(const arrival_t &arrival, fxm_seat_t *seat, const typename Class::record_t &candidate)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    typename Class::node_t *node = _fxm_node_of<Class>(seat);
    fxm_card_data_t &card = Class::card(Class::record(node));
    const bool masks = g_config.update_evt_mask == 1 || g_config.update_evt_mask == 2; // any other value has a line
    if (Class::ignore_state(node) != FXM_WATCH || card.fcd_state[arrival.port][arrival.mac_index] != 1 || !masks ||
        _contents_differ(Class::record(node), candidate))
        return false;
    if (Class::check_count(node) != 0) // of a restart that has ended
        Class::check_count(node) = 0;
    uint64_t &time = card.fcd_recvtime[arrival.port][arrival.mac_index];
    const uint64_t before = time;
    time = arrival.now;
    // Only the oldest time can hold the seat back; a clock that was set back makes any time the oldest.
    if (before <= seat->watch.oldest || arrival.now < seat->watch.oldest)
        _fxm_update_seat<Class>(seat);
    _log_updated<Class>(card.fcd_id, "WATCH");
    return true;
}

// The whole step runs under fx_lock, from the look-up to the last event.
template <typename Class>
static void _set_devinfo(const arrival_t &arrival, typename Class::record_t *candidate) FXM_EXCLUDES(fxm_fx_tbl.fx_lock)
{
    fxm_fx_guard_t guard;
    fxm_seat_t *seat = _fxm_tbl_seat<Class>(Class::card(*candidate).fcd_id);
    if (seat == nullptr) {
        _add_devinfo<Class>(*candidate);
    } else if (!_refresh<Class>(arrival, seat, *candidate)) {
        typename Class::node_t *node = _fxm_node_of<Class>(seat);
        typename Class::record_t stored;
        memcpy(&stored, &Class::record(node), sizeof(stored));
        _update_devinfo<Class>(arrival, stored, candidate, Class::ignore_state(node));
    }
}

int _fxm_recv_devinfo(uint32_t port, const uint8_t *frame, uint8_t mode)
{
    const arrival_t arrival = {port, _fxm_frame_mac_index(frame), _fxm_get_time_ms()};
    fxm_assert(arrival.port < FXM_PORT_NUM && arrival.mac_index < 2);
    const uint8_t host = u8(frame, DEV_HOST);
    if (host == FXM_HOST_FXSV) {
        fxm_fxsv_t candidate;
        memset(&candidate, 0, sizeof(candidate)); // padding too
        _set_common_devinfo(arrival, frame, mode, &candidate.fsv_card);
        _set_config(frame, FXSV_UP_PORT, &candidate.fsv_up_port);
        _set_port_devinfo(frame, candidate.fsv_down_port);
        _set_devinfo<fxsv_class>(arrival, &candidate);
    } else if (host == FXM_HOST_FXIO) {
        fxm_fxio_t candidate;
        memset(&candidate, 0, sizeof(candidate));
        _set_common_devinfo(arrival, frame, mode, &candidate.fio_card);
        _set_fxio_body(frame, &candidate);
        _set_devinfo<fxio_class>(arrival, &candidate);
    } else {
        fxm_log_trace("%s: Unknwon PEB. host=0x%.2X", __func__, host);
    }
    return 0;
}
