// The status dump. Each section takes the lock of what it reads and releases it before the next section, so the sections
// are not one snapshot, and no thread waits for longer than one section takes.
#include "diag/fxm_stdump.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <initializer_list>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_blacklist.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"

static void _end_line() { fxm_log_stats(" "); }

static void _dump_header(uint32_t verbose)
{
    char when[32] = "";
    const time_t now = static_cast<time_t>(_fxm_get_time_ms() / 1000);
    tm local{};
    if (localtime_r(&now, &local) != nullptr)
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);
    fxm_log_stats("*** %s fxm status dump (v%u)", when, verbose);
}

static const char *_flag_name(const std::atomic<int> &flag) { return flag.load() == FXM_ON ? "ON" : "OFF"; }

static void _dump_state()
{
    fxm_log_stats("  - State");
    fxm_log_stats("    Init flag : %s", _flag_name(g_init_flag));
    fxm_log_stats("    Start flag: %s", _flag_name(g_start_flag));
    fxm_log_stats("    Fini flag : %s", _flag_name(g_fini_flag));
    fxm_log_stats("    Log level : %s", _fxm_loglevel_name(g_log_level.load()));
    _end_line();
}

static void _dump_ports()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Port information");
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        fxm_log_stats("    + Port%u", port);
        fxm_log_stats("      MAC addr  : %.12llx", _ull(fxm_ports[port].pt_mac));
        fxm_log_stats("      Link state: %s", _fxm_link_name(fxm_ports[port].pt_link.load()));
        fxm_log_stats("      Total down: %u", g_stats.port_total_down[port]);
    }
    _end_line();
}

// ------------------------------------------------------------------------------------------------------------- cards

static void _dump_card_num() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_log_stats("  - FX card num");
    fxm_log_stats("    fxsv total: %u", fxm_fx_tbl.fxsv_total);
    fxm_log_stats("    fxio total: %u", fxm_fx_tbl.fxio_total);
    _end_line();
    fxm_log_stats("    %4s %6s %6s", "G-ID", "SV num", "IO num");
    fxm_log_stats("    ---- ------ ------");
    for (uint32_t group = 0; group < FXM_GROUPS; ++group) {
        const uint32_t fxsv = fxm_fx_tbl.fxsv_group_num[group];
        const uint32_t fxio = fxm_fx_tbl.fxio_group_num[group];
        if (fxsv != 0 || fxio != 0)
            fxm_log_stats("    %4u %6u %6u", group, fxsv, fxio);
    }
    _end_line();
}

static const char *_ignore_name(uint32_t ignore_state)
{
    return ignore_state == FXM_WATCH ? "WATCH" : (ignore_state == FXM_IGNORE ? "IGNORE" : "RESTART");
}

static char _channel_letter(uint32_t state) { return state == 1 ? 'C' : 'D'; }

// The columns that both classes have. An FXIO card has its resource number in one more column.
constexpr char CARD_HEAD[] = "                ID G-ID  TYPE VER CONNECT IG-STATE VLAN MODE";
constexpr char CARD_RULE[] = "    -------------- ---- ----- --- ------- -------- ---------";
struct card_row_text_t {
    card_row_text_t(const fxm_card_data_t &card, uint32_t ignore_state)
    {
        const auto &states = card.fcd_state;
        const char connect[] = {_channel_letter(states[0][0]), _channel_letter(states[0][1]),
                                _channel_letter(states[1][0]), _channel_letter(states[1][1]), '\0'};
        snprintf(text, sizeof(text), "    0x%.12llx %4u %5s %3u %7s %8s %9s", _ull(card.fcd_id), card.fcd_vlan_id,
                 card.fcd_type != 0 ? "40G" : "1/10G", card.fcd_ver + 1u, connect, _ignore_name(ignore_state),
                 card.fcd_vlan_mode != 0 ? "CHANGE" : "NORMAL");
    }
    char text[80];
};

static void _dump_row_head(fxsv_class)
{
    fxm_log_stats("%s", CARD_HEAD);
    fxm_log_stats("%s", CARD_RULE);
}

static void _dump_row_head(fxio_class)
{
    fxm_log_stats("%s R-ID", CARD_HEAD);
    fxm_log_stats("%s ----", CARD_RULE);
}

static void _dump_row(const fxm_fxsv_t &fxsv, uint32_t ignore_state)
{
    fxm_log_stats("%s", card_row_text_t(fxsv.fsv_card, ignore_state).text);
}

static void _dump_row(const fxm_fxio_t &fxio, uint32_t ignore_state)
{
    fxm_log_stats("%s %4u", card_row_text_t(fxio.fio_card, ignore_state).text, fxio.fio_mr_resource_num);
}

template <typename Class> static void _dump_table() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_log_stats("    [%s]", Class::word);
    if (Class::total() == 0)
        fxm_log_stats("    no entry.");
    else
        _dump_row_head(Class{});
    _fxm_each_node<Class>([](typename Class::node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        _dump_row(Class::record(node), Class::ignore_state(node));
        return true;
    });
    _end_line();
}

// ------------------------------------------------------------------------------------------------------ cards, detail

// A field under its name.
struct field_t {
    const char *label;
    uint64_t value;
};
#define FIELD(record, name)                                                                                            \
    field_t { #name, (record).name }

constexpr char CARD_INDENT[] = "      ";
constexpr char PORT_INDENT[] = "        ";

static void _dump_fields(const char *indent, std::initializer_list<field_t> fields)
{
    for (const field_t &field : fields)
        fxm_log_stats("%s%-22s: %llu", indent, field.label, _ull(field.value));
}

static void _dump_mac(const char *indent, const char *label, const uint8_t (&mac)[6])
{
    fxm_log_stats("%s%-22s: %02x:%02x:%02x:%02x:%02x:%02x", indent, label, mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
}

static void _dump_pair(const char *indent, const char *label, const uint8_t (&bytes)[2])
{
    fxm_log_stats("%s%-22s: %02x %02x", indent, label, bytes[0], bytes[1]);
}

static void _dump_common(const fxm_card_data_t &card)
{
    const std::initializer_list<field_t> first = {
        FIELD(card, fcd_recvtime[0][0]), FIELD(card, fcd_recvtime[0][1]), FIELD(card, fcd_recvtime[1][0]),
        FIELD(card, fcd_recvtime[1][1]), FIELD(card, fcd_updatetime),     FIELD(card, fcd_state[0][0]),
        FIELD(card, fcd_state[0][1]),    FIELD(card, fcd_state[1][0]),    FIELD(card, fcd_state[1][1]),
        FIELD(card, fcd_uidsw),          FIELD(card, fcd_power),          FIELD(card, fcd_port0_link),
        FIELD(card, fcd_port1_link),     FIELD(card, fcd_vlan_id)};
    _dump_fields(CARD_INDENT, first);
    _dump_mac(CARD_INDENT, "fcd_macaddr", card.fcd_macaddr);
    fxm_log_stats("      %-22s: %02x %02x %02x", "fcd_swstatus", card.fcd_swstatus[0], card.fcd_swstatus[1],
                  card.fcd_swstatus[2]);
    const std::initializer_list<field_t> last = {FIELD(card, fcd_vlan_mode),  FIELD(card, fcd_flowid),
                                                 FIELD(card, fcd_type),       FIELD(card, fcd_linkstatus),
                                                 FIELD(card, fcd_int_vector), FIELD(card, fcd_ver)};
    _dump_fields(CARD_INDENT, last);
}

static void _dump_bridge(const fxm_pci_config_t &config)
{
    const std::initializer_list<field_t> fields = {
        FIELD(config, fcp_pre_base_upper), FIELD(config, fcp_pre_limit_upper), FIELD(config, fcp_memory_base),
        FIELD(config, fcp_memory_limit),   FIELD(config, fcp_pre_memory_base), FIELD(config, fcp_pre_memory_limit),
        FIELD(config, fcp_pri_bus_num),    FIELD(config, fcp_sec_bus_num),     FIELD(config, fcp_sub_bus_num),
        FIELD(config, fcp_command)};
    _dump_fields(PORT_INDENT, fields);
}

static void _dump_detail(const fxm_fxsv_node_t &node)
{
    const fxm_fxsv_t &fxsv = node.fsn_data;
    _dump_fields(CARD_INDENT, {FIELD(node, fsn_ignore_state), FIELD(node, fsn_check_count)});
    _dump_common(fxsv.fsv_card);
    fxm_log_stats("      UP PORT");
    _dump_bridge(fxsv.fsv_up_port);
    for (uint32_t i = 0; i < FXM_DOWN_PORTS; ++i) {
        const fxm_down_port_t &port = fxsv.fsv_down_port[i];
        fxm_log_stats("      DOWN PORT%u", i);
        _dump_pair(PORT_INDENT, "fdp_port_status", port.fdp_port_status);
        _dump_mac(PORT_INDENT, "fdp_io_mac", port.fdp_io_mac);
        _dump_bridge(port.fdp_config);
    }
}

static void _dump_detail(const fxm_fxio_node_t &node)
{
    const fxm_fxio_t &fxio = node.fin_data;
    _dump_fields(CARD_INDENT, {FIELD(node, fin_ignore_state), FIELD(node, fin_check_count)});
    _dump_common(fxio.fio_card);
    _dump_fields(CARD_INDENT, {FIELD(fxio, fio_class_code), FIELD(fxio, fio_device_id), FIELD(fxio, fio_vendor_id),
                               FIELD(fxio, fio_mr_resource_num)});
    _dump_mac(CARD_INDENT, "fio_sermacaddr", fxio.fio_sermacaddr);
    _dump_pair(CARD_INDENT, "fio_substate", fxio.fio_substate);
    _dump_fields(CARD_INDENT,
                 {FIELD(fxio, fio_link0fault), FIELD(fxio, fio_link1fault), FIELD(fxio, fio_pcie_presence)});
}

template <typename Class> static void _dump_table_detail() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    fxm_log_stats("    [%s]", Class::word);
    if (Class::total() == 0) {
        fxm_log_stats("    no entry.");
        _end_line();
    }
    _fxm_each_node<Class>([](typename Class::node_t *node) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        fxm_log_stats("    ID: 0x%.12llx", _ull(Class::card(Class::record(node)).fcd_id));
        _dump_detail(*node);
        _end_line();
        return true;
    });
}

static void _dump_cards(uint32_t verbose)
{
    fxm_fx_guard_t guard;
    _dump_card_num();
    fxm_log_stats("  - FX card information");
    _dump_table<fxsv_class>();
    _dump_table<fxio_class>();
    if (verbose == 0)
        return;
    fxm_log_stats("  - FX card information detail");
    _dump_table_detail<fxsv_class>();
    _dump_table_detail<fxio_class>();
}

// ---------------------------------------------------------------------------------------------------------- counters

static void _dump_memory()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Memory");
    fxm_log_stats("    %10s %10s %10s %10s", "Name", "In Use", "Alloc", "Free");
    fxm_log_stats("    ---------- ---------- ---------- ----------");
    for (uint32_t i = 0; i < FXM_MEMS; ++i)
        fxm_log_stats("    %10s %10u %10u %10u", fxm_mem_names[i], g_stats.mem[i].alloc - g_stats.mem[i].free,
                      g_stats.mem[i].alloc, g_stats.mem[i].free);
    _end_line();
}

static void _dump_callbacks()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Callback statistics");
    fxm_log_stats("    Total called  : %u", g_stats.cb_called);
    fxm_log_stats("    Total returned: %u", g_stats.cb_returned);
    _end_line();
}

static void _dump_events()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Event statistics");
    for (uint32_t i = 0; i < FXM_EVT_KINDS; ++i)
        fxm_log_stats("    %-26s: %llu", fxm_event_names[i], _ull(g_stats.evt_count[i]));
    _end_line();
}

static void _dump_frames()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Fenxar message send/receive statistics");
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        fxm_log_stats("    + Port%u", port);
        for (uint32_t i = 0; i < FXM_STATS_FRAMES; ++i)
            fxm_log_stats("      %-20s : %llu", fxm_frame_names[i], _ull(g_stats.port_frames[port][i]));
    }
    _end_line();
}

static void _dump_results(uint32_t verbose)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - API error code");
    for (uint32_t code = 0; code < FXM_API_CODES; ++code)
        fxm_log_stats("    %-20s : %llu", fxm_results[code].name, _ull(g_stats.api_total[code]));
    _end_line();
    if (verbose == 0)
        return;
    fxm_log_stats("  - API error code detail");
    for (uint32_t row = 0; row < FXM_API_ROWS; ++row) {
        fxm_log_stats("    %s", fxm_row_names[row]);
        for (uint32_t code = 0; code < FXM_API_CODES; ++code)
            fxm_log_stats("      %-20s : %llu", fxm_results[code].name, _ull(g_stats.api_detail[row][code]));
    }
    _end_line();
}

void _fxm_status_dump(uint32_t verbose)
{
    _dump_header(verbose);
    _dump_state();
    _dump_ports();
    _dump_cards(verbose);
    _dump_memory();
    _dump_callbacks();
    _dump_events();
    _dump_frames();
    _dump_results(verbose);
    _fxm_blacklist_dump();
    _fxm_config_value_dump();
}

int fxm_stdump(uint32_t verbose)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) verbose=%u", __func__, verbose);
    int result = FXM_API_ENOSYS;
    if (call.running) {
        _fxm_status_dump(verbose);
        result = FXM_API_SUCCESS;
    }
    fxm_log_info("%s: (OUT) ret=%d", __func__, result);
    return _fxm_stats_api(FXM_ROW_STDUMP, result);
}

// -------------------------------------------------------------------------------------------------------- stats task

// Waits for the signal of a stop. In slices: each looks for the signal first, so a wake that the system has lost keeps
// nobody waiting.
static int _wait_for_stop(uint32_t ms)
{
    int err = ETIMEDOUT;
    for (uint32_t left = ms; err == ETIMEDOUT && left > 0;) {
        const uint32_t slice = std::min(left, FXM_WORKER_WAIT);
        err = _fxm_event_timedwait(&g_stats_event, slice);
        left -= slice;
    }
    return err;
}

static void _fxm_stats_task_com()
{
    const uint32_t wait = g_config.stats_interval * 1000; // at most 2592000 s, which fits
    const uint32_t verbose = g_config.stats_verbose_level;
    fxm_log_info("%s: start.", __func__);
    _fxm_status_dump(verbose);
    while (!_fxm_stopping()) {
        const int err = _wait_for_stop(wait);
        if (err != 0 && err != ETIMEDOUT) {
            fxm_log_warn("%s: Failed to _fxm_event_timedwait() err=%d", __func__, EPROTO);
            break;
        }
        _fxm_status_dump(verbose);
    }
    fxm_log_info("%s: end.", __func__);
}

void *_fxm_stats_task(void *)
{
    _fxm_stats_task_com();
    return nullptr;
}
