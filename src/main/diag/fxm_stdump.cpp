// The status dump. Takes no lock as a whole: each section takes what it reads and releases it before the next, so the
// sections are not one snapshot and nobody waits for longer than one of them takes.
#include "diag/fxm_stdump.h"

#include <cerrno>
#include <ctime>
#include <iterator>

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

static void _dump_card_num()
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

// The columns that both classes have; FXIO adds the resource number.
#define CARD_HEAD      "    %14s %4s %5s %3s %7s %8s %9s"
#define CARD_RULE      "    -------------- ---- ----- --- ------- -------- ---------"
#define CARD_ROW       "    0x%.12llx %4u %5s %3u %7s %8s %9s"
#define CARD_HEAD_ARGS "ID", "G-ID", "TYPE", "VER", "CONNECT", "IG-STATE", "VLAN MODE"
#define CARD_ROW_ARGS(card, connect, ignore_state)                                                                     \
    _ull((card).fcd_id), (card).fcd_vlan_id, (card).fcd_type != 0 ? "40G" : "1/10G", (card).fcd_ver + 1u, connect,     \
        _ignore_name(ignore_state), (card).fcd_vlan_mode != 0 ? "CHANGE" : "NORMAL"

static void _dump_row_head(fxsv_class)
{
    fxm_log_stats(CARD_HEAD, CARD_HEAD_ARGS);
    fxm_log_stats(CARD_RULE);
}

static void _dump_row_head(fxio_class)
{
    fxm_log_stats(CARD_HEAD " %4s", CARD_HEAD_ARGS, "R-ID");
    fxm_log_stats(CARD_RULE " ----");
}

static void _dump_row(const fxm_fxsv_t &fxsv, const char *connect, uint32_t ignore_state)
{
    fxm_log_stats(CARD_ROW, CARD_ROW_ARGS(fxsv.fsv_card, connect, ignore_state));
}

static void _dump_row(const fxm_fxio_t &fxio, const char *connect, uint32_t ignore_state)
{
    fxm_log_stats(CARD_ROW " %4u", CARD_ROW_ARGS(fxio.fio_card, connect, ignore_state), fxio.fio_mr_resource_num);
}

template <typename Class> static void _dump_table()
{
    fxm_log_stats("    [%s]", Class::word);
    if (Class::total() == 0)
        fxm_log_stats("    no entry.");
    else
        _dump_row_head(Class{});
    _fxm_each_node<Class>([](typename Class::node_t *node) {
        const auto &states = Class::card(Class::record(node)).fcd_state;
        const auto letter = [](uint32_t state) { return state == 1 ? 'C' : 'D'; };
        const char connect[] = {letter(states[0][0]), letter(states[0][1]), letter(states[1][0]), letter(states[1][1]),
                                '\0'};
        _dump_row(Class::record(node), connect, Class::ignore_state(node));
        return true;
    });
    _end_line();
}

// ------------------------------------------------------------------------------------------------------ cards, detail

static void _field(const char *label, uint32_t value) { fxm_log_stats("      %-22s: %u", label, value); }

static void _field64(const char *label, uint64_t value) { fxm_log_stats("      %-22s: %llu", label, _ull(value)); }

static void _field_mac(const char *indent, const char *label, const uint8_t (&mac)[6])
{
    fxm_log_stats("%s%-22s: %02x:%02x:%02x:%02x:%02x:%02x", indent, label, mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
}

static void _dump_common(const fxm_card_data_t &card)
{
    _field64("fcd_recvtime[0][0]", card.fcd_recvtime[0][0]);
    _field64("fcd_recvtime[0][1]", card.fcd_recvtime[0][1]);
    _field64("fcd_recvtime[1][0]", card.fcd_recvtime[1][0]);
    _field64("fcd_recvtime[1][1]", card.fcd_recvtime[1][1]);
    _field64("fcd_updatetime", card.fcd_updatetime);
    _field("fcd_state[0][0]", card.fcd_state[0][0]);
    _field("fcd_state[0][1]", card.fcd_state[0][1]);
    _field("fcd_state[1][0]", card.fcd_state[1][0]);
    _field("fcd_state[1][1]", card.fcd_state[1][1]);
    _field("fcd_uidsw", card.fcd_uidsw);
    _field("fcd_power", card.fcd_power);
    _field("fcd_port0_link", card.fcd_port0_link);
    _field("fcd_port1_link", card.fcd_port1_link);
    _field("fcd_vlan_id", card.fcd_vlan_id);
    _field_mac("      ", "fcd_macaddr", card.fcd_macaddr);
    fxm_log_stats("      %-22s: %02x %02x %02x", "fcd_swstatus", card.fcd_swstatus[0], card.fcd_swstatus[1],
                  card.fcd_swstatus[2]);
    _field("fcd_vlan_mode", card.fcd_vlan_mode);
    _field("fcd_flowid", card.fcd_flowid);
    _field("fcd_type", card.fcd_type);
    _field("fcd_linkstatus", card.fcd_linkstatus);
    _field("fcd_int_vector", card.fcd_int_vector);
    _field("fcd_ver", card.fcd_ver);
}

static void _bridge_field(const char *label, uint32_t value) { fxm_log_stats("        %-22s: %u", label, value); }

static void _dump_bridge(const fxm_pci_config_t &config)
{
    _bridge_field("fcp_pre_base_upper", config.fcp_pre_base_upper);
    _bridge_field("fcp_pre_limit_upper", config.fcp_pre_limit_upper);
    _bridge_field("fcp_memory_base", config.fcp_memory_base);
    _bridge_field("fcp_memory_limit", config.fcp_memory_limit);
    _bridge_field("fcp_pre_memory_base", config.fcp_pre_memory_base);
    _bridge_field("fcp_pre_memory_limit", config.fcp_pre_memory_limit);
    _bridge_field("fcp_pri_bus_num", config.fcp_pri_bus_num);
    _bridge_field("fcp_sec_bus_num", config.fcp_sec_bus_num);
    _bridge_field("fcp_sub_bus_num", config.fcp_sub_bus_num);
    _bridge_field("fcp_command", config.fcp_command);
}

static void _dump_detail(const fxm_fxsv_node_t *node)
{
    const fxm_fxsv_t &fxsv = node->fsn_data;
    _field("fsn_ignore_state", node->fsn_ignore_state);
    _field("fsn_check_count", node->fsn_check_count);
    _dump_common(fxsv.fsv_card);
    fxm_log_stats("      UP PORT");
    _dump_bridge(fxsv.fsv_up_port);
    for (uint32_t i = 0; i < FXM_DOWN_PORTS; ++i) {
        const fxm_down_port_t &port = fxsv.fsv_down_port[i];
        fxm_log_stats("      DOWN PORT%u", i);
        fxm_log_stats("        %-22s: %02x %02x", "fdp_port_status", port.fdp_port_status[0], port.fdp_port_status[1]);
        _field_mac("        ", "fdp_io_mac", port.fdp_io_mac);
        _dump_bridge(port.fdp_config);
    }
}

static void _dump_detail(const fxm_fxio_node_t *node)
{
    const fxm_fxio_t &fxio = node->fin_data;
    _field("fin_ignore_state", node->fin_ignore_state);
    _field("fin_check_count", node->fin_check_count);
    _dump_common(fxio.fio_card);
    _field("fio_class_code", fxio.fio_class_code);
    _field("fio_device_id", fxio.fio_device_id);
    _field("fio_vendor_id", fxio.fio_vendor_id);
    _field("fio_mr_resource_num", fxio.fio_mr_resource_num);
    _field_mac("      ", "fio_sermacaddr", fxio.fio_sermacaddr);
    fxm_log_stats("      %-22s: %02x %02x", "fio_substate", fxio.fio_substate[0], fxio.fio_substate[1]);
    _field("fio_link0fault", fxio.fio_link0fault);
    _field("fio_link1fault", fxio.fio_link1fault);
    _field("fio_pcie_presence", fxio.fio_pcie_presence);
}

template <typename Class> static void _dump_table_detail()
{
    fxm_log_stats("    [%s]", Class::word);
    if (Class::total() == 0) {
        fxm_log_stats("    no entry.");
        _end_line();
    }
    _fxm_each_node<Class>([](typename Class::node_t *node) {
        fxm_log_stats("    ID: 0x%.12llx", _ull(Class::card(Class::record(node)).fcd_id));
        _dump_detail(node);
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
    static const char *const names[FXM_MEMS] = {"fxsv",      "fxio",   "bl_node", "evt_node",
                                                "wreg_node", "idlist", "cbinfo",  "addrs"};
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Memory");
    fxm_log_stats("    %10s %10s %10s %10s", "Name", "In Use", "Alloc", "Free");
    fxm_log_stats("    ---------- ---------- ---------- ----------");
    for (uint32_t i = 0; i < FXM_MEMS; ++i)
        fxm_log_stats("    %10s %10u %10u %10u", names[i], g_stats.mem[i].alloc - g_stats.mem[i].free,
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
    static const char *const names[FXM_EVT_KINDS] = {
        "FXM_EVT_NEWDEVINFO",      "FXM_EVT_UPDATEDEVINFO",   "FXM_EVT_CONNECTIONCHANGE",
        "FXM_EVT_MAJORMINORERROR", "FXM_EVT_PATHSTATECHANGE", "FXM_EVT_CHANNELSTATECHANGE",
    };
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Event statistics");
    for (uint32_t i = 0; i < FXM_EVT_KINDS; ++i)
        fxm_log_stats("    %-26s: %llu", names[i], _ull(g_stats.evt_count[i]));
    _end_line();
}

static void _dump_frames()
{
    static const char *const names[FXM_STATS_FRAMES] = {
        "FXM_STATS_R_TOTAL",  "FXM_STATS_R_DEV",  "FXM_STATS_R_DEV40", "FXM_STATS_R_NOTI",
        "FXM_STATS_R_NOTI40", "FXM_STATS_R_COMP", "FXM_STATS_T_TOTAL", "FXM_STATS_T_VLANSET",
        "FXM_STATS_T_REGR",   "FXM_STATS_T_REGW", "FXM_STATS_T_RESET", "FXM_STATS_T_MMS",
    };
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - Fenxar message send/receive statistics");
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        fxm_log_stats("    + Port%u", port);
        for (uint32_t i = 0; i < FXM_STATS_FRAMES; ++i)
            fxm_log_stats("      %-20s : %llu", names[i], _ull(g_stats.port_frames[port][i]));
    }
    _end_line();
}

static const char *const code_names[FXM_API_CODES] = {
    "FXM_API_SUCCESS", "FXM_API_EINVAL", "FXM_API_ERANGE",    "FXM_API_ENOENT", "FXM_API_ENOLINK",
    "FXM_API_ENOMEM",  "FXM_API_EPROTO", "FXM_API_ETIMEDOUT", "FXM_API_EBUSY",  "FXM_API_ENOSYS",
};

static const char *const row_names[FXM_API_ROWS] = {
    "fxm_get_fxsvids()",
    "fxm_get_update_fxsvids()",
    "fxm_get_group_fxsvids()",
    "fxm_get_fxioids()",
    "fxm_get_update_fxioids()",
    "fxm_get_group_fxioids()",
    "fxm_get_fxsv()",
    "fxm_get_fxio()",
    "fxm_delete_fxsv()",
    "fxm_delete_fxio()",
    "fxm_set_vlanid()",
    "fxm_send_resetframe()",
    "fxm_write_mmspage()",
    "fxm_read_register()",
    "fxm_write_register()",
    "fxm_modify_register()",
    "fxm_dump_register()",
    "fxm_read_eeprom()",
    "fxm_write_eeprom()",
    "fxm_dump_eeprom()",
    "fxm_unlock_eeprom()",
    "fxm_stop_monitor()",
    "fxm_restart_monitor()",
    "fxm_register_callback()",
    "fxm_unregister_callback()",
    "fxm_free_idlist()",
    "fxm_set_loglevel()",
    "fxm_init_manager()",
    "fxm_start_manager()",
    "fxm_fini_manager()",
    "fxm_stdump()",
};

static void _dump_results(uint32_t verbose)
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    fxm_log_stats("  - API error code");
    for (uint32_t code = 0; code < FXM_API_CODES; ++code)
        fxm_log_stats("    %-20s : %llu", code_names[code], _ull(g_stats.api_total[code]));
    _end_line();
    if (verbose == 0)
        return;
    fxm_log_stats("  - API error code detail");
    for (uint32_t row = 0; row < FXM_API_ROWS; ++row) {
        fxm_log_stats("    %s", row_names[row]);
        for (uint32_t code = 0; code < FXM_API_CODES; ++code)
            fxm_log_stats("      %-20s : %llu", code_names[code], _ull(g_stats.api_detail[row][code]));
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

static void _fxm_stats_task_com()
{
    const uint32_t wait = g_config.stats_interval * 1000; // at most 2592000 s, which fits
    const uint32_t verbose = g_config.stats_verbose_level;
    fxm_log_info("%s: start.", __func__);
    _fxm_status_dump(verbose);
    while (!_fxm_stopping()) {
        const int err = _fxm_event_timedwait(&g_stats_event, wait);
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
