// The input is a program: frames on two ports, and between them reads in flight, passes on a clock that steps both
// ways, lost links, deletions, stops and restarts of monitoring, queries, and allocations that fail. All of it runs on
// one thread.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "access/fxm_tags.h"
#include "access/fxm_wreg.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stdump.h"
#include "events/fxm_event.h"
#include "fixture.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_blacklist.h"
#include "registry/fxm_keepalive.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_port.h"
#include "wire/fxm_recv.h"

static uint64_t clock_now;
static uint32_t allocations_left; // until one fails; 0: none does
static bool allocation_failed;

static void *allocate(size_t size)
{
    if (allocations_left > 0 && --allocations_left == 0) {
        allocation_failed = true;
        return nullptr;
    }
    return malloc(size);
}

// Write locks outlive their cards, so there are not too many ids: a few thousand at the ends and in the middle.
static uint64_t id_of(uint16_t number)
{
    static const uint64_t ranges[] = {0x020000000000, 0x020000000000, 0, 0xfffffffff000};
    return ranges[number >> 14] | (number & 0xFFF);
}

static uint64_t events_raised(int32_t type)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    return g_stats.evt_count[type];
}

// ------------------------------------------------------------------------------------------------------------- events

static uint64_t delivered[FXM_EVT_KINDS];
static bool last_was_marker;
constexpr uint64_t MARKER = UINT64_MAX; // no card has this id

static void on_event(uint64_t id, int32_t type, uint64_t)
{
    delivered[type] += 1;
    last_was_marker = id == MARKER;
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (!last_was_marker && g_fini_flag == FXM_OFF && fxm_get_fxsv(id, &fxsv) != FXM_API_SUCCESS)
        (void)fxm_get_fxio(id, &fxio);
    if (last_was_marker)
        g_fini_flag = FXM_ON; // ends the event task
}

// Delivers all that is queued: every event that was raised, and the one that was raised last at the end.
static void deliver()
{
    allocations_left = 0;
    DEMAND(_fxm_add_event(FXM_EVT_NEWDEVINFO, MARKER) == 0);
    // A stop may come before the task looks at its queue.
    g_fini_flag = events_raised(FXM_EVT_NEWDEVINFO) % 2 == 0 ? FXM_ON : FXM_OFF;
    _fxm_event_task(nullptr);
    g_fini_flag = FXM_OFF;
    DEMAND(last_was_marker);
    for (int32_t type = 0; type < static_cast<int32_t>(FXM_EVT_KINDS); ++type)
        DEMAND(delivered[type] == events_raised(type));
}

// -------------------------------------------------------------------------------------------------------------- frames

// The last frame that was put on each wire.
static frame_t last_frame[FXM_PORT_NUM];

static bool strange_answers; // a frame of the input's own may have answered a read

static void put(uint32_t port, frame_t frame)
{
    strange_answers = strange_answers || (frame.size() > 18 && frame[18] == FXM_SUBTYPE_COMP);
    if (frame.size() >= 12) {
        const auto number = static_cast<uint16_t>(frame[10] << 8 | frame[11]);
        frame = from(id_of(number), frame);
    }
    last_frame[port] = frame;
    wire_put(port, frame, frame.size() == 1024 ? 1514 : 0); // a longer one is cut
}

static frame_t announcement(input_t *input)
{
    const uint8_t shape = input->byte();
    frame_t frame = announce(shape, input->number<uint16_t>());
    for (uint32_t changes = shape >> 2 & 7; changes > 0; --changes) {
        const size_t at = input->number<uint16_t>() % frame.size();
        frame[at] = input->byte();
    }
    if ((shape & 0x20) != 0)
        frame = in_change_layout(frame);
    if ((shape & 0x40) != 0)
        frame.resize(input->number<uint16_t>() % 1025);
    return frame;
}

static uint32_t many_left; // frames, which cost most of the time

static void put_many(input_t *input, uint32_t port)
{
    const frame_t frame = announcement(input);
    const auto first = input->number<uint16_t>();
    const auto stride = input->number<uint16_t>();
    const uint32_t number = std::min(many_left, frame.size() < 12 ? 0 : 1u << input->below(9));
    many_left -= number;
    for (uint32_t i = 0; i < number; ++i)
        put(port, from(static_cast<uint16_t>(first + i * stride), frame));
}

template <typename Class> static void check_heard(uint32_t port, const frame_t &frame, uint8_t mode)
{
    const uint64_t id = _fxm_frame_id(frame.data());
    fxm_fx_guard_t guard;
    typename Class::record_t record;
    uint32_t ignore_state = 0;
    if (_fxm_tbl_get<Class>(id, &record, &ignore_state, FXM_TBL_RECORD | FXM_TBL_IGNORE_STATE) != 0) {
        fxm_blacklist_guard_t blacklist_guard;
        DEMAND(allocation_failed || _fxm_blacklist_lookup(id));
        return;
    }
    if (ignore_state == FXM_IGNORE)
        return;
    const fxm_card_data_t &card = Class::card(record);
    const uint32_t mac = _fxm_frame_mac_index(frame.data());
    DEMAND(ignore_state == FXM_WATCH);
    DEMAND(card.fcd_state[port][mac] == 1 && card.fcd_recvtime[port][mac] == clock_now);
    DEMAND(card.fcd_updatetime != 0 || clock_now == 0 || allocation_failed);
    const be16_at tci = mode == FXM_VLAN_MODE_NORMAL ? ETH_TAG_TCI : ETH_CHANGE_TCI;
    DEMAND(card.fcd_vlan_mode == mode && card.fcd_vlan_id == (be16(frame.data(), tci) & FXM_VLAN_MASK));
    DEMAND(card.fcd_int_vector == u8(frame.data(), DEV_INT_VECTOR) && card.fcd_flowid == u8(frame.data(), DEV_FLOW_ID));
}

// What the last frame of a wire must have done, if it announces a card.
static void check_last(uint32_t port)
{
    const frame_t &frame = last_frame[port];
    uint8_t mode = 0;
    if (frame.empty() || g_start_flag != FXM_ON ||
        _check_frame(frame.data(), static_cast<uint32_t>(frame.size()), &mode))
        return;
    if (u8(frame.data(), FRAME_SUBTYPE) == FXM_SUBTYPE_COMP)
        return;
    if (u8(frame.data(), DEV_HOST) == FXM_HOST_FXSV)
        check_heard<fxsv_class>(port, frame, mode);
    else if (u8(frame.data(), DEV_HOST) == FXM_HOST_FXIO)
        check_heard<fxio_class>(port, frame, mode);
}

static void receive(uint32_t port)
{
    const size_t before = wire_waiting(port);
    DEMAND(_fxm_recv_frame(port) == 0);
    const size_t left = wire_waiting(port);
    DEMAND(left == (before > FXM_RECV_MOST ? before - FXM_RECV_MOST : 0));
    DEMAND(fxm_recv_source[port].ready == (before >= FXM_RECV_MOST));
    if (before > 0 && left == 0)
        check_last(port);
}

// -------------------------------------------------------------------------------------------------------------- passes

// How many cards a pass or a lost link will take down, counted without the roster's help.
template <typename Class, typename Goes> static uint64_t count(Goes goes) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    uint64_t number = 0;
    for (fxm_rbnode_t *link = _fxm_rbtree_first(&Class::map()); link != nullptr; link = _fxm_rbtree_next(link)) {
        typename Class::node_t *node = Class::link_t::record(link);
        number += goes(Class::card(Class::record(node)), Class::ignore_state(node), Class::check_count(node)) ? 1 : 0;
    }
    return number;
}

template <typename Goes, typename Pass> static void pass(Goes goes, Pass run)
{
    const uint64_t updates = events_raised(FXM_EVT_UPDATEDEVINFO);
    const uint64_t changes = events_raised(FXM_EVT_CHANNELSTATECHANGE);
    uint64_t expected = 0;
    {
        fxm_fx_guard_t guard;
        expected = count<fxsv_class>(goes) + count<fxio_class>(goes);
        run();
    }
    if (allocation_failed)
        return;
    DEMAND(events_raised(FXM_EVT_UPDATEDEVINFO) - updates == expected);
    DEMAND(events_raised(FXM_EVT_CHANNELSTATECHANGE) - changes == expected);
}

// How many passes of a restart have gone by, of all cards together.
static uint64_t passes_seen(uint32_t more)
{
    fxm_fx_guard_t guard;
    uint64_t sum = 0;
    const auto add = [&](const fxm_card_data_t &, uint32_t ignore_state, uint32_t passes) {
        const bool ends = passes + more >= g_config.devinfo_expire_time / g_config.devinfo_check_interval + 1;
        sum += ignore_state == FXM_WATCH_RESTART && !ends ? passes + more : 0;
        return false;
    };
    count<fxsv_class>(add);
    count<fxio_class>(add);
    return sum;
}

static void age()
{
    const auto goes = [](const fxm_card_data_t &card, uint32_t ignore_state, uint32_t passes) {
        if (ignore_state == FXM_WATCH_RESTART)
            return passes + 1 >= g_config.devinfo_expire_time / g_config.devinfo_check_interval + 1;
        bool expires = false;
        for (uint32_t channel = 0; channel < 4; ++channel)
            expires =
                expires || (card.fcd_state[channel / 2][channel % 2] == 1 &&
                            card.fcd_recvtime[channel / 2][channel % 2] + g_config.devinfo_expire_time <= clock_now);
        return ignore_state == FXM_WATCH && expires;
    };
    const uint64_t expected = passes_seen(1);
    pass(goes, []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { _devinfo_keepalive_check(); });
    DEMAND(passes_seen(0) == expected);
    fxm_fx_guard_t guard;
    const auto expired = [=](const fxm_card_data_t &card, uint32_t ignore_state, uint32_t passes) {
        return ignore_state == FXM_WATCH && goes(card, ignore_state, passes);
    };
    DEMAND(count<fxsv_class>(expired) + count<fxio_class>(expired) == 0);
}

static void lose_link(uint32_t port)
{
    const auto goes = [=](const fxm_card_data_t &card, uint32_t ignore_state, uint32_t) {
        return ignore_state != FXM_IGNORE && (card.fcd_state[port][0] == 1 || card.fcd_state[port][1] == 1);
    };
    pass(goes, [=]() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { _fxm_all_disconnect(port); });
}

// ------------------------------------------------------------------------------------------------------------- queries

template <typename Class, typename Get> static void check_list(Get get, uint32_t limit, uint64_t expected)
{
    static uint64_t untouched;
    uint64_t *list = &untouched;
    uint32_t number = limit;
    const int result = get(&list, &number);
    if (result == FXM_API_ENOMEM) {
        DEMAND(allocation_failed && list == &untouched && number == limit);
    } else if (limit != 0 && limit < expected) {
        DEMAND(result == FXM_API_ERANGE && number == expected && list == &untouched);
    } else {
        DEMAND(result == FXM_API_SUCCESS && number == expected && (list == nullptr) == (expected == 0));
        DEMAND(std::is_sorted(list, list + number));
        fxm_free_idlist(list);
    }
}

template <typename Class, typename All, typename Since, typename Group>
static void query(input_t *input, All all, Since since, Group group)
{
    const uint32_t limit = input->byte();
    const uint64_t time = clock_now - input->number<uint16_t>();
    const auto vlan = static_cast<uint16_t>(1 + input->number<uint16_t>() % FXM_GROUP_LAST);
    uint64_t cards = 0, updated = 0, grouped = 0;
    {
        fxm_fx_guard_t guard;
        cards = Class::total();
        updated =
            count<Class>([=](const fxm_card_data_t &card, uint32_t, uint32_t) { return card.fcd_updatetime >= time; });
        grouped =
            count<Class>([=](const fxm_card_data_t &card, uint32_t, uint32_t) { return card.fcd_vlan_id == vlan; });
    }
    check_list<Class>(all, limit, cards);
    check_list<Class>([=](uint64_t **list, uint32_t *number) { return since(time, list, number); }, limit, updated);
    check_list<Class>([=](uint64_t **list, uint32_t *number) { return group(vlan, list, number); }, limit, grouped);
}

// --------------------------------------------------------------------------------------------------------------- reads

// A read in flight, and what its slot must hold.
struct read_t {
    bool taken, answered;
    uint32_t tag, port, data;
    uint64_t mac;
};
static read_t reads[8];

static void begin_read(read_t *read, input_t *input)
{
    if (!read->taken) {
        *read = {};
        read->taken = _fxm_get_tag(&read->tag, input->byte()) == 0;
        const auto same = [=](const read_t &other) { return other.taken && other.tag == read->tag; };
        DEMAND(!read->taken || std::count_if(std::begin(reads), std::end(reads), same) == 1);
    }
    if (!read->taken)
        return;
    read->mac = id_of(input->number<uint16_t>());
    read->port = input->below(FXM_PORT_NUM);
    _fxm_set_comp_recv_wait(read->tag, read->mac, read->port);
}

// A Completion that fits the read, or does not in one respect.
static void answer_read(read_t *read, input_t *input)
{
    const uint8_t wrong = input->byte();
    const uint32_t port = read->port ^ (wrong & 1);
    while (wire_waiting(port) > 0)
        receive(port);
    const uint64_t mac = read->mac ^ (wrong >> 1 & 1);
    frame_t frame = from(mac, announce(2, 0));
    frame[18] = FXM_SUBTYPE_COMP;
    frame[23] = static_cast<uint8_t>(read->tag ^ (wrong >> 2 & 1));
    const auto data = input->number<uint32_t>();
    put_le32(frame.data(), COMP_DATA, data);
    wire_put(port, frame);
    last_frame[port] = {};
    receive(port);
    for (read_t &other : reads) {
        if (g_start_flag != FXM_ON || !other.taken || other.answered || other.tag != frame[23] || other.port != port ||
            other.mac != mac)
            continue;
        other.answered = true;
        other.data = data;
    }
}

static void end_read(read_t *read)
{
    if (!read->taken)
        return;
    uint32_t data = 0;
    DEMAND(_fxm_sigwait_comp(read->tag, 0) == ETIMEDOUT);
    const int err = _fxm_get_readreg(read->tag, &data);
    DEMAND(read->answered ? err == 0 : err == ENOENT || strange_answers);
    DEMAND(!read->answered || strange_answers || data == read->data);
    _fxm_release_tag(read->tag);
    DEMAND(_fxm_get_readreg(read->tag, &data) == ENOENT);
    read->taken = false;
}

// --------------------------------------------------------------------------------------------------------- the program

static void monitor(input_t *input)
{
    const uint8_t what = input->byte();
    const uint64_t id = id_of(input->number<uint16_t>());
    switch (what % 4) {
    case 0:
        DEMAND(fxm_stop_monitor(id) == FXM_API_SUCCESS || allocation_failed);
        break;
    case 1:
        DEMAND(fxm_restart_monitor(id) == FXM_API_SUCCESS);
        break;
    case 2:
        (void)fxm_delete_fxsv(id);
        DEMAND(fxm_delete_fxsv(id) == FXM_API_ENOENT);
        break;
    default:
        (void)fxm_delete_fxio(id);
        DEMAND(fxm_delete_fxio(id) == FXM_API_ENOENT);
        break;
    }
}

static void step_clock(input_t *input)
{
    constexpr uint64_t last = uint64_t{1} << 50;
    const auto ms = static_cast<int16_t>(input->number<uint16_t>());
    const auto change = static_cast<uint64_t>(int64_t{ms} * (ms % 16 == 0 ? 10000 : 1));
    clock_now = std::min(clock_now + change, last); // a step back before 1970 ends far ahead
}

static void run(input_t *input, uint8_t step)
{
    const uint32_t port = step >> 7;
    switch (step % 16) {
    case 0:
    case 1:
        return put(port, announcement(input));
    case 2:
        return put(port, input->bytes(input->byte()));
    case 3:
        return put_many(input, port);
    case 4:
    case 5:
        return receive(port);
    case 6:
        return step_clock(input);
    case 7:
        return age();
    case 8:
        return lose_link(port);
    case 9:
        return monitor(input);
    case 10:
        return port == 0 ? query<fxsv_class>(input, fxm_get_fxsvids, fxm_get_update_fxsvids, fxm_get_group_fxsvids)
                         : query<fxio_class>(input, fxm_get_fxioids, fxm_get_update_fxioids, fxm_get_group_fxioids);
    case 11:
        return begin_read(&reads[step >> 4 & 7], input);
    case 12:
        return answer_read(&reads[step >> 4 & 7], input);
    case 13:
        return end_read(&reads[step >> 4 & 7]);
    case 14:
        return deliver();
    default:
        if ((step & 0x10) != 0)
            allocations_left = input->byte();
        else if ((step & 0x20) != 0)
            g_start_flag = (step & 0x40) != 0 ? FXM_OFF : FXM_ON;
        else
            check_tables();
    }
}

// The parts of the library that hold state, as a start brings them up.
static void bring_up(input_t *input)
{
    clock_now = 1000000000000;
    allocations_left = 0;
    allocation_failed = strange_answers = false;
    _fxm_config_default();
    const uint8_t shape = input->byte();
    g_config.update_evt_mask = (shape & 1) != 0 ? 1 : 2;
    g_config.tag_max = (shape & 2) != 0 ? 2 : 255;
    g_log_level = (shape & 4) != 0 ? FXM_LOG_TRACE : FXM_LOG_FATAL;
    DEMAND(_fxm_stats_init() == 0 && _fxm_fx_init() == 0 && _fxm_blacklist_init() == 0 && _fxm_event_cb_init() == 0 &&
           _fxm_cmp_init() == 0 && _fxm_reg_init() == 0);
    // The same in every run. With the first one, sixteen ids share a hash.
    many_left = (shape & 8) != 0 ? 40 : 300;
    const uint64_t multiplier = (shape & 8) != 0 ? 0x10000000 : 0x9E3779B97F4A7C15;
    fxm_fx_guard_t guard;
    fxm_fx_tbl.fxsv_roster.multiplier = fxm_fx_tbl.fxio_roster.multiplier = multiplier;
    g_fini_flag = FXM_OFF;
    g_init_flag = g_start_flag = FXM_ON;
}

static void tear_down()
{
    wire_clear();
    for (frame_t &frame : last_frame)
        frame.clear();
    for (read_t &read : reads)
        end_read(&read);
    g_init_flag = FXM_OFF;
    (void)_fxm_cmp_fini();
    (void)_fxm_event_cb_fini();
    (void)_fxm_blacklist_fini();
    (void)_fxm_fx_fini();
    check_accounts_empty();
    _fxm_stats_fini();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_begin();
    fxm_platform.wall_clock_ms = [] { return clock_now; };
    fxm_platform.allocate = allocate;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port)
        wire_attach(port);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input_t input{data, size};
    bring_up(&input);
    std::fill_n(delivered, FXM_EVT_KINDS, 0u);
    for (int32_t type = 0; type < static_cast<int32_t>(FXM_EVT_KINDS); ++type) {
        void *cbid = nullptr;
        DEMAND(fxm_register_callback(type, on_event, 0, &cbid) == FXM_API_SUCCESS);
    }
    const uint8_t end = input.byte();
    while (input.left > 0)
        run(&input, input.byte());
    allocations_left = 0;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        while (wire_waiting(port) > 0)
            receive(port);
    }
    check_tables();
    if (end % 16 == 1)
        fxm_stdump(end & 16);
    if ((end & 4) == 0)
        deliver(); // else the tear-down discards what is queued
    tear_down();
    return 0;
}
