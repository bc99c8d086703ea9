// What a repeated announcement costs when nothing piles up: 4,000 cards announce themselves every 4 s without a change,
// so a frame comes each millisecond, and its receiver sleeps before and after it. The least registry beside it shows what
// the waking costs anybody.
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "least.h"
#include "setup.h"
#include "wire.h"

constexpr size_t CARDS = 4000;
constexpr int64_t MS = 1000000;
constexpr int64_t SECOND = 1000 * MS;

static std::atomic<uint64_t> updates;

static void on_update(uint64_t, int32_t, uint64_t) { updates.fetch_add(1); }

struct side_t {
    const char *name;
    std::function<void()> start;
    std::function<uint64_t()> received;
    std::function<void()> stop;
    std::vector<double> idle_ms{}, frame_us{}; // CPU time of a second without frames, and of a frame beyond that
};

static side_t library_side()
{
    const auto start = [] {
        start_library("devinfo_expire_time = 100000\n");
        static void *cbid;
        fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_update, 0, &cbid);
    };
    return {"fxm", start, [] { return counter("FXM_STATS_R_TOTAL"); }, stop_library};
}

static side_t least_side(std::optional<capture_loop_t> *loop, std::unique_ptr<least_registry_t> *registry)
{
    const auto start = [=] {
        *registry = std::make_unique<least_registry_t>();
        loop->emplace("fxm0", registry->get(), 1000);
    };
    return {"least registry", start, [=] { return (*loop)->received.load(); }, [=] { loop->reset(); }};
}

// The CPU time of all threads but this one, which sends.
static double others_cpu_ns()
{
    return static_cast<double>(read_clock(CLOCK_PROCESS_CPUTIME_ID) - read_clock(CLOCK_THREAD_CPUTIME_ID));
}

struct pace_t {
    size_t sent = 0, late = 0; // late: a millisecond or more, so that two frames may have come as one
};

static void send_at_pace(announcements_t *cards, const wire_t &wire, size_t frames, pace_t *pace)
{
    int64_t next = now_ns();
    for (size_t i = 0; i < frames; ++i) {
        sleep_until(next += MS);
        const size_t card = pace->sent++ % CARDS;
        cards->send(wire, card, card + 1);
        pace->late += now_ns() >= next + MS ? 1 : 0;
    }
}

// First without frames, then with one each millisecond.
static void measure(side_t *side, announcements_t *cards, const wire_t &wire, pace_t *pace)
{
    const auto seconds = static_cast<int64_t>(full_or_quick(5, 2));
    hold_to_cpu(1); // what the receiver's threads inherit
    side->start();
    hold_to_cpu(0);
    // The tables are full and the memory of the capture is in use from here on.
    for (size_t sent = 0; sent < CAPTURE_FRAMES; sent += CARDS) {
        cards->send(wire);
        sleep_until(now_ns() + 50 * MS);
    }
    sleep_until(now_ns() + SECOND / 2);
    const uint64_t updates_before = updates;

    const double idle_begun = others_cpu_ns();
    sleep_until(now_ns() + seconds * SECOND);
    const double idle_ns = (others_cpu_ns() - idle_begun) / static_cast<double>(seconds); // of a second

    const uint64_t received_before = side->received();
    const size_t frames = static_cast<size_t>(seconds) * 1000;
    const int64_t begun = now_ns();
    const double busy_begun = others_cpu_ns();
    send_at_pace(cards, wire, frames, pace);
    sleep_until(now_ns() + 5 * MS);
    const double busy_ns = others_cpu_ns() - busy_begun;
    const auto lasted = static_cast<double>(now_ns() - begun) / 1e9;
    const uint64_t received = side->received() - received_before;
    side->stop();
    if (received != frames || updates != updates_before)
        fail("%s: %zu frames have been sent and %llu received, with %llu updates", side->name, frames,
             static_cast<unsigned long long>(received), static_cast<unsigned long long>(updates - updates_before));
    side->idle_ms.push_back(idle_ns / 1e6);
    side->frame_us.push_back((busy_ns - idle_ns * lasted) / 1000 / static_cast<double>(frames));
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    const size_t turns = full_or_quick(5, 3);
    announcements_t cards(CARDS);
    const wire_t wire("card0", 0);
    std::optional<capture_loop_t> loop;
    std::unique_ptr<least_registry_t> registry;
    side_t least = least_side(&loop, &registry);
    side_t library = library_side();
    pace_t pace;
    for (size_t turn = 0; turn < turns; ++turn) {
        progress("announcements, turn", turn, turns);
        measure(&least, &cards, wire, &pace);
        measure(&library, &cards, wire, &pace);
    }
    progress("", turns, turns);
    release_cpus();

    printf("Repeated announcements of %zu cards, 1000 frames/s, medians of %zu turns\n"
           "The sender and the kernel's work on its frames are on the first CPU, the receiver is on the second.\n"
           "                   CPU us/frame    ms/s without frames\n",
           CARDS, turns);
    for (const side_t *side : {&least, &library})
        printf("  %-18s %10.2f %15.3f\n", side->name, median(side->frame_us), median(side->idle_ms));
    printf("  %.1f%% of the frames left 1 ms or more late\n",
           100 * static_cast<double>(pace.late) / static_cast<double>(pace.sent));
    row("announcement", median(library.frame_us), median(least.frame_us), "us", {goal_t::FIGURE_AT_MOST, 14});
    return bench_end();
}
