// What the library costs besides frames: a record out of the tables, a start, a stop, the memory of a card, and how
// long a status dump keeps other callers waiting.
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bare_log.h"
#include "host.h"
#include "setup.h"
#include "wire.h"

constexpr size_t FABRIC = 65536;
constexpr char NEVER_SILENT[] = "devinfo_expire_time = 100000\n"; // nobody announces the cards again

static double ms_since(int64_t begun) { return static_cast<double>(now_ns() - begun) / 1e6; }

// ---------------------------------------------------------------------------------------------------------- the tables

// A limit of 1 makes the library count the cards without a list.
static uint32_t cards_known(int (*ids)(uint64_t **, uint32_t *))
{
    uint64_t *list = nullptr;
    uint32_t count = 1;
    ids(&list, &count);
    fxm_free_idlist(list);
    return count;
}

// FXSV cards alone, with the ids from FIRST_FXSV on.
static void make_fxsv_alone(announcements_t *cards)
{
    for (size_t i = 1; i < cards->frame.size(); i += 2) {
        cards->frame[i] = from(FIRST_FXSV + i, fxsv_1g_frame());
        cards->part[i] = {cards->frame[i].data(), cards->frame[i].size()};
    }
}

// Announces the cards until the library knows all of them.
static void fill_tables(announcements_t *cards)
{
    const wire_t wire("card0", 0);
    const auto all_known = [=] {
        return cards_known(fxm_get_fxsvids) + cards_known(fxm_get_fxioids) == cards->frame.size();
    };
    const auto announce = [&] {
        cards->send(wire);
        // A frame that was lost is sent again with all others.
        for (int ms = 0; ms < 2000 && !all_known(); ++ms)
            sleep_until(now_ns() + 1000000);
        return all_known();
    };
    wait_until(announce, "the cards to be in the tables");
}

// ------------------------------------------------------------------------------------------------------- one record

// The least that a table of records costs: a look-up and a copy under a lock, and the two counters of a call, each
// under a lock.
struct bare_table_t {
    std::mutex lock;
    std::unordered_map<uint64_t, fxm_fxsv_t> cards;
    std::mutex counter_lock[2];
    uint64_t counter[2] = {};

    void count(size_t which)
    {
        const std::lock_guard guard(counter_lock[which]);
        ++counter[which];
    }
    // Not inlined, so that the record is copied although the caller reads one field.
    __attribute__((noinline)) bool get(uint64_t id, fxm_fxsv_t *out)
    {
        count(0);
        bool found = false;
        {
            const std::lock_guard guard(lock);
            const auto card = cards.find(id);
            found = card != cards.end();
            if (found)
                *out = card->second;
        }
        count(1);
        return found;
    }
};

// Microseconds a call, over all ids.
template <typename Get> static double us_a_call(const std::vector<uint64_t> &ids, size_t passes, Get get)
{
    fxm_fxsv_t record;
    size_t wrong = 0;
    const int64_t begun = now_ns();
    for (size_t i = 0; i < passes; ++i) {
        for (const uint64_t id : ids)
            wrong += get(id, &record) && record.fsv_card.fcd_id == id ? 0 : 1;
    }
    const double us = static_cast<double>(now_ns() - begun) / 1000;
    if (wrong != 0)
        fail("%zu records are not there", wrong);
    return us / static_cast<double>(passes * ids.size());
}

static void measure_get_fxsv()
{
    constexpr size_t rounds = 15;
    const size_t passes = full_or_quick(200, 50);
    announcements_t cards(1000);
    make_fxsv_alone(&cards);
    start_library(NEVER_SILENT);
    fill_tables(&cards);
    std::vector<uint64_t> ids(cards.frame.size());
    std::iota(ids.begin(), ids.end(), FIRST_FXSV);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
    bare_table_t table;
    for (const uint64_t id : ids)
        fxm_get_fxsv(id, &table.cards[id]);

    std::vector<double> bare;
    std::vector<double> library;
    for (size_t i = 0; i < rounds; ++i) {
        bare.push_back(us_a_call(ids, passes, [&](uint64_t id, fxm_fxsv_t *out) { return table.get(id, out); }));
        library.push_back(us_a_call(
            ids, passes, [](uint64_t id, fxm_fxsv_t *out) { return fxm_get_fxsv(id, out) == FXM_API_SUCCESS; }));
    }
    stop_library();
    printf("fxm_get_fxsv over 1000 cards in random order\n");
    row("get_fxsv", median(library), median(bare), "us", {goal_t::FIGURE_AT_MOST, 0.25});
}

// ------------------------------------------------------------------------------------------------------ start and stop

// The library on a thread that notes when fxm_init_manager has returned.
class run_t
{
  public:
    // Starts it and polls until it answers: ms from the call of fxm_init_manager. The poll does not sleep, but it
    // yields: on a busy machine it would otherwise keep the start itself waiting for a CPU.
    double start(const std::filesystem::path &dir)
    {
        std::atomic<int64_t> called{0};
        thread = std::thread([this, dir = dir.string(), &called] {
            called = now_ns();
            result = fxm_init_manager(dir.c_str(), FXM_LOG_WARN);
            returned = now_ns();
        });
        while (fxm_start_manager() == FXM_API_ENOSYS) {
            if (returned != 0)
                fail("fxm_init_manager has returned %d", result.load());
            sched_yield();
        }
        return ms_since(called);
    }

    // ms from fxm_fini_manager to the return of fxm_init_manager
    double stop()
    {
        const int64_t begun = now_ns();
        fxm_fini_manager();
        thread.join();
        if (result != FXM_API_SUCCESS)
            fail("the library has stopped with %d", result.load());
        return static_cast<double>(returned - begun) / 1e6;
    }

  private:
    std::thread thread;
    std::atomic<int> result{0};
    std::atomic<int64_t> returned{0};
};

// The capture of a port, opened like the library's; the closing is not counted.
static double open_ms()
{
    const int64_t begun = now_ns();
    pcap_t *handle = open_port("fxm0");
    const double ms = ms_since(begun);
    pcap_close(handle);
    return ms;
}

static double find_devices_ms()
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_if_t *devices = nullptr;
    const int64_t begun = now_ns();
    if (pcap_findalldevs(&devices, errbuf) != 0)
        fail("no list of devices: %s", errbuf);
    pcap_freealldevs(devices);
    return ms_since(begun);
}

// What the library may take for a stop: a look at its flag, devinfo_flag_check_interval, and the longest wait of a
// worker.
constexpr double STOP_ALLOWED_MS = 100 + 1000;

static void measure_start_and_stop()
{
    const size_t rounds = full_or_quick(25, 9);
    const std::filesystem::path dir = configure("");
    run_t first; // the one that reads programs and files into memory
    first.start(dir);
    first.stop();
    std::vector<double> open, find, start, stop;
    for (size_t i = 0; i < rounds; ++i) {
        progress("start and stop", i, rounds);
        run_t library;
        open.push_back(open_ms());
        find.push_back(find_devices_ms());
        start.push_back(library.start(dir));
        stop.push_back(library.stop());
    }
    progress("", rounds, rounds);
    printf("%zu starts and stops; of a start, %.1f ms open the capture and %.1f ms list the devices\n", rounds,
           median(open), median(find));
    row("start", median(start), median(open), "ms", {goal_t::FIGURE_AT_MOST, 20});
    row("stop", median(stop), STOP_ALLOWED_MS, "ms", {goal_t::TOLD, 0});
}

static void measure_stop_with_cards(announcements_t *cards)
{
    const size_t rounds = full_or_quick(9, 5);
    const std::filesystem::path dir = configure(NEVER_SILENT);
    std::vector<double> stop;
    for (size_t i = 0; i < rounds; ++i) {
        progress("stop with all cards", i, rounds);
        run_t library;
        library.start(dir);
        fill_tables(cards);
        stop.push_back(library.stop());
    }
    progress("", rounds, rounds);
    printf("%zu stops with %zu cards\n", rounds, FABRIC);
    row("stop_65536", median(stop), STOP_ALLOWED_MS, "ms", {goal_t::TOLD, 0});
}

// -------------------------------------------------------------------------------------------------------------- memory

static double resident_bytes()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string word; rollup >> word;) {
        double kib = 0;
        if (word == "Rss:" && rollup >> kib)
            return kib * 1024;
    }
    fail("the kernel does not tell the resident memory");
}

// What `measure` returns in a child process, which begins with the heap of this one. Before any thread.
template <typename Measure> static double in_child(Measure measure)
{
    int result[2];
    if (pipe(result) != 0)
        fail("no pipe: %s", strerror(errno));
    const pid_t id = fork();
    if (id < 0)
        fail("cannot fork: %s", strerror(errno));
    if (id == 0) {
        const double value = measure();
        _exit(write(result[1], &value, sizeof(value)) == sizeof(value) ? 0 : 1); // the library still runs
    }
    close(result[1]);
    double value = 0;
    const bool got = read(result[0], &value, sizeof(value)) == sizeof(value);
    close(result[0]);
    waitpid(id, nullptr, 0);
    if (!got)
        fail("a child process has told nothing");
    return value;
}

static double library_growth(announcements_t *cards)
{
    start_library(NEVER_SILENT);
    const double before = resident_bytes();
    fill_tables(cards);
    return (resident_bytes() - before) / FABRIC;
}

// What the heap gives out for an FXSV card: chunks of 624 bytes for the card's node and of 96 bytes for the node of its
// write lock, 8 bytes of each being the heap's own. A thread of its own makes and writes them, as in the library.
static double bare_growth()
{
    double growth = 0;
    std::thread([&] {
        static constexpr size_t sizes[] = {624 - 8, 96 - 8};
        const double before = resident_bytes();
        for (size_t i = 0; i < 2 * FABRIC; ++i) {
            void *volatile memory = malloc(sizes[i % 2]);
            memset(memory, 1, sizes[i % 2]);
        }
        growth = resident_bytes() - before;
    }).join();
    return growth / FABRIC;
}

static void measure_memory()
{
    constexpr size_t rounds = 5;
    announcements_t cards(FABRIC);
    make_fxsv_alone(&cards);
    std::vector<double> bare;
    std::vector<double> library;
    for (size_t i = 0; i < rounds; ++i) {
        bare.push_back(in_child(bare_growth));
        library.push_back(in_child([&] { return library_growth(&cards); }));
    }
    printf("Resident memory of %zu FXSV cards\n", FABRIC);
    row("memory", median(library), median(bare), "B", {goal_t::RATIO_AT_MOST, 1.1});
}

// ------------------------------------------------------------------------------------------------------------ the dump

struct dump_cost_t {
    double longest_wait_ms, dump_ms;
    double bare_ms; // the writing of the same lines
};

// How long at most fxm_get_fxsv takes on another thread while the dump is written.
static void dump_beside_caller(uint32_t verbose, dump_cost_t *cost)
{
    std::atomic<bool> ready{false};
    std::atomic<bool> done{false};
    const auto keep_calling = [&] {
        fxm_fxsv_t record;
        while (!done) {
            const int64_t begun = now_ns();
            if (fxm_get_fxsv(FIRST_FXSV, &record) != FXM_API_SUCCESS)
                fail("the first card is not there");
            cost->longest_wait_ms = std::max(cost->longest_wait_ms, ms_since(begun));
            ready = true;
        }
    };
    std::thread caller(keep_calling);
    while (!ready)
        sched_yield();
    const int64_t begun = now_ns();
    fxm_stdump(verbose);
    cost->dump_ms = ms_since(begun);
    done = true;
    caller.join();
}

// Writes the lines of the file from `offset` on through an appender like the library's; reading them does not count.
static double write_same_lines(const std::filesystem::path &file, std::streamoff offset)
{
    constexpr size_t batch = 4096;
    std::ifstream in(file);
    in.seekg(offset);
    std::vector<std::string> lines(batch);
    double ms = 0;
    for (size_t number = batch; number == batch;) {
        for (number = 0; number < batch && std::getline(in, lines[number]); ++number)
            continue;
        const int64_t begun = now_ns();
        for (size_t i = 0; i < number; ++i)
            write_bare_log(lines[i]);
        ms += ms_since(begun);
    }
    return ms;
}

static dump_cost_t measure_dump(const std::filesystem::path &dir, uint32_t verbose)
{
    const std::filesystem::path file = dir / "statslogfile";
    const std::filesystem::path bare = dir / "barelog";
    const auto offset = static_cast<std::streamoff>(std::filesystem::file_size(file));
    dump_cost_t cost = {};
    dump_beside_caller(verbose, &cost);
    open_bare_log(bare, "%m%n"); // as in the installation that the library has
    cost.bare_ms = write_same_lines(file, offset);
    close_bare_log();
    if (std::filesystem::file_size(bare) + static_cast<uintmax_t>(offset) != std::filesystem::file_size(file))
        fail("the dump and its copy differ");
    std::filesystem::remove(bare);
    std::filesystem::resize_file(file, static_cast<uintmax_t>(offset)); // the library appends
    return cost;
}

static void print_dump(const char *what, size_t cards, const dump_cost_t &cost)
{
    printf("A %s of %zu cards: %.0f ms, another caller waits for %.0f ms at most, its lines alone take %.0f ms\n", what,
           cards, cost.dump_ms, cost.longest_wait_ms, cost.bare_ms);
}

static void measure_dumps(announcements_t *cards)
{
    const size_t rounds = full_or_quick(9, 5);
    start_library(NEVER_SILENT);
    const std::filesystem::path dir = configure(NEVER_SILENT);
    fill_tables(cards);
    dump_cost_t last = {};
    std::vector<double> wait, bare;
    for (size_t i = 0; i < rounds; ++i) {
        progress("status dump", i, rounds);
        last = measure_dump(dir, 0);
        wait.push_back(last.longest_wait_ms);
        bare.push_back(last.bare_ms);
    }
    progress("", rounds, rounds);
    stop_library();
    print_dump("status dump", FABRIC, last);
    row("dump_lock", median(wait), median(bare), "ms", {goal_t::TOLD, 0});
}

// All fields of all cards: nine million lines. Once, for information.
static void measure_whole_dump()
{
    announcements_t cards(full_or_quick(FABRIC, 2000));
    start_library(NEVER_SILENT);
    fill_tables(&cards);
    print_dump("verbose dump", cards.frame.size(), measure_dump(configure(NEVER_SILENT), 1));
    stop_library();
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    measure_memory(); // while the process has no threads
    measure_get_fxsv();
    measure_start_and_stop();
    {
        announcements_t cards(FABRIC);
        measure_stop_with_cards(&cards);
        measure_dumps(&cards);
    }
    measure_whole_dump();
    return bench_end();
}
