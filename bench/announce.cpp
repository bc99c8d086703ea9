// What a repeated announcement costs when nothing piles up: a frame of one of 4,000 cards comes each millisecond and
// changes nothing, and its receiver sleeps before and after it. The least registry beside it shows what the waking costs
// anybody.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

#include "least.h"
#include "setup.h"
#include "wire.h"

constexpr size_t CARDS = 4000;
constexpr int64_t MS = 1000000;
// The two sides get frames in turn for so long, because the load of the machine changes within seconds. The time between
// two turns of a side is no multiple of the second of the library's interval check, so the check comes at all times of a
// turn.
constexpr int64_t WINDOW_MS = 700;

static std::atomic<uint64_t> updates;

static void on_update(uint64_t, int32_t, uint64_t) { updates.fetch_add(1); }

// A receiver behind its own cable. What it uses while the other one gets the frames is not counted as the cost of its
// own: the interval check of the library.
struct side_t {
    side_t(const char *whose, const char *far, std::function<int64_t()> cpu)
        : name(whose), wire(far, 0), cpu_ns(std::move(cpu))
    {
    }
    const char *name;
    const wire_t wire;
    const std::function<int64_t()> cpu_ns;
    size_t sent = 0;
    std::vector<double> busy_us{}, rest_us{}; // for a frame of the window, whoever got it; one of each window
    double frame_us() const { return median(busy_us) - median(rest_us); }
};

// One frame each millisecond. Returns how many left a millisecond or more late: two of these may have come as one.
static size_t send_at_pace(announcements_t *cards, side_t *side)
{
    size_t late = 0;
    int64_t next = now_ns();
    for (int64_t i = 0; i < WINDOW_MS; ++i) {
        sleep_until(next += MS);
        const size_t card = side->sent++ % CARDS;
        cards->send(side->wire, card, card + 1);
        late += now_ns() >= next + MS ? 1 : 0;
    }
    sleep_until(next + MS);
    return late;
}

static size_t measure_window(announcements_t *cards, side_t *side, side_t *other)
{
    const int64_t busy_before = side->cpu_ns();
    const int64_t rest_before = other->cpu_ns();
    const size_t late = send_at_pace(cards, side);
    side->busy_us.push_back(static_cast<double>(side->cpu_ns() - busy_before) / 1000 / WINDOW_MS);
    other->rest_us.push_back(static_cast<double>(other->cpu_ns() - rest_before) / 1000 / WINDOW_MS);
    return late;
}

// The tables are full and the memory of the capture is in use from here on.
static void fill(announcements_t *cards, side_t *side)
{
    for (; side->sent < CAPTURE_FRAMES; side->sent += CARDS) {
        cards->send(side->wire);
        sleep_until(now_ns() + 100 * MS);
    }
}

static void check_all_received(const side_t &side, uint64_t received)
{
    if (received != side.sent)
        fail("%s: %zu frames have been sent and %llu received", side.name, side.sent,
             static_cast<unsigned long long>(received));
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm1", "card1");
    const size_t windows = full_or_quick(50, 15);
    announcements_t cards(CARDS);
    least_registry_t registry;
    hold_to_cpu(1); // what the threads of both receivers inherit
    capture_loop_t loop("fxm1", &registry, 1000);
    start_library("devinfo_expire_time = 100000\n");
    hold_to_cpu(0);
    void *cbid = nullptr;
    fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_update, 0, &cbid);

    side_t least("least registry", "card1", [&] { return loop.cpu_ns(); });
    side_t library("fxm", "card0", [&] { // all threads of the process but the other receiver and this one, which sends
        return read_clock(CLOCK_PROCESS_CPUTIME_ID) - read_clock(CLOCK_THREAD_CPUTIME_ID) - loop.cpu_ns();
    });
    fill(&cards, &least);
    fill(&cards, &library);
    const uint64_t updates_before = updates;
    size_t late = 0;
    for (size_t i = 0; i < windows; ++i) {
        progress("announcements, window", i, windows);
        late += measure_window(&cards, &least, &library);
        late += measure_window(&cards, &library, &least);
    }
    progress("", windows, windows);
    check_all_received(least, loop.received);
    check_all_received(library, counter("FXM_STATS_R_TOTAL"));
    if (updates != updates_before)
        fail("a frame that changes nothing has raised an event");
    stop_library();

    printf("Repeated announcements of %zu cards, 1000 frames/s, medians of %zu windows of %.1f s\n"
           "The sender and the kernel's work on its frames are on the first CPU, the receivers are on the second.\n"
           "                       CPU us/frame   quietest   noisiest   us per ms without frames\n",
           CARDS, windows, static_cast<double>(WINDOW_MS) / 1000);
    for (const side_t *side : {&least, &library}) {
        const auto [quiet, noisy] = std::minmax_element(side->busy_us.begin(), side->busy_us.end());
        printf("  %-18s %14.2f %10.2f %10.2f %26.2f\n", side->name, side->frame_us(), *quiet, *noisy,
               median(side->rest_us));
    }
    printf("  %.1f%% of the frames left 1 ms or more late\n",
           100 * static_cast<double>(late) / static_cast<double>(2 * windows * WINDOW_MS));
    row("announcement", library.frame_us(), least.frame_us(), "us", {goal_t::FIGURE_AT_MOST, 14});
    return bench_end();
}
