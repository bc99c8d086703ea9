// How soon a card's announcement is in its record, and what a flood of announcements costs the receive thread in
// comparison with a loop that only takes the frames out of the same capture.
#include <pcap/pcap.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "setup.h"
#include "wire.h"

// ------------------------------------------------------------------------------------------------------------ latency

// The number of the frame that a record of the card was made from.
static size_t frame_number(const fxm_fxsv_t &record)
{
    return static_cast<size_t>(record.fsv_card.fcd_flowid) << 8 | record.fsv_card.fcd_linkstatus;
}

static std::atomic<size_t> updates; // each frame but the first raises one event, and events come in order
static std::vector<int64_t> seen_in_callback;

static void on_update(uint64_t, int32_t, uint64_t)
{
    const size_t number = updates.load() + 1;
    if (number < seen_in_callback.size())
        seen_in_callback[number] = now_ns();
    updates.store(number);
}

static void print_latency(const char *what, const summary_t &us)
{
    printf("  %-28s %8.0f %8.0f %8.0f\n", what, us.median, us.p99, us.max);
}

static void measure_latency()
{
    const size_t frames = full_or_quick(5000, 500);
    seen_in_callback.assign(frames + 1, 0);
    start_library("");
    void *cbid = nullptr;
    if (fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_update, 0, &cbid) != FXM_API_SUCCESS)
        fail("no callback");
    const int wire = open_wire("card0", 0);
    std::vector<uint8_t> frame = fxsv_frame(FIRST_FXSV);
    std::vector<int64_t> sent;
    std::vector<double> record_us;
    std::vector<double> callback_us;
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (size_t number = 0; number <= frames; ++number) {
        next.tv_nsec += 1000000;
        next.tv_sec += next.tv_nsec / 1000000000;
        next.tv_nsec %= 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        frame[AT_FLOW_ID] = static_cast<uint8_t>(number >> 8);
        frame[AT_LINK_STATUS] = static_cast<uint8_t>(number);
        sent.push_back(now_ns());
        send_frame(wire, frame);
        fxm_fxsv_t record;
        const auto there = [&] {
            return fxm_get_fxsv(FIRST_FXSV, &record) == FXM_API_SUCCESS && frame_number(record) == number;
        };
        wait_until(there, "a frame in its record");
        record_us.push_back(static_cast<double>(now_ns() - sent.back()) / 1000);
        progress("latency, frame", number, frames);
    }
    wait_until([=] { return updates.load() == frames; }, "the last callback");
    for (size_t number = 1; number <= frames; ++number)
        callback_us.push_back(static_cast<double>(seen_in_callback[number] - sent[number]) / 1000);
    stop_library();
    close(wire);

    printf("From the sending of a frame, %zu frames at 1 kHz           us\n"
           "                                 median      p99      max\n",
           frames);
    const summary_t record = summarise(record_us);
    print_latency("to the card's record", record);
    print_latency("to the host's callback", summarise(callback_us));
    demand("p99 to the record", record.p99 / 1000, 5, " ms");
}

// -------------------------------------------------------------------------------------------------------------- flood

constexpr size_t CARDS = 10000;
constexpr unsigned SENDER_CPU = 0, RECEIVER_CPU = 1;

struct flood_t {
    double seconds = 0, cpu_ns = 0; // of the receiving thread
    uint64_t sent = 0, received = 0;
    void add(const flood_t &other)
    {
        seconds += other.seconds;
        cpu_ns += other.cpu_ns;
        sent += other.sent;
        received += other.received;
    }
};

// The library's way of opening a port: every frame at once, read without blocking, room for 60,000 frames.
static pcap_t *open_capture()
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_create("fxm0", errbuf);
    if (handle == nullptr)
        fail("no capture: %s", errbuf);
    pcap_set_snaplen(handle, 1024);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, 1000);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, 64 * 1024 * 1024);
    if (pcap_activate(handle) < 0 || pcap_setnonblock(handle, 1, errbuf) != 0)
        fail("no capture: %s", pcap_geterr(handle));
    return handle;
}

static int64_t own_cpu_ns()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

// Takes frames until `sent` says how many have left and they are in, or none has come for a while. It looks at each as
// little as one can: at one byte.
static void read_frames(const std::atomic<uint64_t> &sent, pcap_t *handle, flood_t *flood)
{
    pollfd ready = {pcap_get_selectable_fd(handle), POLLIN, 0};
    pcap_pkthdr *header = nullptr;
    const uint8_t *frame = nullptr;
    uint64_t bytes = 0;
    const int64_t cpu = own_cpu_ns();
    const int64_t begun = now_ns();
    for (;;) {
        uint64_t before = flood->received;
        for (; pcap_next_ex(handle, &header, &frame) == 1; ++flood->received)
            bytes += frame[18];
        if (before != flood->received)
            flood->seconds = static_cast<double>(now_ns() - begun) / 1e9;
        const uint64_t expected = sent.load();
        const bool quiet = flood->received != expected && poll(&ready, 1, 200) == 0;
        if (expected != 0 && (quiet || flood->received == expected))
            break;
    }
    flood->cpu_ns = static_cast<double>(own_cpu_ns() - cpu);
    if (bytes != 0x10 * flood->received)
        fail("foreign frames on the wire");
}

static flood_t flood_bare_loop(announcements_t *cards, int wire, size_t rounds)
{
    flood_t flood;
    std::atomic<uint64_t> sent{0};
    pcap_t *handle = open_capture();
    hold_to_cpu(RECEIVER_CPU);
    std::thread reader([&] { read_frames(sent, handle, &flood); });
    hold_to_cpu(SENDER_CPU);
    for (size_t i = 0; i < rounds; ++i)
        cards->send(wire);
    flood.sent = rounds * CARDS;
    sent.store(flood.sent);
    reader.join();
    pcap_close(handle);
    return flood;
}

// How much the busiest thread of the library has worked since `before`: the receive thread, in a flood.
static int64_t busiest_since(const std::vector<std::pair<pid_t, int64_t>> &before)
{
    std::map<pid_t, int64_t> times(before.begin(), before.end());
    int64_t most = 0;
    for (const auto &[id, time] : thread_times()) {
        if (id != getpid()) // the sender
            most = std::max(most, time - times[id]);
    }
    return most;
}

// Behind all frames comes that of a card of its own, until its record shows that they have been dealt with.
static uint64_t send_fence(int wire)
{
    constexpr uint64_t fence = 0x020000ffff00;
    const std::vector<uint8_t> frame = fxio_frame(fence);
    fxm_fxio_t record;
    for (uint64_t sent = 1; sent < 100; ++sent) {
        send_frame(wire, frame);
        for (int ms = 0; ms < 300; ++ms) {
            if (fxm_get_fxio(fence, &record) == FXM_API_SUCCESS)
                return sent;
            usleep(1000);
        }
    }
    fail("the library does not get through the flood");
}

static flood_t flood_library(announcements_t *cards, int wire, size_t rounds)
{
    hold_to_cpu(RECEIVER_CPU);
    start_library("devinfo_expire_time = 100000\n");
    hold_to_cpu(SENDER_CPU);
    cards->send(wire); // the tables are full from here on
    wait_for_cards(CARDS);

    flood_t flood;
    const uint64_t received = counter("FXM_STATS_R_TOTAL");
    const auto times = thread_times();
    const int64_t begun = now_ns();
    for (size_t i = 0; i < rounds; ++i)
        cards->send(wire);
    flood.sent = rounds * CARDS + send_fence(wire);
    flood.seconds = static_cast<double>(now_ns() - begun) / 1e9;
    flood.cpu_ns = static_cast<double>(busiest_since(times));
    flood.received = counter("FXM_STATS_R_TOTAL") - received;
    stop_library();
    return flood;
}

static void print_flood(const char *who, const flood_t &flood)
{
    const auto received = static_cast<double>(flood.received);
    printf("  %-18s %10.0f %14.0f %12llu of %llu\n", who, received / flood.seconds, flood.cpu_ns / received,
           static_cast<unsigned long long>(flood.sent - flood.received), static_cast<unsigned long long>(flood.sent));
}

static void measure_flood()
{
    const size_t turns = full_or_quick(5, 2);
    const size_t rounds = full_or_quick(100, 20);
    announcements_t cards(CARDS);
    const int wire = open_wire("card0", 0);
    flood_t bare;
    flood_t library;
    for (size_t i = 0; i < turns; ++i) {
        progress("flood, turn", i, turns);
        bare.add(flood_bare_loop(&cards, wire, rounds));
        library.add(flood_library(&cards, wire, rounds));
    }
    progress("", 0, 0);
    release_cpus();
    close(wire);

    printf("\nA flood of announcements of %zu cards, as fast as one CPU sends; the receiving thread has %s\n"
           "                       frames/s   CPU ns/frame         lost\n",
           CARDS, cpus() > 1 ? "another CPU" : "the same CPU");
    print_flood("bare capture loop", bare);
    print_flood("fxm", library);
    const auto rate = [](const flood_t &f) { return static_cast<double>(f.received) / f.seconds; };
    const auto cost = [](const flood_t &f) { return f.cpu_ns / static_cast<double>(f.received); };
    printf("  %-18s %10.2f %14.2f\n", "fxm / bare", rate(library) / rate(bare), cost(library) / cost(bare));
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm0", "card0");
    measure_latency();
    measure_flood();
    return bench_end();
}
