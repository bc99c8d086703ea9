// What a host sees of cards: from a frame on the wire to the record, the events, the lists and the counters.
#include "fabric.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>

namespace
{

using discovery = fabric_t;

void append(frame_t *frame, const frame_t &piece) { frame->insert(frame->end(), piece.begin(), piece.end()); }

template <size_t N> void set_bytes(uint8_t (&field)[N], std::initializer_list<uint8_t> bytes)
{
    ASSERT_EQ(bytes.size(), N);
    std::copy(bytes.begin(), bytes.end(), field);
}

template <typename Record> testing::AssertionResult same_record(const Record &expected, const Record &actual)
{
    uint8_t bytes[2][sizeof(Record)];
    memcpy(bytes[0], &expected, sizeof(Record));
    memcpy(bytes[1], &actual, sizeof(Record));
    auto result = testing::AssertionFailure() << "records differ at";
    bool same = true;
    for (size_t i = 0; i < sizeof(Record); ++i) {
        if (bytes[0][i] == bytes[1][i])
            continue;
        same = false;
        result << " [" << i << "] " << int{bytes[0][i]} << "/" << int{bytes[1][i]};
    }
    return same ? testing::AssertionSuccess() : result;
}

// The record that one frame has just made, on channel [port][mac]. Its times are those of the arrival, not before
// `sent`; then they are the actual ones in `expected` too.
template <typename Record>
void expect_new_record(Record expected, const Record &actual, size_t port, size_t mac, uint64_t sent)
{
    fxm_card_data_t card;
    memcpy(&card, &actual, sizeof(card));
    const uint64_t arrival = card.fcd_recvtime[port][mac];
    EXPECT_GE(arrival, sent);
    EXPECT_LE(arrival, now_ms());
    fxm_card_data_t expected_card;
    memcpy(&expected_card, &expected, sizeof(expected_card));
    expected_card.fcd_recvtime[port][mac] = arrival;
    expected_card.fcd_updatetime = arrival;
    expected_card.fcd_state[port][mac] = 1;
    memcpy(static_cast<void *>(&expected), &expected_card, sizeof(expected_card));
    EXPECT_TRUE(same_record(expected, actual));
}

// "CDDD": the channels of a record as the status dump shows them.
std::string channels(const fxm_card_data_t &card)
{
    std::string text;
    for (const auto &port : card.fcd_state) {
        for (const uint32_t state : port)
            text += state == 1 ? 'C' : 'D';
    }
    return text;
}

// --------------------------------------------------------------------------------------------- from frame to record

// Both layouts of bytes 0 to 17, from card 02:00:00:00:10:00 on VLAN 0xABC. Bit 12 of the TCI has no meaning.
const char *const TAGGED = "ff ff ff ff ff ff  02 00 00 00 10 00  81 00 9a bc  88 b6";
const char *const CHANGE = "ff ff ff ff ff ff  02 00 00 00 10 00  88 b6  81 00 9a bc";

const char *const UP_PORT = "01 02 03 07"              // 28 primary, secondary, subordinate bus; command
                            "34 12 78 56"              // 32 memory base, limit
                            "bc 9a f0 de"              // 36 prefetchable base, limit
                            "44 33 22 11 88 77 66 55"; // 40 prefetchable base, limit: upper halves

const char *const DOWN_PORT_REGISTERS = "11 12 13 14 22 21 24 23 26 25 28 27 34 33 32 31 38 37 36 35";

fxm_pci_config_t up_port()
{
    return {.fcp_pre_base_upper = 0x11223344,
            .fcp_pre_limit_upper = 0x55667788,
            .fcp_memory_base = 0x1234,
            .fcp_memory_limit = 0x5678,
            .fcp_pre_memory_base = 0x9abc,
            .fcp_pre_memory_limit = 0xdef0,
            .fcp_pri_bus_num = 1,
            .fcp_sec_bus_num = 2,
            .fcp_sub_bus_num = 3,
            .fcp_command = 7};
}

fxm_pci_config_t down_port_registers()
{
    return {.fcp_pre_base_upper = 0x31323334,
            .fcp_pre_limit_upper = 0x35363738,
            .fcp_memory_base = 0x2122,
            .fcp_memory_limit = 0x2324,
            .fcp_pre_memory_base = 0x2526,
            .fcp_pre_memory_limit = 0x2728,
            .fcp_pri_bus_num = 0x11,
            .fcp_sec_bus_num = 0x12,
            .fcp_sub_bus_num = 0x13,
            .fcp_command = 0x14};
}

// What TAGGED or CHANGE tell of the card that sends them.
fxm_card_data_t card_of_header(uint64_t id, uint8_t mode)
{
    fxm_card_data_t card{};
    card.fcd_id = id;
    for (int i = 0; i < 6; ++i)
        card.fcd_macaddr[i] = static_cast<uint8_t>(id >> (40 - 8 * i));
    card.fcd_vlan_id = 0xabc;
    card.fcd_vlan_mode = mode;
    return card;
}

TEST_F(discovery, fxsv_1g_announcement_fills_the_whole_record_in_both_layouts)
{
    run();
    for (const auto &[header, mode] : {std::pair(TAGGED, uint8_t{0}), std::pair(CHANGE, uint8_t{1})}) {
        for (const uint8_t subtype : std::to_array<uint8_t>({0x10, 0x11})) {
            frame_t frame = hex(header);
            append(&frame, hex("10 ee 5a 00 f4 00" // 18 subtype; not read; flow id; ver; flags: UID switch; host: FXSV
                               "c3 81 4e 96"));    // 24 link status; status: port 1 has link, version 14; interrupts
            append(&frame, hex(UP_PORT));          // 28
            append(&frame, hex("a1 02"             // 48 down port 0: connected
                               "02 00 00 00 20 00")); // 50 to this FXIO card
            append(&frame, hex(DOWN_PORT_REGISTERS));
            append(&frame, hex("ff fd"                // 76 down port 1: all but connected
                               "02 00 00 00 20 02")); // 78 its last FXIO card; 84 registers, not valid
            append(&frame, frame_t(20, 0xee));
            frame.resize(48 + 28 * 7); // 104 down ports 2 to 6
            append(&frame, hex("00 02" // 244 down port 7
                               "02 00 00 00 20 0e"));
            append(&frame, hex(DOWN_PORT_REGISTERS));
            append(&frame, frame_t(28, 0xff)); // 272 no part of a 1G/10G frame
            frame[18] = subtype;

            const uint64_t id = FXSV_1G + 0x10u * subtype + uint64_t{mode};
            const uint64_t sent = now_ms();
            wire[1]->send(from(id, frame));
            expect_events(events_of(id, {FXM_EVT_NEWDEVINFO, FXM_EVT_MAJORMINORERROR}), 1);

            fxm_fxsv_t expected{};
            fxm_card_data_t &card = expected.fsv_card;
            card = card_of_header(id, mode);
            card.fcd_uidsw = 1;
            card.fcd_port1_link = 1;
            set_bytes(card.fcd_swstatus, {0x81, 0x4e, 0x96});
            card.fcd_flowid = 0x5a;
            card.fcd_linkstatus = 0xc3;
            card.fcd_int_vector = 0x96;
            card.fcd_ver = 14;
            expected.fsv_up_port = up_port();
            expected.fsv_down_port[0] = {down_port_registers(), {0xa1, 0x02}, {0x02, 0, 0, 0, 0x20, 0x00}};
            expected.fsv_down_port[1] = {{}, {0xff, 0xfd}, {0x02, 0, 0, 0, 0x20, 0x02}};
            expected.fsv_down_port[7] = {down_port_registers(), {0x00, 0x02}, {0x02, 0, 0, 0, 0x20, 0x0e}};
            expect_new_record(expected, fxsv(id), 1, 0, sent);
        }
    }
}

TEST_F(discovery, fxsv_40g_announcement_fills_all_sixteen_down_ports)
{
    run();
    for (const auto &[header, mode] : {std::pair(TAGGED, uint8_t{0}), std::pair(CHANGE, uint8_t{1})}) {
        for (const uint8_t subtype : std::to_array<uint8_t>({0x18, 0x19})) {
            frame_t frame = hex(header);
            append(&frame, hex("18 00 00 7f 08 00" // 18 subtype; not read; flow id; ver 0x7f; flags: power; host: FXSV
                               "00 00 20 00"));    // 24 link status; status: port 0 has link
            append(&frame, hex(UP_PORT));          // 28
            frame.resize(272);                     // 48 down ports 0 to 7
            append(&frame, hex("f8 03"             // 272 down port 8
                               "02 00 00 00 20 10"));
            append(&frame, hex(DOWN_PORT_REGISTERS));
            frame.resize(48 + 28 * 15); // 300 down ports 9 to 14
            append(&frame, hex("01 02"  // 468 down port 15
                               "02 00 00 00 20 1e"));
            append(&frame, hex(DOWN_PORT_REGISTERS));
            ASSERT_EQ(frame.size(), 496u);
            frame[18] = subtype;

            const uint64_t id = FXSV_40G + 0x10u * subtype + 2 * uint64_t{mode};
            const uint64_t sent = now_ms();
            wire[0]->send(from(id + 1, frame)); // MAC 1 of the card
            expect_events(events_of(id, {FXM_EVT_NEWDEVINFO}));

            fxm_fxsv_t expected{};
            fxm_card_data_t &card = expected.fsv_card;
            card = card_of_header(id, mode);
            card.fcd_power = 1;
            card.fcd_port0_link = 1;
            set_bytes(card.fcd_swstatus, {0x00, 0x20, 0x00});
            card.fcd_type = 0x7f;
            expected.fsv_up_port = up_port();
            expected.fsv_down_port[8] = {down_port_registers(), {0xf8, 0x03}, {0x02, 0, 0, 0, 0x20, 0x10}};
            expected.fsv_down_port[15] = {down_port_registers(), {0x01, 0x02}, {0x02, 0, 0, 0, 0x20, 0x1e}};
            expect_new_record(expected, fxsv(id), 0, 1, sent);
        }
    }
}

TEST_F(discovery, fxio_announcement_fills_the_whole_record_in_both_layouts)
{
    run();
    for (const auto &[header, mode] : {std::pair(TAGGED, uint8_t{0}), std::pair(CHANGE, uint8_t{1})}) {
        for (const uint8_t subtype : std::to_array<uint8_t>({0x10, 0x11, 0x18, 0x19})) {
            frame_t frame = hex(header);
            append(&frame,
                   hex("10 ee 33 00 f9 01" // 18 subtype; not read; flow id; ver; flags: power, fault; host: FXIO
                       "0f 80 b0 00"       // 24 link status; status: presence, port 0 has link, a bit of no name
                       "c5 02"             // 28 sub-state: connected
                       "02 00 00 00 10 08" // 30 its FXSV card
                       "72 15 86 80"       // 36 device, vendor
                       "ee 56 34 12"       // 40 not read; class code
                       "ff ff"));          // 44 not there for a card that is not multi-root
            frame[18] = subtype;

            // An odd address of a card with ver 0 is just its address.
            const uint64_t id = FXIO + 0x10u * subtype + 2 * uint64_t{mode} + 1;
            const uint64_t sent = now_ms();
            wire[0]->send(from(id, frame));
            expect_events(events_of(id, {FXM_EVT_NEWDEVINFO}));

            fxm_fxio_t expected{};
            fxm_card_data_t &card = expected.fio_card;
            card = card_of_header(id, mode);
            card.fcd_power = 1;
            card.fcd_port0_link = 1;
            set_bytes(card.fcd_swstatus, {0x80, 0xb0, 0x00});
            card.fcd_flowid = 0x33;
            card.fcd_linkstatus = 0x0f;
            expected.fio_class_code = 0x123456;
            expected.fio_device_id = 0x1572;
            expected.fio_vendor_id = 0x8086;
            set_bytes(expected.fio_sermacaddr, {0x02, 0x00, 0x00, 0x00, 0x10, 0x08});
            set_bytes(expected.fio_substate, {0xc5, 0x02});
            expected.fio_link0fault = 1;
            expected.fio_pcie_presence = 1;
            expect_new_record(expected, fxio(id), 0, 0, sent);
        }
    }
}

TEST_F(discovery, multi_root_card_has_its_resource_number_and_swapped_fault_flags)
{
    run();
    for (const auto &[header, mode] : {std::pair(TAGGED, uint8_t{0}), std::pair(CHANGE, uint8_t{1})}) {
        frame_t frame = hex(header);
        append(&frame, hex("18 00 00 01 01 01" // 18 40G DEVINFO; not read; flow id; ver 1; flags: fault; host: FXIO
                           "00 00 41 00"       // 24 link status; status: port 1 has link, version 1: multi-root
                           "00 00"             // 28 sub-state
                           "00 00 00 00 00 00" // 30 its FXSV card
                           "01 02 03 04"       // 36 device, vendor
                           "00 03 02 01"       // 40 not read; class code
                           "01 02"));          // 44 resource number, most significant byte first
        const uint64_t id = FXIO_MR + 2 * uint64_t{mode};
        const uint64_t sent = now_ms();
        wire[1]->send(from(id + 1, frame));
        expect_events(events_of(id, {FXM_EVT_NEWDEVINFO}), 1);

        fxm_fxio_t expected{};
        fxm_card_data_t &card = expected.fio_card;
        card = card_of_header(id, mode);
        card.fcd_port1_link = 1;
        set_bytes(card.fcd_swstatus, {0x00, 0x41, 0x00});
        card.fcd_type = 1;
        card.fcd_ver = 1;
        expected.fio_class_code = 0x010203;
        expected.fio_device_id = 0x0201;
        expected.fio_vendor_id = 0x0403;
        expected.fio_mr_resource_num = 0x0102;
        expected.fio_link1fault = 1;
        expect_new_record(expected, fxio(id), 1, 1, sent);

        frame[22] = 0x02; // the other flag
        wire[1]->send(from(id + 1, frame));
        expect_events(events_of(id, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_PATHSTATECHANGE}), 1);
        EXPECT_EQ(fxio(id).fio_link0fault, 1);
        EXPECT_EQ(fxio(id).fio_link1fault, 0);
    }
}

// ------------------------------------------------------------------------------------------------- frames refused

// So many frames of the cards are counted on the two ports.
std::function<bool(const dump_t &)> received(uint64_t on_port0, uint64_t on_port1)
{
    return [=](const dump_t &dump) {
        return frames_counted(dump, 0, "FXM_STATS_R_TOTAL") == on_port0 &&
               frames_counted(dump, 1, "FXM_STATS_R_TOTAL") == on_port1;
    };
}

// The first `length` bytes of the frame, with the bytes at the given offsets changed.
frame_t changed(frame_t frame, const std::map<size_t, uint8_t> &bytes, size_t length = 0)
{
    for (const auto &[offset, value] : bytes)
        frame[offset] = value;
    if (length != 0)
        frame.resize(length);
    return frame;
}

TEST_F(discovery, frame_that_fails_a_check_leaves_one_line_and_is_counted_nowhere)
{
    const frame_t fxsv_1g = fxsv_1g_frame();
    const frame_t fxsv_40g = fxsv_40g_frame();
    const frame_t fxio = fxio_frame();
    const frame_t fxio_mr = fxio_mr_frame();
    // Bytes 12 to 17 in the other order.
    const std::map<size_t, uint8_t> change = {{12, 0x88}, {13, 0xb6}, {14, 0x81}, {15, 0x00}, {16, 0x80}, {17, 0x64}};
    const frame_t fxio_change = changed(fxio, change);

    const std::vector<std::pair<frame_t, std::string>> refused = {
        {changed(fxio, {}, 27), "Recv size is too short. len=27"},
        {changed(fxio, {{14, 0x60}}), "priority is not 100(bit). pri=0x60"},
        {changed(fxio, {{14, 0xa0}}), "priority is not 100(bit). pri=0xA0"},
        {changed(fxio, {{16, 0x08}, {17, 0x00}}), "Ether type is mismatch. type=0x0800"},
        {changed(fxio_change, {{12, 0x08}, {13, 0x06}}), "Ether type is mismatch.(VlanTag change mode) type=0x0806"},
        {changed(fxio_change, {{14, 0x81}, {15, 0x01}}), "TPID type is mismatch.(VlanTag change mode) tpid=0x8101"},
        {changed(fxio_change, {{16, 0xc0}}), "priority is not 100(bit).(VlanTag change mode) pri=0xC0"},
        // What the library itself sends, and what nobody does.
        {changed(fxio, {{18, 0x30}}), "Subtype is mismatch. subtype=0x30"},
        {changed(fxio, {{18, 0x80}}), "Subtype is mismatch. subtype=0x80"},
        {changed(fxio, {{18, 0x90}}), "Subtype is mismatch. subtype=0x90"},
        {changed(fxio, {{18, 0x91}}), "Subtype is mismatch. subtype=0x91"},
        {changed(fxio, {{18, 0x92}}), "Subtype is mismatch. subtype=0x92"},
        {changed(fxio, {{18, 0x12}}), "Subtype is mismatch. subtype=0x12"},
        {changed(fxio_change, {{18, 0x21}}), "Subtype is mismatch. subtype=0x21"},
        {changed(fxsv_1g, {}, 271), "Recv size is not enough. subtype=0x10, recv_size=271, msg_size=272"},
        {changed(fxsv_1g, {{18, 0x11}}, 28), "Recv size is not enough. subtype=0x11, recv_size=28, msg_size=272"},
        {changed(fxsv_40g, {}, 495), "Recv size is not enough. subtype=0x18, recv_size=495, msg_size=496"},
        {changed(fxsv_40g, {{18, 0x19}}, 272), "Recv size is not enough. subtype=0x19, recv_size=272, msg_size=496"},
        {changed(fxio, {}, 43), "Recv size is not enough. subtype=0x10, recv_size=43, msg_size=44"},
        {changed(fxio, {{18, 0x19}}, 43), "Recv size is not enough. subtype=0x19, recv_size=43, msg_size=44"},
        {changed(fxio_mr, {}, 45), "Recv size is not enough. subtype=0x10, recv_size=45, msg_size=46"},
        {changed(fxio_mr, {{18, 0x18}}, 44), "Recv size is not enough. subtype=0x18, recv_size=44, msg_size=46"},
        {changed(fxsv_1g, {{21, 0x01}}), "Drop 1G/10G DEVINFO to send from (ver=1) FX card."},
        {changed(fxio, {{18, 0x11}, {21, 0xff}}), "Drop 1G/10G NOTIFY to send from (ver=255) FX card."},
        // The length comes before the ver.
        {changed(fxsv_1g, {{21, 0x02}}, 100), "Recv size is not enough. subtype=0x10, recv_size=100, msg_size=272"},
    };
    run();
    for (const auto &[frame, line] : refused) {
        wire[0]->send(frame);
        ASSERT_TRUE(wait_for_line("TRACE _check_frame: " + line));
    }
    EXPECT_EQ(log.count_with("_check_frame: "), refused.size()) << "a frame has left more than its line";
    EXPECT_EQ(frames_counted(dump(), 0, "FXM_STATS_R_TOTAL"), 0u);

    // The shortest that pass; a sender that is no card is counted and goes no further.
    const frame_t completion = hex("ff ff ff ff ff ff" //  0 destination
                                   "02 00 00 00 10 00" //  6 source
                                   "81 00 80 64 88 b6" // 12 TPID, TCI, EtherType
                                   "20 00 00 00 00 07" // 18 Completion; not read; tag
                                   "78 56 34 12");     // 24 value
    wire[0]->send(completion);
    wire[0]->send(changed(completion, change));
    wire[0]->send(changed(fxio, {{23, 0x02}}, 28));
    expect_events({});
    const dump_t after = dump_when(received(4, 0), "the frames to be counted"); // with the one that settled the wire
    EXPECT_EQ(log.count("TRACE _fxm_recv_devinfo: Unknwon PEB. host=0x02"), 1u);
    EXPECT_EQ(frames_counted(after, 0, "FXM_STATS_R_COMP"), 2u);
    EXPECT_EQ(frames_counted(after, 0, "FXM_STATS_R_DEV"), 2u);
    EXPECT_EQ(memory(after, "fxio").alloc, 1u);
}

TEST_F(discovery, configured_ether_type_alone_is_taken)
{
    configure("ether_type = 0x9abc\n");
    start();
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
    wire[0]->send(fxio_frame());
    wire[0]->send(changed(fxio_frame(), {{16, 0x9a}, {17, 0xbc}}));
    ASSERT_TRUE(wait_for([&] { return !events().empty(); }, "the card", [&] { return log.tail(); }));
    EXPECT_EQ(log.count("TRACE _check_frame: Ether type is mismatch. type=0x88B6"), 1u);
    EXPECT_EQ(events(), events_of(FXIO, {FXM_EVT_NEWDEVINFO}));
}

TEST_F(discovery, frames_before_the_start_of_the_manager_are_dropped_and_not_kept)
{
    start();
    wire[0]->send(fxsv_1g_frame());
    wire[1]->send(fxio_frame());
    ASSERT_TRUE(wait_for_line("TRACE _fxm_recv_frame: Drop packet because start flag is not set. port_num=0"));
    ASSERT_TRUE(wait_for_line("TRACE _fxm_recv_frame: Drop packet because start flag is not set. port_num=1"));
    const dump_t before = dump();
    EXPECT_TRUE(has_line(before, "    Start flag: OFF"));
    EXPECT_EQ(frames_counted(before, 0, "FXM_STATS_R_TOTAL") + frames_counted(before, 1, "FXM_STATS_R_TOTAL"), 0u);

    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS) << "a second call is harmless";
    settle(1);
    expect_events({});
    wire[0]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}));
}

// ---------------------------------------------------------------------------------------------------------- events

TEST_F(discovery, each_change_of_an_fxsv_card_raises_its_events_in_order)
{
    run();
    frame_t frame = fxsv_1g_frame();
    const auto expect = [&](const std::vector<int32_t> &types, size_t port = 0) {
        wire[port]->send(frame);
        expect_events(events_of(FXSV_1G, types), static_cast<int>(port));
    };
    expect({FXM_EVT_NEWDEVINFO});
    EXPECT_EQ(log.count("INFO _add_fxsv_devinfo: FXSV information is added. id=0x020000001000, P0M0: CONNECT, P0M1: "
                        "DISCONNECT, P1M0: DISCONNECT, P1M1: DISCONNECT"),
              1u);
    const fxm_fxsv_t first = fxsv(FXSV_1G);
    // The clock must have moved on for a time to show whether it does.
    ASSERT_TRUE(wait_for([&] { return now_ms() > first.fsv_card.fcd_updatetime; }, "the next millisecond"));
    expect({});
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_updatetime, first.fsv_card.fcd_updatetime) << "time alone is no news";
    EXPECT_GT(fxsv(FXSV_1G).fsv_card.fcd_recvtime[0][0], first.fsv_card.fcd_recvtime[0][0]);
    frame[18] = 0x11; // a NOTIFY of the same content
    expect({});

    frame[20] = 1; // flow id
    expect({FXM_EVT_UPDATEDEVINFO});
    EXPECT_GT(fxsv(FXSV_1G).fsv_card.fcd_updatetime, first.fsv_card.fcd_updatetime);
    frame[28] = 1; // up port
    expect({FXM_EVT_UPDATEDEVINFO});
    frame[48 + 1] = frame[48 + 28 * 7 + 1] = 0x02; // connection bit, down ports 0 and 7
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE});
    frame[48 + 1] = 0;
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE});
    frame[27] = 0x03; // interrupt vector
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_MAJORMINORERROR});
    frame[27] = 0x01;
    expect({FXM_EVT_UPDATEDEVINFO});
    frame[27] = 0x05;
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_MAJORMINORERROR});

    // No news: bits 2..0 of a down port's first status byte and bit 0 of the second. They are stored all the same.
    frame[48] = 0x07;
    frame[49] = 0x01;
    const uint64_t update_time = fxsv(FXSV_1G).fsv_card.fcd_updatetime;
    expect({});
    EXPECT_EQ(fxsv(FXSV_1G).fsv_down_port[0].fdp_port_status[0], 0x07);
    EXPECT_EQ(fxsv(FXSV_1G).fsv_down_port[0].fdp_port_status[1], 0x01);
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_updatetime, update_time);
    frame[48] = 0x0f; // bit 3 is news
    expect({FXM_EVT_UPDATEDEVINFO});
    frame[49] = 0x05; // bit 2 is
    expect({FXM_EVT_UPDATEDEVINFO});

    // All at once, on the other port.
    frame[24] = 0x01;
    frame[27] = 0x0d;
    frame[49] = 0x07;
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE, FXM_EVT_MAJORMINORERROR, FXM_EVT_CHANNELSTATECHANGE}, 1);
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDCD");
    EXPECT_EQ(log.count("INFO _update_fxsv_devinfo: FXSV id=0x020000001000 state change to connect. P0M0: CONNECT, "
                        "P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
              1u);
}

TEST_F(discovery, each_change_of_an_fxio_card_raises_its_events_in_order)
{
    run();
    frame_t frame = fxio_frame();
    const auto expect = [&](const std::vector<int32_t> &types, size_t port = 0) {
        wire[port]->send(frame);
        expect_events(events_of(FXIO, types), static_cast<int>(port));
    };
    frame[27] = 0x80;
    expect({FXM_EVT_NEWDEVINFO, FXM_EVT_MAJORMINORERROR});
    expect({});
    frame[28] = 0x07; // no news in the sub-state
    frame[29] = 0x01;
    expect({});
    EXPECT_EQ(fxio(FXIO).fio_substate[1], 0x01);
    frame[28] = 0x17;
    expect({FXM_EVT_UPDATEDEVINFO});
    frame[29] = 0x03;
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE});
    frame[22] = 0x01; // fault of link 0
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_PATHSTATECHANGE});
    frame[22] = 0x02; // the one goes, the other comes
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_PATHSTATECHANGE});
    frame[41] = 0x01; // class code
    expect({FXM_EVT_UPDATEDEVINFO});
    frame[22] = 0x01;
    frame[27] = 0xc0;
    frame[29] = 0x00;
    expect({FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE, FXM_EVT_MAJORMINORERROR, FXM_EVT_PATHSTATECHANGE,
            FXM_EVT_CHANNELSTATECHANGE},
           1);
    EXPECT_EQ(log.count("INFO _update_fxio_devinfo: FXIO id=0x020000002000 state change to connect. P0M0: CONNECT, "
                        "P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
              1u);
}

TEST_F(discovery, update_evt_mask_1_makes_every_bit_news)
{
    configure("update_evt_mask = 1\n");
    run();
    for (const size_t offset : {48u, 49u}) {
        frame_t frame = from(FXSV_1G + offset, fxsv_1g_frame());
        wire[0]->send(frame);
        frame[offset] = 0x01;
        wire[0]->send(frame);
        expect_events(events_of(FXSV_1G + offset, {FXM_EVT_NEWDEVINFO, FXM_EVT_UPDATEDEVINFO}));
    }
    for (const size_t offset : {28u, 29u}) {
        frame_t frame = from(FXIO + offset, fxio_frame());
        wire[0]->send(frame);
        frame[offset] = 0x01;
        wire[0]->send(frame);
        expect_events(events_of(FXIO + offset, {FXM_EVT_NEWDEVINFO, FXM_EVT_UPDATEDEVINFO}));
    }
}

TEST_F(discovery, connection_of_down_ports_counts_by_the_generation_of_the_card_not_of_the_frame)
{
    run();
    for (const uint8_t ver : std::to_array<uint8_t>({0, 1})) {
        const uint64_t id = FXSV_40G + 0x100u * ver;
        frame_t frame = from(id, fxsv_40g_frame());
        frame[21] = ver;
        wire[0]->send(frame);
        expect_events(events_of(id, {FXM_EVT_NEWDEVINFO}));
        frame[48 + 28 * 8 + 1] = 0x02; // the ninth
        wire[0]->send(frame);
        if (ver == 0)
            expect_events(events_of(id, {FXM_EVT_UPDATEDEVINFO}));
        else
            expect_events(events_of(id, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE}));
        frame[48 + 28 * 7 + 1] = 0x02; // the eighth
        wire[0]->send(frame);
        expect_events(events_of(id, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE}));
        EXPECT_EQ(fxsv(id).fsv_down_port[8].fdp_port_status[1], 0x02);
    }
}

TEST_F(discovery, four_channels_of_a_40g_card_come_up_one_by_one)
{
    run();
    std::string expected = "DDDD";
    bool known = false;
    for (const size_t channel : {2u, 1u, 3u, 0u}) {
        const size_t port = channel / 2;
        wire[port]->send(from(FXSV_40G + channel % 2, fxsv_40g_frame()));
        expect_events(events_of(FXSV_40G, known
                                              ? std::vector<int32_t>{FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE}
                                              : std::vector<int32_t>{FXM_EVT_NEWDEVINFO}),
                      static_cast<int>(port));
        known = true;
        expected[channel] = 'C';
        EXPECT_EQ(channels(fxsv(FXSV_40G).fsv_card), expected);
    }
    const dump_t lines = dump();
    EXPECT_TRUE(has_line(lines, "    0x020000004000  100   40G   1    CCCC    WATCH    NORMAL"));
}

TEST_F(discovery, a_card_heard_on_both_ports_at_once_is_one_card)
{
    run(FXM_LOG_INFO);
    const auto announce = [&](size_t port) {
        for (int i = 0; i < 300; ++i)
            wire[port]->send(fxsv_1g_frame());
    };
    std::thread other(announce, 1);
    announce(0);
    other.join();
    settle(1);
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO, FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE}));
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDCD");

    // Different VLANs on the two ports: each alternation is a change of the card's group.
    wire[1]->send(on_vlan(101, fxsv_1g_frame()));
    expect_events(events_of(FXSV_1G, {FXM_EVT_UPDATEDEVINFO}), 1);
    wire[0]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {FXM_EVT_UPDATEDEVINFO}));
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_vlan_id, 100);
}

// ----------------------------------------------------------------------------------------------- lists and deletion

// The six list queries, with one argument that those without an own ignore.
struct query_t {
    const char *name;
    bool fxsv;
    std::function<int(uint64_t, uint64_t **, uint32_t *)> ask;
};

const std::vector<query_t> ALL_CARDS = {
    {"fxm_get_fxsvids", true, [](uint64_t, uint64_t **list, uint32_t *count) { return fxm_get_fxsvids(list, count); }},
    {"fxm_get_fxioids", false, [](uint64_t, uint64_t **list, uint32_t *count) { return fxm_get_fxioids(list, count); }},
};
const std::vector<query_t> BY_TIME = {
    {"fxm_get_update_fxsvids", true, fxm_get_update_fxsvids},
    {"fxm_get_update_fxioids", false, fxm_get_update_fxioids},
};
const std::vector<query_t> BY_GROUP = {
    {"fxm_get_group_fxsvids", true,
     [](uint64_t group, uint64_t **list, uint32_t *count) {
         return fxm_get_group_fxsvids(static_cast<uint16_t>(group), list, count);
     }},
    {"fxm_get_group_fxioids", false,
     [](uint64_t group, uint64_t **list, uint32_t *count) {
         return fxm_get_group_fxioids(static_cast<uint16_t>(group), list, count);
     }},
};

// The answer without a limit of the caller's; nothing when the result is not the expected one.
std::optional<std::vector<uint64_t>> ask(const query_t &query, uint64_t argument, int result = FXM_API_SUCCESS)
{
    uint64_t none = 0;
    uint64_t *list = &none;
    uint32_t count = 0;
    EXPECT_EQ(query.ask(argument, &list, &count), result) << query.name;
    if (result != FXM_API_SUCCESS || list == &none) {
        EXPECT_NE(result, FXM_API_SUCCESS) << query.name << " gives no list";
        EXPECT_EQ(list, &none) << query.name << " has written to its output";
        return std::nullopt;
    }
    EXPECT_EQ(list == nullptr, count == 0) << query.name;
    const std::vector<uint64_t> ids(list, list + count);
    EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
    return ids;
}

std::vector<uint64_t> ids_from(const query_t &query, uint64_t first, int number)
{
    const uint64_t base = query.fxsv ? FXSV_1G : FXIO;
    std::vector<uint64_t> ids;
    for (int i = 0; i < number; ++i)
        ids.push_back(base + first + 2 * static_cast<uint64_t>(i));
    return ids;
}

TEST_F(discovery, lists_are_ascending_and_keep_to_their_limits)
{
    configure("id_list_upper_limit = 3\n");
    run();
    std::vector<query_t> queries;
    for (const auto &some : {ALL_CARDS, BY_TIME, BY_GROUP})
        queries.insert(queries.end(), some.begin(), some.end());

    for (const query_t &query : queries) {
        uint64_t *list = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(query.ask(100, nullptr, &count), FXM_API_EINVAL) << query.name;
        EXPECT_EQ(query.ask(100, &list, nullptr), FXM_API_EINVAL) << query.name;
        for (const uint32_t limit : {0u, 1u}) {
            count = limit;
            list = reinterpret_cast<uint64_t *>(1);
            EXPECT_EQ(query.ask(100, &list, &count), FXM_API_SUCCESS) << query.name;
            EXPECT_EQ(list, nullptr) << query.name;
            EXPECT_EQ(count, 0u) << query.name;
        }
    }
    for (const uint64_t n : {4u, 0u, 2u}) { // not in their order
        wire[0]->send(from(FXSV_1G + n, fxsv_1g_frame()));
        wire[1]->send(from(FXIO + n, fxio_frame()));
    }
    settle(0);
    settle(1);
    for (const query_t &query : queries) {
        const std::vector<uint64_t> three = ids_from(query, 0, 3);
        EXPECT_EQ(ask(query, 100), three) << query.name;
        uint64_t none = 0;
        uint64_t *list = &none;
        for (const uint32_t limit : {1u, 2u}) {
            uint32_t count = limit;
            EXPECT_EQ(query.ask(100, &list, &count), FXM_API_ERANGE) << query.name;
            EXPECT_EQ(count, 3u) << query.name << ": the size needed";
            EXPECT_EQ(list, &none) << query.name;
        }
        uint32_t count = 3;
        ASSERT_EQ(query.ask(100, &list, &count), FXM_API_SUCCESS) << query.name << ": an exact fit";
        EXPECT_EQ(std::vector<uint64_t>(list, list + count), three) << query.name;
        EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
    }
    // One more than the configuration allows when the caller sets no limit.
    wire[0]->send(from(FXSV_1G + 6, fxsv_1g_frame()));
    wire[0]->send(from(FXIO + 6, fxio_frame()));
    settle(0);
    for (const query_t &query : queries) {
        ask(query, 100, FXM_API_ERANGE);
        uint64_t *list = nullptr;
        uint32_t count = 4;
        EXPECT_EQ(query.ask(100, &list, &count), FXM_API_SUCCESS) << query.name;
        EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
    }
    const account_t lists = memory(dump(), "idlist");
    EXPECT_EQ(lists.in_use, 0u);
    EXPECT_EQ(lists.alloc, 18u) << "an empty or refused answer allocates nothing";
    EXPECT_EQ(fxm_free_idlist(nullptr), FXM_API_SUCCESS);
    EXPECT_EQ(memory(dump(), "idlist").free, 18u);
}

TEST_F(discovery, update_lists_name_what_has_changed_since_and_consume_nothing)
{
    run();
    for (const uint64_t n : {0u, 2u}) {
        wire[0]->send(from(FXSV_1G + n, fxsv_1g_frame()));
        wire[0]->send(from(FXIO + n, fxio_frame()));
    }
    settle(0);
    const uint64_t seen = now_ms();
    ASSERT_TRUE(wait_for([&] { return now_ms() > seen; }, "the next millisecond"));
    const uint64_t poll = now_ms();
    frame_t fxsv_frame = from(FXSV_1G + 2, fxsv_1g_frame());
    frame_t fxio_news = from(FXIO + 2, fxio_frame());
    fxsv_frame[20] = fxio_news[20] = 1;
    wire[0]->send(fxsv_frame);
    wire[0]->send(fxio_news);
    wire[0]->send(fxsv_1g_frame()); // nothing new
    wire[0]->send(fxio_frame());
    settle(0);
    for (const query_t &query : BY_TIME) {
        EXPECT_EQ(ask(query, 0), ids_from(query, 0, 2)) << query.name;
        EXPECT_EQ(ask(query, poll), ids_from(query, 2, 1)) << query.name;
        EXPECT_EQ(ask(query, poll), ids_from(query, 2, 1)) << query.name << ", asked again";
        const uint64_t changed_at = query.fxsv ? fxsv(FXSV_1G + 2).fsv_card.fcd_updatetime : //
                                        fxio(FXIO + 2).fio_card.fcd_updatetime;
        EXPECT_EQ(ask(query, changed_at), ids_from(query, 2, 1)) << query.name << ": equal times count";
        EXPECT_EQ(ask(query, changed_at + 1), std::vector<uint64_t>()) << query.name;
        EXPECT_EQ(ask(query, UINT64_MAX), std::vector<uint64_t>()) << query.name;
    }
}

TEST_F(discovery, a_card_stands_in_the_group_of_its_last_frame)
{
    run();
    for (const auto &[n, vlan] : {std::pair(0u, 1), std::pair(2u, 4094), std::pair(4u, 0), std::pair(6u, 4095)}) {
        wire[0]->send(on_vlan(static_cast<uint16_t>(vlan), from(FXSV_1G + n, fxsv_1g_frame())));
        wire[0]->send(on_vlan(static_cast<uint16_t>(vlan), from(FXIO + n, fxio_frame())));
    }
    settle(0);
    for (const query_t &query : BY_GROUP) {
        EXPECT_EQ(ask(query, 1), ids_from(query, 0, 1)) << query.name;
        EXPECT_EQ(ask(query, 4094), ids_from(query, 2, 1)) << query.name;
        EXPECT_EQ(ask(query, 2), std::vector<uint64_t>()) << query.name;
        for (const uint64_t no_group : {0u, 4095u, 4096u, 65535u})
            ask(query, no_group, FXM_API_EINVAL);
    }
    for (const query_t &query : ALL_CARDS)
        EXPECT_EQ(ask(query, 0), ids_from(query, 0, 4)) << query.name;

    wire[0]->send(on_vlan(4094, fxsv_1g_frame()));
    settle(0);
    EXPECT_EQ(ask(BY_GROUP[0], 1), std::vector<uint64_t>());
    EXPECT_EQ(ask(BY_GROUP[0], 4094), ids_from(BY_GROUP[0], 0, 2));
    EXPECT_EQ(ask(BY_GROUP[1], 1), ids_from(BY_GROUP[1], 0, 1));
    const dump_t lines = dump();
    for (const char *line : {"    fxsv total: 4", "    fxio total: 4", "       0      1      1",
                             "       1      0      1", "    4094      2      1", "    4095      1      1"})
        EXPECT_TRUE(has_line(lines, line)) << line;

    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(ask(BY_GROUP[0], 4094), ids_from(BY_GROUP[0], 2, 1));
}

TEST_F(discovery, a_deleted_card_that_speaks_again_is_new)
{
    run();
    for (const size_t port : {0u, 1u}) {
        wire[port]->send(fxsv_1g_frame());
        wire[port]->send(fxio_frame());
        settle(static_cast<int>(port));
    }
    EXPECT_EQ(fxm_delete_fxsv(FXIO), FXM_API_ENOENT) << "it is in the other table";
    EXPECT_EQ(fxm_delete_fxio(FXSV_1G), FXM_API_ENOENT);
    EXPECT_EQ(channels(fxio(FXIO).fio_card), "CDCD");
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G},
                   {FXM_EVT_NEWDEVINFO, FXIO},
                   {FXM_EVT_UPDATEDEVINFO, FXSV_1G},
                   {FXM_EVT_CHANNELSTATECHANGE, FXSV_1G},
                   {FXM_EVT_UPDATEDEVINFO, FXIO},
                   {FXM_EVT_CHANNELSTATECHANGE, FXIO}});

    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_ENOENT);
    EXPECT_EQ(fxm_delete_fxio(FXIO), FXM_API_SUCCESS);
    fxm_fxsv_t untouched{};
    untouched.fsv_card.fcd_id = 7;
    EXPECT_EQ(fxm_get_fxsv(FXSV_1G, &untouched), FXM_API_ENOENT);
    EXPECT_EQ(untouched.fsv_card.fcd_id, 7u);
    EXPECT_EQ(fxm_get_fxsv(FXSV_1G, nullptr), FXM_API_EINVAL);
    EXPECT_EQ(fxm_get_fxio(FXIO, nullptr), FXM_API_EINVAL);
    expect_events({});

    wire[1]->send(fxsv_1g_frame());
    wire[1]->send(fxio_frame());
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G}, {FXM_EVT_NEWDEVINFO, FXIO}}, 1);
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "DDCD");
    EXPECT_EQ(channels(fxio(FXIO).fio_card), "DDCD");
    EXPECT_GE(log.count("TRACE _fxm_create_reg_lock_node: Failed to _fxm_rbtree_put(). err=EEXIST, id=0x020000001000"),
              1u)
        << "the write lock of a card outlives it";
}

// ------------------------------------------------------------------------------------------------------- monitoring

TEST_F(discovery, an_unknown_card_out_of_monitoring_stays_unknown_until_it_is_put_back)
{
    // Write locks live as long as the process, so no other test may have heard of these.
    constexpr uint64_t stranger = 0x02000000f100;
    constexpr uint64_t stranger_io = 0x02000000f200;
    run();
    settle(0);
    const uint32_t write_locks = memory(dump(), "wreg_node").in_use;
    EXPECT_EQ(fxm_restart_monitor(stranger), FXM_API_SUCCESS) << "never stopped, never seen";
    EXPECT_EQ(fxm_stop_monitor(stranger), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_stop_monitor(stranger), FXM_API_SUCCESS) << "twice is once";
    EXPECT_EQ(fxm_stop_monitor(stranger_io), FXM_API_SUCCESS);
    wire[0]->send(from(stranger, fxsv_1g_frame()));
    wire[0]->send(from(stranger, fxsv_1g_frame()));
    wire[0]->send(from(stranger_io, fxio_frame()));
    expect_events({});
    fxm_fxsv_t record;
    EXPECT_EQ(fxm_get_fxsv(stranger, &record), FXM_API_ENOENT);
    dump_t lines = dump_when(received(5, 0), "each frame to be counted, whatever becomes of it");
    EXPECT_EQ(section(lines, "  - Black list ids"), (dump_t{"    0x02000000f100", "    0x02000000f200"}));
    EXPECT_EQ(memory(lines, "bl_node").in_use, 2u);
    EXPECT_EQ(memory(lines, "wreg_node").in_use, write_locks + 2) << "a write lock for each id that was heard";

    EXPECT_EQ(fxm_restart_monitor(stranger), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_restart_monitor(stranger_io), FXM_API_SUCCESS);
    wire[0]->send(from(stranger, fxsv_1g_frame()));
    wire[0]->send(from(stranger_io, fxio_frame()));
    expect_events({{FXM_EVT_NEWDEVINFO, stranger}, {FXM_EVT_NEWDEVINFO, stranger_io}});
    lines = dump();
    EXPECT_EQ(section(lines, "  - Black list ids"), (dump_t{"    no entry."}));
    EXPECT_EQ(memory(lines, "bl_node").in_use, 0u);
    EXPECT_EQ(log.count("TRACE fxm_stop_monitor: The ID already exist in black list. id=0x02000000f100"), 1u);
    EXPECT_EQ(log.count("TRACE fxm_restart_monitor: The ID don't exist in black list. id=0x02000000f100"), 1u);
}

TEST_F(discovery, a_known_card_out_of_monitoring_keeps_its_record)
{
    configure("devinfo_check_interval = 1000\ndevinfo_expire_time = 1000\ndevinfo_flag_check_interval = 10\n");
    run();
    wire[0]->send(fxsv_1g_frame());
    wire[0]->send(fxio_frame());
    settle(0);
    const fxm_fxsv_t before = fxsv(FXSV_1G);
    const fxm_fxio_t before_io = fxio(FXIO);
    EXPECT_EQ(fxm_stop_monitor(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
    wire[1]->send(changed(fxsv_1g_frame(), {{27, 0xff}, {49, 0x02}}));
    wire[1]->send(changed(fxio_frame(), {{22, 0x03}, {27, 0xff}, {29, 0x02}}));
    settle(1);
    // The passes that would take down a card that is watched.
    ASSERT_TRUE(wait_for([&] { return now_ms() > before_io.fio_card.fcd_updatetime + 1000; }, "the end of the time"));
    const size_t passes = log.count_with("_fxm_interval_check: DEVINFO interval check end");
    ASSERT_TRUE(wait_for(
        [&] { return log.count_with("_fxm_interval_check: DEVINFO interval check end") >= passes + 2; }, "two passes"));
    EXPECT_TRUE(same_record(before, fxsv(FXSV_1G)));
    EXPECT_TRUE(same_record(before_io, fxio(FXIO)));
    expect_events({{FXM_EVT_NEWDEVINFO, FXSV_1G}, {FXM_EVT_NEWDEVINFO, FXIO}});
    EXPECT_TRUE(has_line(dump(), "    0x020000001000  100 1/10G   1    CDDD   IGNORE    NORMAL"));

    // Deleted meanwhile, it stays out, and comes back as a new card.
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    wire[0]->send(fxsv_1g_frame());
    expect_events({});
    EXPECT_EQ(fxm_restart_monitor(FXSV_1G), FXM_API_SUCCESS);
    wire[0]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}));
}

TEST_F(discovery, a_card_put_back_into_monitoring_is_as_its_next_frame_shows_it)
{
    run();
    frame_t fxsv_frame = fxsv_1g_frame();
    frame_t io_frame = fxio_frame();
    for (const size_t port : {0u, 1u}) {
        wire[port]->send(fxsv_frame);
        wire[port]->send(io_frame);
        settle(static_cast<int>(port));
    }
    for (const uint64_t id : {FXSV_1G, FXIO}) {
        EXPECT_EQ(fxm_stop_monitor(id), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_restart_monitor(id), FXM_API_SUCCESS);
    }
    EXPECT_TRUE(has_line(dump(), "    0x020000001000  100 1/10G   1    CDCD  RESTART    NORMAL"));
    std::vector<event_t> all = events();
    ASSERT_EQ(all.size(), 6u) << "putting back raises nothing by itself";

    const uint64_t sent = now_ms();
    fxsv_frame[27] = 0x01;
    io_frame[22] = 0x01;
    io_frame[29] = 0x02;
    wire[1]->send(fxsv_frame);
    wire[1]->send(io_frame);
    for (const auto &more :
         {events_of(FXSV_1G, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_MAJORMINORERROR, FXM_EVT_CHANNELSTATECHANGE}),
          events_of(FXIO, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CONNECTIONCHANGE, FXM_EVT_PATHSTATECHANGE,
                           FXM_EVT_CHANNELSTATECHANGE})})
        all.insert(all.end(), more.begin(), more.end());
    expect_events(all, 1);
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "DDCD");
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_recvtime[0][0], 0u) << "the record is replaced whole";
    EXPECT_GE(fxsv(FXSV_1G).fsv_card.fcd_updatetime, sent);
    EXPECT_EQ(channels(fxio(FXIO).fio_card), "DDCD");
    EXPECT_EQ(
        log.count("INFO _update_fxsv_devinfo: FXSV id=0x020000001000 state change to connect. "
                  "ignore_state=WATCH_RESTART, P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT"),
        1u);

    wire[0]->send(fxsv_frame);
    expect_events(events_of(FXSV_1G, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE}));
    EXPECT_EQ(channels(fxsv(FXSV_1G).fsv_card), "CDCD");

    // A card that was not stopped goes the same way: equal content, and an update all the same.
    EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
    wire[1]->send(io_frame);
    expect_events(events_of(FXIO, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE}), 1);
}

// --------------------------------------------------------------------------------------------------------- callbacks

// A registration that says when it is called, and may do something then. On the library's event thread.
struct listener_t {
    std::string name;
    std::function<void()> then = {};
    void *cbid = nullptr;
};

std::mutex heard_lock; // guards the next one
std::vector<std::string> heard;

void hear(uint64_t, int32_t, uint64_t arg)
{
    const auto *listener = reinterpret_cast<listener_t *>(arg);
    {
        const std::lock_guard guard(heard_lock);
        heard.push_back(listener->name);
    }
    if (listener->then)
        listener->then();
}

std::vector<std::string> take_heard()
{
    const std::lock_guard guard(heard_lock);
    return std::exchange(heard, {});
}

int listen(listener_t *listener, int32_t type = FXM_EVT_UPDATEDEVINFO)
{
    return fxm_register_callback(type, hear, reinterpret_cast<uintptr_t>(listener), &listener->cbid);
}

TEST_F(discovery, callbacks_are_called_in_the_order_of_registration_whatever_they_do)
{
    run();
    take_heard();
    frame_t frame = fxsv_1g_frame();
    wire[0]->send(frame);
    settle(0);
    const auto update = [&] {
        frame[20] = static_cast<uint8_t>(frame[20] + 1);
        wire[0]->send(frame);
        settle(0);
        return take_heard();
    };
    using names_t = std::vector<std::string>;

    listener_t late{"late"};
    listener_t first{"first"};
    listener_t second{"second"};
    listener_t third{"third"};
    for (listener_t *listener : {&first, &second, &third})
        ASSERT_EQ(listen(listener), FXM_API_SUCCESS);
    EXPECT_EQ(update(), (names_t{"first", "second", "third"}));

    // The same function twice, registered from inside a callback: it is reached by the event under way.
    second.then = [&] {
        second.then = {};
        EXPECT_EQ(listen(&late), FXM_API_SUCCESS);
    };
    EXPECT_EQ(update(), (names_t{"first", "second", "third", "late"}));

    // One ends itself, one ends another that was still to come; the rest is called.
    first.then = [&] {
        EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_unregister_callback(first.cbid), FXM_API_EINVAL) << "ended once";
        EXPECT_EQ(fxm_unregister_callback(third.cbid), FXM_API_SUCCESS);
    };
    EXPECT_EQ(update(), (names_t{"first", "second", "late"}));
    EXPECT_EQ(update(), (names_t{"second", "late"}));

    // The library may be asked anything from there. It shows the card as it is.
    fxm_fxsv_t record{};
    second.then = [&] {
        EXPECT_EQ(fxm_get_fxsv(FXSV_1G, &record), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_unregister_callback(late.cbid), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    };
    EXPECT_EQ(update(), (names_t{"second"}));
    EXPECT_EQ(record.fsv_card.fcd_flowid, frame[20]);
    EXPECT_EQ(fxm_unregister_callback(second.cbid), FXM_API_SUCCESS);

    const account_t registrations = memory(dump(), "cbinfo");
    EXPECT_EQ(registrations.in_use, 6u) << "the fixture's own are left";
    EXPECT_EQ(registrations.alloc, 10u);
}

TEST_F(discovery, registrations_that_cannot_be_are_refused)
{
    run();
    listener_t listener{"never"};
    void *cbid = this;
    EXPECT_EQ(fxm_register_callback(-1, hear, 0, &cbid), FXM_API_EINVAL);
    EXPECT_EQ(fxm_register_callback(6, hear, 0, &cbid), FXM_API_EINVAL);
    EXPECT_EQ(fxm_register_callback(0, nullptr, 0, &cbid), FXM_API_EINVAL);
    EXPECT_EQ(fxm_register_callback(0, hear, 0, nullptr), FXM_API_EINVAL);
    EXPECT_EQ(cbid, this) << "a refused registration has written its output";
    EXPECT_EQ(memory(dump(), "cbinfo").alloc, 6u);

    EXPECT_EQ(fxm_unregister_callback(nullptr), FXM_API_EINVAL);
    EXPECT_EQ(fxm_unregister_callback(&listener), FXM_API_EINVAL) << "never given out";
    ASSERT_EQ(listen(&listener), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_unregister_callback(listener.cbid), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_unregister_callback(listener.cbid), FXM_API_EINVAL) << "ended already";

    // Handles do not outlive a stop.
    void *const stale = cbid = this->cbid[0];
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
    ASSERT_TRUE(manager.start(dir, FXM_LOG_TRACE));
    EXPECT_EQ(fxm_unregister_callback(stale), FXM_API_EINVAL);
}

// What a registration counts; called on the library's event thread.
struct tally_t {
    std::atomic<uint32_t> calls = 0;
    std::atomic<bool> ended = false;
    std::atomic<uint32_t> late = 0; // times that a call has seen itself ended
};

void count_call(uint64_t, int32_t, uint64_t arg)
{
    auto *tally = reinterpret_cast<tally_t *>(arg);
    tally->calls += 1;
    for (int i = 0; i < 20; ++i) { // long enough to be met by the end of the registration
        std::this_thread::yield();
        tally->late += tally->ended ? 1 : 0;
    }
}

TEST_F(discovery, no_call_is_under_way_through_a_registration_that_has_been_ended)
{
    run(FXM_LOG_INFO);
    std::atomic<bool> stopping = false;
    std::thread traffic([&] {
        frame_t frame = fxsv_1g_frame();
        while (!stopping) {
            frame[20] = static_cast<uint8_t>(frame[20] + 1);
            wire[0]->send(frame);
            std::this_thread::yield();
        }
    });
    std::vector<tally_t> tallies(200);
    for (tally_t &tally : tallies) {
        void *handle = nullptr;
        ASSERT_EQ(
            fxm_register_callback(FXM_EVT_UPDATEDEVINFO, count_call, reinterpret_cast<uintptr_t>(&tally), &handle),
            FXM_API_SUCCESS);
        EXPECT_TRUE(wait_for([&] { return tally.calls > 0; }, "a call", [&] { return log.tail(); }));
        EXPECT_EQ(fxm_unregister_callback(handle), FXM_API_SUCCESS);
        tally.ended = true;
    }
    stopping = true;
    traffic.join();
    settle(0);
    dump_when(
        [](const dump_t &dump) {
            const dump_t calls = section(dump, "  - Callback statistics");
            return calls.size() == 2 && calls[0].substr(20) == calls[1].substr(20);
        },
        "as many calls to have returned as were made");
    for (const tally_t &tally : tallies)
        EXPECT_EQ(tally.late, 0u);
}

// ---------------------------------------------------------------------------------------------------------- counters

TEST_F(discovery, every_frame_is_counted_by_port_and_kind_and_all_memory_comes_back)
{
    run();
    const frame_t completion = changed(fxio_frame(), {{18, 0x20}}, 28);
    const std::vector<std::pair<std::string, frame_t>> kinds = {
        {"FXM_STATS_R_DEV", fxsv_1g_frame()},    {"FXM_STATS_R_NOTI", changed(fxsv_1g_frame(), {{18, 0x11}})},
        {"FXM_STATS_R_DEV40", fxsv_40g_frame()}, {"FXM_STATS_R_NOTI40", changed(fxsv_40g_frame(), {{18, 0x19}})},
        {"FXM_STATS_R_COMP", completion},
    };
    for (const size_t port : {0u, 1u}) {
        for (size_t kind = 0; kind < kinds.size(); ++kind) {
            for (size_t times = 0; times < kind + 1 + 5 * port; ++times)
                wire[port]->send(kinds[kind].second);
        }
        settle(static_cast<int>(port));
    }
    dump_t lines = dump_when(received(1 + 2 + 3 + 4 + 5 + 1, 6 + 7 + 8 + 9 + 10 + 1), // each with one that settled it
                             "the frames to be counted");
    for (const size_t port : {0u, 1u}) {
        for (size_t kind = 0; kind < kinds.size(); ++kind) {
            const uint64_t expected = kind + 1 + 5 * port + (kind == 0 ? 1 : 0);
            EXPECT_EQ(frames_counted(lines, static_cast<int>(port), kinds[kind].first), expected) << kinds[kind].first;
        }
        EXPECT_EQ(frames_counted(lines, static_cast<int>(port), "FXM_STATS_T_TOTAL"), 0u);
    }
    EXPECT_EQ(section(lines, "  - Event statistics"),
              (dump_t{"    FXM_EVT_NEWDEVINFO        : 4", "    FXM_EVT_UPDATEDEVINFO     : 2",
                      "    FXM_EVT_CONNECTIONCHANGE  : 0", "    FXM_EVT_MAJORMINORERROR   : 0",
                      "    FXM_EVT_PATHSTATECHANGE   : 0", "    FXM_EVT_CHANNELSTATECHANGE: 2"}));
    dump_when(
        [](const dump_t &dump) {
            return section(dump, "  - Callback statistics") == dump_t{"    Total called  : 8", "    Total returned: 8"};
        },
        "one call for each event, and all of them to be back");

    uint64_t *list = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(fxm_get_fxsvids(&list, &count), FXM_API_SUCCESS);
    lines = dump();
    EXPECT_EQ(memory(lines, "fxsv").in_use, 2u);
    EXPECT_EQ(memory(lines, "idlist").in_use, 1u);
    EXPECT_EQ(memory(lines, "cbinfo").in_use, 6u);
    EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_delete_fxsv(FXSV_1G), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_delete_fxsv(FXSV_40G), FXM_API_SUCCESS);
    for (void *handle : cbid)
        EXPECT_EQ(fxm_unregister_callback(handle), FXM_API_SUCCESS);
    dump_when(
        [](const dump_t &dump) {
            const auto accounts = {"fxsv", "fxio", "bl_node", "evt_node", "idlist", "cbinfo", "addrs"};
            return std::all_of(accounts.begin(), accounts.end(),
                               [&](const char *account) { return memory(dump, account).in_use == 0; });
        },
        "all memory to be given back");
}

// ---------------------------------------------------------------------------------------------------- a whole fabric

TEST_F(discovery, two_thousand_cards_on_two_ports_are_all_found_once_with_all_channels)
{
    constexpr uint32_t number = 1000;
    constexpr uint64_t first_fxsv = 0x020000100000;
    constexpr uint64_t first_fxio = 0x020000200000;
    run(FXM_LOG_INFO);
    ASSERT_NO_FATAL_FAILURE(start_cards("--period 500"));
    cards("fxsv 02:00:00:10:00:00 count=1000 gen=40g vlan=100");
    cards("fxio 02:00:00:20:00:00 count=1000 vlan=100");

    const auto all_up = [&](const std::vector<uint64_t> &ids, bool is_fxsv) {
        return ids.size() == number && std::all_of(ids.begin(), ids.end(), [&](uint64_t id) {
                   return channels(is_fxsv ? fxsv(id).fsv_card : fxio(id).fio_card) == (is_fxsv ? "CCCC" : "CDCD");
               });
    };
    const auto found = [&](const query_t &query, uint64_t group) {
        const auto ids = ask(query, group);
        return ids.has_value() && all_up(*ids, query.fxsv);
    };
    const auto totals = [&] {
        std::string text;
        for (const std::string &line : section(dump(), "  - FX card num"))
            text += line + "\n";
        return text;
    };
    for (const query_t &query : ALL_CARDS)
        ASSERT_TRUE(wait_for([&] { return found(query, 0); }, query.name, totals));
    const std::vector<uint64_t> fxsvs = ask(ALL_CARDS[0], 0).value();
    const std::vector<uint64_t> fxios = ask(ALL_CARDS[1], 0).value();
    for (uint32_t i = 0; i < number; ++i) {
        ASSERT_EQ(fxsvs[i], first_fxsv + 2 * uint64_t{i});
        ASSERT_EQ(fxios[i], first_fxio + 2 * uint64_t{i});
    }

    // All of them change their group.
    cards("set all vlan=200");
    for (const query_t &query : BY_GROUP)
        ASSERT_TRUE(wait_for([&] { return found(query, 200); }, query.name, totals));
    for (const query_t &query : BY_GROUP)
        EXPECT_EQ(ask(query, 100), std::vector<uint64_t>()) << query.name;

    stop_cards();
    settle(0);
    settle(1);
    std::map<int32_t, std::multiset<uint64_t>> by_type;
    for (const event_t &event : events())
        by_type[event.type].insert(event.id);
    EXPECT_EQ(by_type[FXM_EVT_NEWDEVINFO].size(), 2 * number);
    EXPECT_EQ(std::set<uint64_t>(by_type[FXM_EVT_NEWDEVINFO].begin(), by_type[FXM_EVT_NEWDEVINFO].end()).size(),
              2 * number)
        << "a card was new twice";
    EXPECT_EQ(by_type[FXM_EVT_CHANNELSTATECHANGE].size(), 3 * number + number);
}

} // namespace
