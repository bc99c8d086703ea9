// Everything at once: threads of all kinds call the library while cards come and go, frames are lost and links flap.
#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>
#include <random>
#include <set>

#include "fabric.h"

// Cards that lose a request in 300 and answer one in ten twice. The first half are of the 1G/10G generation. More losses
// would let so many tags rest that the others come round at once, and a second answer could meet its tag's next request.
constexpr uint32_t CARDS = 32;
constexpr uint64_t FLEETING = 0x020000020000; // a card that the threads delete, stop and restart
constexpr uint32_t SHARED = 0x1000;           // each write has a value of its own: the card's number and a count
constexpr uint32_t PARTED = 0x2000;           // a hexadecimal digit for each of two threads
constexpr int OK = FXM_API_SUCCESS;
constexpr uint32_t VERIFY = FXM_FLAG_VERIFY;

static uint64_t id_of(uint32_t card) { return 0x020000010000 + uint64_t{2} * card; }

static bool is_up(int port, uint32_t card)
{
    fxm_fxsv_t record{};
    return fxm_get_fxsv(id_of(card), &record) == OK && record.fsv_card.fcd_state[port][0] == 1;
}

// What the headings of a dump are; all dumps of one verbosity have the same.
static std::string headings(const dump_t &dump)
{
    std::string text;
    for (const std::string &line : dump)
        text += line.starts_with("  - ") ? line : "";
    return text;
}

class storm : public fabric_t
{
  protected:
    using random_t = std::minstd_rand;

    // One round of a thread: it makes calls, looks at what they give, and returns the result of the last.
    struct kind_t {
        const char *name;
        uint32_t threads;
        int (storm::*round)(uint32_t number, random_t *random);
    };
    static const std::vector<kind_t> kinds;

    void begin()
    {
        start_cards("--period 200");
        for (const char *line : {"fxsv 020000010000 count=16", "fxsv 020000010020 count=16 gen=40g",
                                 "fxio 020000020000", "fault all drop every=300", "fault all twice every=10"})
            cards(line);
        bring_up();
    }

    void bring_up()
    {
        run(FXM_LOG_ERROR); // a log of each call would be most of the work
        for (uint32_t card = 0; card < CARDS; ++card)
            wait_for([&] { return is_up(0, card) && is_up(1, card); }, "a card");
    }

    void start_threads()
    {
        quit = false;
        for (const kind_t &kind : kinds) {
            for (uint32_t number = 0; number < kind.threads; ++number)
                threads.push_back(call([this, kind, number] { return work(kind, number); }));
        }
        wait_for_rounds(500);
    }

    void end_threads()
    {
        quit = true;
        for (call_t &thread : threads)
            result_of(thread);
        threads.clear();
    }

    int work(const kind_t &kind, uint32_t number)
    {
        random_t random(number + 1);
        int result = OK;
        while (!quit) {
            const bool was_stopped = stopped;
            result = (this->*kind.round)(number, &random);
            results[result] += 1;
            EXPECT_TRUE(!was_stopped || result == FXM_API_ENOSYS) << kind.name << " " << result;
        }
        return result;
    }

    void wait_for_rounds(uint64_t number)
    {
        const auto done = [&] {
            uint64_t sum = 0;
            for (const auto &result : results)
                sum += result;
            return sum;
        };
        const uint64_t before = done();
        wait_for([&] { return done() >= before + number; }, "calls to return", [&] { return std::to_string(done()); });
    }

    void set_link(int port, bool up)
    {
        set_up("card" + std::to_string(port), up);
        wire[static_cast<size_t>(port)]->received();
    }

    // ------------------------------------------------------------------------------------------------- the kinds

    int use_registers(uint32_t number, random_t *random)
    {
        const fxm_retry_param_t retry = {20, 20};
        const uint64_t own = id_of(number / 2);
        const uint32_t shift = number % 2 * 4;
        std::optional<uint32_t> &digit = digits[number];
        const uint32_t card = static_cast<uint32_t>((*random)() / 16 % CARDS);
        const uint32_t chance = static_cast<uint32_t>((*random)() / 16 % 16);
        uint32_t value = 0;
        int result = OK;
        if (chance == 0)
            return fxm_set_vlanid(own, static_cast<uint16_t>(100 + card), &retry, VERIFY);
        if (chance < 5) {
            value = card << 24 | ++writes[card];
            return fxm_write_register(id_of(card), SHARED, value, &retry, VERIFY);
        }
        if (chance < 10) {
            result = fxm_read_register(id_of(card), SHARED, &value, &retry, FXM_FLAG_LIVECHECK);
            EXPECT_TRUE(result != OK || value == 0 || (value >> 24 == card && (value & 0xffffff) <= writes[card]))
                << std::hex << value;
        } else if (chance < 13) {
            result = fxm_modify_register(own, PARTED, chance << shift, 0xfu << shift, &retry, VERIFY);
            digit = result == OK ? std::optional(chance) : std::nullopt;
        } else {
            result = fxm_read_register(own, PARTED, &value, &retry, 0);
            EXPECT_TRUE(result != OK || !digit || (value >> shift & 0xf) == *digit) << std::hex << value;
        }
        return result;
    }

    int write_dumps(uint32_t, random_t *)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // so that they do not fill the disk
        return fxm_stdump(1);
    }

    // No call is under way through a registration that has been ended.
    struct tally_t {
        std::atomic<bool> ended = false, late = false;
    };

    static void count_call(uint64_t, int32_t, uint64_t arg)
    {
        auto *tally = reinterpret_cast<tally_t *>(arg);
        for (int i = 0; i < 20; ++i) { // long enough to be met by the end of the registration
            std::this_thread::yield();
            tally->late = tally->late || tally->ended;
        }
    }

    int register_callbacks(uint32_t number, random_t *)
    {
        auto tally = std::make_shared<tally_t>(); // kept, for a late call must find it
        {
            const std::lock_guard guard(tally_lock);
            tallies.push_back(tally);
        }
        void *handle = nullptr;
        const int result = fxm_register_callback(number == 0 ? FXM_EVT_UPDATEDEVINFO : FXM_EVT_NEWDEVINFO, count_call,
                                                 reinterpret_cast<uintptr_t>(tally.get()), &handle);
        if (result != OK)
            return result;
        const int ended = fxm_unregister_callback(handle);
        tally->ended = ended == OK;
        return ended;
    }

    int change_cards(uint32_t number, random_t *)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (number == 0)
            return fxm_delete_fxio(FLEETING) == FXM_API_ENOSYS ? FXM_API_ENOSYS : OK; // it may not be there
        const int result = fxm_stop_monitor(FLEETING);
        const int restarted = fxm_restart_monitor(FLEETING);
        return result == OK ? restarted : result;
    }

    int list_cards(uint32_t, random_t *)
    {
        uint64_t *ids = nullptr;
        uint32_t count = 0;
        const int result = fxm_get_fxsvids(&ids, &count);
        EXPECT_TRUE(result != OK || (count == CARDS && ids[0] == id_of(0) && ids[CARDS - 1] == id_of(CARDS - 1)));
        fxm_free_idlist(ids);
        return result;
    }

    std::vector<call_t> threads;
    std::optional<uint32_t> digits[2 * CARDS]; // in PARTED, of each thread, when it is known
    std::atomic<uint32_t> writes[CARDS] = {};  // begun
    std::mutex tally_lock;
    std::vector<std::shared_ptr<tally_t>> tallies;
    std::atomic<uint64_t> results[10] = {};
    std::atomic<bool> quit = false, stopped = false;
};

const std::vector<storm::kind_t> storm::kinds = {
    {"registers", 2 * CARDS, &storm::use_registers},
    {"dumps", 1, &storm::write_dumps},
    {"callbacks", 2, &storm::register_callbacks},
    {"monitoring", 2, &storm::change_cards},
    {"lists", 2, &storm::list_cards},
};

TEST_F(storm, values_and_reports_stay_true_while_everything_goes_on)
{
    begin();
    const std::string all_headings = headings(dump(1));
    const auto first = static_cast<std::ptrdiff_t>(stats_log.lines().size());
    start_threads();
    for (const int port : {0, 1, 0}) {
        set_link(port, false);
        wait_for([&] { return !is_up(port, 0); }, "the channels to go down");
        wait_for_rounds(300);
        set_link(port, true);
        wait_for([&] { return is_up(port, 0); }, "the channels to come back");
        wait_for_rounds(300);
    }
    end_threads();
    // A port refuses frames in the moment in which its link falls.
    EXPECT_EQ(log.count("ERROR _fxm_send: Failed to pcap_sendpacket()."), results[FXM_API_EPROTO]);
    EXPECT_EQ(results[FXM_API_EINVAL] + results[FXM_API_ENOENT] + results[FXM_API_ENOSYS], 0u);
    EXPECT_GT(results[OK], 1000u);
    for (const auto &tally : tallies)
        EXPECT_FALSE(tally->late) << "a call through an ended registration";

    // Each dump has all its sections, and the cards of one are of one moment.
    const dump_t all(stats_log.lines().begin() + first, stats_log.lines().end());
    const auto is_header = [](const std::string &line) { return line.starts_with("*** "); };
    EXPECT_GT(std::count_if(all.begin(), all.end(), is_header), 2);
    for (auto begin = all.begin(), end = begin; begin != all.end(); begin = end) {
        end = std::find_if(begin + 1, all.end(), is_header);
        const dump_t told(begin, end);
        EXPECT_EQ(headings(told), all_headings);
        EXPECT_EQ(number_after(told, "    fxsv total: ") + 2, section(told, "    [FXSV]").size());
        EXPECT_EQ(number_after(told, "    fxio total: ") == 0, has_line(section(told, "    [FXIO]"), "    no entry."));
    }

    cards("heal all");
    cards("fault all ignore-vlan count=1");
    const fxm_retry_param_t often = {100, 20};
    for (uint32_t card = 0; card < CARDS; ++card) {
        EXPECT_EQ(fxm_write_register(id_of(card), SHARED, card, &often, VERIFY), OK);
        EXPECT_EQ(fxm_set_vlanid(id_of(card), 300, &often, VERIFY), OK);
        EXPECT_EQ(fxsv(id_of(card)).fsv_card.fcd_vlan_id, 300u);
    }
    stop_cards();
    renew_wire(0), renew_wire(1);
    settle(0), settle(1);
    const dump_t report = dump_when([](const dump_t &told) { return memory(told, "evt_node").in_use == 0; },
                                    "the last event to be freed");
    EXPECT_EQ(number_after(report, "    Total called  : "), number_after(report, "    Total returned: "));
    EXPECT_EQ(memory(report, "fxsv").in_use, CARDS);
    EXPECT_EQ(memory(report, "fxio").in_use, number_after(report, "    fxio total: "));
    for (const std::string name : {"bl_node", "idlist", "cbinfo", "addrs"})
        EXPECT_EQ(memory(report, name).in_use, name == "cbinfo" ? 6u : 0u) << name;

    // Every tag is free again: as many reads are in flight as there are tags, until the stop. A signal that has outlived
    // its request costs a read one retry.
    const fxm_retry_param_t for_ever = {1, 3600000};
    std::vector<call_t> reads;
    std::set<uint8_t> tags;
    uint32_t value = 0;
    wire[0]->received();
    for (int i = 0; i < 256; ++i)
        reads.push_back(call([&] { return fxm_read_register(id_of(0), SHARED, &value, &for_ever, 0); }));
    wait_for([&] { return tags.insert(wire[0]->receive().at(23)), tags.size() == 256; }, "all tags");
    EXPECT_EQ(stop(), OK);
    for (call_t &read : reads)
        EXPECT_EQ(result_of(read), FXM_API_ENOSYS);
}

TEST_F(storm, stop_completes_while_all_go_on_calling_and_the_next_start_works)
{
    begin();
    for (int round = 0; round < 3; ++round) {
        if (round > 0)
            bring_up();
        start_threads();
        set_link(0, false);
        wait_for_rounds(100);
        EXPECT_EQ(stop(), OK);
        stopped = true;
        wait_for_rounds(100);
        end_threads();
        stopped = false;
        set_link(0, true);
    }
}
