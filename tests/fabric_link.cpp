// What the library makes of silence and of lost links, and the report that it gives of itself.
#include <fcntl.h>
#include <net/if.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>
#include <tuple>
#include <utility>

#include "fabric.h"

using std::to_string;
using links = fabric_t;

// No pass of the keepalive check comes while such a test runs.
static const std::string NO_PASS = "devinfo_check_interval = 100000\ndevinfo_expire_time = 100000\n";

static std::vector<event_t> channels_changed(const std::vector<uint64_t> &ids)
{
    std::vector<event_t> events;
    for (const uint64_t id : ids)
        events.insert(events.end(), {{FXM_EVT_UPDATEDEVINFO, id}, {FXM_EVT_CHANNELSTATECHANGE, id}});
    return events;
}

// What the log tells of a card that has lost channels; `left` as channels() has it.
static std::string lost(const std::string &who, const std::string &left)
{
    const auto state = [&](size_t i) { return left[i] == 'C' ? "CONNECT" : "DISCONNECT"; };
    return "INFO " + who + " state change to disconnect. P0M0: " + state(0) + ", P0M1: " + state(1) +
           ", P1M0: " + state(2) + ", P1M1: " + state(3);
}

// What both logs tell of a port whose link has changed.
static std::string link_line(const std::string &port, const std::string &change)
{
    return "State of FXM port" + port + " changed. mac=02000000aa0" + port +
           ", if_index=" + to_string(if_nametoindex(("fxm" + port).c_str())) + " (" + change + ")";
}

static const std::string LINK = "INFO _fxm_link_state_update: ";

// ------------------------------------------------------------------------------------------------- parts of a dump

// From the line `title` up to, but not including, the line `next`; to the end without it.
static std::string part(const dump_t &dump, const std::string &title, const std::string &next = "")
{
    std::string text;
    const auto end = std::find(dump.begin(), dump.end(), next);
    for (auto line = std::find(dump.begin(), dump.end(), title); line < end; ++line)
        text += *line + "\n";
    return text;
}

static std::string ports_section(const std::string &state0, size_t falls0, const std::string &state1, size_t falls1,
                                 const std::string &mac1 = "02000000aa01")
{
    return "  - Port information\n    + Port0\n      MAC addr  : 02000000aa00\n      Link state: " + state0 +
           "\n      Total down: " + to_string(falls0) + "\n    + Port1\n      MAC addr  : " + mac1 +
           "\n      Link state: " + state1 + "\n      Total down: " + to_string(falls1) + "\n \n";
}

// The lines are those of the file. With FXM_UPDATE_GOLDEN in the environment the file is made from them.
static void expect_golden(const std::string &name, const dump_t &lines)
{
    const std::string path = FXM_SOURCE_DIR "/tests/golden/" + name;
    if (getenv("FXM_UPDATE_GOLDEN") != nullptr) {
        std::ofstream file(path);
        for (const std::string &line : lines)
            file << line << "\n";
    }
    std::ifstream file(path);
    std::string expected;
    for (size_t i = 0; i < lines.size(); ++i) {
        ASSERT_TRUE(std::getline(file, expected)) << path << " ends before: " << lines[i];
        ASSERT_EQ(lines[i], expected) << path << ", line " << i + 1;
    }
    EXPECT_FALSE(std::getline(file, expected)) << "missing: " << expected;
}

// ------------------------------------------------------------------------------------------------------- keepalive

TEST_F(links, silent_channels_go_down_once_per_card_and_the_node_stays)
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

TEST_F(links, lost_link_takes_down_the_channels_of_its_port_and_no_other)
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

TEST_F(links, single_port_without_link_starts_and_the_other_interface_is_never_read)
{
    configure("ether_port = fxm0\n" + NO_PASS);
    ip("link set card0 down");
    ASSERT_TRUE(wait_for([] { return !is_running("fxm0"); }, "the fall, which the kernel takes its time to tell"));
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

TEST_F(links, flapping_link_ends_in_its_last_state_with_every_event_told_once)
{
    // Frames that wait in the ring as a link falls raise channels, which go down by silence.
    configure("devinfo_expire_time = 2000\n");
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
    const auto silent = [&] { return channels(fxsv(FXSV_40G).fsv_card) + channels(fxio(FXIO).fio_card) == "DDDDDDDD"; };
    ASSERT_TRUE(wait_for(silent, "all channels to go down by silence"));
    renew_wire(0), renew_wire(1);
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
    EXPECT_EQ(number_after(told, "    FXM_EVT_UPDATEDEVINFO     : "), changes);
    EXPECT_EQ(number_after(told, "    FXM_EVT_CHANNELSTATECHANGE: "), changes);
    size_t falls[2] = {};
    for (const size_t port : {0u, 1u}) {
        falls[port] = log.count(LINK + link_line(to_string(port), "UP->DOWN"));
        EXPECT_EQ(log.count(LINK + link_line(to_string(port), "DOWN->UP")), falls[port]);
        EXPECT_EQ(sys_log.count(link_line(to_string(port), "UP->DOWN")), falls[port]);
    }
    EXPECT_EQ(part(told, "  - Port information", "  - FX card num"), ports_section("UP", falls[0], "UP", falls[1]));
}

TEST_F(links, cards_on_a_port_that_reads_down_keep_their_channels_as_long_as_frames_come)
{
    configure(NO_PASS);
    ip("link set fxm1 down\nlink set fxm1 mode dormant\nlink set fxm1 up"); // up for frames, but not operational
    run();
    const std::string reading = "TRACE _fxm_get_linkstate_win: Success. port=1, IF_status=";
    ASSERT_TRUE(wait_for_line(reading + "0"));
    ASSERT_TRUE(has_line(dump(), "      Link state: DOWN"));
    wire[1]->send(fxsv_1g_frame());
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G}}, 1);
    for (int i = 1; i <= 3; ++i) {
        const size_t read = log.count(reading + "0");
        ip("addr add 192.0.2." + to_string(i) + "/24 dev fxm0");
        ASSERT_TRUE(wait_for_line(reading + "0", read + 1));
    }
    wire[1]->send(fxsv_1g_frame());
    expect_events({}, 1);
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "DDCD");
    EXPECT_EQ(log.count(reading + "1"), 0u);
}

TEST_F(links, fall_is_told_though_the_link_could_not_be_read_when_it_came)
{
    configure(NO_PASS);
    run();
    wire[1]->send(fxsv_1g_frame());
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G}}, 1);
    // Open before there is no descriptor left, and read without a stream: that would ask the sanitizer, which opens some.
    const int file = open((dir / "logfile").c_str(), O_RDONLY | O_CLOEXEC);
    const auto has_failed = [&](size_t times) {
        std::string text(1 << 20, ' ');
        text.resize(static_cast<size_t>(std::max<ssize_t>(pread(file, text.data(), text.size(), 0), 0)));
        size_t failed = 0;
        const std::string line = "ERROR _fxm_get_linkstate_win: end. ret=71\n";
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            failed += 1;
        return failed >= times;
    };
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    set_up("card1", false);
    // A second time, though nothing has changed since: each time both ports.
    EXPECT_TRUE(wait_for([&] { return has_failed(4); }, "readings that fail"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    close(file);
    ASSERT_TRUE(wait_for([&] { return sys_log.count(link_line("1", "UP->DOWN")) == 1; }, "the fall"));
    expect_events(channels_changed({FXSV_1G}));
    set_up("card1", true);
    wait_for([&] { return sys_log.count(link_line("1", "DOWN->UP")) == 1; }, "the rise");
}

// ------------------------------------------------------------------------------------------------------------- dump

TEST_F(links, dump_shows_known_cards_word_for_word)
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
    // Events are freed, and frames are counted, after what they bring about.
    const auto is_over = [](const dump_t &told) {
        return memory(told, "evt_node").in_use == 0 && frames_counted(told, 0, "FXM_STATS_R_TOTAL") == 10 &&
               frames_counted(told, 1, "FXM_STATS_R_TOTAL") == 4;
    };
    dump_when(is_over, "the last event to be freed and the last frame to be counted");

    dump_t verbose = dump(1);
    // Masked: what the clock, the fixture's polling and earlier tests of this program decide.
    std::map<std::string, std::string> times;
    for (const fxm_card_data_t &card : {fxsv(FXSV_1G).fsv_card, fxsv(FXSV_40G).fsv_card, fxio(FXIO).fio_card,
                                        fxio(FXIO_MR).fio_card, fxio(FXIO_40G).fio_card}) {
        for (const uint64_t time : {card.fcd_recvtime[0][0], card.fcd_recvtime[0][1], card.fcd_recvtime[1][0]}) {
            if (time != 0)
                times.try_emplace(to_string(time), "(time " + to_string(times.size() + 1) + ")");
        }
    }
    EXPECT_EQ(times.size(), 6u);
    for (std::string &line : verbose) {
        const size_t value = line.rfind(' ') + 1;
        const auto time = times.find(line.substr(value));
        if (line.find(" FXM_API_") != std::string::npos)
            line.replace(value, std::string::npos, "#");
        else if (time != times.end())
            line.replace(value, std::string::npos, time->second);
        else if (line.starts_with("     wreg_node ") || line.starts_with("         addrs "))
            line.replace(15, std::string::npos, "#");
        else if (line.starts_with("***"))
            std::replace_if(
                line.begin(), line.end(), [](char c) { return c >= '0' && c <= '9'; }, '#');
    }
    expect_golden("status_dump.txt", verbose);

    // A plain dump is the same but for its two sections of details.
    dump_t plain = dump(0);
    plain.erase(plain.begin()), verbose.erase(verbose.begin());
    const auto cut = [&](const std::string &begin, const std::string &end) {
        verbose.erase(std::find(verbose.begin(), verbose.end(), begin), std::find(verbose.begin(), verbose.end(), end));
    };
    cut("  - FX card information detail", "  - Memory");
    cut("  - API error code detail", "  - Black list ids");
    ASSERT_EQ(plain.size(), verbose.size());
    for (size_t i = 0; i < plain.size(); ++i)
        EXPECT_TRUE(plain[i] == verbose[i] || verbose[i].ends_with("#")) << plain[i];
}

TEST_F(links, each_dump_is_whole_and_of_one_moment_while_everything_goes_on_until_the_stop)
{
    constexpr uint64_t FIRST = 0x020000010000, FLEETING = 0x020000020000;
    start_cards("--period 20");
    for (const char *line : {"fxsv 020000010000 count=16", "fxio 020000020000 count=16", "fault all drop every=300"})
        cards(line);
    run(FXM_LOG_ERROR); // a log of each call would be most of the work
    const auto headings = [](dump_t dump) {
        std::erase_if(dump, [](const std::string &line) { return !line.starts_with("  - "); });
        return dump;
    };
    const dump_t all_headings = headings(dump(1));
    const auto first = static_cast<std::ptrdiff_t>(stats_log.lines().size());
    static std::atomic<uint64_t> rounds;
    rounds = 0;
    static const auto id = [](uint64_t from) { return from + 2 * (rounds % 16); };
    using function_t = int (*)();
    const function_t functions[] = {
        [] { return fxm_write_register(id(FIRST), 0x1000, 7, nullptr, FXM_FLAG_VERIFY); },
        [] { return fxm_modify_register(id(FIRST), 0x1000, 1, 3, nullptr, FXM_FLAG_VERIFY); },
        [] { return fxm_delete_fxio(id(FLEETING)); },
        [] { return fxm_stop_monitor(FLEETING), fxm_restart_monitor(FLEETING); },
        [] { return std::this_thread::sleep_for(std::chrono::milliseconds(5)), fxm_stdump(1); },
        [] {
            void *handle = nullptr;
            fxm_register_callback(
                FXM_EVT_NEWDEVINFO, [](uint64_t, int32_t, uint64_t) {}, 0, &handle);
            return fxm_unregister_callback(handle);
        }};
    std::vector<call_t> calls;
    for (const function_t function : functions)
        calls.push_back(call([function] {
            while (function() != FXM_API_ENOSYS)
                rounds += 1;
            return FXM_API_ENOSYS;
        }));
    for (const bool up : {false, true, false, true}) {
        set_up("card0", up);
        const uint64_t done = rounds, told = whole_dumps(&stats_log);
        wait_for([&] { return rounds > done + 500 && whole_dumps(&stats_log) > told + 1; }, "calls and dumps");
    }
    // All but the last one, which is under way.
    const dump_t all(stats_log.lines().begin() + first, stats_log.lines().end());
    const auto is_header = [](const std::string &line) { return line.starts_with("*** "); };
    const auto next = [&](auto from) { return std::find_if(from + 1, all.end(), is_header); };
    for (auto begin = all.begin(), end = next(begin); end != all.end(); begin = end, end = next(begin)) {
        const dump_t told(begin, end);
        EXPECT_EQ(headings(told), all_headings);
        EXPECT_EQ(number_after(told, "    fxsv total: "), section(told, "    [FXSV]").size() - 2);
        const dump_t listed = section(told, "    [FXIO]");
        EXPECT_EQ(number_after(told, "    fxio total: "), has_line(listed, "    no entry.") ? 0 : listed.size() - 2);
    }
    renew_wire(0);
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
    for (call_t &ended : calls)
        EXPECT_EQ(result_of(ended), FXM_API_ENOSYS);
}

TEST_F(links, stats_task_dumps_at_the_start_at_each_interval_and_at_the_stop)
{
    configure("stats_interval = 1\nstats_verbose_level = 3\n");
    run(FXM_LOG_FATAL);                                         // which is no filter of dumps
    const auto dumps = [&] { return whole_dumps(&stats_log); }; // a stop in the middle of one brings no other
    ASSERT_TRUE(wait_for([&] { return dumps() >= 3; }, "two more than the first", [&] { return stats_log.tail(); }));
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
    EXPECT_EQ(stats_log.count_with(" fxm status dump (v3)"), dumps());
    EXPECT_EQ(stats_log.count("    Log level : FATAL"), dumps());
    EXPECT_EQ(stats_log.count("    Fini flag : OFF"), dumps() - 1);
    EXPECT_EQ(stats_log.count("    Fini flag : ON"), 1u) << "the last one";
}
