// How soon a card's announcement is in its record, and what a flood of announcements costs: in comparison with a loop
// that does nothing but take the frames out of the same capture, and with the least registry. Two ports at once in
// comparison with one.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "least.h"
#include "setup.h"
#include "wire.h"

// ------------------------------------------------------------------------------------------------------------ latency

constexpr size_t MOST_FRAMES = 5000;

// Each frame but the first raises one event, and events come in order.
static std::atomic<size_t> updates;
static int64_t called[MOST_FRAMES];

static void on_update(uint64_t, int32_t, uint64_t)
{
    called[updates.load()] = now_ns();
    updates.fetch_add(1);
}

static void print_latency(const char *what, const summary_t &us)
{
    printf("  %-24s %8.0f %8.0f %8.0f\n", what, us.median, us.p99, us.max);
}

static void measure_latency()
{
    const size_t frames = full_or_quick(MOST_FRAMES, 500);
    start_library("");
    void *cbid = nullptr;
    fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_update, 0, &cbid);
    const wire_t wire("card0", 0);
    frame_t frame = from(FIRST_FXSV, fxsv_1g_frame());
    std::vector<int64_t> sent;
    std::vector<double> record_us;
    std::vector<double> callback_us;
    int64_t next = now_ns();
    for (size_t number = 0; number <= frames; ++number) {
        sleep_until(next += 1000000);
        frame[AT_FLOW_ID] = static_cast<uint8_t>(number >> 8);
        frame[AT_LINK_STATUS] = static_cast<uint8_t>(number);
        sent.push_back(now_ns());
        wire.send(frame);
        const auto there = [&] {
            fxm_fxsv_t record;
            return fxm_get_fxsv(FIRST_FXSV, &record) == FXM_API_SUCCESS &&
                   record.fsv_card.fcd_flowid == frame[AT_FLOW_ID] &&
                   record.fsv_card.fcd_linkstatus == frame[AT_LINK_STATUS];
        };
        wait_until(there, "a frame in its record");
        record_us.push_back(static_cast<double>(now_ns() - sent.back()) / 1000);
        progress("latency, frame", number, frames);
    }
    wait_until([=] { return updates.load() == frames; }, "the last callback");
    for (size_t i = 0; i < frames; ++i)
        callback_us.push_back(static_cast<double>(called[i] - sent[i + 1]) / 1000);
    stop_library();

    const summary_t record = summarise(record_us);
    printf("From the sending of a frame, %zu frames at 1 kHz\n"
           "                       us: median      p99      max\n",
           frames);
    print_latency("to the card's record", record);
    print_latency("to the host's callback", summarise(callback_us));
    demand("p99 to the record", record.p99 / 1000, 5, " ms");
}

// -------------------------------------------------------------------------------------------------------------- flood

// At full speed: the receiver has a CPU of its own where there are two. In bursts: it runs when the sender, on the same
// CPU, has sent a frame of every card and rests, so that it finds all of them at once.
enum flood_kind_t { FULL_SPEED, BURSTS };

constexpr size_t TURNS = 5;
constexpr int64_t MS = 1000000;
// A round that is longer than half of the capture is sent in slices. Each begins when the one before is taken out.
constexpr size_t SLICE = 20000;
constexpr size_t LONGEST_ROUND = 30000;

// One who takes the frames of a flood.
struct side_t {
    const char *name;
    std::function<void()> start;
    std::function<bool(uint8_t)> fence_seen; // the one with this flow id
    std::function<uint64_t()> received;
    std::function<void()> stop;
    std::vector<double> cost_ns{}, frames_per_second{}; // of each turn
    double sent = 0, lost = 0;
};

static bool library_has_fence(int port, uint8_t number)
{
    fxm_fxio_t record;
    return fxm_get_fxio(FENCE + static_cast<uint64_t>(port), &record) == FXM_API_SUCCESS &&
           record.fio_card.fcd_flowid == number;
}

static side_t bare_side(std::optional<capture_loop_t> *loop)
{
    return {"bare capture loop", [=] { loop->emplace("fxm0", nullptr, 10); },
            [=](uint8_t number) { return (*loop)->fence == number; }, [=] { return (*loop)->received.load(); },
            [=] { loop->reset(); }};
}

static side_t least_side(std::optional<capture_loop_t> *loop, std::unique_ptr<least_registry_t> *registry)
{
    const auto start = [=] {
        *registry = std::make_unique<least_registry_t>();
        loop->emplace("fxm0", registry->get(), 10);
    };
    side_t side = bare_side(loop);
    side.name = "least registry";
    side.start = start;
    return side;
}

static side_t library_side()
{
    return {"fxm", [] { start_library("devinfo_expire_time = 100000\n"); },
            [](uint8_t number) { return library_has_fence(0, number); }, [] { return counter("FXM_STATS_R_TOTAL"); },
            stop_library};
}

// Starts a receiver's threads so that they run as the kind of flood asks for: they inherit it from a thread that ends,
// since an ordinary user's thread does not get back out of SCHED_IDLE.
static void start_receiver(flood_kind_t kind, const std::function<void()> &start)
{
    const auto run = [&] {
        const sched_param none{};
        hold_to_cpu(kind == FULL_SPEED ? 1 : 0);
        if (kind == BURSTS && sched_setscheduler(0, SCHED_IDLE, &none) != 0)
            fail("no SCHED_IDLE: %s", strerror(errno));
        start();
    };
    std::thread(run).join();
    hold_to_cpu(0);
}

// The sender's end of a cable. It counts what it sends, and it learns from a fence that all of it has been taken out.
struct sender_t {
    void send(announcements_t *cards, size_t begin, size_t end)
    {
        cards->send(wire, begin, end);
        sent += end - begin;
    }
    void await_all(const std::function<bool(uint8_t)> &fence_seen, int64_t look_ns = 2 * MS);
    const int port;
    const wire_t wire{"card" + std::to_string(port), 0};
    uint64_t sent = 0;
    uint8_t number = 0; // of the last fence
};

void sender_t::await_all(const std::function<bool(uint8_t)> &fence_seen, int64_t look_ns)
{
    frame_t fence = fxio_frame(FENCE + static_cast<uint64_t>(port));
    fence[AT_FLOW_ID] = ++number;
    const int64_t begun = now_ns();
    // The fence may be lost with others.
    for (int64_t next = begun; !fence_seen(number); sleep_until(now_ns() + look_ns)) {
        if (now_ns() >= next) {
            wire.send(fence);
            ++sent;
            next = now_ns() + 500 * MS;
        }
        if (now_ns() > begun + 30000 * MS)
            fail("nobody gets through the flood");
    }
}

// A frame of every card.
static void send_round(flood_kind_t kind, announcements_t *cards, sender_t *sender, const side_t &side)
{
    const size_t all = cards->frame.size();
    const size_t slice = all > LONGEST_ROUND ? SLICE : all;
    for (size_t begin = 0; begin < all; begin += slice) {
        sender->send(cards, begin, std::min(begin + slice, all));
        if (kind == BURSTS || slice < all)
            sender->await_all(side.fence_seen);
    }
}

// How many were received when so many were sent. A frame is counted a moment after it is in its record.
static uint64_t received_of(const side_t &side, uint64_t sent)
{
    uint64_t received = side.received();
    for (int i = 0; i < 5 && received != sent; ++i) {
        sleep_until(now_ns() + 20 * MS);
        received = side.received();
    }
    return received;
}

// The tables are full and the memory of the capture is in use when the flood begins. The CPU time is that of all threads
// but this one.
static void flood(flood_kind_t kind, size_t frames, announcements_t *cards, sender_t *sender, side_t *side)
{
    const auto cpu_ns = [] { return read_clock(CLOCK_PROCESS_CPUTIME_ID) - read_clock(CLOCK_THREAD_CPUTIME_ID); };
    start_receiver(kind, side->start);
    sender->sent = 0;
    while (sender->sent < CAPTURE_FRAMES) {
        send_round(kind, cards, sender, *side);
        sender->await_all(side->fence_seen);
    }
    const uint64_t received_before = received_of(*side, sender->sent);
    const uint64_t sent_before = sender->sent;
    const int64_t cpu_before = cpu_ns();
    const int64_t begun = now_ns();
    for (size_t done = 0; done < frames; done += cards->frame.size())
        send_round(kind, cards, sender, *side);
    sender->await_all(side->fence_seen);
    const auto seconds = static_cast<double>(now_ns() - begun) / 1e9;
    const auto cost = static_cast<double>(cpu_ns() - cpu_before);
    const auto sent = static_cast<double>(sender->sent - sent_before);
    const auto lost = static_cast<double>(sender->sent - received_of(*side, sender->sent));
    const auto lost_before = static_cast<double>(sent_before - received_before);
    side->stop();
    const double received = sent - (lost - lost_before);
    side->cost_ns.push_back(cost / received);
    side->frames_per_second.push_back(received / seconds);
    side->sent += static_cast<double>(sender->sent);
    side->lost += lost;
}

static void print_sides(const side_t *sides, size_t number)
{
    printf("                       CPU ns/frame   frames/s       lost\n");
    for (size_t i = 0; i < number; ++i)
        printf("  %-18s %14.0f %10.0f %10.0f of %.0f\n", sides[i].name, median(sides[i].cost_ns),
               median(sides[i].frames_per_second), sides[i].lost, sides[i].sent);
    const double cost = median(sides[number - 1].cost_ns);
    for (size_t i = 0; i + 1 < number; ++i)
        printf("  %s / %s %.2f\n", sides[number - 1].name, sides[i].name, cost / median(sides[i].cost_ns));
}

// Returns the frames that the library has lost.
static double measure_flood(flood_kind_t kind, size_t number, const char *name, goal_t goal)
{
    const size_t frames = full_or_quick(600000, 100000);
    announcements_t cards(number);
    sender_t sender{0};
    std::optional<capture_loop_t> loop;
    std::unique_ptr<least_registry_t> registry;
    side_t sides[] = {bare_side(&loop), least_side(&loop, &registry), library_side()};
    const size_t number_of_sides = std::size(sides);
    for (size_t turn = 0; turn < TURNS; ++turn) {
        for (size_t i = 0; i < number_of_sides; ++i) {
            progress(name, turn * number_of_sides + i, TURNS * number_of_sides);
            flood(kind, frames, &cards, &sender, &sides[(turn + i) % number_of_sides]); // each is first in turn
        }
    }
    progress("", TURNS, TURNS);
    release_cpus();
    printf("\nAnnouncements of %zu cards %s, medians of %zu turns\n", number,
           kind == FULL_SPEED ? "as fast as one CPU sends them" : "in bursts, each taken out when all of it is there",
           TURNS);
    print_sides(sides, number_of_sides);
    row(name, median(sides[2].cost_ns), median(sides[1].cost_ns), "ns", goal);
    return sides[2].lost;
}

static void measure_floods()
{
    measure_flood(BURSTS, 10000, "frame_known", {goal_t::RATIO_AT_MOST, 1.1});
    const goal_t goal = {goal_t::RATIO_AT_MOST, 1.15};
    double lost = measure_flood(FULL_SPEED, 1000, "flood_1000", goal);
    lost += measure_flood(FULL_SPEED, 10000, "flood_10000", goal);
    lost += measure_flood(FULL_SPEED, 65536, "flood_65536", goal);
    row("flood_lost", lost, NO_LIMIT, "frames", {goal_t::FIGURE_AT_MOST, 0});
}

// ---------------------------------------------------------------------------------------------------------- two ports

constexpr size_t CARDS_OF_PORT = 5000;

// The CPU time of another thread of this process, by its clock as pthread_getcpuclockid makes it.
static int64_t thread_cpu_ns(int tid)
{
    return read_clock(static_cast<clockid_t>(~static_cast<unsigned>(tid) << 3 | 6));
}

static std::vector<int> all_threads()
{
    std::vector<int> tids;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        tids.push_back(std::stoi(entry.path().filename().string()));
    return tids;
}

// A port with its cards, its sender and the library's thread that receives its frames.
struct lane_t {
    explicit lane_t(int number) : port(number), cards(CARDS_OF_PORT, CARDS_OF_PORT * static_cast<size_t>(number)) {}
    bool fence_seen(uint8_t number) const { return library_has_fence(port, number); }
    void send_round() { sender.send(&cards, 0, CARDS_OF_PORT); }
    void await_all(int64_t look_ns)
    {
        sender.await_all([this](uint8_t number) { return fence_seen(number); }, look_ns);
    }
    uint64_t received() const { return counter("FXM_STATS_R_TOTAL", port); }
    int port;
    announcements_t cards;
    sender_t sender{port};
    int tid = 0;
    int64_t sender_cpu_ns = 0, receiver_cpu_ns = 0; // of the last flood
};

// Leaving SCHED_IDLE is refused to an ordinary user. A thread that stays there runs all the same when nobody else does.
static void set_policy(const lane_t &lane, int policy)
{
    const sched_param none{};
    (void)sched_setscheduler(lane.tid, policy, &none);
}

// Fills the tables, touches the memory of the capture, and finds the receive thread: no other thread is as busy while known frames arrive.
static void find_receiver(lane_t *lane)
{
    while (lane->sender.sent < CAPTURE_FRAMES) {
        lane->send_round();
        lane->await_all(2 * MS);
    }
    sleep_until(now_ns() + 200 * MS); // the events of the new cards
    const std::vector<int> tids = all_threads();
    std::vector<int64_t> before;
    std::transform(tids.begin(), tids.end(), std::back_inserter(before), thread_cpu_ns);
    for (int i = 0; i < 5; ++i) {
        lane->send_round();
        lane->await_all(2 * MS);
    }
    int64_t most = 0;
    for (size_t i = 0; i < tids.size(); ++i) {
        const int64_t used = thread_cpu_ns(tids[i]) - before[i];
        if (tids[i] != gettid() && used > most) {
            most = used;
            lane->tid = tids[i];
        }
    }
}

// Floods the port for so long, from the CPU on which its receive thread is held too. When a slice is out, the sender
// rests until it is taken out. Under SCHED_BATCH, the receive thread does not preempt the sender for each frame. It finds
// many frames at once then, and the switches between the two threads do not count on either side of the comparison.
static void flood_lane(lane_t *lane, int64_t until)
{
    hold_to_cpu(lane->port);
    hold_to_cpu(lane->port, lane->tid);
    set_policy(*lane, SCHED_BATCH);
    const int64_t cpu_before = read_clock(CLOCK_THREAD_CPUTIME_ID);
    const int64_t receiver_before = thread_cpu_ns(lane->tid);
    while (now_ns() < until) {
        lane->send_round();
        lane->await_all(MS / 5);
    }
    lane->sender_cpu_ns = read_clock(CLOCK_THREAD_CPUTIME_ID) - cpu_before;
    lane->receiver_cpu_ns = thread_cpu_ns(lane->tid) - receiver_before;
}

struct speed_t {
    double frames_per_second, sender_share, receiver_share; // of the time of a CPU
};

static speed_t flood_lanes(const std::vector<lane_t *> &lanes)
{
    std::vector<std::thread> senders;
    uint64_t before = 0;
    uint64_t after = 0;
    for (lane_t *lane : lanes)
        before += lane->received();
    const int64_t begun = now_ns();
    const int64_t until = begun + static_cast<int64_t>(full_or_quick(2000, 500)) * MS;
    senders.reserve(lanes.size());
    for (lane_t *lane : lanes)
        senders.emplace_back(flood_lane, lane, until);
    for (std::thread &sender : senders)
        sender.join();
    const auto ns = static_cast<double>(now_ns() - begun);
    double sender = 0;
    double receiver = 0;
    for (lane_t *lane : lanes) {
        after += lane->received();
        sender += static_cast<double>(lane->sender_cpu_ns);
        receiver += static_cast<double>(lane->receiver_cpu_ns);
    }
    const double cpus_ns = ns * static_cast<double>(lanes.size());
    return {static_cast<double>(after - before) / ns * 1e9, sender / cpus_ns, receiver / cpus_ns};
}

// Frames a second out of rings that have been filled before. Meanwhile the receive threads are held: idle ones on the CPU
// of the busy sender.
static double drain_lanes(const std::vector<lane_t *> &lanes)
{
    uint64_t before = 0;
    uint64_t after = 0;
    hold_to_cpu(0);
    for (lane_t *lane : lanes) {
        before += lane->received();
        hold_to_cpu(0, lane->tid);
        set_policy(*lane, SCHED_IDLE);
    }
    for (int i = 0; i < 10; ++i) {
        for (lane_t *lane : lanes)
            lane->send_round();
    }
    const int64_t begun = now_ns();
    for (lane_t *lane : lanes) {
        hold_to_cpu(lane->port, lane->tid);
        set_policy(*lane, SCHED_OTHER);
    }
    for (lane_t *lane : lanes)
        lane->await_all(MS / 5);
    const auto ns = static_cast<double>(now_ns() - begun);
    release_cpus();
    for (lane_t *lane : lanes)
        after += lane->received();
    return static_cast<double>(after - before) / ns * 1e9;
}

static double mean_of(double one, double other) { return (one + other) / 2; }

static void measure_two_ports()
{
    lay_cable("fxm1", "card1");
    start_library_at("fxm0 fxm1", "devinfo_expire_time = 100000\n");
    lane_t first(0);
    lane_t second(1);
    std::vector<double> both, alone, both_sender, alone_sender, both_receiver, alone_receiver, both_drain, alone_drain;
    for (lane_t *lane : {&first, &second})
        find_receiver(lane);
    if (first.tid == second.tid)
        fail("the receive threads of the two ports are not found");
    for (size_t turn = 0; turn < TURNS; ++turn) {
        progress("two ports, turn", turn, TURNS);
        const speed_t together = flood_lanes({&first, &second});
        const speed_t one = flood_lanes({&first});
        const speed_t other = flood_lanes({&second});
        both.push_back(together.frames_per_second);
        both_sender.push_back(together.sender_share);
        both_receiver.push_back(together.receiver_share);
        alone.push_back(mean_of(one.frames_per_second, other.frames_per_second));
        alone_sender.push_back(mean_of(one.sender_share, other.sender_share));
        alone_receiver.push_back(mean_of(one.receiver_share, other.receiver_share));
        both_drain.push_back(drain_lanes({&first, &second}));
        alone_drain.push_back(mean_of(drain_lanes({&first}), drain_lanes({&second})));
    }
    progress("", TURNS, TURNS);
    const uint64_t lost = first.sender.sent + second.sender.sent - first.received() - second.received();
    stop_library();
    printf("\nTwo ports with %zu cards each, sender and receive thread of a port on one CPU, medians of %zu turns\n"
           "                         both at once    one alone   both / one\n",
           CARDS_OF_PORT, TURNS);
    printf("  frames/s, sent meanwhile   %10.0f   %10.0f   %10.2f\n", median(both), median(alone),
           median(both) / median(alone));
    printf("  of a CPU, the sender has   %9.0f%%   %9.0f%%\n", 100 * median(both_sender), 100 * median(alone_sender));
    printf("  and the receive thread     %9.0f%%   %9.0f%%\n", 100 * median(both_receiver),
           100 * median(alone_receiver));
    printf("  frames/s, out of full rings%10.0f   %10.0f   %10.2f\n", median(both_drain), median(alone_drain),
           median(both_drain) / median(alone_drain));
    printf("  %llu of %zu frames lost\n", static_cast<unsigned long long>(lost),
           first.sender.sent + second.sender.sent);
    row("two_ports", median(both), median(alone), "frames/s", {goal_t::RATIO_AT_LEAST, 1.7});
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    measure_latency();
    measure_floods();
    measure_two_ports();
    return bench_end();
}
