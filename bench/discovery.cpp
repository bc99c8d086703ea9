// How soon a card's announcement is in its record, and what a flood of announcements costs in comparison with a loop
// that does nothing but take the frames out of the same capture.
#include <pcap/pcap.h>
#include <poll.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

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

constexpr size_t CARDS = 10000;
constexpr uint64_t FENCE = 0x020000ffff00; // a card whose frame comes behind all others

// At full speed: the receiver has a CPU of its own where there are two. In bursts: it runs when the sender, on the same
// CPU, has sent a frame of every card and rests, so that it finds all of them at once.
enum flood_kind_t { FULL_SPEED, BURSTS };

struct flood_t {
    double seconds = 0, cpu_ns = 0, sent = 0, received = 0;
};

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

// Sends every card's frame over and over and adds what came of it. The CPU time is that of all threads but this one.
static void flood(flood_kind_t kind, announcements_t *cards, const wire_t &wire,
                  const std::function<bool()> &fence_seen, const std::function<uint64_t()> &received, flood_t *total)
{
    const auto cpu_ns = [] { return read_clock(CLOCK_PROCESS_CPUTIME_ID) - read_clock(CLOCK_THREAD_CPUTIME_ID); };
    const size_t rounds = full_or_quick(100, 20);
    const uint64_t received_before = received();
    const int64_t cpu_before = cpu_ns();
    const int64_t begun = now_ns();
    for (size_t i = 0; i < rounds; ++i) {
        cards->send(wire);
        if (kind == BURSTS)
            sleep_until(now_ns() + 3000 * static_cast<int64_t>(CARDS));
    }
    size_t fences = 0;
    // The fence may be lost with others.
    for (int ms = 0; !fence_seen(); ++ms) {
        if (ms % 200 == 0) {
            wire.send(fxio_frame(FENCE));
            ++fences;
        }
        if (ms == 30000)
            fail("nobody gets through the flood");
        sleep_until(now_ns() + 1000000);
    }
    total->seconds += static_cast<double>(now_ns() - begun) / 1e9;
    total->cpu_ns += static_cast<double>(cpu_ns() - cpu_before);
    total->sent += static_cast<double>(rounds * CARDS + fences);
    total->received += static_cast<double>(received() - received_before);
}

// The library's way of opening a port: every frame at once, read without blocking, room for 60,000 frames.
static pcap_t *open_capture()
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_create("fxm0", errbuf);
    pcap_set_snaplen(handle, 1024);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, 1000);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, 64 * 1024 * 1024);
    if (pcap_activate(handle) < 0 || pcap_setnonblock(handle, 1, errbuf) != 0)
        fail("no capture: %s%s", pcap_geterr(handle), errbuf);
    return handle;
}

static void flood_bare_loop(flood_kind_t kind, announcements_t *cards, const wire_t &wire, flood_t *total)
{
    std::atomic<bool> stop{false};
    std::atomic<bool> fence_seen{false};
    std::atomic<uint64_t> received{0};
    pcap_t *handle = open_capture();
    const auto read_frames = [&] {
        pollfd ready = {pcap_get_selectable_fd(handle), POLLIN, 0};
        pcap_pkthdr *header = nullptr;
        const uint8_t *frame = nullptr;
        uint64_t number = 0;
        while (!stop) {
            while (pcap_next_ex(handle, &header, &frame) == 1) {
                ++number;
                if (frame[10] == (FENCE >> 8 & 0xff)) {
                    received = number;
                    fence_seen = true;
                }
            }
            poll(&ready, 1, 10);
        }
    };
    std::thread reader;
    start_receiver(kind, [&] { reader = std::thread(read_frames); });
    flood(
        kind, cards, wire, [&] { return fence_seen.load(); }, [&] { return received.load(); }, total);
    stop = true;
    reader.join();
    pcap_close(handle);
}

static void flood_library(flood_kind_t kind, announcements_t *cards, const wire_t &wire, flood_t *total)
{
    start_receiver(kind, [] { start_library("devinfo_expire_time = 100000\n"); });
    cards->send(wire); // the tables are full from here on
    const auto all_there = [=] {
        sleep_until(now_ns() + 1000000); // the library may be on this CPU
        return connected(cards->last_id);
    };
    wait_until(all_there, "the cards to be connected");
    flood(
        kind, cards, wire, [] { return connected(FENCE); }, [] { return counter("FXM_STATS_R_TOTAL"); }, total);
    stop_library();
}

static double print_flood(const char *who, const flood_t &flood)
{
    const double cost = flood.cpu_ns / flood.received;
    printf("  %-18s %14.0f %10.0f of %.0f\n", who, cost, flood.sent - flood.received, flood.sent);
    return cost;
}

static void measure_flood(flood_kind_t kind, const char *name)
{
    const size_t turns = full_or_quick(5, 2);
    announcements_t cards(CARDS);
    const wire_t wire("card0", 0);
    flood_t bare;
    flood_t library;
    for (size_t i = 0; i < turns; ++i) {
        progress("flood, turn", i, turns);
        flood_bare_loop(kind, &cards, wire, &bare);
        flood_library(kind, &cards, wire, &library);
    }
    progress("", turns, turns);
    release_cpus();

    printf("\nAnnouncements of %zu cards %s\n"
           "                       CPU ns/frame       lost\n",
           CARDS, name);
    const double bare_cost = print_flood("bare capture loop", bare);
    const double library_cost = print_flood("fxm", library);
    printf("  %-18s %14.2f\n", "fxm / bare", library_cost / bare_cost);
    if (kind == FULL_SPEED)
        printf("  %.0f frames/s through the bare loop, %.0f through fxm, which is %.2f of it\n",
               bare.received / bare.seconds, library.received / library.seconds,
               library.received / library.seconds / (bare.received / bare.seconds));
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    measure_latency();
    measure_flood(FULL_SPEED, "as fast as one CPU sends them");
    measure_flood(BURSTS, "in bursts, each taken out when all of it is there");
    return bench_end();
}
