// Commands to cards: what each operation puts on the wire, what an answer must be to count, and what becomes of calls
// when cards are silent, links fall, everybody calls at once, or the library stops.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "fabric.h"

// The card of most tests: multi-root and with two MACs, so that each kind of frame can go to it, by any channel.
constexpr uint64_t CARD = FXIO_MR;
// A card at each port. A Reset to it shows that all frames sent before have come.
constexpr uint64_t MARK[2] = {0x02000000ee00, 0x02000000ee02};
constexpr uint8_t MARK_STATUS = 0xee;

constexpr uint8_t SUBTYPE_RESET = 0x30;
constexpr uint8_t SUBTYPE_REGR = 0x91;
constexpr uint32_t REG = 0x1234; // of the frames below

constexpr uint32_t LIVE = FXM_FLAG_LIVECHECK;
constexpr uint32_t VERIFY = FXM_FLAG_VERIFY;
constexpr int OK = FXM_API_SUCCESS;
constexpr int TIMEOUT = FXM_API_ETIMEDOUT;
constexpr int NO_LINK = FXM_API_ENOLINK;
using retry_t = const fxm_retry_param_t *;
const fxm_retry_param_t ONCE = {0, 1};
const fxm_retry_param_t THRICE = {2, 200};
const fxm_retry_param_t ANSWERED = {50, 500};    // an answer comes, to a repeat if it overtook the wait for it
const fxm_retry_param_t FOR_EVER = {0, 3600000}; // longer than a test
static const std::string LIVECHECK = "frame_retry_interval_livecheck = 150\nframe_retry_count_livecheck = 2\n";

// ------------------------------------------------------------------------------------------------------------- frames

using frames_t = std::vector<frame_t>;

// By P0M0, in the tagged layout.
static frame_t to_card(const std::string &from_18)
{
    frame_t frame = hex("02 00 00 00 21 00" //  0 destination: MAC 0 of the card
                        "02 00 00 00 aa 00" //  6 source: port 0
                        "81 00 8a bc"       // 12 TPID; TCI: priority 4, VLAN 0xabc
                        "88 b6" +           // 16 EtherType
                        from_18);
    frame.resize(60);
    return frame;
}

// Of register 0x1234: bits 21..12 stand four higher on the wire.
static frame_t read_frame(uint8_t tag, const std::string &address = "00 01 02 34")
{
    frame_t frame = to_card("91 ff ff 00 00 00" + // 18 Register Read; 23 tag
                            address);             // 24
    frame[23] = tag;
    return frame;
}

static frame_t probe_frame(uint8_t tag) { return read_frame(tag, "00 00 00 00"); }

static frame_t write_frame(const std::string &value)
{
    return to_card("90 ff ff 00 00 00" // 18 Register Write
                   "00 01 02 34" +     // 24 register 0x1234
                   value);             // 28 least significant byte first
}

static const frame_t VLAN_SET = to_card("80 ff ff 00 00 00" // 18 VLAN set
                                        "0f fe");           // 24 VLAN 4094
// 18 Reset; 23 status; 0 as configured
static const frame_t RESET = changed(to_card("30 ff ff 00 00 5a"), {{0, "03 11 22 33 44 55"}});
static const frame_t PAGE = [] {
    frame_t frame = to_card("92 ff ff 00 00 00" // 18 MMS page
                            "00 00 03 ff");     // 24 page 1023
    frame.resize(156);
    for (size_t i = 28; i < 156; ++i) // the page: e4 e5 .. ff 00 .. 63
        frame[i] = static_cast<uint8_t>(i + 200);
    return frame;
}();

// Channels are numbered in the order of their choice: P0M0, P0M1, P1M0, P1M1.
static frame_t by_channel(int channel, frame_t frame)
{
    frame[11] = static_cast<uint8_t>(channel / 2);
    if (frame[18] != SUBTYPE_RESET)
        frame[5] = static_cast<uint8_t>(channel % 2);
    return frame;
}

// What a live check with three attempts sends, with tags that go up from `tag`.
static frames_t probes(const std::vector<int> &channels, uint8_t tag)
{
    frames_t frames;
    for (const int channel : channels)
        frames.insert(frames.end(), 3, by_channel(channel, probe_frame(tag++)));
    return frames;
}

static frame_t announcement(int channel)
{
    // 14 priority 4, bit 12, which nobody looks at, VLAN 0xabc; 18 40G DEVINFO; 21 ver: two MACs
    return changed(from(CARD + static_cast<uint64_t>(channel % 2), fxio_mr_frame()),
                   {{14, "9a bc"}, {18, "18"}, {21, "01"}});
}

// What the card says to a Register Read; without a value it stays silent.
using answer_t = std::function<std::optional<uint32_t>(const frame_t &request)>;
static const answer_t ZERO = [](const frame_t &) { return 0u; };

// ------------------------------------------------------------------------------------------------------------- calls

static int read_reg(uint64_t id, retry_t retry, uint32_t flags = 0)
{
    uint32_t value = 0x5a5a5a5a;
    const int result = fxm_read_register(id, REG, &value, retry, flags);
    EXPECT_TRUE(result == OK || value == 0x5a5a5a5a) << "a failed read gives " << value;
    return result;
}

static int read_live() { return read_reg(CARD, &ANSWERED, LIVE); }

static int dump_reg(uint64_t id, retry_t retry, uint32_t flags)
{
    uint32_t value = 0;
    uint64_t size = sizeof(value);
    return fxm_dump_register(id, REG, REG + 4, &value, &size, retry, flags);
}

static int write_page(uint64_t id, uint32_t page, uint32_t flags)
{
    return fxm_write_mmspage(id, page, PAGE.data() + 28, flags);
}

// How to call an operation.
struct how_t {
    uint64_t id;
    retry_t retry;
    uint32_t flags;
};

static const struct operation_t {
    std::string name;
    std::function<int(how_t)> call;
} OPERATIONS[] = {
    {"fxm_read_register", [](how_t c) { return read_reg(c.id, c.retry, c.flags); }},
    {"fxm_dump_register", [](how_t c) { return dump_reg(c.id, c.retry, c.flags); }},
    {"fxm_write_register", [](how_t c) { return fxm_write_register(c.id, REG, 7, c.retry, c.flags); }},
    {"fxm_modify_register", [](how_t c) { return fxm_modify_register(c.id, REG, 0xa, 0xf, c.retry, c.flags); }},
    {"fxm_set_vlanid", [](how_t c) { return fxm_set_vlanid(c.id, 4094, c.retry, c.flags); }},
    {"fxm_write_mmspage", [](how_t c) { return write_page(c.id, 1023, c.flags); }},
    {"fxm_send_resetframe", [](how_t c) { return fxm_send_resetframe(c.id, 0x5a, c.retry, c.flags); }},
};

// ----------------------------------------------------------------------------------------------------------- fixture

class registers : public fabric_t
{
  protected:
    // Brings the library up, where the card is known by these channels. They last as long as the test.
    void begin(const std::string &lines, const std::vector<int> &channels, int32_t level = FXM_LOG_TRACE)
    {
        configure("devinfo_expire_time = 100000\nbroadcast_mac = 03:11:22:33:44:55\n" + lines);
        run(level);
        hear(channels);
    }

    // From now on the card is known by these channels alone.
    void hear(const std::vector<int> &channels, const std::function<frame_t(int)> &announce = announcement)
    {
        fxm_delete_fxio(CARD);
        for (const size_t p : marked)
            wire[p]->send(from(MARK[p], fxio_frame()));
        for (const int channel : channels)
            wire[static_cast<size_t>(channel / 2)]->send(announce(channel));
        for (const size_t p : marked)
            settle(static_cast<int>(p));
    }

    // Makes the call and plays the card until it has returned. Then everything that the library has sent is here, port 0
    // first; where the card answers, a request that was repeated is here once.
    frames_t play(const std::function<int()> &function, int result, const answer_t &answer = {})
    {
        frames_t seen[2];
        size_t marks = 0;
        const auto take = [&](size_t p, const frame_t &frame) {
            EXPECT_EQ(frame[11], p) << "not the MAC of the port";
            const bool asks = frame[18] == SUBTYPE_REGR && answer;
            if (frame[18] == SUBTYPE_RESET && frame[23] == MARK_STATUS)
                marks += 1;
            else if (!asks || seen[p].empty() || seen[p].back() != frame)
                seen[p].push_back(frame);
            if (const std::optional<uint32_t> value = asks ? answer(frame) : std::nullopt)
                wire[p]->send(completion(frame, *value));
        };
        call_t running = call([&] {
            const int returned = function();
            for (const size_t p : marked) // by the thread of the frames: they stay in order
                EXPECT_EQ(fxm_send_resetframe(MARK[p], MARK_STATUS, nullptr, 0), OK);
            return returned;
        });
        const auto complete = [&] {
            for (const size_t p : marked)
                for (const frame_t &frame : wire[p]->received())
                    take(p, frame);
            return has_ended(running) && marks == marked.size();
        };
        wait_for(complete, "the call and its marks");
        EXPECT_EQ(result_of(running), result);
        seen[0].insert(seen[0].end(), seen[1].begin(), seen[1].end());
        return seen[0];
    }

    void expect(const std::function<int()> &function, int result, const frames_t &expected, const answer_t &answer = {})
    {
        const frames_t seen = play(function, result, answer);
        EXPECT_EQ(expected.size(), seen.size()) << "frames";
        for (size_t i = 0; i < std::min(expected.size(), seen.size()); ++i)
            EXPECT_TRUE(same_frame(expected[i], seen[i])) << "frame " << i;
    }

    // A tag that is in use for good never comes up. In a second round those come up that rest during the first.
    void expect_all_tags_to_be_free()
    {
        std::set<uint8_t> tags;
        for (int i = 0; i < 512 && tags.size() < 256; ++i) {
            EXPECT_EQ(read_reg(CARD, &ONCE), TIMEOUT);
            tags.insert(wire[0]->receive().at(23));
        }
        EXPECT_EQ(tags.size(), 256u);
    }

    std::vector<size_t> marked = {0, 1}; // ports
};

TEST_F(registers, frames_go_by_the_first_channel_in_the_layout_of_the_card)
{
    begin("", {});
    const fxm_retry_param_t ignored = {3, 0};
    uint8_t tag = 0;
    for (const bool change : {false, true}) {
        const auto laid_out = [=](const frame_t &frame) { return change ? in_change_layout(frame) : frame; };
        for (int first = 0; first < 4; ++first) {
            SCOPED_TRACE("channel " + std::to_string(first) + (change ? ", change layout" : ""));
            std::vector<int> channels; // those behind the first are heard before it
            for (int channel = 3; channel >= first; --channel)
                channels.push_back(channel);
            hear(channels, [&](int channel) { return laid_out(announcement(channel)); });
            const auto all_kinds = [&] {
                EXPECT_EQ(fxm_send_resetframe(CARD, 0x5a, &ignored, LIVE), OK);
                EXPECT_EQ(fxm_set_vlanid(CARD, 4094, nullptr, LIVE), OK);
                EXPECT_EQ(write_page(CARD, 1023, LIVE), OK);
                // Address bits above 21 do not reach the card.
                EXPECT_EQ(fxm_write_register(CARD, 0xffc00000 | REG, 0x11223344, nullptr, LIVE), OK);
                return read_reg(CARD, &ONCE, LIVE);
            };
            frames_t frames = {RESET, VLAN_SET, PAGE, write_frame("44 33 22 11"), read_frame(++tag)};
            for (frame_t &frame : frames)
                frame = laid_out(by_channel(first, frame));
            expect(all_kinds, TIMEOUT, frames);
        }
    }
    const dump_t counters = dump();
    for (const int p : {0, 1}) {
        for (const char *name : {"T_VLANSET", "T_REGR", "T_REGW", "T_MMS"})
            EXPECT_EQ(frames_counted(counters, p, std::string("FXM_STATS_") + name), 4u) << name << " of port " << p;
        EXPECT_EQ(frames_counted(counters, p, "FXM_STATS_T_RESET"), 4u + 8) << "with eight marks";
        EXPECT_EQ(frames_counted(counters, p, "FXM_STATS_T_TOTAL"), 20u + 8);
    }
}

TEST_F(registers, configured_ether_type_stands_in_the_frames)
{
    marked = {}; // the cards of the fixture are of another type
    begin("ether_type = 0x1234\n", {});
    wire[0]->send(changed(announcement(0), {{16, "12 34"}}));
    wait_for([] { return read_reg(CARD, &ONCE) == TIMEOUT; }, "the card");
    EXPECT_TRUE(same_frame(changed(read_frame(1), {{16, "12 34"}}), wire[0]->receive()));
}

TEST_F(registers, frame_that_the_port_refuses_is_a_protocol_error)
{
    begin("", {0});
    set_mtu("fxm0", 68);
    wire[0]->received();
    EXPECT_EQ(write_page(CARD, 0, 0), FXM_API_EPROTO);
    EXPECT_EQ(log.count("ERROR _fxm_send: Failed to pcap_sendpacket()."), 1u);
    EXPECT_EQ(log.count("ERROR _fxm_send_mms: Failed to _fxm_send(). err=71"), 1u) << "whatever the system says";
    EXPECT_EQ(frames_counted(dump(), 0, "FXM_STATS_T_MMS"), 0u);
    EXPECT_TRUE(wire[0]->received().empty());
}

TEST_F(registers, operations_send_what_they_must_and_no_more)
{
    begin("frame_retry_count = 4\nframe_retry_interval = 10\n", {0, 1, 2, 3});
    uint8_t tag = 0;
    const auto r = [&](const char *address = "00 01 02 34") { return read_frame(++tag, address); };
    const auto again = [&] { return read_frame(tag); };
    const frame_t w = write_frame("07 00 00 00");
    const auto read = [](retry_t retry) { return [=] { return read_reg(CARD, retry); }; };
    const auto write = [](uint32_t flags) { return [=] { return fxm_write_register(CARD, REG, 7, &THRICE, flags); }; };
    const auto modify = [](uint32_t data, uint32_t mask, uint32_t flags) {
        return [=] { return fxm_modify_register(CARD, REG, data, mask, &THRICE, flags); };
    };
    const auto dump = [](uint32_t answered) {
        return [=] {
            uint32_t buffer[4] = {1, 2, 3, 4};
            uint64_t size = sizeof(buffer);
            const int result = fxm_dump_register(CARD, 0x3ffff4, 0x400000, buffer, &size, &THRICE, 0);
            EXPECT_EQ(size, answered * 4);
            for (uint32_t i = 0; i < 4; ++i)
                EXPECT_EQ(buffer[i], i < answered ? 0xa0 + i : i + 1);
            return result;
        };
    };
    const char *const at[] = {"03 ff 0f f4", "03 ff 0f f8", "03 ff 0f fc"};
    constexpr uint32_t HELD = 0x12345678;
    const frame_t set = write_frame("f0 56 34 12"); // data 0xf0 with mask 0xff
    const struct {
        const char *what;
        std::function<int()> function;
        std::vector<uint32_t> answers; // to one read after the other, and then silence
        int result;
        frames_t frames; // made from left to right, so that tags go up
    } rows[] = {
        {"silence", read(&THRICE), {}, TIMEOUT, {r(), again(), again()}},
        {"configured retries", read(nullptr), {}, TIMEOUT, {r(), again(), again(), again(), again()}},
        {"write", write(0), {}, OK, {w}},
        {"every flag but verify", write(~(VERIFY | LIVE)), {}, OK, {w}},
        {"verified at once", write(VERIFY), {7}, OK, {w, r()}},
        {"one bit wrong", write(VERIFY), {0x80000007, 7}, OK, {w, r(), w, r()}},
        {"never right", write(VERIFY), {1, 2, 3}, TIMEOUT, {w, r(), w, r(), w, r()}},
        {"nothing to verify", write(VERIFY), {}, TIMEOUT, {w, r(), again(), again()}},
        {"no second answer", write(VERIFY), {1}, TIMEOUT, {w, r(), w, r()}},
        {"no mask", modify(7, 0, VERIFY), {HELD}, OK, {r()}},
        {"right already", modify(0x78, 0xff, VERIFY), {HELD}, OK, {r()}},
        {"modify", modify(0xf0, 0xff, 0), {HELD}, OK, {r(), set}},
        {"other bits differ", modify(0xf0, 0xff, VERIFY), {HELD, 0xabcdeff0}, OK, {r(), set, r()}},
        {"repeat", modify(0xf0, 0xff, VERIFY), {HELD, 0xabcdef00, 0xf0}, OK, {r(), set, r(), set, r()}},
        {"never", modify(0xf0, 0xff, VERIFY), {HELD, 1, 2, 3}, TIMEOUT, {r(), set, r(), set, r(), set, r()}},
        {"nothing to modify", modify(0xf0, 0xff, VERIFY), {}, TIMEOUT, {r(), again(), again()}},
        {"dump", dump(3), {0xa0, 0xa1, 0xa2}, OK, {r(at[0]), r(at[1]), r(at[2])}},
        {"dump in part", dump(2), {0xa0, 0xa1}, TIMEOUT, {r(at[0]), r(at[1]), r(at[2])}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::map<uint8_t, size_t> number; // of the read with this tag
        const answer_t answer = [&](const frame_t &request) {
            const size_t i = number.try_emplace(request[23], number.size()).first->second;
            return i < row.answers.size() ? std::optional(row.answers[i]) : std::nullopt;
        };
        expect(row.function, row.result, row.frames, row.answers.empty() ? answer_t() : answer);
    }
    wait_for_line("TRACE _fxm_read_register: called. ret=110, id=0x020000002100, addr=0x00001234, data=0x00000000, "
                  "tag=1");
    wait_for_line("TRACE _fxm_write_register: Failed to _fxm_read_register() err=110");
    wait_for_line("TRACE _fxm_write_register: called. ret=0, id=0x020000002100, addr=0x00001234, data=0x00000007, "
                  "flags=0x00000000, ");
}

TEST_F(registers, only_the_answer_of_the_channel_that_was_asked_counts)
{
    begin("tag_min = 5\ntag_max = 7\n", {0, 1, 2, 3});
    uint32_t value = 0;
    call_t reading = call([&] { return fxm_read_register(CARD, REG, &value, &FOR_EVER, 0); });
    const frame_t request = wire[0]->receive();
    EXPECT_TRUE(same_frame(read_frame(6), request)) << "the first tag is the one behind tag_min";

    const std::string wrong_port = "TRACE _fxm_recv_comp: Completion frame is received from the port which isn't used "
                                   "by sending Register Read frame.";
    const std::string wrong_mac = "TRACE _fxm_recv_comp: The MAC address which isn't used by sending Register Read "
                                  "frame received set Completion frame.";
    const auto changed = [&](size_t offset, uint8_t byte) {
        frame_t frame = completion(request, 0xbad);
        frame[offset] = byte;
        return frame;
    };
    // Nothing tells that the thread has begun to wait but what becomes of an answer from elsewhere.
    wait_for([&] { return wire[0]->send(changed(11, 1)), log.count(wrong_mac) > 0; }, "a thread that waits");
    settle(0);
    const struct {
        size_t port, offset;
        uint8_t byte;
        std::string line;
    } wrong[] = {
        {1, 11, 0, wrong_port},
        {1, 11, 1, wrong_port}, // and the wrong MAC
        {0, 11, 1, wrong_mac},  // the other one of the card
        {0, 23, 5, ""},         // tag that nobody uses
        {0, 23, 4, "WARN _fxm_recv_comp: Invalid tag. tag=4"},
        {0, 23, 8, "WARN _fxm_recv_comp: Invalid tag. tag=8"},
    };
    for (const auto &row : wrong) {
        const size_t lines = log.count(row.line), all = log.count_with(" _fxm_recv_comp: ");
        wire[row.port]->send(changed(row.offset, row.byte));
        settle(static_cast<int>(row.port));
        EXPECT_EQ(log.count(row.line), lines + (row.line.empty() ? 0 : 1)) << row.line;
        EXPECT_EQ(log.count_with(" _fxm_recv_comp: "), all + (row.line.empty() ? 0 : 1)) << row.line;
        EXPECT_FALSE(has_ended(reading)) << row.line;
    }
    wire[0]->send(completion(request, 0x11223344));
    wire[0]->send(completion(request, 0xbad));
    EXPECT_EQ(result_of(reading), OK);
    EXPECT_EQ(value, 0x11223344u) << "of two answers the first one counts";
}

TEST_F(registers, request_beyond_256_in_flight_is_refused_at_once)
{
    begin("", {0});
    EXPECT_EQ(fxm_stop_monitor(MARK[1]), OK);
    std::vector<uint32_t> values(256);
    std::vector<call_t> reading;
    for (uint32_t i = 0; i < 256; ++i)
        reading.push_back(call([&, i] { return fxm_read_register(CARD, 4 * i, &values[i], &FOR_EVER, 0); }));
    std::map<uint8_t, frame_t> requests; // by tag
    for (int i = 0; i < 256; ++i) {
        const frame_t request = wire[0]->receive();
        EXPECT_TRUE(requests.try_emplace(request.at(23), request).second) << "a tag used twice";
    }
    const std::string no_tag = "ERROR _fxm_get_tag: Can't get a tag value, because all tags are used.";
    EXPECT_EQ(log.count(no_tag), 0u);
    EXPECT_EQ(read_reg(CARD, &FOR_EVER), FXM_API_EPROTO);
    EXPECT_EQ(read_reg(MARK[1], &FOR_EVER, LIVE), FXM_API_EPROTO);
    EXPECT_EQ(log.count(no_tag), 2u) << "a live check goes on after a probe without a tag";
    EXPECT_EQ(log.count("ERROR fxm_read_register: Failed to _fxm_livecheck(). err=71"), 1u);

    // The value tells the register, of which bits 11..0 stand in bytes 26 and 27.
    const auto answer_all = [&] {
        for (const auto &[tag, request] : requests)
            wire[0]->send(completion(request, 0xc0de0000u + static_cast<uint32_t>(request[26] << 8 | request[27])));
        return std::all_of(reading.begin(), reading.end(), has_ended);
    };
    wait_for(answer_all, "the reads to return");
    for (uint32_t i = 0; i < 256; ++i) {
        EXPECT_EQ(result_of(reading[i]), OK);
        EXPECT_EQ(values[i], 0xc0de0000u + 4 * i);
    }
    settle(0);
    marked = {0};
    EXPECT_TRUE(wire[0]->received().empty()) << "of the refused calls";
    expect_all_tags_to_be_free();
}

// Reads with four tags, of which some are answered late.
class late_answers : public registers
{
  protected:
    // One that has been sent.
    struct read_t {
        call_t ended;
        uint32_t value = 0;
        frame_t request;
    };
    using read_ptr = std::unique_ptr<read_t>;

    read_ptr begin_read(uint32_t address, retry_t retry)
    {
        auto read = std::make_unique<read_t>();
        const auto work = [=, to = &read->value] { return fxm_read_register(CARD, address, to, retry, 0); };
        const auto is_it = [this, address, to = &read->request] {
            *to = wire[0]->receive(); // or the repeat of another
            return (to->at(26) << 8 | to->at(27)) == static_cast<int>(address);
        };
        read->ended = call(work);
        wait_for(is_it, "the request");
        tags.push_back(read->request.at(23));
        return read;
    }

    void answer(const read_ptr &read, uint32_t value)
    {
        wire[0]->send(completion(read->request, value));
        EXPECT_EQ(result_of(read->ended), OK);
        foreign += read->value != value ? 1 : 0;
    }

    void answer_when_repeated(const read_ptr &read, uint32_t value)
    {
        wait_for([&] { return wire[0]->receive() == read->request; }, "the request again");
        answer(read, value);
    }

    // Once more if the least rest of a tag, 1 s, may have ended meanwhile.
    void rest_and(const std::function<void()> &round)
    {
        uint64_t begun = 0;
        do {
            if (manager.started()) {
                EXPECT_EQ(stop(), OK);
            }
            tags.clear();
            foreign = 0;
            begin("tag_min = 0\ntag_max = 3\n", {0});
            begun = now_ms();
            round();
        } while (now_ms() >= begun + 1000);
    }

    const fxm_retry_param_t REPEATED = {1000, 20};
    std::vector<int> tags; // in the order of the requests
    int foreign = 0;       // reads that got another value than theirs
};

TEST_F(late_answers, reach_no_later_read_of_the_card)
{
    rest_and([&] {
        const read_ptr given_up = begin_read(0x100, &ONCE);
        EXPECT_EQ(result_of(given_up->ended), TIMEOUT);
        const read_ptr twice = begin_read(0x200, &REPEATED);
        answer_when_repeated(twice, 2);
        for (uint32_t i = 0; i < 6; ++i) {
            const read_ptr read = begin_read(0x300 + 4 * i, &ANSWERED);
            wire[0]->send(completion(given_up->request, 0xbad));
            wire[0]->send(completion(twice->request, 0xbad));
            answer(read, 0x300 + i);
        }
    });
    EXPECT_EQ(foreign, 0);
    EXPECT_EQ(tags, (std::vector{1, 2, 3, 0, 3, 0, 3, 0}));
    const auto all_come_up = [&] {
        answer(begin_read(0x400, &ANSWERED), 7);
        return std::set(tags.end() - 4, tags.end()).size() == 4;
    };
    wait_for(all_come_up, "the end of both rests", [&] { return testing::PrintToString(tags); });
}

TEST_F(late_answers, are_least_likely_for_the_tag_that_has_rested_longest)
{
    rest_and([&] {
        std::vector<read_ptr> reads;
        for (uint32_t i = 0; i < 4; ++i)
            reads.push_back(begin_read(0x100 + 4 * i, &REPEATED));
        EXPECT_EQ(read_reg(CARD, &ONCE), FXM_API_EPROTO) << "with all in flight there is none";
        for (const size_t i : {2u, 0u, 3u, 1u})
            answer_when_repeated(reads[i], 1);
        for (uint32_t i = 0; i < 4; ++i)
            answer_when_repeated(begin_read(0x200 + 4 * i, &REPEATED), 2);
    });
    EXPECT_EQ(tags, (std::vector{1, 2, 3, 0, 3, 1, 0, 2}));
    EXPECT_EQ(stop(), OK);

    // One tag has none to make way for it.
    begin("tag_min = 7\ntag_max = 7\n", {0});
    EXPECT_EQ(read_reg(CARD, &ONCE), TIMEOUT);
    const read_ptr read = begin_read(0x100, &FOR_EVER);
    EXPECT_EQ(tags.back(), 7);
    EXPECT_EQ(read_reg(CARD, &ONCE), FXM_API_EPROTO);
    answer(read, 4);
    EXPECT_GE(log.count("ERROR _fxm_get_tag: Can't get a tag value, because all tags are used."), 2u);
}

static std::atomic<bool> caller_held;

TEST_F(registers, answer_that_comes_while_the_frame_is_still_leaving_is_not_lost)
{
    begin("", {0});
    // Each frame at the card's end is a signal to the caller's thread, which takes it before it leaves the system call
    // that sends, and is held there until the library has dealt with the answer.
    signal(SIGIO, [](int) {
        while (caller_held)
            poll(nullptr, 0, 1);
    });
    const wire_t listener(0);
    ASSERT_EQ(fcntl(listener.fd, F_SETFL, O_ASYNC), 0) << strerror(errno);
    const fxm_retry_param_t once = {0, 2000};
    for (int round = 0; round < 5 && !HasFailure(); ++round) {
        caller_held = true;
        call_t reading = call([&] {
            const f_owner_ex caller = {F_OWNER_TID, gettid()};
            EXPECT_EQ(fcntl(listener.fd, F_SETOWN_EX, &caller), 0) << strerror(errno);
            return read_reg(CARD, &once);
        });
        wire[0]->send(completion(wire[0]->receive(), 7));
        settle(0);
        caller_held = false;
        EXPECT_EQ(result_of(reading), OK);
    }
}

TEST_F(registers, live_check_tries_in_order_each_channel_that_card_and_host_have)
{
    begin(LIVECHECK, {3, 2, 1, 0});
    EXPECT_EQ(fxm_stop_monitor(CARD), OK);
    expect(read_live, NO_LINK, probes({0, 1, 2, 3}, 1));
    EXPECT_EQ(log.count("ERROR fxm_read_register: Failed to _fxm_livecheck(). err=67"), 1u);
    const answer_t on_port_1 = [](const frame_t &request) { return request[11] ? std::optional(0u) : std::nullopt; };
    expect(read_live, OK,
           {probe_frame(5), by_channel(1, probe_frame(6)), by_channel(2, probe_frame(7)), by_channel(2, read_frame(8))},
           on_port_1);
    EXPECT_EQ(fxio(CARD).fio_card.fcd_state[0][0], 1u) << "a live check has changed the record";

    EXPECT_EQ(fxm_restart_monitor(CARD), OK);
    // 18 1G/10G DEVINFO; 21 ver: one MAC
    hear({0, 2}, [](int channel) { return changed(announcement(channel), {{18, "10"}, {21, "00"}}); });
    EXPECT_EQ(fxm_stop_monitor(CARD), OK);
    expect(read_live, NO_LINK, probes({0, 2}, 9));
    EXPECT_EQ(stop(), OK);

    marked = {0};
    begin(LIVECHECK + "ether_port = fxm0\n", {0});
    EXPECT_EQ(fxm_stop_monitor(CARD), OK);
    expect(read_live, NO_LINK, probes({0, 1}, 1));
    EXPECT_TRUE(wire[1]->received().empty());
}

TEST_F(registers, card_without_a_channel_is_reached_with_a_live_check_alone)
{
    begin(LIVECHECK, {1});
    EXPECT_EQ(fxm_stop_monitor(CARD), OK);
    const frames_t with_check[] = {
        {probe_frame(1), read_frame(2)},
        {probe_frame(3), read_frame(4)},
        {probe_frame(5), write_frame("07 00 00 00")},
        {probe_frame(6), read_frame(7), write_frame("0a 00 00 00")},
        {probe_frame(8), VLAN_SET},
        {probe_frame(9), PAGE},
        {}, // no reset
    };
    for (size_t i = 0; i < std::size(OPERATIONS); ++i) {
        const auto with = [=](uint32_t flags) { return [=] { return OPERATIONS[i].call({CARD, &ANSWERED, flags}); }; };
        SCOPED_TRACE(OPERATIONS[i].name);
        expect(with(0), NO_LINK, {});
        expect(with(LIVE), with_check[i].empty() ? NO_LINK : OK, with_check[i], ZERO);
    }
    EXPECT_EQ(fxm_restart_monitor(CARD), OK);

    // In monitoring, but heard at the port alone that has lost its link.
    hear({2, 3});
    ip("link set card1 down");
    wait_for([] { return fxio(CARD).fio_card.fcd_state[1][0] == 0; }, "the channels to go down");
    EXPECT_TRUE(wire[1]->received().empty());
    marked = {0};
    for (const operation_t &row : OPERATIONS)
        expect([&] { return row.call({CARD, &ANSWERED, VERIFY}); }, NO_LINK, {});
    EXPECT_EQ(log.count("ERROR _fxm_send_regread: Sendable port don't exist."), 3u);
    for (const char *sender : {"_fxm_send_regwrite", "_fxm_send_vlanset", "_fxm_send_mms", "_fxm_send_reset"})
        EXPECT_EQ(log.count(std::string("ERROR ") + sender + ": Send port error."), 1u) << sender;
    expect(read_live, NO_LINK, probes({0, 1}, 13)); // three of the operations have taken a tag
    expect(read_live, OK, {probe_frame(15), read_frame(16)}, ZERO);
    EXPECT_EQ(fxio(CARD).fio_card.fcd_state[0][0], 0u) << "an answer is no announcement";
    hear({0});
    expect_all_tags_to_be_free(); // also those of the operations without a channel
}

TEST_F(registers, vlan_is_set_again_until_the_card_announces_it)
{
    begin("vlan_check_interval = 300\n", {0});
    const auto set = [](retry_t retry) { return [=] { return fxm_set_vlanid(CARD, 4094, retry, VERIFY); }; };
    // At the configured interval this would last a minute. Meanwhile the card goes to a VLAN that nobody has asked for,
    // and the repeats are as the first.
    const fxm_retry_param_t often = {200, 5};
    call_t setting = call(set(&often));
    EXPECT_TRUE(same_frame(VLAN_SET, wire[0]->receive()));
    wire[0]->send(on_vlan(0x222, announcement(0)));
    EXPECT_EQ(result_of(setting), TIMEOUT);
    expect([] { return OK; }, OK, frames_t(200, VLAN_SET));

    hear({0});
    setting = call(set(&FOR_EVER));
    EXPECT_TRUE(same_frame(VLAN_SET, wire[0]->receive()));
    wire[0]->send(on_vlan(4094, announcement(0)));
    EXPECT_EQ(result_of(setting), OK);
    // The card has it already: a frame all the same.
    expect(set(&FOR_EVER), OK, {changed(VLAN_SET, {{14, "8f fe"}})}); // 14 TCI

    setting = call(set(&FOR_EVER));
    wire[0]->receive();
    EXPECT_EQ(fxm_delete_fxio(CARD), OK);
    EXPECT_EQ(result_of(setting), FXM_API_EPROTO);
}

TEST_F(registers, page_goes_to_a_multi_root_card_alone)
{
    constexpr uint64_t AWAY = 0x020000002200; // out of monitoring, and not multi-root
    begin("", {0});
    for (const frame_t &frame : {fxio_frame(), fxsv_1g_frame(), from(AWAY, fxio_frame())})
        wire[0]->send(frame);
    settle(0);
    EXPECT_EQ(fxm_stop_monitor(AWAY), OK);
    const std::tuple<uint64_t, uint32_t, int> rows[] = {
        {FXSV_1G, 0, FXM_API_ENOENT}, {FXIO, 0, FXM_API_ENOENT}, {AWAY, 0, NO_LINK}, {AWAY, LIVE, FXM_API_ENOENT}};
    for (const auto &[id, flags, result] : rows)
        expect([id = id, flags = flags] { return write_page(id, 0, flags); }, result, {});
    for (const char *id : {"0x020000002000", "0x020000002200"})
        EXPECT_EQ(log.count(std::string("ERROR fxm_write_mmspage: The ID is not MR-FX. id=") + id), 1u);
    EXPECT_EQ(log.count_with("ERROR"), 2u) << log.tail();
}

TEST_F(registers, second_writer_of_a_card_waits_and_others_do_not_and_a_stop_ends_them_all)
{
    const std::function<int()> functions[] = {
        [] { return fxm_write_register(CARD, REG, 1, &FOR_EVER, VERIFY); }, // two frames
        [] { return read_reg(CARD, &FOR_EVER); },
        [] { return dump_reg(CARD, &FOR_EVER, 0); },
        [] { return fxm_set_vlanid(CARD, 4094, &FOR_EVER, VERIFY); },
        [] { return read_reg(MARK[0], &FOR_EVER, LIVE); },
        [] { return fxm_modify_register(MARK[1], REG, 1, 1, &FOR_EVER, 0); },
        [] { return fxm_unlock_eeprom(MARK[1]); }, // waits for no writer
    };
    static uint32_t word;
    const std::pair<const char *, std::function<int()>> waiting[] = {
        {"write_register", [] { return fxm_write_register(CARD, REG, 2, nullptr, 0); }},
        {"modify_register", [] { return fxm_modify_register(CARD, REG, 1, 1, nullptr, 0); }},
        {"read_eeprom", [] { return fxm_read_eeprom(CARD, 0, &word, nullptr, 0); }},
        {"write_eeprom", [] { return fxm_write_eeprom(CARD, 0, 1, nullptr, 0); }},
        {"dump_eeprom",
         [] {
             uint64_t size = sizeof(word);
             return fxm_dump_eeprom(CARD, 0, sizeof(word), &word, &size, nullptr, 0);
         }},
    };
    for (size_t round = 0; round < 2; ++round) {
        begin("frame_retry_interval_livecheck = 1000\nframe_retry_count_livecheck = 100\n"
              "frame_retry_interval = 1000\nframe_retry_count = 100\n",
              {0});
        EXPECT_EQ(fxm_stop_monitor(MARK[0]), OK);
        std::vector<call_t> calls;
        for (const auto &function : functions) {
            calls.push_back(call(function));
            EXPECT_FALSE(wire[calls.size() >= 6 ? 1 : 0]->receive().empty()) << "call " << calls.size();
        }
        EXPECT_FALSE(wire[0]->receive().empty()) << "one of the frames is missing";
        for (const auto &[name, function] : waiting) {
            const std::string in = std::string("INFO fxm_") + name + ": (IN). id=0x020000002100";
            const size_t before = log.count_with(in);
            calls.push_back(call(function));
            wait_for([&] { return log.count_with(in) > before; }, in);
        }
        EXPECT_EQ(stop(), OK);
        for (size_t i = 0; i < calls.size(); ++i)
            EXPECT_EQ(result_of(calls[i]), FXM_API_ENOSYS) << "call " << i;
        for (const frame_t &frame : wire[0]->received())
            EXPECT_EQ(frame.at(4), 0xee) << "only the probes go on, and this is of a call that waits:\n"
                                         << to_hex(frame);
    }
}
