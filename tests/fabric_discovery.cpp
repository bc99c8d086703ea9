// What a host sees of cards: from a frame on the wire to the record, the events, the lists and the callbacks.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "fabric.h"

constexpr int32_t NEW = FXM_EVT_NEWDEVINFO, UPDATE = FXM_EVT_UPDATEDEVINFO, CONNECTION = FXM_EVT_CONNECTIONCHANGE,
                  ERROR = FXM_EVT_MAJORMINORERROR, PATH = FXM_EVT_PATHSTATECHANGE, CHANNEL = FXM_EVT_CHANNELSTATECHANGE;

static fxm_card_data_t &card_of(fxm_fxsv_t &record) { return record.fsv_card; }
static fxm_card_data_t &card_of(fxm_fxio_t &record) { return record.fio_card; }

template <typename Record> static testing::AssertionResult same_record(const Record &expected, const Record &actual)
{
    frame_t bytes[2] = {frame_t(sizeof(Record)), frame_t(sizeof(Record))};
    memcpy(bytes[0].data(), &expected, sizeof(Record));
    memcpy(bytes[1].data(), &actual, sizeof(Record));
    return same_frame(bytes[0], bytes[1]);
}

// So many frames of the cards are counted on port 0.
static std::function<bool(const dump_t &)> received(uint64_t number)
{
    return [=](const dump_t &dump) { return frames_counted(dump, 0, "FXM_STATS_R_TOTAL") == number; };
}

// What a frame has that the one before it had not, the events that it raises, and the port that it comes to.
struct step_t {
    pieces_t news;
    std::vector<int32_t> events;
    size_t port = 0;
};

class discovery : public fabric_t
{
  protected:
    // One card of each class speaks, each the one that comes so far behind the first of its class.
    void announce(uint64_t n, const pieces_t &news = {})
    {
        wire[0]->send(changed(from(FXSV_1G + n, fxsv_1g_frame()), news));
        wire[0]->send(changed(from(FXIO + n, fxio_frame()), news));
    }

    // The last frame of each card, or what its first one starts from.
    std::map<uint64_t, frame_t> spoken = {
        {FXSV_1G, fxsv_1g_frame()}, {FXSV_40G, fxsv_40g_frame()}, {FXIO, fxio_frame()}};

    // For tests of callbacks: the library runs and knows FXSV_1G; each update of it is an event.
    void begin_updates(int32_t level = FXM_LOG_TRACE)
    {
        run(level);
        wire[0]->send(frame);
        settle(0);
    }
    void update()
    {
        frame[20] = static_cast<uint8_t>(frame[20] + 1);
        wire[0]->send(frame);
    }
    frame_t frame = fxsv_1g_frame();

    // The card goes from one frame to the next.
    void expect_steps(uint64_t id, const std::vector<step_t> &steps)
    {
        frame_t &frame = spoken[id];
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            frame = changed(frame, steps[i].news);
            wire[steps[i].port]->send(frame);
            expect_events(events_of(id, steps[i].events), static_cast<int>(steps[i].port));
        }
    }

    // A new card sends the frame to the port from one of its MACs: the record is `expected` with what bytes 0 to 17
    // tell. In both layouts and under each of the subtypes, with a card each from `id` on.
    template <typename Record>
    void expect_record(const frame_t &frame, const std::vector<std::string> &subtypes, uint64_t id, size_t port,
                       size_t mac, Record expected, Record (*get)(uint64_t), const std::vector<int32_t> &events = {NEW})
    {
        // On VLAN 0xABC. Bit 12 of the TCI has no meaning.
        const std::string layouts[2] = {"81 00 9a bc 88 b6", "88 b6 81 00 9a bc"};
        for (const std::string &subtype : subtypes) {
            for (uint8_t mode = 0; mode < 2; ++mode, id += 0x10) {
                SCOPED_TRACE("subtype " + subtype + ", layout " + std::to_string(mode));
                const uint64_t sent = now_ms();
                spoken[id] = from(id + mac, frame);
                expect_steps(id, {{{{12, layouts[mode]}, {18, subtype}}, events, port}});
                Record actual = get(id);
                const uint64_t arrival = card_of(actual).fcd_recvtime[port][mac];
                EXPECT_GE(arrival, sent);
                EXPECT_LE(arrival, now_ms());
                fxm_card_data_t &card = card_of(expected);
                card.fcd_id = id;
                memcpy(card.fcd_macaddr, from(id, frame).data() + 6, 6);
                card.fcd_vlan_id = 0xabc;
                card.fcd_vlan_mode = mode;
                card.fcd_recvtime[port][mac] = card.fcd_updatetime = arrival;
                card.fcd_state[port][mac] = 1;
                EXPECT_TRUE(same_record(expected, actual));
            }
        }
    }
};

// --------------------------------------------------------------------------------------------- from frame to record

TEST_F(discovery, fxsv_announcement_fills_the_whole_record_in_both_layouts)
{
    run();
    const std::string up_port = "01 02 03 07"              // primary, secondary, subordinate bus; command
                                "34 12 78 56"              // memory base, limit
                                "bc 9a f0 de"              // prefetchable base, limit
                                "44 33 22 11 88 77 66 55"; // prefetchable base, limit: upper halves
    const fxm_pci_config_t up_told = {0x11223344, 0x55667788, 0x1234, 0x5678, 0x9abc, 0xdef0, 1, 2, 3, 7};
    const std::string registers = "11 12 13 14 22 21 24 23 26 25 28 27 34 33 32 31 38 37 36 35"; // likewise
    const fxm_pci_config_t down_told = {0x31323334, 0x35363738, 0x2122, 0x2324, 0x2526, 0x2728, 0x11, 0x12, 0x13, 0x14};
    fxm_fxsv_t one_g{};
    one_g.fsv_card.fcd_uidsw = one_g.fsv_card.fcd_port1_link = 1;
    memcpy(one_g.fsv_card.fcd_swstatus, "\x81\x4e\x96", 3);
    one_g.fsv_card.fcd_flowid = 0x5a;
    one_g.fsv_card.fcd_linkstatus = 0xc3;
    one_g.fsv_card.fcd_int_vector = 0x96;
    one_g.fsv_card.fcd_ver = 14;
    one_g.fsv_up_port = up_told;
    one_g.fsv_down_port[0] = {down_told, {0xa1, 0x02}, {0x02, 0, 0, 0, 0x20, 0x00}};
    one_g.fsv_down_port[1] = {{}, {0xff, 0xfd}, {0x02, 0, 0, 0, 0x20, 0x02}};
    one_g.fsv_down_port[7] = {down_told, {0x00, 0x02}, {0x02, 0, 0, 0, 0x20, 0x0e}};
    const frame_t one_g_frame =
        changed(fxsv_1g_frame(),
                {{19, "ee 5a 00 f4 00"}, // 19 not read; flow id; ver; flags: UID switch; host: FXSV
                 {24, "c3 81 4e 96"},    // 24 link status; status: port 1 has link, version 14; interrupts
                 {28, up_port},
                 {48, "a1 02 02 00 00 00 20 00" + registers},   // 48 down port 0: connected to this FXIO card
                 {76, "ff fd 02 00 00 00 20 02" + registers},   // 76 down port 1: all but connected; not valid
                 {244, "00 02 02 00 00 00 20 0e" + registers},  // 244 down port 7
                 {272, "00 02 02 00 00 00 20 10" + registers}}, // 272 no part of a 1G/10G frame
                300);
    expect_record(one_g_frame, {"10", "11"}, FXSV_1G, 1, 0, one_g, fxsv, {NEW, ERROR});

    fxm_fxsv_t forty_g{};
    forty_g.fsv_card.fcd_power = forty_g.fsv_card.fcd_port0_link = 1;
    forty_g.fsv_card.fcd_swstatus[1] = 0x20;
    forty_g.fsv_card.fcd_type = 0x7f;
    forty_g.fsv_up_port = up_told;
    forty_g.fsv_down_port[8] = {down_told, {0xf8, 0x03}, {0x02, 0, 0, 0, 0x20, 0x10}};
    forty_g.fsv_down_port[15] = {down_told, {0x01, 0x02}, {0x02, 0, 0, 0, 0x20, 0x1e}};
    const frame_t forty_g_frame = changed(fxsv_40g_frame(), {{21, "7f 08"}, // 21 ver; flags: power
                                                             {26, "20"},    // 26 status: port 0 has link
                                                             {28, up_port},
                                                             {272, "f8 03 02 00 00 00 20 10" + registers},
                                                             {468, "01 02 02 00 00 00 20 1e" + registers}});
    expect_record(forty_g_frame, {"18", "19"}, FXSV_40G, 0, 1, forty_g, fxsv);
}

TEST_F(discovery, fxio_announcement_fills_the_whole_record_in_both_layouts)
{
    run();
    fxm_fxio_t single{};
    single.fio_card.fcd_power = single.fio_card.fcd_port0_link = 1;
    memcpy(single.fio_card.fcd_swstatus, "\x80\xb0\x00", 3);
    single.fio_card.fcd_flowid = 0x33;
    single.fio_card.fcd_linkstatus = 0x0f;
    single.fio_class_code = 0x123456;
    single.fio_device_id = 0x1572;
    single.fio_vendor_id = 0x8086;
    memcpy(single.fio_sermacaddr, "\x02\x00\x00\x00\x10\x08", 6);
    memcpy(single.fio_substate, "\xc5\x02", 2);
    single.fio_link0fault = single.fio_pcie_presence = 1;
    const frame_t single_frame = changed(fxio_frame(),
                                         {{18, "10 ee 33 00 f9 01" // 18 subtype; not read; flow id; ver; flags; host
                                               "0f 80 b0 00"       // 24 link status; status: presence, port 0 has link
                                               "c5 02"             // 28 sub-state: connected
                                               "02 00 00 00 10 08" // 30 its FXSV card
                                               "72 15 86 80"       // 36 device, vendor
                                               "ee 56 34 12"       // 40 not read; class code
                                               "ff ff"}},          // 44 not there: the card is not multi-root
                                         46);
    // An odd address of a card with ver 0 is just its address.
    expect_record(single_frame, {"10", "11", "18", "19"}, FXIO + 1, 0, 0, single, fxio);

    // A multi-root card has a resource number, and its two fault flags the other way round.
    fxm_fxio_t multi_root{};
    multi_root.fio_card.fcd_port1_link = 1;
    multi_root.fio_card.fcd_swstatus[1] = 0x41;
    multi_root.fio_card.fcd_type = multi_root.fio_card.fcd_ver = 1;
    multi_root.fio_class_code = 0x020000;
    multi_root.fio_device_id = 0x1572;
    multi_root.fio_vendor_id = 0x8086;
    multi_root.fio_mr_resource_num = 0x0102;
    multi_root.fio_link1fault = 1;
    frame_t frame = changed(fxio_mr_frame(), {{21, "01 01"}, // 21 ver; flags: fault
                                              {26, "41"}});  // 26 status: port 1 has link, version 1
    expect_record(frame, {"18"}, FXIO_MR, 1, 1, multi_root, fxio);
    frame[22] = 0x02;
    std::swap(multi_root.fio_link0fault, multi_root.fio_link1fault);
    expect_record(frame, {"18"}, FXIO_MR + 0x100, 1, 1, multi_root, fxio);
}

// ------------------------------------------------------------------------------------------------- frames refused

TEST_F(discovery, frame_that_fails_a_check_leaves_one_line_and_is_counted_nowhere)
{
    const frame_t fxsv_1g = fxsv_1g_frame();
    const frame_t fxsv_40g = fxsv_40g_frame();
    const frame_t fxio = fxio_frame();
    const frame_t fxio_mr = fxio_mr_frame();
    // Bytes 12 to 17 in the other order.
    const pieces_t change = {{12, "88 b6 81 00 80 64"}};
    const frame_t fxio_change = changed(fxio, change);

    const std::vector<std::pair<frame_t, std::string>> refused = {
        {changed(fxio, {}, 27), "Recv size is too short. len=27"},
        {changed(fxio, {{14, "60"}}), "priority is not 100(bit). pri=0x60"},
        {changed(fxio, {{14, "a0"}}), "priority is not 100(bit). pri=0xA0"},
        {changed(fxio, {{16, "08 00"}}), "Ether type is mismatch. type=0x0800"},
        {changed(fxio_change, {{12, "08 06"}}), "Ether type is mismatch.(VlanTag change mode) type=0x0806"},
        {changed(fxio_change, {{14, "81 01"}}), "TPID type is mismatch.(VlanTag change mode) tpid=0x8101"},
        {changed(fxio_change, {{16, "c0"}}), "priority is not 100(bit).(VlanTag change mode) pri=0xC0"},
        // What the library itself sends, and what nobody does.
        {changed(fxio, {{18, "30"}}), "Subtype is mismatch. subtype=0x30"},
        {changed(fxio, {{18, "80"}}), "Subtype is mismatch. subtype=0x80"},
        {changed(fxio, {{18, "90"}}), "Subtype is mismatch. subtype=0x90"},
        {changed(fxio, {{18, "91"}}), "Subtype is mismatch. subtype=0x91"},
        {changed(fxio, {{18, "92"}}), "Subtype is mismatch. subtype=0x92"},
        {changed(fxio_change, {{18, "12"}}), "Subtype is mismatch. subtype=0x12"},
        {changed(fxsv_1g, {}, 271), "Recv size is not enough. subtype=0x10, recv_size=271, msg_size=272"},
        {changed(fxsv_1g, {{18, "11"}}, 28), "Recv size is not enough. subtype=0x11, recv_size=28, msg_size=272"},
        {changed(fxsv_40g, {}, 495), "Recv size is not enough. subtype=0x18, recv_size=495, msg_size=496"},
        {changed(fxsv_40g, {{18, "19"}}, 272), "Recv size is not enough. subtype=0x19, recv_size=272, msg_size=496"},
        {changed(fxio, {}, 43), "Recv size is not enough. subtype=0x10, recv_size=43, msg_size=44"},
        {changed(fxio, {{18, "19"}}, 43), "Recv size is not enough. subtype=0x19, recv_size=43, msg_size=44"},
        {changed(fxio_mr, {{26, "f1"}}, 45), "Recv size is not enough. subtype=0x10, recv_size=45, msg_size=46"},
        {changed(fxio_mr, {{18, "18"}}, 44), "Recv size is not enough. subtype=0x18, recv_size=44, msg_size=46"},
        {changed(fxsv_1g, {{21, "01"}}), "Drop 1G/10G DEVINFO to send from (ver=1) FX card."},
        {changed(fxio, {{18, "11"}, {21, "ff"}}), "Drop 1G/10G NOTIFY to send from (ver=255) FX card."},
        // The length comes before the ver.
        {changed(fxsv_1g, {{21, "02"}}, 100), "Recv size is not enough. subtype=0x10, recv_size=100, msg_size=272"},
    };
    run();
    for (const auto &[frame, line] : refused) {
        wire[0]->send(frame);
        ASSERT_TRUE(wait_for_line("TRACE _check_frame: " + line));
    }
    EXPECT_EQ(log.count_with("_check_frame: "), refused.size()) << "a frame has left more than its line";
    EXPECT_TRUE(received(0)(dump()));

    // The shortest that pass; a sender that is no card is counted and goes no further.
    const frame_t completion = changed(fxio, {{18, "20"}}, 28);
    wire[0]->send(completion);
    wire[0]->send(changed(completion, change));
    wire[0]->send(changed(fxio, {{23, "02"}}, 28));
    expect_events({});
    const dump_t after = dump_when(received(4), "the frames to be counted"); // with the one that settled the wire
    EXPECT_EQ(log.count("TRACE _fxm_recv_devinfo: Unknwon PEB. host=0x02"), 1u);
    EXPECT_EQ(frames_counted(after, 0, "FXM_STATS_R_COMP"), 2u);
    EXPECT_EQ(memory(after, "fxio").alloc, 1u);
}

TEST_F(discovery, frames_before_the_start_of_the_manager_are_dropped_and_not_kept)
{
    start();
    wire[0]->send(fxsv_1g_frame());
    ASSERT_TRUE(wait_for_line("TRACE _fxm_recv_frame: Drop packet because start flag is not set. port_num=0"));
    EXPECT_TRUE(received(0)(dump()));
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS) << "a second call is harmless";
    expect_events({});
    wire[0]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {NEW}));
}

// ---------------------------------------------------------------------------------------------------------- events

TEST_F(discovery, each_change_of_an_fxsv_card_raises_its_events_in_order)
{
    run();
    expect_steps(FXSV_1G, {{{}, {NEW}}});
    EXPECT_EQ(log.count("INFO _add_fxsv_devinfo: FXSV information is added. id=0x020000001000, P0M0: CONNECT, P0M1: "
                        "DISCONNECT, P1M0: DISCONNECT, P1M1: DISCONNECT"),
              1u);
    const fxm_card_data_t first = fxsv(FXSV_1G).fsv_card;
    // The clock must have moved on for a time to show whether it does.
    ASSERT_TRUE(wait_for([&] { return now_ms() > first.fcd_updatetime; }, "the next millisecond"));
    expect_steps(FXSV_1G, {{{}, {}}, {{{18, "11"}}, {}}}); // 18 a NOTIFY of the same content
    const fxm_card_data_t second = fxsv(FXSV_1G).fsv_card;
    EXPECT_EQ(second.fcd_updatetime, first.fcd_updatetime) << "time alone is no news";
    EXPECT_GT(second.fcd_recvtime[0][0], first.fcd_recvtime[0][0]);

    const size_t last_port = 48 + 28 * 7;
    expect_steps(FXSV_1G,
                 {{{{20, "01"}}, {UPDATE}},                                    // 20 flow id
                  {{{28, "01"}}, {UPDATE}},                                    // 28 up port
                  {{{49, "02"}, {last_port + 1, "02"}}, {UPDATE, CONNECTION}}, // connection bit, down ports 0 and 7
                  {{{49, "00"}}, {UPDATE, CONNECTION}},
                  {{{27, "03"}}, {UPDATE, ERROR}}, // 27 interrupt vector
                  {{{27, "01"}}, {UPDATE}},
                  {{{27, "05"}}, {UPDATE, ERROR}}});
    const fxm_card_data_t third = fxsv(FXSV_1G).fsv_card;
    EXPECT_GT(third.fcd_updatetime, first.fcd_updatetime);

    // No news: bits 2..0 of a down port's first status byte and bit 0 of the second. They are stored all the same.
    expect_steps(FXSV_1G, {{{{48, "07"}, {49, "01"}}, {}}});
    EXPECT_EQ(fxsv(FXSV_1G).fsv_down_port[0].fdp_port_status[0], 0x07);
    EXPECT_EQ(fxsv(FXSV_1G).fsv_down_port[0].fdp_port_status[1], 0x01);
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_updatetime, third.fcd_updatetime);
    expect_steps(FXSV_1G, {{{{48, "0f"}}, {UPDATE}},
                           {{{49, "05"}}, {UPDATE}},
                           {{{24, "01"}, {27, "0d"}, {49, "07"}}, {UPDATE, CONNECTION, ERROR, CHANNEL}, 1}});
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDCD");
    EXPECT_EQ(log.count("INFO _update_fxsv_devinfo: FXSV id=0x020000001000 state change to connect. P0M0: CONNECT, "
                        "P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
              1u);
}

TEST_F(discovery, each_change_of_an_fxio_card_raises_its_events_in_order)
{
    run();
    expect_steps(FXIO,
                 {{{{27, "80"}}, {NEW, ERROR}},
                  {{}, {}},
                  {{{28, "07"}, {29, "01"}}, {}}, // 28 no news in the sub-state
                  {{{28, "17"}}, {UPDATE}},
                  {{{29, "03"}}, {UPDATE, CONNECTION}},
                  {{{22, "01"}}, {UPDATE, PATH}}, // 22 fault of link 0
                  {{{22, "02"}}, {UPDATE, PATH}}, // the one goes, the other comes
                  {{{22, "03"}}, {UPDATE, PATH}}, // that of link 0 again
                  {{{22, "01"}}, {UPDATE, PATH}}, // that of link 1 alone
                  {{{22, "02"}}, {UPDATE, PATH}},
                  {{{41, "01"}}, {UPDATE}}, // 41 class code
                  {{{22, "01"}, {27, "c0"}, {28, "10"}, {29, "01"}}, {UPDATE, CONNECTION, ERROR, PATH, CHANNEL}, 1}});
    EXPECT_EQ(fxio(FXIO).fio_substate[1], 0x01);
    EXPECT_EQ(log.count("INFO _update_fxio_devinfo: FXIO id=0x020000002000 state change to connect. P0M0: CONNECT, "
                        "P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
              1u);
}

TEST_F(discovery, update_evt_mask_1_makes_every_bit_news)
{
    configure("update_evt_mask = 1\n");
    run();
    expect_steps(FXSV_1G, {{{}, {NEW}}, {{{48, "01"}}, {UPDATE}}, {{{49, "01"}}, {UPDATE}}});
    expect_steps(FXIO, {{{}, {NEW}}, {{{28, "01"}}, {UPDATE}}, {{{29, "01"}}, {UPDATE}}});
}

TEST_F(discovery, connection_of_down_ports_counts_by_the_generation_of_the_card_not_of_the_frame)
{
    run();
    const size_t eighth = 48 + 28 * 7 + 1;
    const size_t ninth = 48 + 28 * 8 + 1;
    spoken[FXSV_1G] = from(FXSV_1G, fxsv_40g_frame());
    expect_steps(FXSV_1G,
                 {{{{21, "00"}}, {NEW}}, {{{ninth, "02"}}, {UPDATE}}, {{{eighth, "02"}}, {UPDATE, CONNECTION}}});
    expect_steps(FXSV_40G, {{{}, {NEW}}, {{{ninth, "02"}}, {UPDATE, CONNECTION}}});
    EXPECT_EQ(fxsv(FXSV_1G).fsv_down_port[8].fdp_port_status[1], 0x02);
}

// ----------------------------------------------------------------------------------------------- lists and deletion

// The list queries, for FXSV and for FXIO cards, with one argument that those without an own ignore.
using query_t = int (*)(uint64_t, uint64_t **, uint32_t *);
using queries_t = std::array<query_t, 2>;

static int fxsvids(uint64_t, uint64_t **list, uint32_t *count) { return fxm_get_fxsvids(list, count); }
static int fxioids(uint64_t, uint64_t **list, uint32_t *count) { return fxm_get_fxioids(list, count); }

template <int (*of_group)(uint16_t, uint64_t **, uint32_t *)>
static int group(uint64_t id, uint64_t **list, uint32_t *count)
{
    return of_group(static_cast<uint16_t>(id), list, count);
}

static const queries_t ALL_CARDS = {fxsvids, fxioids};
static const queries_t BY_TIME = {fxm_get_update_fxsvids, fxm_get_update_fxioids};
static const queries_t BY_GROUP = {group<fxm_get_group_fxsvids>, group<fxm_get_group_fxioids>};

using ids_t = std::vector<uint64_t>;
using answer_t = std::tuple<int, uint32_t, std::optional<ids_t>>; // result, count, ids unless the list is not written

static answer_t ask(query_t query, uint64_t argument, uint32_t count = 0)
{
    uint64_t untouched = 0;
    uint64_t *list = &untouched;
    const int result = query(argument, &list, &count);
    if (list == &untouched)
        return {result, count, std::nullopt};
    EXPECT_EQ(list == nullptr, count == 0);
    const ids_t ids(list, list + count);
    EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
    return {result, count, ids};
}

// The answer that lists `number` cards of every second id.
static answer_t listed(uint64_t first, uint32_t number)
{
    ids_t ids;
    for (uint32_t i = 0; i < number; ++i)
        ids.push_back(first + 2 * uint64_t{i});
    return {FXM_API_SUCCESS, number, ids};
}

static const answer_t NONE = {FXM_API_SUCCESS, 0, ids_t()};
constexpr uint64_t FIRST[2] = {FXSV_1G, FXIO}; // cards of the two classes

TEST_F(discovery, lists_are_ascending_and_keep_to_their_limits)
{
    configure("id_list_upper_limit = 3\n"); // where the caller sets no limit
    run();
    struct {
        ids_t more; // cards, not in their order
        uint32_t known;
        std::map<uint32_t, bool> good; // is the answer, by limit
    } const phases[] = {{{}, 0, {{0, true}, {1, true}}},
                        {{4, 0, 2}, 3, {{0, true}, {1, false}, {2, false}, {3, true}}},
                        {{6}, 4, {{0, false}, {3, false}, {4, true}}}};
    for (const auto &[more, known, good] : phases) {
        for (const uint64_t n : more)
            announce(n);
        settle(0);
        for (const queries_t &queries : {ALL_CARDS, BY_TIME, BY_GROUP}) {
            for (const size_t kind : {0u, 1u}) {
                for (const auto &[limit, is_good] : good) {
                    EXPECT_EQ(ask(queries[kind], 100, limit),
                              is_good ? listed(FIRST[kind], known) : answer_t(FXM_API_ERANGE, known, std::nullopt));
                }
                uint64_t *list = nullptr;
                uint32_t count = 0;
                EXPECT_EQ(queries[kind](100, nullptr, &count), FXM_API_EINVAL);
                EXPECT_EQ(queries[kind](100, &list, nullptr), FXM_API_EINVAL);
            }
        }
    }
    EXPECT_EQ(fxm_free_idlist(nullptr), FXM_API_SUCCESS);
    const account_t lists = memory(dump(), "idlist");
    EXPECT_EQ(lists.alloc, 18u) << "an empty or refused answer allocates nothing";
    EXPECT_EQ(lists.free, 18u);
}

TEST_F(discovery, update_lists_name_what_has_changed_since_and_consume_nothing)
{
    run();
    announce(0);
    announce(2);
    settle(0);
    const uint64_t seen = now_ms();
    ASSERT_TRUE(wait_for([&] { return now_ms() > seen; }, "the next millisecond"));
    const uint64_t poll = now_ms();
    announce(2, {{20, "01"}});
    announce(0); // nothing new
    settle(0);
    const uint64_t changed_at[2] = {fxsv(FXSV_1G + 2).fsv_card.fcd_updatetime, fxio(FXIO + 2).fio_card.fcd_updatetime};
    for (const size_t kind : {0u, 1u}) {
        EXPECT_EQ(ask(BY_TIME[kind], 0), listed(FIRST[kind], 2));
        for (const uint64_t since : {poll, poll, changed_at[kind]}) // asked again; equal times count
            EXPECT_EQ(ask(BY_TIME[kind], since), listed(FIRST[kind] + 2, 1)) << since;
        for (const uint64_t since : {changed_at[kind] + 1, UINT64_MAX})
            EXPECT_EQ(ask(BY_TIME[kind], since), NONE) << since;
    }
}

TEST_F(discovery, a_card_stands_in_the_group_of_its_last_frame)
{
    run();
    announce(0, {{14, "80 01"}}); // VLAN 1
    announce(2, {{14, "8f fe"}}); // 4094
    announce(4, {{14, "80 00"}}); // 0
    announce(6, {{14, "8f ff"}}); // 4095
    settle(0);
    for (const size_t kind : {0u, 1u}) {
        EXPECT_EQ(ask(BY_GROUP[kind], 1), listed(FIRST[kind], 1));
        EXPECT_EQ(ask(BY_GROUP[kind], 4094), listed(FIRST[kind] + 2, 1));
        EXPECT_EQ(ask(BY_GROUP[kind], 2), NONE);
        for (const uint64_t no_group : {0u, 4095u, 4096u, 65535u})
            EXPECT_EQ(ask(BY_GROUP[kind], no_group, 9), answer_t(FXM_API_EINVAL, 9, std::nullopt)) << no_group;
        EXPECT_EQ(ask(ALL_CARDS[kind], 0), listed(FIRST[kind], 4));
    }
    wire[0]->send(on_vlan(4094, fxsv_1g_frame()));
    settle(0);
    EXPECT_EQ(ask(BY_GROUP[0], 1), NONE);
    EXPECT_EQ(ask(BY_GROUP[0], 4094), listed(FXSV_1G, 2));
    EXPECT_EQ(ask(BY_GROUP[1], 1), listed(FXIO, 1)) << "the other class has its own groups";
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(ask(BY_GROUP[0], 4094), listed(FXSV_1G + 2, 1));
}

TEST_F(discovery, a_deleted_card_that_speaks_again_is_new)
{
    run();
    expect_steps(FXSV_1G, {{{}, {NEW}}, {{}, {UPDATE, CHANNEL}, 1}});
    expect_steps(FXIO, {{{}, {NEW}}, {{}, {UPDATE, CHANNEL}, 1}});
    EXPECT_EQ(fxm_delete_fxsv(FXIO), FXM_API_ENOENT) << "it is in the other table";
    EXPECT_EQ(fxm_delete_fxio(FXSV_1G), FXM_API_ENOENT);
    EXPECT_EQ(channels(fxio(FXIO).fio_card), "CDCD");

    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_ENOENT);
    EXPECT_EQ(fxm_delete_fxio(FXIO), FXM_API_SUCCESS);
    fxm_fxsv_t untouched{};
    untouched.fsv_card.fcd_id = 7;
    EXPECT_EQ(fxm_get_fxsv(FXSV_1G, &untouched), FXM_API_ENOENT);
    EXPECT_EQ(untouched.fsv_card.fcd_id, 7u);
    EXPECT_EQ(fxm_get_fxsv(FXSV_1G, nullptr), FXM_API_EINVAL);
    EXPECT_EQ(fxm_get_fxio(FXIO, nullptr), FXM_API_EINVAL);
    const dump_t told = dump();
    EXPECT_EQ(memory(told, "fxsv").in_use + memory(told, "fxio").in_use, 0u);
    expect_events({});

    expect_steps(FXSV_1G, {{{}, {NEW}, 1}});
    expect_steps(FXIO, {{{}, {NEW}, 1}});
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card) + channels(fxio(FXIO).fio_card), "DDCDDDCD");
}

// ------------------------------------------------------------------------------------------------------- monitoring

TEST_F(discovery, an_unknown_card_out_of_monitoring_stays_unknown_until_it_is_put_back)
{
    // Write locks live as long as the process, so no other test may have heard of this card.
    constexpr uint64_t stranger = 0x02000000f100;
    run();
    EXPECT_EQ(fxm_restart_monitor(stranger), FXM_API_SUCCESS) << "never stopped, never seen";
    EXPECT_EQ(fxm_stop_monitor(stranger), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_stop_monitor(stranger), FXM_API_SUCCESS) << "twice is once";
    EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
    spoken[stranger] = from(stranger, fxsv_1g_frame());
    expect_steps(stranger, {{{}, {}}, {{}, {}}});
    expect_steps(FXIO, {{{}, {}}});
    EXPECT_EQ(ask(ALL_CARDS[0], 0), NONE);
    EXPECT_EQ(ask(ALL_CARDS[1], 0), NONE);
    const dump_t told = dump_when(received(3 + 3), "each frame to be counted, whatever becomes of it");
    EXPECT_EQ(section(told, "  - Black list ids"), (dump_t{"    0x020000002000", "    0x02000000f100"}));
    EXPECT_EQ(memory(told, "bl_node").in_use, 2u);
    EXPECT_GE(log.count("TRACE _fxm_create_reg_lock_node: Failed to _fxm_rbtree_put(). err=EEXIST, id=0x02000000f100"),
              1u)
        << "no write lock was made when the id was first heard";

    EXPECT_EQ(fxm_restart_monitor(stranger), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
    expect_steps(stranger, {{{}, {NEW}}});
    expect_steps(FXIO, {{{}, {NEW}}});
    EXPECT_EQ(memory(dump(), "bl_node").in_use, 0u);
    EXPECT_EQ(log.count("TRACE fxm_stop_monitor: The ID already exist in black list. id=0x02000000f100"), 1u);
    EXPECT_EQ(log.count("TRACE fxm_restart_monitor: The ID don't exist in black list. id=0x02000000f100"), 1u);
}

TEST_F(discovery, a_known_card_out_of_monitoring_keeps_its_record_and_comes_back_as_its_next_frame_shows_it)
{
    run();
    expect_steps(FXSV_1G, {{{}, {NEW}}, {{}, {UPDATE, CHANNEL}, 1}});
    expect_steps(FXIO, {{{}, {NEW}}, {{}, {UPDATE, CHANNEL}, 1}});
    const fxm_fxsv_t before = fxsv(FXSV_1G);
    const fxm_fxio_t before_io = fxio(FXIO);
    EXPECT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
    expect_steps(FXSV_1G, {{{{27, "ff"}, {49, "02"}}, {}, 1}});
    expect_steps(FXIO, {{{{22, "03"}, {27, "ff"}, {29, "02"}}, {}, 1}});
    EXPECT_EQ(fxm_restart_monitor(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
    expect_events({}); // putting back raises nothing by itself
    EXPECT_TRUE(same_record(before, fxsv(FXSV_1G)));
    EXPECT_TRUE(same_record(before_io, fxio(FXIO)));

    const uint64_t sent = now_ms();
    expect_steps(FXSV_1G, {{{{27, "01"}, {49, "00"}}, {UPDATE, ERROR, CHANNEL}, 1}});
    expect_steps(FXIO, {{{{22, "01"}, {27, "00"}}, {UPDATE, CONNECTION, PATH, CHANNEL}, 1}});
    const fxm_card_data_t card = fxsv(FXSV_1G).fsv_card;
    EXPECT_EQ(channels(card) + channels(fxio(FXIO).fio_card), "DDCDDDCD");
    EXPECT_EQ(card.fcd_recvtime[0][0], 0u) << "the record is replaced whole";
    EXPECT_GE(card.fcd_updatetime, sent);
    EXPECT_EQ(
        log.count("INFO _update_fxsv_devinfo: FXSV id=0x020000001000 state change to connect. "
                  "ignore_state=WATCH_RESTART, P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
        1u);
    expect_steps(FXSV_1G, {{{}, {UPDATE, CHANNEL}}});
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDCD");

    // A card that was not stopped goes the same way: equal content, and an update all the same.
    EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
    expect_steps(FXIO, {{{}, {UPDATE, CHANNEL}, 1}});

    // Deleted while it is out, a card stays out, and comes back as a new one.
    EXPECT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    expect_steps(FXSV_1G, {{{}, {}}});
    EXPECT_EQ(fxm_restart_monitor(FXSV_1G), FXM_API_SUCCESS);
    expect_steps(FXSV_1G, {{{}, {NEW, ERROR}}});
}

// --------------------------------------------------------------------------------------------------------- callbacks

// A registration that says when it is called, and may do something then. On the library's event thread.
struct listener_t {
    std::string name;
    std::function<void()> then = {};
    void *cbid = nullptr;
};

static std::mutex heard_lock; // a later frame orders the threads too, but not to the eyes of a sanitizer
static std::vector<std::string> heard;

static std::vector<std::string> take_heard()
{
    const std::lock_guard guard(heard_lock);
    return std::exchange(heard, {});
}

static void hear(uint64_t, int32_t, uint64_t arg)
{
    const auto *listener = reinterpret_cast<listener_t *>(arg);
    std::unique_lock guard(heard_lock);
    heard.push_back(listener->name);
    guard.unlock();
    if (listener->then)
        listener->then();
}

static int listen(listener_t *listener)
{
    return fxm_register_callback(UPDATE, hear, reinterpret_cast<uintptr_t>(listener), &listener->cbid);
}

TEST_F(discovery, callbacks_are_called_in_the_order_of_registration_whatever_they_do)
{
    begin_updates();
    const auto told = [&] {
        take_heard(); // what the listeners are to do is written before the frame
        update();
        settle(0);
        return take_heard();
    };
    using names_t = std::vector<std::string>;

    listener_t first{"first"}, second{"second"}, third{"third"}, late{"late"};
    for (listener_t *listener : {&first, &second, &third})
        ASSERT_EQ(listen(listener), FXM_API_SUCCESS);
    EXPECT_EQ(told(), (names_t{"first", "second", "third"}));

    // The same function once more, registered from inside a callback: it is reached by the event under way.
    second.then = [&] {
        second.then = {};
        EXPECT_EQ(listen(&late), FXM_API_SUCCESS);
    };
    EXPECT_EQ(told(), (names_t{"first", "second", "third", "late"}));

    // One ends itself, one ends another that was still to come; the rest is called.
    first.then = [&] {
        EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_EINVAL) << "ended once";
        EXPECT_EQ(fxm_unregister_callback(third.cbid), FXM_API_SUCCESS);
    };
    EXPECT_EQ(told(), (names_t{"first", "second", "late"}));
    EXPECT_EQ(told(), (names_t{"second", "late"}));

    // The library may be asked anything from there. It shows the card as it is.
    fxm_fxsv_t record{};
    second.then = [&] {
        EXPECT_EQ(fxm_get_fxsv(FXSV_1G, &record), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_unregister_callback(late.cbid), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    };
    EXPECT_EQ(told(), (names_t{"second"}));
    EXPECT_EQ(record.fsv_card.fcd_flowid, frame[20]);
    EXPECT_EQ(fxm_unregister_callback(second.cbid), FXM_API_SUCCESS);
    EXPECT_EQ(memory(dump(), "cbinfo").in_use, 6u) << "the fixture's own are left";
}

// Whether the thread sleeps in the system, as one does that waits for a lock.
static bool sleeps(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const size_t at = stat.rfind(") ");
    return at != std::string::npos && stat[at + 2] == 'S';
}

// A call on a thread of its own that finds the event thread in a callback.
struct waiting_call_t {
    explicit waiting_call_t(std::function<int()> function)
        : thread([this, function = std::move(function)] {
              id = gettid();
              result = function();
          })
    {
    }
    void await_sleep() const
    {
        wait_for([this] { return id != 0 && sleeps(id); }, "the other thread to wait for the callback");
    }
    std::atomic<pid_t> id = 0;
    int result = -1;
    std::thread thread;
};

TEST_F(discovery, of_a_callback_and_a_thread_that_end_one_registration_the_callback_wins)
{
    begin_updates();
    listener_t first{"first"}, second{"second"};
    std::unique_ptr<waiting_call_t> other;
    int ended = -1;
    first.then = [&] {
        other = std::make_unique<waiting_call_t>([&] { return fxm_unregister_callback(second.cbid); });
        other->await_sleep();
        ended = fxm_unregister_callback(second.cbid);
        first.then = {};
    };
    ASSERT_EQ(listen(&first), FXM_API_SUCCESS);
    ASSERT_EQ(listen(&second), FXM_API_SUCCESS);
    update();
    settle(0);
    other->thread.join();
    EXPECT_EQ(ended, FXM_API_SUCCESS);
    EXPECT_EQ(other->result, FXM_API_EINVAL);
    EXPECT_EQ(take_heard(), (std::vector<std::string>{"first"})) << "the host has freed the second's data";
    EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_SUCCESS);
}

TEST_F(discovery, ended_handle_never_comes_again)
{
    std::set<void *> ended;
    for (int round = 0; round < 2; ++round) {
        run(FXM_LOG_ERROR);
        listener_t listener{"never"};
        for (int i = 0; i < 500; ++i) {
            ASSERT_EQ(listen(&listener), FXM_API_SUCCESS);
            ASSERT_FALSE(ended.contains(listener.cbid)) << "after " << ended.size();
            for (void *const handle : ended)
                ASSERT_EQ(fxm_unregister_callback(handle), FXM_API_EINVAL);
            ASSERT_EQ(fxm_unregister_callback(listener.cbid), FXM_API_SUCCESS);
            ended.insert(listener.cbid);
        }
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
        ended.insert(std::begin(cbid), std::end(cbid)); // of the fixture, ended by the stop
    }
}

TEST_F(discovery, registering_and_ending_wait_for_the_event_in_progress_and_not_for_those_behind_it)
{
    constexpr int BACKLOG = 200;
    begin_updates(FXM_LOG_ERROR); // a call sleeps for nothing but the event then
    std::atomic<bool> inside = false, held = false;
    listener_t first{"first"}, other{"other"};
    first.then = [&] {
        inside = true;
        while (held)
            std::this_thread::yield();
    };
    ASSERT_EQ(listen(&first), FXM_API_SUCCESS);
    const auto events_heard_by_other = [&](const std::function<int()> &function) {
        inside = false;
        held = true;
        for (int i = 0; i < BACKLOG; ++i)
            update();
        wait_for([&] { return inside.load(); }, "the first event");
        dump_when([&](const dump_t &told) { return memory(told, "evt_node").in_use >= BACKLOG; }, "the other events");
        waiting_call_t call(function);
        call.await_sleep();
        held = false;
        call.thread.join();
        EXPECT_EQ(call.result, FXM_API_SUCCESS);
        settle(0);
        const std::vector<std::string> all = take_heard();
        return std::count(all.begin(), all.end(), "other");
    };
    // Apart from the event in progress one may come first.
    EXPECT_GE(events_heard_by_other([&] { return listen(&other); }), BACKLOG - 2);
    EXPECT_LE(events_heard_by_other([&] { return fxm_unregister_callback(other.cbid); }), 2);
    EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_SUCCESS);
}
