// Register reads through one port while the other one is flooded: by foreign frames, by announcements of known cards, by
// Completions that nobody has asked for. Beside them the same reads without the flood, and those of the bare program
// while a bare capture loop takes the same flood.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "least.h"
#include "setup.h"
#include "wire.h"

constexpr int64_t MS = 1000000;
constexpr uint64_t READERS_CARDS = 4; // behind fxm1, from FIRST_FXSV on
constexpr size_t KNOWN = 1000;        // behind fxm0
constexpr size_t FIRST_KNOWN = 1000;
constexpr uint32_t VALUE = 0x600d0001, FALSE_VALUE = 0xbadbadba;

// ------------------------------------------------------------------------------------------------------------- frames

static void put(announcements_t *frames, size_t i, frame_t frame)
{
    frames->frame[i] = std::move(frame);
    frames->part[i] = {frames->frame[i].data(), frames->frame[i].size()};
}

// Four kinds in turn: an EtherType of somebody else, with a tag or without; the right one before a subtype that no card
// sends; an announcement that is cut off before its 28th byte; random bytes.
static void make_foreign(announcements_t *frames)
{
    static constexpr uint8_t types[][2] = {{0x08, 0x00}, {0x08, 0x06}, {0x86, 0xdd}, {0x88, 0xcc}};
    std::mt19937 dice(1);
    for (size_t i = 0; i < frames->frame.size(); ++i) {
        frame_t frame = from(FIRST_FXSV + FIRST_KNOWN + i, i % 8 < 4 ? fxsv_1g_frame() : fxio_frame(0));
        const uint8_t *type = types[i / 8 % 4];
        if (i % 4 == 0)
            std::copy(type, type + 2, frame.begin() + (i % 8 == 0 ? 12 : 16));
        else if (i % 4 == 1)
            frame[18] = static_cast<uint8_t>(0x21 + dice() % 0x5f);
        else if (i % 4 == 2)
            frame.resize(14 + dice() % 14);
        else {
            frame.resize(60 + dice() % 940);
            std::generate(frame.begin(), frame.end(), [&] { return static_cast<uint8_t>(dice()); });
        }
        put(frames, i, frame);
    }
}

// With every tag in turn, from the cards that are read, from known cards, and from nobody. None belongs to a read: it
// comes through the wrong port or from the wrong card.
static void make_completions(announcements_t *frames)
{
    const frame_t form = changed(hex("ff ff ff ff ff ff 00 00 00 00 00 00" //  0 to everybody
                                     "81 00 80 64 88 b6"                   // 12 priority 4, VLAN 100, EtherType
                                     "20 ff ff 00 00 00 00 00 00 00"),     // 18 Completion; 23 tag; 24 the value
                                 {}, 60);
    for (size_t i = 0; i < frames->frame.size(); ++i) {
        const uint64_t sources[] = {FIRST_FXSV + i / 4 % READERS_CARDS * 2,
                                    FIRST_FXSV + FIRST_KNOWN + i / 4 * 2 % KNOWN, FIRST_FXSV, 0x02fffff00000 + i};
        frame_t frame = from(sources[i % 4], form);
        frame[23] = static_cast<uint8_t>(i / 4);
        for (size_t byte = 0; byte < 4; ++byte)
            frame[24 + byte] = static_cast<uint8_t>(FALSE_VALUE >> 8 * byte);
        put(frames, i, frame);
    }
}

// ------------------------------------------------------------------------------------------------------------- sender

// The far end of fxm0, which stands for the network: it has the first CPU to itself, and everything else the second. It
// announces each known card twice a second, and, while `on`, it sends the flood: at the rate of a port of 100 Mbit/s that is
// full of the shortest frames (148,810 a second), and a little more.
constexpr int64_t FLOOD_RATE = 160000;

struct sender_t {
    explicit sender_t(announcements_t *load) : flood(load) {}
    ~sender_t()
    {
        end = true;
        thread.join();
    }
    sender_t(const sender_t &) = delete;
    sender_t &operator=(const sender_t &) = delete;

    std::atomic<bool> on{false}, end{false};
    std::atomic<bool> silent{false}, is_silent{false}; // asked for; nothing more is on its way
    std::atomic<uint64_t> sent{0}, announced{0};       // of the flood; besides

  private:
    void run();
    const wire_t wire{"card0", 0};
    announcements_t *flood;
    announcements_t known{KNOWN, FIRST_KNOWN};
    std::thread thread{[this] { run(); }};
};

void sender_t::run()
{
    constexpr size_t share = 20, slice = 100;
    hold_to_cpu(0);
    size_t next_known = 0;
    size_t next = 0;
    int64_t slice_due = 0;
    for (int64_t due = now_ns(); !end;) {
        is_silent = silent && !on;
        if (is_silent)
            due = now_ns();
        if (now_ns() >= due && !silent) {
            known.send(wire, next_known, next_known + share);
            next_known = (next_known + share) % KNOWN;
            announced += share;
            due += 10 * MS;
        }
        if (!on) {
            sleep_until(now_ns() + MS);
            continue;
        }
        // What it is late by for more than a moment is left out.
        if (now_ns() < slice_due)
            continue;
        slice_due = std::max<int64_t>(slice_due + slice * 1000 * MS / FLOOD_RATE, now_ns() - 10 * MS);
        flood->send(wire, next, next + slice);
        next = (next + slice) % flood->frame.size();
        sent += slice;
    }
}

// ------------------------------------------------------------------------------------------------------------ readers

// Times of single reads. Their memory is in use before anything is measured.
struct series_t {
    std::vector<double> us = std::vector<double>(1 << 20);
    size_t number = 0;
    summary_t summary() const { return summarise({us.begin(), us.begin() + static_cast<std::ptrdiff_t>(number)}); }
};

struct side_t {
    const char *name;
    std::function<void()> start;
    std::function<uint32_t(size_t)> read; // from the card of that number
    std::function<void()> stop;
    series_t quiet{}, flooded{};
    double seconds = 0, frames = 0; // of the flood
    size_t wrong = 0;               // values that are not the card's
};

static void read_for(side_t *side, series_t *series, int64_t ms)
{
    const int64_t until = now_ns() + ms * MS;
    for (int64_t begun = now_ns(), ended = 0; begun < until && series->number < series->us.size(); begun = ended) {
        side->wrong += side->read(series->number % READERS_CARDS) != VALUE;
        ended = now_ns();
        series->us[series->number++] = static_cast<double>(ended - begun) / 1000;
    }
}

// Before, in and after the flood, which lasts for longer than a channel may be silent (5 s).
static void take_turn(side_t *side, sender_t *sender)
{
    const auto ms = static_cast<int64_t>(full_or_quick(10000, 6000));
    read_for(side, &side->quiet, ms / 8);
    const int64_t begun = now_ns();
    const uint64_t sent = sender->sent;
    sender->on = true;
    read_for(side, &side->flooded, ms);
    sender->on = false;
    side->seconds += static_cast<double>(now_ns() - begun) / 1e9;
    side->frames += static_cast<double>(sender->sent - sent);
    sleep_until(now_ns() + 20 * MS); // what the flood has left
    read_for(side, &side->quiet, ms / 8);
}

// The first frames that a capture takes touch its memory.
static void use_capture(sender_t *sender)
{
    const uint64_t before = sender->sent;
    sender->on = true;
    wait_until([=] { return sender->sent - before > CAPTURE_FRAMES; }, "the flood");
    sender->on = false;
}

// -------------------------------------------------------------------------------------------------------- the library

static std::atomic<size_t> channel_changes;
static size_t lost_by_state;

static bool is_up(uint64_t id, int port)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS)
        return fxsv.fsv_card.fcd_state[port][0] == 1;
    return fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS && fxio.fio_card.fcd_state[port][0] == 1;
}

static size_t channels_down()
{
    size_t down = 0;
    for (uint64_t i = 0; i < READERS_CARDS; ++i)
        down += !is_up(FIRST_FXSV + 2 * i, 1);
    for (uint64_t i = FIRST_KNOWN; i < FIRST_KNOWN + KNOWN; ++i)
        down += !is_up((i % 2 == 0 ? FIRST_FXSV : FIRST_FXIO) + i, 0);
    return down;
}

// When all channels are up, each further change is one too many.
static void start_both_ports()
{
    start_library_at("fxm0 fxm1", "");
    wait_until([] { return channels_down() == 0; }, "all cards");
    const auto count = [](uint64_t, int32_t, uint64_t) { channel_changes += 1; };
    void *cbid = nullptr;
    fxm_register_callback(FXM_EVT_CHANNELSTATECHANGE, count, 0, &cbid);
}

static uint32_t read_register(size_t card)
{
    uint32_t value = 0;
    const int result = fxm_read_register(FIRST_FXSV + 2 * card, 0x1000, &value, nullptr, 0);
    if (result != FXM_API_SUCCESS)
        fail("fxm_read_register has returned %d in the flood", result);
    return value;
}

// To the page, and without the memory of the captures, which the kernel keeps.
static double resident_kib()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.starts_with("Anonymous:"))
            return std::stod(line.substr(10));
    }
    fail("the kernel does not tell the resident memory");
}

// Frames that the cable has thrown away on their way to fxm0, because the machine was busy.
static uint64_t dropped_by_cable()
{
    constexpr int sent_and_dropped = 12; // the column
    std::ifstream devices("/proc/self/net/dev");
    for (std::string word; devices >> word;) {
        if (word != "card0:")
            continue;
        for (int i = 0; i < sent_and_dropped; ++i)
            devices >> word;
        return std::stoull(word);
    }
    fail("the kernel does not tell the frames of card0");
}

struct life_t {
    double grown_kib = 0;
    uint64_t sent_again = 0;
    uint64_t sent = 0, handled = 0, dropped = 0; // frames of cards
};

// The frames of cards that the library has handled, when it has handled all that were sent.
static uint64_t handled_at_rest(sender_t *sender)
{
    sender->silent = true;
    wait_until([=] { return sender->is_silent.load(); }, "the sender to rest");
    uint64_t handled = counter("FXM_STATS_R_TOTAL");
    for (uint64_t before = handled + 1; before != handled;) {
        before = handled;
        sleep_until(now_ns() + 1000 * MS); // on a crowded machine a receive thread waits long for a CPU
        handled = counter("FXM_STATS_R_TOTAL");
    }
    return handled;
}

static void live_through(bool of_cards, side_t *library, sender_t *sender, life_t *life)
{
    library->start();
    const uint64_t handled = handled_at_rest(sender);
    const auto sent_by_cards = [=] { return sender->announced + (of_cards ? sender->sent.load() : 0); };
    const uint64_t sent = sent_by_cards();
    const uint64_t dropped = dropped_by_cable();
    sender->silent = false;
    const uint64_t requests = counter("FXM_STATS_T_REGR", 1);
    const size_t reads = library->quiet.number + library->flooded.number;
    const double resident = resident_kib();
    use_capture(sender);
    take_turn(library, sender);
    life->grown_kib += resident_kib() - resident;
    lost_by_state += channels_down();
    life->handled += handled_at_rest(sender) - handled;
    life->sent += sent_by_cards() - sent;
    life->dropped += dropped_by_cable() - dropped;
    sender->silent = false;
    life->sent_again +=
        counter("FXM_STATS_T_REGR", 1) - requests - (library->quiet.number + library->flooded.number - reads);
    library->stop();
}

// ---------------------------------------------------------------------------------------------------------- the floods

static void print_side(const side_t &side)
{
    for (const bool flooded : {false, true}) {
        const series_t &series = flooded ? side.flooded : side.quiet;
        const summary_t us = series.summary();
        printf("  %-13s %-9s %10.1f %9.1f %9.0f %9zu\n", side.name, flooded ? "in it" : "without", us.median, us.p99,
               us.max, series.number);
    }
}

static unsigned long long ull(uint64_t value) { return value; }

static double gain(const side_t &side) { return side.flooded.summary().median / side.quiet.summary().median; }

// Gives the growth of memory in KiB.
static double measure(const char *name, announcements_t *flood, bool of_cards)
{
    std::optional<capture_loop_t> loop;
    std::optional<bare_reader_t> program;
    const auto start_bare = [&] {
        loop.emplace("fxm0", nullptr, 10);
        program.emplace("fxm1");
    };
    const auto stop_bare = [&] {
        program.reset();
        loop.reset();
    };
    side_t bare = {"bare programs", start_bare, [&](size_t card) { return program->read(card); }, stop_bare};
    side_t library = {"fxm", start_both_ports, read_register, stop_library};
    sender_t sender(flood);
    life_t life;
    const size_t lives = full_or_quick(2, 1);
    for (size_t i = 0; i < lives; ++i) {
        progress(name, i, lives);
        live_through(of_cards, &library, &sender, &life);
        bare.start();
        use_capture(&sender);
        take_turn(&bare, &sender);
        bare.stop();
    }
    progress("", lives, lives);
    printf("\nA flood of %s: %.0f frames/s for %.0f s beside fxm, %.0f beside the bare programs\n"
           "                      us: median       p99       max     reads\n",
           name, library.frames / library.seconds, library.seconds, bare.frames / bare.seconds);
    print_side(library);
    print_side(bare);
    printf("  the flood makes the median %.2f times as long for fxm, %.2f times for the bare programs\n", gain(library),
           gain(bare));
    printf("  %llu requests sent again, %.0f KiB more resident memory\n", ull(life.sent_again), life.grown_kib);
    printf("  %llu frames of cards were sent, %llu handled, %llu lost by the cable\n", ull(life.sent),
           ull(life.handled), ull(life.dropped));
    const double astray =
        static_cast<double>(life.sent) - static_cast<double>(life.handled + (of_cards ? life.dropped : 0));
    demand("frames of cards lost, or others taken for them", std::abs(astray), 0, "");
    demand("reads with a value that is not the card's", static_cast<double>(library.wrong), 0, "");
    const summary_t figure = library.flooded.summary();
    const summary_t limit = bare.flooded.summary();
    const std::string prefix = std::string("flood_") + name;
    row((prefix + "_p99").c_str(), figure.p99 / 1000, limit.p99 / 1000, "ms", {goal_t::FIGURE_AT_MOST, 5});
    row((prefix + "_median").c_str(), figure.median, limit.median, "us", {goal_t::RATIO_AT_MOST, 1.2});
    return life.grown_kib;
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm1 address 02:00:00:00:aa:01", "card1"); // the address from which the bare program sends
    hold_to_cpu(1);
    start_cards(READERS_CARDS, "--port0 card1 --period 500");
    tell_cards("reg all 0x1000 0x%08x", VALUE);
    announcements_t foreign(1600), announced(KNOWN, FIRST_KNOWN), completions(1600);
    make_foreign(&foreign);
    make_completions(&completions);
    const double grown = measure("foreign", &foreign, false);
    measure("announce", &announced, true);
    measure("comp", &completions, true);
    stop_cards();
    printf("\n");
    row("channels_lost", static_cast<double>(channel_changes + lost_by_state), NO_LIMIT, "changes",
        {goal_t::FIGURE_AT_MOST, 0});
    row("flood_memory", grown, NO_LIMIT, "KiB", {goal_t::FIGURE_AT_MOST, 256});
    return bench_end();
}
