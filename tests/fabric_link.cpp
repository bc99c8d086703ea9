// What the library makes of silence and of lost links, and the report that it gives of itself.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <tuple>
#include <utility>

#include "fabric.h"

namespace
{

using std::to_string;

// No pass of the keepalive check comes while such a test runs.
const std::string NO_PASS = "devinfo_check_interval = 100000\ndevinfo_expire_time = 100000\n";

std::vector<event_t> channels_changed(const std::vector<uint64_t> &ids)
{
    std::vector<event_t> events;
    for (const uint64_t id : ids)
        events.insert(events.end(), {{FXM_EVT_UPDATEDEVINFO, id}, {FXM_EVT_CHANNELSTATECHANGE, id}});
    return events;
}

// What the log tells of a card that has lost channels; `left` as above.
std::string lost(const std::string &who, const std::string &left)
{
    const auto state = [&](size_t i) { return left[i] == 'C' ? "CONNECT" : "DISCONNECT"; };
    return "INFO " + who + " state change to disconnect. P0M0: " + state(0) + ", P0M1: " + state(1) +
           ", P1M0: " + state(2) + ", P1M1: " + state(3);
}

// What both logs tell of a port whose link has changed.
std::string link_line(const std::string &port, const std::string &change)
{
    return "State of FXM port" + port + " changed. mac=02000000aa0" + port +
           ", if_index=" + to_string(if_nametoindex(("fxm" + port).c_str())) + " (" + change + ")";
}

const std::string LINK = "INFO _fxm_link_state_update: ";

// ------------------------------------------------------------------------------------------------- parts of a dump

// From the line `title` up to, but not including, the line `next`; to the end without it.
std::string part(const dump_t &dump, const std::string &title, const std::string &next = "")
{
    std::string text;
    const auto end = std::find(dump.begin(), dump.end(), next);
    for (auto line = std::find(dump.begin(), dump.end(), title); line < end; ++line)
        text += *line + "\n";
    return text;
}

std::string ports_section(const std::string &state0, size_t falls0, const std::string &state1, size_t falls1,
                          const std::string &mac1 = "02000000aa01")
{
    return "  - Port information\n    + Port0\n      MAC addr  : 02000000aa00\n      Link state: " + state0 +
           "\n      Total down: " + to_string(falls0) + "\n    + Port1\n      MAC addr  : " + mac1 +
           "\n      Link state: " + state1 + "\n      Total down: " + to_string(falls1) + "\n \n";
}

// Lines of one shape: so many blanks, a label that takes so many columns, ": " and a value.
struct layout_t {
    size_t indent;
    size_t width;
    const char *labels;
};
const layout_t EVENTS = {4, 26,
                         "FXM_EVT_NEWDEVINFO FXM_EVT_UPDATEDEVINFO FXM_EVT_CONNECTIONCHANGE FXM_EVT_MAJORMINORERROR "
                         "FXM_EVT_PATHSTATECHANGE FXM_EVT_CHANNELSTATECHANGE"};
const layout_t FRAMES = {6, 21,
                         "FXM_STATS_R_TOTAL FXM_STATS_R_DEV FXM_STATS_R_DEV40 FXM_STATS_R_NOTI FXM_STATS_R_NOTI40 "
                         "FXM_STATS_R_COMP FXM_STATS_T_TOTAL FXM_STATS_T_VLANSET FXM_STATS_T_REGR FXM_STATS_T_REGW "
                         "FXM_STATS_T_RESET FXM_STATS_T_MMS"};
const char *const CODES = "FXM_API_SUCCESS FXM_API_EINVAL FXM_API_ERANGE FXM_API_ENOENT FXM_API_ENOLINK "
                          "FXM_API_ENOMEM FXM_API_EPROTO FXM_API_ETIMEDOUT FXM_API_EBUSY FXM_API_ENOSYS";
const layout_t FXSV_MONITOR = {6, 22, "fsn_ignore_state fsn_check_count"};
const layout_t FXIO_MONITOR = {6, 22, "fin_ignore_state fin_check_count"};
const layout_t COMMON = {6, 22,
                         "fcd_recvtime[0][0] fcd_recvtime[0][1] fcd_recvtime[1][0] fcd_recvtime[1][1] fcd_updatetime "
                         "fcd_state[0][0] fcd_state[0][1] fcd_state[1][0] fcd_state[1][1] fcd_uidsw fcd_power "
                         "fcd_port0_link fcd_port1_link fcd_vlan_id fcd_macaddr fcd_swstatus fcd_vlan_mode fcd_flowid "
                         "fcd_type fcd_linkstatus fcd_int_vector fcd_ver"};
const layout_t FXIO_ONLY = {6, 22,
                            "fio_class_code fio_device_id fio_vendor_id fio_mr_resource_num fio_sermacaddr "
                            "fio_substate fio_link0fault fio_link1fault fio_pcie_presence"};
const layout_t DOWN_PORT = {8, 22, "fdp_port_status fdp_io_mac"};
const layout_t BRIDGE = {8, 22,
                         "fcp_pre_base_upper fcp_pre_limit_upper fcp_memory_base fcp_memory_limit fcp_pre_memory_base "
                         "fcp_pre_memory_limit fcp_pri_bus_num fcp_sec_bus_num fcp_sub_bus_num fcp_command"};
const char *const NO_BRIDGE = "0|0|0|0|0|0|0|0|0|0";
const layout_t CONFIG = {4, 30,
                         "ether_port0_name ether_port1_name broadcast_mac ether_port0_ifindex ether_port1_ifindex "
                         "use_port_num_win use_port_num_linux devinfo_check_interval devinfo_expire_time "
                         "devinfo_flag_check_interval vlan_check_interval frame_retry_interval frame_retry_count "
                         "frame_retry_interval_livecheck frame_retry_count_livecheck eeprom_id_number "
                         "eeprom_retry_interval eeprom_retry_count eeprom_check_interval eeprom_check_retry_count "
                         "eeprom_verify_count eeprom_verify_interval eeprom_lock_other_bit eeprom_rw_interval tag_min "
                         "tag_max id_list_upper_limit log_level network_composition eeprom_type stats_interval "
                         "stats_verbose_level force_lock_try_count register_verify_interval update_evt_mask "
                         "ether_type"};
const char *const FUNCTIONS =
    "fxm_get_fxsvids fxm_get_update_fxsvids fxm_get_group_fxsvids fxm_get_fxioids fxm_get_update_fxioids "
    "fxm_get_group_fxioids fxm_get_fxsv fxm_get_fxio fxm_delete_fxsv fxm_delete_fxio fxm_set_vlanid "
    "fxm_send_resetframe fxm_write_mmspage fxm_read_register fxm_write_register fxm_modify_register fxm_dump_register "
    "fxm_read_eeprom fxm_write_eeprom fxm_dump_eeprom fxm_unlock_eeprom fxm_stop_monitor fxm_restart_monitor "
    "fxm_register_callback fxm_unregister_callback fxm_free_idlist fxm_set_loglevel fxm_init_manager "
    "fxm_start_manager fxm_fini_manager fxm_stdump";

// The values stand between bars.
std::string fields(const layout_t &layout, const std::string &values)
{
    std::istringstream words(layout.labels);
    std::istringstream bars(values);
    std::string text;
    std::string value;
    for (std::string label; words >> label;) {
        EXPECT_TRUE(std::getline(bars, value, '|')) << label;
        label.resize(layout.width, ' ');
        text += std::string(layout.indent, ' ') + label + ": " + value + "\n";
    }
    EXPECT_FALSE(std::getline(bars, value, '|')) << value;
    return text;
}

// The times are those of the record; the other values are given.
std::string common(const fxm_card_data_t &card, const std::string &values)
{
    std::string times;
    for (const uint64_t time : {card.fcd_recvtime[0][0], card.fcd_recvtime[0][1], card.fcd_recvtime[1][0],
                                card.fcd_recvtime[1][1], card.fcd_updatetime})
        times += to_string(time) + "|";
    return fields(COMMON, times + values);
}

// All sixteen, of which the one `number` has something to show.
std::string down_ports(int number, const std::string &status_and_mac, const std::string &registers)
{
    std::string text;
    for (int i = 0; i < FXM_DOWN_PORTS; ++i)
        text += "      DOWN PORT" + to_string(i) + "\n" +
                fields(DOWN_PORT, i == number ? status_and_mac : "00 00|00:00:00:00:00:00") +
                fields(BRIDGE, i == number ? registers : NO_BRIDGE);
    return text;
}

// ------------------------------------------------------------------------------------------------------- keepalive

TEST_F(fabric_t, silent_channels_go_down_once_per_card_and_the_node_stays)
{
    // The cards speak right behind a pass. Half a period lies between their expiry and the passes beside it.
    configure("devinfo_check_interval = 1000\ndevinfo_expire_time = 1500\ndevinfo_flag_check_interval = 10\n");
    run();
    const std::string pass = "TRACE _fxm_interval_check: DEVINFO interval check ";
    ASSERT_TRUE(wait_for_line(pass + "end", log.count(pass + "end") + 1));
    const frame_t mac0 = fxsv_40g_frame();
    const frame_t mac1 = from(FXSV_40G + 1, mac0);
    for (const frame_t &frame : {mac0, mac1, fxio_frame(), fxsv_1g_frame()})
        wire[0]->send(frame);
    settle(0);
    wire[1]->send(mac0);
    wire[1]->send(mac1);
    settle(1);
    EXPECT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    expect_events(events());
    const fxm_fxsv_t heard = fxsv(FXSV_40G);
    const fxm_fxio_t known = fxio(FXIO);
    ASSERT_EQ(channels(heard.fsv_card) + channels(known.fio_card), "CCCCCDDD");

    // Of all channels only P1M1 of the one card goes on.
    const std::string three = lost("_devinfo_keepalive_check: FXSV id=0x020000004000", "DDDC");
    const std::string all = lost("_devinfo_keepalive_check: FXIO id=0x020000002000", "DDDD");
    const auto told = [&](const std::string &line, size_t count) {
        const auto speak_on = [&] { return wire[1]->send(mac1), log.count(line) >= count; };
        return wait_for(speak_on, line, [&] { return log.tail(); });
    };
    ASSERT_TRUE(told(all, 1));
    expect_events(channels_changed({FXSV_40G, FXIO}), 1);
    EXPECT_EQ(log.count(three), 1u);
    EXPECT_EQ(log.count_with("state change to disconnect"), 2u);
    const fxm_fxsv_t left = fxsv(FXSV_40G);
    EXPECT_EQ(channels(left.fsv_card), "DDDC");
    EXPECT_GE(left.fsv_card.fcd_updatetime, heard.fsv_card.fcd_recvtime[1][0] + 1500) << "down before its time";
    fxm_fxio_t silent = fxio(FXIO);
    EXPECT_EQ(channels(silent.fio_card), "DDDD");
    EXPECT_EQ(silent.fio_card.fcd_updatetime, left.fsv_card.fcd_updatetime) << "a pass has one time";
    silent.fio_card.fcd_state[0][0] = 1;
    silent.fio_card.fcd_updatetime = known.fio_card.fcd_updatetime;
    EXPECT_EQ(memcmp(&silent, &known, sizeof(known)), 0) << "silence has touched more than channel and time";
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDDD") << "a card out of monitoring has aged";

    // The silent card speaks again: the node that it had.
    wire[0]->send(fxio_frame());
    expect_events(channels_changed({FXIO}));

    // The one out of monitoring comes back with times that have long expired: its passes are counted, and no more.
    ASSERT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
    ASSERT_TRUE(told(pass + "end", log.count(pass + "end") + 1));
    EXPECT_EQ(fxm_restart_monitor(FXSV_1G), FXM_API_SUCCESS);
    const std::string restarted = lost("_devinfo_keepalive_check: FXSV id=0x020000001000", "DDDD");
    ASSERT_TRUE(told(restarted, 1));
    expect_events(channels_changed({FXSV_1G}), 1);
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "DDDD");
    const std::vector<std::string> &lines = log.lines();
    const auto down = std::find(lines.begin(), lines.end(), restarted);
    const auto restart = std::find(lines.begin(), down, "INFO fxm_restart_monitor: (OUT) ret=0, id=0x020000001000");
    EXPECT_EQ(std::count(restart, down, pass + "start"), 2) << "the limit is 1500 / 1000 + 1";
    EXPECT_EQ(part(dump(1), "    ID: 0x020000001000").substr(23, 64),
              "      fsn_ignore_state      : 0\n      fsn_check_count       : 2\n");
}

// ------------------------------------------------------------------------------------------------------------ links

TEST_F(fabric_t, lost_link_takes_down_the_channels_of_its_port_and_no_other)
{
    configure(NO_PASS);
    run();
    const frame_t mac0 = fxsv_40g_frame();
    for (const frame_t &frame : {mac0, fxio_frame()})
        wire[0]->send(frame);
    settle(0);
    for (const frame_t &frame : {mac0, from(FXSV_40G + 1, mac0), fxsv_1g_frame(), fxio_mr_frame()})
        wire[1]->send(frame);
    settle(1);
    EXPECT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_restart_monitor(FXIO_MR), FXM_API_SUCCESS); // its channel counts like any other's
    expect_events(events());
    const fxm_fxio_t elsewhere = fxio(FXIO);

    size_t falls = 0;
    for (const std::string interface : {"card1", "fxm1"}) {
        SCOPED_TRACE(interface); // the peer goes down, or the port's own interface is set down
        const uint64_t before = now_ms();
        ip("link set " + interface + " down");
        falls += 1;
        ASSERT_TRUE(wait_for([&] { return sys_log.count(link_line("1", "UP->DOWN")) == falls; }, "the fall"));
        EXPECT_EQ(log.count(LINK + link_line("1", "UP->DOWN")), falls);
        expect_events(channels_changed(falls == 1 ? std::vector{FXSV_40G, FXIO_MR} : std::vector{FXSV_40G}));
        EXPECT_EQ(log.count(lost("_fxm_all_disconnect: FXSV id=0x020000004000", "CDDD")), falls);
        EXPECT_EQ(log.count(lost("_fxm_all_disconnect: FXIO id=0x020000002100", "DDDD")), 1u);
        const fxm_fxsv_t down = fxsv(FXSV_40G);
        EXPECT_EQ(channels(down.fsv_card), "CDDD");
        EXPECT_GE(down.fsv_card.fcd_updatetime, before);
        EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "DDCD") << "out of monitoring";
        const fxm_fxio_t untouched = fxio(FXIO);
        EXPECT_EQ(memcmp(&untouched, &elsewhere, sizeof(untouched)), 0) << "not on this port";
        const dump_t told = dump(1);
        EXPECT_EQ(part(told, "  - Port information", "  - FX card num"), ports_section("UP", 0, "DOWN", falls));
        EXPECT_EQ(part(told, "    ID: 0x020000002100").substr(23, 64),
                  "      fin_ignore_state      : 2\n      fin_check_count       : 0\n");

        ip("link set " + interface + " up");
        ASSERT_TRUE(wait_for([&] { return sys_log.count(link_line("1", "DOWN->UP")) == falls; }, "the rise"));
        EXPECT_EQ(log.count(LINK + link_line("1", "DOWN->UP")), falls);
        expect_events({});
        const fxm_fxsv_t risen = fxsv(FXSV_40G);
        EXPECT_EQ(memcmp(&risen, &down, sizeof(down)), 0) << "a rise by itself changes no card";
        renew_wire(1); // a raw socket remembers that its interface was down
        wire[1]->send(mac0);
        expect_events(channels_changed({FXSV_40G}), 1);
        EXPECT_EQ(channels(fxsv(FXSV_40G).fsv_card), "CDCD");
    }

    // A notice that tells of no change of state.
    const std::string notice = "DEBUG _fxm_watch_linkstate_win: WaitForMultipleObjects() catch event of address table "
                               "changed";
    const std::string reading = "TRACE _fxm_get_linkstate_win: Success. port=1, IF_status=1";
    const size_t noticed = log.count(notice);
    const size_t read = log.count(reading);
    ip("addr add 192.0.2.1/24 dev fxm1");
    ASSERT_TRUE(wait_for([&] { return log.count(notice) > noticed && log.count(reading) > read; }, notice));
    expect_events({}, 1);
    EXPECT_EQ(log.count_with("State of FXM port"), 4u);
    EXPECT_EQ(sys_log.count_with("State of FXM port"), 4u);
}

TEST_F(fabric_t, single_port_without_link_starts_and_the_other_interface_is_never_read)
{
    configure("ether_port = fxm0\n" + NO_PASS);
    ip("link set card0 down");
    start();
    const dump_t told = dump(7);
    EXPECT_TRUE(told[0].ends_with(" fxm status dump (v7)")) << told[0];
    const std::string no_cards = "    [FXSV]\n    no entry.\n \n    [FXIO]\n    no entry.\n \n";
    EXPECT_EQ(part(told, "  - State", "  - Memory"),
              "  - State\n    Init flag : ON\n    Start flag: OFF\n    Fini flag : OFF\n    Log level : TRACE\n \n" +
                  ports_section("DOWN", 0, "DOWN", 0, "000000000000") +
                  "  - FX card num\n    fxsv total: 0\n    fxio total: 0\n \n"
                  "    G-ID SV num IO num\n    ---- ------ ------\n \n"
                  "  - FX card information\n" +
                  no_cards + "  - FX card information detail\n" + no_cards);
    EXPECT_EQ(part(told, "  - Black list ids", "  - Config parameters"), "  - Black list ids\n    no entry.\n \n");

    ip("link set card0 up");
    ASSERT_TRUE(wait_for_line(LINK + link_line("0", "DOWN->UP")));
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
    const std::string reading = "TRACE _fxm_get_linkstate_win: Success. port=0, IF_status=1";
    const size_t read = log.count(reading);
    ip("link set fxm1 down");
    ASSERT_TRUE(wait_for_line(reading, read + 1));
    renew_wire(0); // a raw socket remembers that its interface was down
    wire[0]->send(fxsv_1g_frame());
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G}});
    EXPECT_EQ(log.count_with("State of FXM port"), 1u);
    EXPECT_EQ(log.count_with("_fxm_get_linkstate_win: start. port=1"), 0u);
    EXPECT_EQ(part(dump(), "  - Port information", "  - FX card num"),
              ports_section("UP", 0, "DOWN", 0, "000000000000"));
}

TEST_F(fabric_t, flapping_link_ends_in_its_last_state_with_every_event_told_once)
{
    configure(NO_PASS); // what goes down goes with the link
    start_cards("--period 1");
    cards("fxsv 02:00:00:00:40:00 gen=40g");
    cards("fxio 02:00:00:00:20:00");
    run(FXM_LOG_INFO);
    wait_for([&] { return events().size() >= 2 + 2 * (3 + 1); }, "all channels of both");

    // The far side of one port, the interface of the other.
    for (const auto &[port, interface, up, expected] :
         {std::tuple("port0", "card0", false, "DDCC DDCD"), std::tuple("port0", "card0", true, "CCCC CDCD"),
          std::tuple("port1", "fxm1", false, "CCDD CDDD"), std::tuple("port1", "fxm1", true, "CCCC CDCD")}) {
        for (int i = 0; i < 1000; ++i) {
            set_up(interface, !up);
            set_up(interface, up);
        }
        // True, and true to stay: the kernel takes up to a second to say its last word about a carrier.
        std::string seen;
        uint64_t since = now_ms();
        const auto stays_true = [&, port = port, up = up, expected = expected] {
            std::string last;
            for (const std::string &line : sys_log.lines())
                last = line.find(port) != std::string::npos ? line : last;
            seen = channels(fxsv(FXSV_40G).fsv_card) + " " + channels(fxio(FXIO).fio_card);
            if (seen != expected || !last.ends_with(up ? "(DOWN->UP)" : "(UP->DOWN)"))
                since = now_ms();
            seen += "\n" + last;
            return now_ms() > since + 1200;
        };
        EXPECT_TRUE(wait_for(stays_true, std::string(interface) + " " + expected, [&] { return seen; }));
    }
    stop_cards();
    wire = {std::make_unique<wire_t>(0), std::make_unique<wire_t>(1)}; // a raw socket remembers that its link was down
    settle(0);
    settle(1);

    // The cards' content never changes: what changes are channels, and each change has its line.
    const size_t changes = log.count_with(" state change to ");
    const std::vector<event_t> came = events();
    for (const int32_t kind : {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE}) {
        const auto is_kind = [&](const event_t &event) { return event.type == kind; };
        EXPECT_EQ(std::count_if(came.begin(), came.end(), is_kind), changes);
    }
    const dump_t told = dump();
    const std::string times = to_string(changes); // beside two new cards, and what the fixture sent on both ports
    EXPECT_EQ(part(told, "  - Event statistics", "  - Fenxar message send/receive statistics"),
              "  - Event statistics\n" + fields(EVENTS, "4|" + times + "|0|0|0|" + times) + " \n");
    size_t falls[2] = {};
    for (const size_t port : {0u, 1u}) {
        falls[port] = log.count(LINK + link_line(to_string(port), "UP->DOWN"));
        EXPECT_EQ(log.count(LINK + link_line(to_string(port), "DOWN->UP")), falls[port]);
        EXPECT_EQ(sys_log.count(link_line(to_string(port), "UP->DOWN")), falls[port]);
    }
    EXPECT_EQ(part(told, "  - Port information", "  - FX card num"), ports_section("UP", falls[0], "UP", falls[1]));
}

// ------------------------------------------------------------------------------------------------------------- dump

TEST_F(fabric_t, dump_shows_known_cards_word_for_word)
{
    configure(NO_PASS + "broadcast_mac = 03:00:ff:ff:ff:fe\neeprom_lock_other_bit = 0x80000000\nlog_level = 5\n");
    run(FXM_LOG_DEBUG);

    // 20 flow id, ver, UID switch and power; 24 link status, three status bytes: both links, version 5, interrupts
    frame_t one_g_frame = changed(on_vlan(0, fxsv_1g_frame()), {{20, "11 00 0c"}, {24, "22 81 65 03"}});
    // 28 up port: buses, command, memory 0x1000 to 0x1ff0, prefetchable 0x2001 to 0x2ff1, their upper halves
    one_g_frame = changed(one_g_frame, {{28, "00 01 10 07 00 10 f0 1f 01 20 f1 2f 04 03 02 01 08 07 06 05"}});
    // 48 down port 0: status without the connection bit, MAC, registers that do not count
    one_g_frame = changed(one_g_frame, {{48, "f8 fd 02 00 00 00 20 00 01 02 03 04 05 06 07 08 09 0a 0b 0c"}});
    // 26 version 15; 468 down port 15: status with the connection bit, MAC, registers
    const frame_t forty_g_frame =
        changed(fxsv_40g_frame(), {{26, "0f"},
                                   {468, "01 02 02 00 00 00 21 00 "
                                         "ff fe fd fc ff ff fe ff fd ff fc ff ff ff ff ff fe ff ff ff"}});
    // 12 EtherType, TPID, TCI with VLAN 4095; 22 a fault; 26 presence and version 1; 28 sub-state, MAC of the FXSV card
    const frame_t multi_root_frame =
        changed(fxio_mr_frame(), {{12, "88 b6 81 00 8f ff"}, {22, "01"}, {26, "81 00 00 02 02 00 00 00 10 00"}});
    const uint64_t FXIO_40G = 0x020000003000;
    for (const auto &[port, frame] :
         {std::pair(0, one_g_frame),
          {0, changed(from(FXSV_40G + 1, fxsv_40g_frame()), {{18, "19"}})}, // 18 40G NOTIFY
          {1, forty_g_frame},
          {1, multi_root_frame},
          {0, changed(fxio_frame(), {{18, "11"}})}, // 18 1G/10G NOTIFY
          {0, changed(on_vlan(4094, from(FXIO_40G, fxio_frame())), {{18, "18 00 00 01"}})}}) {
        wire[static_cast<size_t>(port)]->send(frame);
        settle(port);
        wait_for([now = now_ms()] { return now_ms() > now; }, "the clock, so that each card has times of its own");
    }
    EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_restart_monitor(FXIO_40G), FXM_API_SUCCESS);

    // A command of each kind, the last by port 1, and a Completion for nobody.
    const fxm_retry_param_t once = {0, 1};
    const uint8_t page[128] = {};
    uint32_t value = 0;
    EXPECT_EQ(fxm_read_register(FXSV_40G, 0, &value, &once, 0), FXM_API_ETIMEDOUT);
    EXPECT_EQ(fxm_write_register(FXSV_40G, 0, 0, &once, 0), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_set_vlanid(FXSV_40G, 100, &once, 0), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_send_resetframe(FXSV_40G, 0, &once, 0), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_write_mmspage(FXIO_MR, 0, page, 0), FXM_API_SUCCESS);
    wire[0]->send(changed(fxio_frame(), {{18, "20"}}));
    settle(0);
    wait_for([&] { return memory(dump(), "evt_node").in_use == 0; }, "the last event to be freed");

    const std::string cards = "  - FX card num\n    fxsv total: 2\n    fxio total: 3\n \n"
                              "    G-ID SV num IO num\n"
                              "    ---- ------ ------\n"
                              "       0      1      0\n"
                              "     100      1      1\n"
                              "    4094      0      1\n"
                              "    4095      0      1\n \n"
                              "  - FX card information\n"
                              "    [FXSV]\n"
                              "                ID G-ID  TYPE VER CONNECT IG-STATE VLAN MODE\n"
                              "    -------------- ---- ----- --- ------- -------- ---------\n"
                              "    0x020000001000    0 1/10G   6    CDDD    WATCH    NORMAL\n"
                              "    0x020000004000  100   40G  16    DCCD    WATCH    NORMAL\n \n"
                              "    [FXIO]\n"
                              "                ID G-ID  TYPE VER CONNECT IG-STATE VLAN MODE R-ID\n"
                              "    -------------- ---- ----- --- ------- -------- --------- ----\n"
                              "    0x020000002000  100 1/10G   1    CDDD   IGNORE    NORMAL    0\n"
                              "    0x020000002100 4095 1/10G   2    DDCD    WATCH    CHANGE  258\n"
                              "    0x020000003000 4094   40G   1    CDDD  RESTART    NORMAL    0\n \n";
    const std::string details =
        "  - FX card information detail\n    [FXSV]\n    ID: 0x020000001000\n" + fields(FXSV_MONITOR, "0|0") +
        common(fxsv(FXSV_1G).fsv_card, "1|0|0|0|1|1|1|1|0|02:00:00:00:10:00|81 65 03|0|17|0|34|3|5") +
        "      UP PORT\n" + fields(BRIDGE, "16909060|84281096|4096|8176|8193|12273|0|1|16|7") +
        down_ports(0, "f8 fd|02:00:00:00:20:00", NO_BRIDGE) + " \n    ID: 0x020000004000\n" +
        fields(FXSV_MONITOR, "0|0") +
        common(fxsv(FXSV_40G).fsv_card, "0|1|1|0|0|0|0|0|100|02:00:00:00:40:00|00 0f 00|0|0|1|0|0|15") +
        "      UP PORT\n" + fields(BRIDGE, NO_BRIDGE) +
        down_ports(15, "01 02|02:00:00:00:21:00", "4294967295|4294967294|65535|65534|65533|65532|255|254|253|252") +
        " \n    [FXIO]\n    ID: 0x020000002000\n" + fields(FXIO_MONITOR, "1|0") +
        common(fxio(FXIO).fio_card, "1|0|0|0|0|0|0|0|100|02:00:00:00:20:00|00 00 00|0|0|0|0|0|0") +
        fields(FXIO_ONLY, "131072|5490|32902|0|00:00:00:00:00:00|00 00|0|0|0") + " \n    ID: 0x020000002100\n" +
        fields(FXIO_MONITOR, "0|0") +
        common(fxio(FXIO_MR).fio_card, "0|0|1|0|0|0|0|0|4095|02:00:00:00:21:00|00 81 00|1|0|0|0|0|1") +
        fields(FXIO_ONLY, "131072|5490|32902|258|02:00:00:00:10:00|00 02|0|1|1") + " \n    ID: 0x020000003000\n" +
        fields(FXIO_MONITOR, "2|0") +
        common(fxio(FXIO_40G).fio_card, "1|0|0|0|0|0|0|0|4094|02:00:00:00:30:00|00 00 00|0|0|1|0|0|0") +
        fields(FXIO_ONLY, "131072|5490|32902|0|00:00:00:00:00:00|00 00|0|0|0") + " \n";

    for (const bool verbose : {false, true}) {
        dump_t told = dump(verbose ? 1 : 0);
        EXPECT_TRUE(told[0].ends_with(verbose ? "(v1)" : "(v0)")) << told[0];
        std::replace_if(
            told[0].begin(), told[0].end(), [](char c) { return c >= '0' && c <= '9'; }, '#');
        EXPECT_EQ(told[0], "*** ####-##-## ##:##:## fxm status dump (v#)");

        std::string accounts;
        std::string in_use;
        for (const std::string name :
             {"fxsv", "fxio", "bl_node", "evt_node", "wreg_node", "idlist", "cbinfo", "addrs"}) {
            const account_t account = memory(told, name);
            char line[128];
            snprintf(line, sizeof(line), "    %10s %10u %10u %10u\n", name.c_str(), account.alloc - account.free,
                     account.alloc, account.free);
            accounts += line;
            // Write locks outlive a stop: how many are new rests on what else has run in this process.
            in_use += (name == "wreg_node" ? "#" : to_string(account.in_use)) + " ";
        }
        EXPECT_EQ(in_use, "2 3 1 0 # 0 6 0 ");

        // The fixture's own card came and went, as a new one each time. Of the others tell: interrupts of the first,
        // version, connection and another channel of the second.
        const uint64_t fences0 = frames_counted(told, 0, "FXM_STATS_R_DEV") - 1;
        const uint64_t fences1 = frames_counted(told, 1, "FXM_STATS_R_DEV") - 1;
        const std::string called = to_string(fences0 + fences1 + 5 + 4);
        const std::string none = "#|#|#|#|#|#|#|#|#|#";
        std::string results = "  - API error code\n" + fields({4, 21, CODES}, none) + " \n";
        if (verbose) {
            results += "  - API error code detail\n";
            std::istringstream functions(FUNCTIONS);
            for (std::string name; functions >> name;)
                results += "    " + name + "()\n" + fields({6, 21, CODES}, none);
            results += " \n";
            const dump_t rows = section(told, "  - API error code detail");
            EXPECT_EQ(number_after({std::find(rows.begin(), rows.end(), "    fxm_read_register()"), rows.end()},
                                   "      FXM_API_ETIMEDOUT    : "),
                      1u);
            for (const std::string &total : section(told, "  - API error code")) {
                uint64_t sum = 0;
                for (const std::string &row : rows)
                    sum += row.starts_with("  " + total.substr(0, 27)) ? std::stoull(row.substr(29)) : 0;
                EXPECT_EQ(total.substr(27), to_string(sum)) << total;
            }
        }
        for (std::string &line : told) // how often the fixture calls is its affair
            line = line.find(" FXM_API_") == std::string::npos ? line : line.substr(0, line.rfind(' ')) + " #";

        EXPECT_EQ(part(told, "  - State"),
                  "  - State\n    Init flag : ON\n    Start flag: ON\n    Fini flag : OFF\n    Log level : DEBUG\n \n" +
                      ports_section("UP", 0, "UP", 0) + cards + (verbose ? details : "") +
                      "  - Memory\n          Name     In Use      Alloc       Free\n"
                      "    ---------- ---------- ---------- ----------\n" +
                      accounts + " \n  - Callback statistics\n    Total called  : " + called +
                      "\n    Total returned: " + called + "\n \n  - Event statistics\n" +
                      fields(EVENTS, to_string(fences0 + fences1 + 5) + "|1|1|1|0|1") +
                      " \n  - Fenxar message send/receive statistics\n    + Port0\n" +
                      fields(FRAMES, to_string(fences0 + 5) + "|" + to_string(fences0 + 1) + "|1|1|1|1|4|1|1|1|1|0") +
                      "    + Port1\n" +
                      fields(FRAMES, to_string(fences1 + 2) + "|" + to_string(fences1 + 1) + "|1|0|0|0|1|0|0|0|0|1") +
                      " \n" + results + "  - Black list ids\n    0x020000002000\n \n  - Config parameters\n" +
                      fields(CONFIG, "fxm0|fxm1|0300fffffffe|0|1|2|2|100000|100000|100|10|100|10|100|10|0x0100|50|100|"
                                     "1|50|20|1|0x80000000|100|0|255|0xffffffff|5|2|0|3600|0|10|0|2|0x88b6") +
                      " \n");
    }
}

TEST_F(fabric_t, dumps_stay_whole_and_nothing_hangs_while_everything_goes_on)
{
    start_cards("--period 2");
    cards("fxsv 02:00:00:00:40:00 gen=40g");
    cards("fxsv 02:00:00:00:10:00 count=3");
    cards("fxio 02:00:00:00:20:00");
    run(FXM_LOG_FATAL);
    wait_for([&] { return number_after(dump(), "    fxsv total: ") == 4; }, "four cards");
    const auto headings = [](const dump_t &dump) {
        std::string text;
        for (const std::string &line : dump)
            text += line.starts_with("  - ") ? line : "";
        return text;
    };
    const std::string all_headings = headings(dump(1));
    const auto first = static_cast<std::ptrdiff_t>(stats_log.lines().size());

    std::atomic<int> running{8};
    std::vector<std::thread> threads;
    std::atomic<int> dumps{40};
    const auto go = [&](const std::function<void(uint32_t)> &round) {
        threads.emplace_back([&dumps, &running, round] {
            for (uint32_t i = 0; dumps > 0; ++i)
                round(i);
            --running;
        });
    };
    const auto good = [](int result) { EXPECT_EQ(result, FXM_API_SUCCESS); };
    const auto on_and_off = [&](int32_t type) {
        void *handle = nullptr;
        good(fxm_register_callback(
            type, [](uint64_t id, int32_t, uint64_t) { fxm_delete_fxio(id); }, 0, &handle));
        good(fxm_unregister_callback(handle));
    };
    uint64_t *ids = nullptr;
    uint32_t count = 0;
    uint32_t value = 0;
    go([&](uint32_t) { good(fxm_stdump(1)), --dumps; });
    go([&](uint32_t) { good(fxm_read_register(FXSV_40G, 0x10, &value, nullptr, 0)); });
    go([&](uint32_t i) { good(fxm_modify_register(FXSV_40G, 0x20, i, 1, nullptr, FXM_FLAG_VERIFY)); });
    go([&](uint32_t) { on_and_off(FXM_EVT_UPDATEDEVINFO); });
    go([&](uint32_t) { on_and_off(FXM_EVT_NEWDEVINFO); });
    go([&](uint32_t) { good(fxm_stop_monitor(FXSV_1G)), good(fxm_restart_monitor(FXSV_1G)); });
    go([&](uint32_t) { fxm_delete_fxsv(FXSV_1G + 2), fxm_delete_fxio(FXIO); });
    go([&](uint32_t) { good(fxm_get_fxsvids(&ids, &(count = 0))), good(fxm_free_idlist(ids)); });
    if (!wait_for([&] { return running == 0; }, "eight threads to end", [&] { return to_string(running); }))
        abort(); // there is no way on without them
    for (std::thread &thread : threads)
        thread.join();
    stop_cards();
    settle(0);
    settle(1);

    // Each dump has all its sections, and the cards of one are of one moment.
    const std::vector<std::string> all(stats_log.lines().begin() + first, stats_log.lines().end());
    const auto is_header = [](const std::string &line) { return line.starts_with("*** "); };
    EXPECT_EQ(std::count_if(all.begin(), all.end(), is_header), 40);
    for (auto begin = all.begin(), end = begin; begin != all.end(); begin = end) {
        end = std::find_if(begin + 1, all.end(), is_header);
        const dump_t told(begin, end);
        EXPECT_EQ(headings(told), all_headings);
        EXPECT_EQ(number_after(told, "    fxsv total: ") + 2, section(told, "    [FXSV]").size());
        EXPECT_EQ(number_after(told, "    fxio total: ") == 0, has_line(section(told, "    [FXIO]"), "    no entry."));
    }
    wait_for([&] { return memory(dump(), "evt_node").in_use == 0; }, "the last event to be freed");
    const dump_t told = dump();
    EXPECT_EQ(number_after(told, "    Total called  : "), number_after(told, "    Total returned: "));
    EXPECT_EQ(memory(told, "fxsv").in_use, number_after(told, "    fxsv total: "));
    EXPECT_EQ(memory(told, "fxio").in_use, number_after(told, "    fxio total: "));
    for (const std::string name : {"bl_node", "idlist", "cbinfo", "addrs"})
        EXPECT_EQ(memory(told, name).in_use, name == "cbinfo" ? 6u : 0u) << name;
}

TEST_F(fabric_t, stats_task_dumps_at_the_start_at_each_interval_and_at_the_stop)
{
    configure("stats_interval = 1\nstats_verbose_level = 3\n");
    run(FXM_LOG_FATAL); // which is no filter of dumps
    const auto dumps = [&] { return stats_log.count_with("    ether_type "); };
    ASSERT_TRUE(wait_for([&] { return dumps() >= 3; }, "two more than the first", [&] { return stats_log.tail(); }));
    const size_t before = dumps();
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
    EXPECT_EQ(dumps(), before + 1);
    EXPECT_EQ(stats_log.count_with(" fxm status dump (v3)"), before + 1);
    EXPECT_EQ(stats_log.count("    Log level : FATAL"), before + 1);
    EXPECT_EQ(stats_log.count("    Fini flag : OFF"), before);
    EXPECT_EQ(stats_log.count("    Fini flag : ON"), 1u) << "the last one";
}

} // namespace
