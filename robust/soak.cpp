// A large fabric and a busy host for minutes: 1,000 cards, 16 threads, events of every kind, links that flap, a wall clock
// that steps, and restarts of the library. What is not disturbed must succeed, and memory must stay flat.
// Usage: soak MINUTES [--seed N]; scripts/soak runs it.
#include <malloc.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "calls.h"
#include "core/fxm_locks.h"
#include "diag/fxm_snapshot.h"
#include "host.h"
#include "net.h"
#include "sim.h"
#include "wait.h"

using std::chrono::milliseconds;

constexpr uint64_t FXSV = 0x020000010000, FXSV40 = 0x020000011000, FXIO_CARDS = 0x020000012000;
constexpr uint32_t EACH = 250; // cards of each of the first two, and twice as many of the last
constexpr uint32_t CARDS = 4 * EACH;
constexpr uint32_t RESTLESS = 25; // of each, the first ones: they move, disappear, and leave the monitoring
constexpr int64_t LONGEST_CALL = 60000;
constexpr auto RELAXED = std::memory_order_relaxed;

// What a run may cost: growth after the warm-up, and a stop. A stop may take 1.1 s and what is running; the rest is for
// a machine that is busy with other things.
constexpr uint32_t WARM_UP = 2; // runs
constexpr int64_t HEAP_GROWTH = 256 << 10, RESIDENT_GROWTH = 4 << 20;
constexpr int64_t LONGEST_STOP = 5000;

// The kernel frees the ring of a port only when no CPU can still use it, which takes seconds on a busy machine. That is
// told apart from what the library does. The linker sends the library's calls here.
static std::atomic<int64_t> closing{0};
extern "C" void __real_pcap_close(pcap_t *handle);
extern "C" void __wrap_pcap_close(pcap_t *handle)
{
    const int64_t before = steady_ms();
    __real_pcap_close(handle);
    closing += steady_ms() - before;
}

constexpr uint32_t THREADS = 16;
static uint32_t seed;
static std::atomic<bool> quit{false}, park{true};
static std::atomic<uint32_t> parked{0};
static std::atomic<uint64_t> delivered[FXM_EVT_KINDS];
static std::atomic<int64_t> clock_offset{0};
static uint64_t dump_hold; // of fx_lock, the longest of a status dump with all fields

static void sleep_ms(int64_t ms) { std::this_thread::sleep_for(milliseconds(ms)); }
static unsigned long long ull(uint64_t value) { return value; }

// ---------------------------------------------------------------------------------------------------------- disturbance

// A call may fail while the fabric is disturbed, and for so long after: a request is on its way, channels are down until
// the next frame.
constexpr int64_t DISTURBED = 5000;
static std::atomic<int64_t> disturbed_until{INT64_MAX};

// It only adds to what is left: a start or a stop is a disturbance without a known end.
static void disturb()
{
    const int64_t until = steady_ms() + DISTURBED;
    int64_t known = disturbed_until.load();
    while (known < until && !disturbed_until.compare_exchange_weak(known, until)) {
    }
}

// A call that must succeed, unless the fabric is or becomes disturbed meanwhile.
template <typename Call> static bool sure(fxm_api_row_t row, Call call)
{
    const int64_t begin = steady_ms();
    const int64_t known = disturbed_until.load();
    const int result = timed(row, call);
    if (result != FXM_API_SUCCESS && begin > known && disturbed_until.load() == known)
        finding("%s has returned %d while all was well", fxm_row_names[row], result);
    return result == FXM_API_SUCCESS;
}

// --------------------------------------------------------------------------------------------------------- host threads

static uint64_t some_card(dice_t *dice, bool restless)
{
    const uint64_t first[] = {FXSV, FXSV40, FXIO_CARDS};
    return first[dice->below(3)] +
           uint64_t{2} * (restless ? dice->below(RESTLESS) : RESTLESS + dice->below(EACH - RESTLESS));
}

// Each thread has a register of its own on every card.
static void use_registers(uint32_t number, dice_t *dice)
{
    const uint64_t id = some_card(dice, false);
    const uint32_t own = 0x1000 + 4 * number;
    const uint32_t value = dice->below(UINT32_MAX);
    uint32_t got = 0;
    if (!sure(FXM_ROW_WRITE_REGISTER, [&] { return fxm_write_register(id, own, value, nullptr, FXM_FLAG_VERIFY); }) ||
        !sure(FXM_ROW_MODIFY_REGISTER,
              [&] { return fxm_modify_register(id, own, 0x5a, 0xff, nullptr, FXM_FLAG_VERIFY); }))
        return;
    if (sure(FXM_ROW_READ_REGISTER, [&] { return fxm_read_register(id, own, &got, nullptr, 0); }) &&
        got != ((value & ~0xffu) | 0x5a))
        finding("a register holds 0x%08x and not 0x%08x", got, (value & ~0xffu) | 0x5a);
    uint32_t buffer[4];
    uint64_t size = sizeof(buffer);
    sure(FXM_ROW_DUMP_REGISTER, [&] { return fxm_dump_register(id, 0x1000, 0x1010, buffer, &size, nullptr, 0); });
}

static void use_eeprom(uint32_t number, dice_t *dice)
{
    // One card for each thread: calls for one card wait for each other.
    const uint64_t id = (dice->one_in(2) ? FXSV : FXSV40) + 2 * (RESTLESS + uint64_t{number});
    uint32_t words[32];
    uint64_t size = sizeof(words);
    const uint32_t begin = 4 * dice->below(512 - 32);
    const uint32_t end = begin + 4 * (1 + dice->below(32));
    if (!sure(FXM_ROW_DUMP_EEPROM, [&] { return fxm_dump_eeprom(id, begin, end, words, &size, nullptr, 0); }))
        return;
    for (uint32_t at = begin; at < end; at += 4) {
        const uint32_t expected = 7u * 0x01000193u ^ at * 0x9e3779b1u; // as the simulator fills it
        if (words[(at - begin) / 4] != expected)
            finding("the EEPROM holds 0x%08x at 0x%x", words[(at - begin) / 4], at);
    }
}

static void query(uint32_t, dice_t *dice)
{
    const uint64_t id = some_card(dice, false);
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (id < FXIO_CARDS)
        sure(FXM_ROW_GET_FXSV, [&] { return fxm_get_fxsv(id, &fxsv); });
    else
        sure(FXM_ROW_GET_FXIO, [&] { return fxm_get_fxio(id, &fxio); });
}

template <typename Call> static void list_cards(fxm_api_row_t row, uint32_t least, Call call)
{
    uint64_t *list = nullptr;
    uint32_t count = 0;
    const int64_t begin = steady_ms();
    const int64_t known = disturbed_until.load();
    if (sure(row, [&] { return call(&list, &count); }) && begin > known && disturbed_until.load() == known &&
        count < least)
        finding("%s knows %u cards", fxm_row_names[row], count);
    timed(FXM_ROW_FREE_IDLIST, [&] { return fxm_free_idlist(list); });
}

static void list_all(uint32_t, dice_t *dice)
{
    const uint64_t since = now_ms() - dice->below(2000);
    const auto group = static_cast<uint16_t>(100 + dice->below(3));
    list_cards(FXM_ROW_GET_FXSVIDS, CARDS / 2 - 2 * RESTLESS, fxm_get_fxsvids);
    list_cards(FXM_ROW_GET_FXIOIDS, CARDS / 2 - RESTLESS, fxm_get_fxioids);
    list_cards(FXM_ROW_GET_UPDATE_FXSVIDS, 0,
               [=](auto list, auto count) { return fxm_get_update_fxsvids(since, list, count); });
    list_cards(FXM_ROW_GET_UPDATE_FXIOIDS, 0,
               [=](auto list, auto count) { return fxm_get_update_fxioids(since, list, count); });
    list_cards(FXM_ROW_GET_GROUP_FXSVIDS, 0,
               [=](auto list, auto count) { return fxm_get_group_fxsvids(group, list, count); });
    list_cards(FXM_ROW_GET_GROUP_FXIOIDS, 0,
               [=](auto list, auto count) { return fxm_get_group_fxioids(group, list, count); });
}

static void write_dump(uint32_t, dice_t *)
{
    sure(FXM_ROW_STDUMP, [&] { return fxm_stdump(0); });
    sleep_ms(300); // so that they do not fill the disk
}

// What changes the restless cards. Their calls may fail, because others change them too.
static void change_cards(uint32_t, dice_t *dice)
{
    const uint64_t id = some_card(dice, true);
    const auto vlan = static_cast<uint16_t>(100 + dice->below(3));
    timed(FXM_ROW_SET_VLANID, [&] { return fxm_set_vlanid(id, vlan, nullptr, FXM_FLAG_VERIFY); });
    sure(FXM_ROW_STOP_MONITOR, [&] { return fxm_stop_monitor(id); });
    sure(FXM_ROW_RESTART_MONITOR, [&] { return fxm_restart_monitor(id); });
    timed(FXM_ROW_SEND_RESETFRAME, [&] { return fxm_send_resetframe(id, 1, nullptr, 0); });
    if (id < FXIO_CARDS)
        timed(FXM_ROW_DELETE_FXSV, [&] { return fxm_delete_fxsv(id); });
    else
        timed(FXM_ROW_DELETE_FXIO, [&] { return fxm_delete_fxio(id); });
    sleep_ms(100);
}

static void work(uint32_t number)
{
    static constexpr void (*rounds[THREADS])(uint32_t, dice_t *) = {
        use_registers, use_registers, use_registers, use_registers, use_registers, use_registers,
        use_eeprom,    use_eeprom,    use_eeprom,    query,         query,         query,
        list_all,      list_all,      write_dump,    change_cards};
    name_thread("host " + std::to_string(number));
    dice_t dice(seed + 100 + number);
    while (!quit.load(RELAXED)) {
        if (park.load()) {
            parked.fetch_add(1);
            while (park.load())
                sleep_ms(1);
            parked.fetch_sub(1);
        }
        rounds[number](number, &dice);
        sleep_ms(1 + dice.below(4)); // a busy host, not one that wants the whole machine
    }
}

static void on_event(uint64_t id, int32_t type, uint64_t)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (id < FXIO_CARDS)
        timed(FXM_ROW_GET_FXSV, [&] { return fxm_get_fxsv(id, &fxsv); });
    else
        timed(FXM_ROW_GET_FXIO, [&] { return fxm_get_fxio(id, &fxio); });
    delivered[type].fetch_add(1, RELAXED);
}

// ----------------------------------------------------------------------------------------------------------- the fabric

class fabric_t
{
  public:
    fabric_t()
    {
        const std::string each = "count=" + std::to_string(EACH);
        sim.start("--port0 card0 --port1 card1");
        sim.command("fxsv 020000010000 " + each);
        sim.command("fxsv 020000011000 gen=40g " + each);
        sim.command("fxio 020000012000 count=" + std::to_string(2 * EACH));
        sim.command("eeprom-fill all 7");
    }

    // Changes of cards all along, and a fall of a link, a step of the clock or a long dump every ten seconds: half of the time nothing
    // is disturbed.
    void run()
    {
        name_thread("fabric");
        int64_t next = steady_ms() + 8000;
        while (!quit.load(RELAXED)) {
            change();
            sleep_ms(5 + dice.below(20));
            if (steady_ms() < next)
                continue;
            disturb();
            const uint32_t what = dice.below(3);
            if (what == 0)
                flap();
            else if (what == 1)
                step();
            else
                dump();
            next = steady_ms() + 8000 + dice.below(4000);
        }
    }

    std::string counts() { return sim.command("counts all"); }
    uint32_t flaps = 0, steps = 0;

  private:
    // Kinds that nothing else here raises: changes of the record, the connection, the interrupts and the link faults.
    void change()
    {
        static const char *const server[] = {"int=01",    "int=00", "power=no", "power=yes", "down0=020000012000",
                                             "down0=none"};
        static const char *const other[] = {"int=03",       "int=00",     "connected=yes",
                                            "connected=no", "fault0=yes", "fault0=no"};
        char id[32];
        const uint64_t card = some_card(&dice, false);
        snprintf(id, sizeof(id), " %.12llx ", ull(card));
        sim.command(std::string("set") + id + (card < FXIO_CARDS ? server : other)[dice.below(6)]);
        sim.command((dice.one_in(2) ? "announce" : "notify") + std::string(id));
    }

    void flap()
    {
        const std::string end = "card" + std::to_string(dice.below(2));
        set_up(end, false);
        sleep_ms(200 + dice.below(1500));
        disturb(); // the other channels of a card are used from now on
        set_up(end, true);
        flaps += 1;
    }

    // Forward by ten minutes, which takes all channels down, or back to the right time.
    static constexpr int64_t STEP = 600000;
    void step()
    {
        clock_offset.store(clock_offset.load() == 0 ? STEP : 0);
        steps += 1;
    }

    // Received frames wait while all cards are written, and so do answers of cards. So long a hold of fx_lock would hide
    // every other one, so it is kept apart.
    void dump()
    {
        std::atomic<uint64_t> &longest = fxm_holds[FXM_LOCK_FX].hold;
        const uint64_t others = longest.exchange(0);
        timed(FXM_ROW_STDUMP, [] { return fxm_stdump(1); });
        dump_hold = std::max(dump_hold, longest.exchange(others));
        disturb();
    }

    dice_t dice{seed + 1};
    sim_t sim;
};

// ------------------------------------------------------------------------------------------------------------- the soak

struct sample_t {
    int64_t heap, resident;
    size_t threads, descriptors;
};

static int64_t resident_bytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("RssAnon:")) // not the capture rings and the programs
            return 1024 * std::stoll(line.substr(8));
    }
    return 0;
}

static sample_t sample()
{
    malloc_trim(0);
    const struct mallinfo2 info = mallinfo2();
    return {static_cast<int64_t>(info.uordblks + info.hblkhd), resident_bytes(), entries_of("/proc/self/task"),
            entries_of("/proc/self/fd")};
}

static double in_ms(uint64_t ns) { return static_cast<double>(ns) / 1e6; }

static void print_holds()
{
    static_assert(FXM_LOCK_KINDS <= FXM_HOLD_KINDS);
    printf("locks, ms:                     longest wait   longest hold\n");
    for (size_t kind = 0; kind < FXM_LOCK_KINDS; ++kind)
        printf("  %-28s%13.3f%15.3f\n", fxm_lock_rules[kind].name, in_ms(fxm_holds[kind].wait),
               in_ms(fxm_holds[kind].hold));
    printf("  %-28s%28.3f\n", "fx_lock, by a long dump", in_ms(dump_hold));
}

class soak_t
{
  public:
    soak_t()
    {
        installation.configure("ether_port = fxm0 fxm1\nlog_level = 1\nstats_interval = 10\n");
        fxm_platform.wall_clock_ms = [] {
            return static_cast<uint64_t>(static_cast<int64_t>(now_ms()) + clock_offset.load(RELAXED));
        };
        for (const std::string p : {"0", "1"})
            lay_cable("fxm" + p, "card" + p);
    }

    void run(int64_t ms)
    {
        begun = steady_ms();
        end = begun + ms;
        std::vector<std::thread> threads;
        for (uint32_t number = 0; number < THREADS; ++number)
            threads.emplace_back(work, number);
        fabric_t fabric;
        threads.emplace_back([&] { fabric.run(); });
        for (uint32_t run = 0; steady_ms() < end; ++run) {
            start();
            const int64_t until = std::min(end, steady_ms() + (run % 3 == 2 ? 40000 : 10000));
            while (steady_ms() < until)
                show_progress(run);
            stop();
            check(run);
        }
        quit = true;
        park = false;
        for (std::thread &thread : threads)
            thread.join();
        report(&fabric);
    }

  private:
    void start()
    {
        const doing_t doing("a start");
        if (!manager.start(installation.dir, FXM_LOG_CONFIGURED))
            finding("fxm_init_manager has returned %d", manager.result());
        for (auto &kind : delivered)
            kind = 0;
        for (uint32_t kind = 0; kind < FXM_EVT_KINDS; ++kind) {
            void *handle = nullptr;
            timed(FXM_ROW_REGISTER_CALLBACK,
                  [&] { return fxm_register_callback(static_cast<int32_t>(kind), on_event, 0, &handle); });
        }
        timed(FXM_ROW_START_MANAGER, fxm_start_manager);
        park = false;
        if (!poll_until([&] { return known(fxm_get_fxsvids) + known(fxm_get_fxioids) >= CARDS - 4 * RESTLESS; }))
            finding("not all cards have come");
        disturbed_until.store(steady_ms() + DISTURBED);
    }

    static uint32_t known(int (*get)(uint64_t **, uint32_t *))
    {
        uint64_t *list = nullptr;
        uint32_t count = 0;
        get(&list, &count);
        fxm_free_idlist(list);
        return count;
    }

    void stop()
    {
        const doing_t doing("a stop");
        disturbed_until.store(INT64_MAX);
        fxm_snapshot_t last;
        _fxm_snapshot(&last);
        for (const fxm_port_snapshot_t &port : last.port)
            dropped += port.dropped;
        std::copy(std::begin(last.stats.evt_count), std::end(last.stats.evt_count), due);
        for (const uint64_t id : _fxm_blacklist_ids()) {
            if ((id & 0xfff) >= uint64_t{2} * RESTLESS)
                finding("%012llx is out of monitoring", ull(id));
        }
        closing = 0;
        const int64_t before = steady_ms();
        const int result = manager.stop();
        const int64_t took = steady_ms() - before - closing;
        if (result != FXM_API_SUCCESS)
            finding("fxm_init_manager has returned %d", result);
        if (took > LONGEST_STOP)
            finding("a stop has taken %lld ms", static_cast<long long>(took));
        longest_stop = std::max(longest_stop, took);
        longest_closing = std::max(longest_closing, closing.load());
        park = true;
        while (parked.load() != THREADS)
            sleep_ms(1);
    }

    void check(uint32_t run)
    {
        const doing_t doing("the checks after a stop");
        expect_even(0);
        fxm_snapshot_t now;
        _fxm_snapshot(&now);
        for (uint32_t kind = 0; kind < FXM_EVT_KINDS; ++kind) {
            queued[kind] += now.stats.evt_count[kind];
            // What is queued after the stop has been asked for may be discarded.
            if (delivered[kind].load() < due[kind] || delivered[kind].load() > now.stats.evt_count[kind])
                finding("%llu of %s queued, %llu of them before the stop, %llu delivered",
                        ull(now.stats.evt_count[kind]), fxm_event_names[kind], ull(due[kind]),
                        ull(delivered[kind].load()));
            discarded += now.stats.evt_count[kind] - delivered[kind].load();
        }
        for (const auto &port : now.stats.port_frames) {
            received += port[FXM_STATS_R_TOTAL];
            sent += port[FXM_STATS_T_TOTAL];
        }
        for (const char *name : {"logfile", "syslogfile", "statslogfile"})
            std::filesystem::resize_file(installation.dir / name, 0);
        runs = run + 1;
        last_sample = sample();
        resident_series.push_back(last_sample.resident >> 10);
        if (runs <= WARM_UP) {
            first_sample = last_sample;
            return;
        }
        if (last_sample.threads != first_sample.threads || last_sample.descriptors != first_sample.descriptors)
            finding("%zu threads and %zu descriptors after a stop, %zu and %zu at first", last_sample.threads,
                    last_sample.descriptors, first_sample.threads, first_sample.descriptors);
    }

    void show_progress(uint32_t run)
    {
        sleep_ms(500);
        if (isatty(STDOUT_FILENO)) {
            printf("\r%lld of %lld s, run %u, %llu calls, %llu findings ",
                   static_cast<long long>((steady_ms() - begun) / 1000), static_cast<long long>((end - begun) / 1000),
                   run + 1, ull(calls_made()), ull(findings()));
            fflush(stdout);
        }
    }

    void report(fabric_t *fabric)
    {
        const int64_t heap = last_sample.heap - first_sample.heap;
        const int64_t resident = last_sample.resident - first_sample.resident;
        if (runs <= WARM_UP)
            finding("too short: memory is compared after %u runs", WARM_UP);
        if (heap > HEAP_GROWTH || resident > RESIDENT_GROWTH)
            finding("memory has grown");
        if (dropped != 0)
            finding("the kernel has dropped %llu frames", ull(dropped));
        printf("\r%-70s\n", "");
        print_book();
        print_holds();
        printf("events queued; %llu, queued after a stop had been asked for, were discarded:\n", ull(discarded));
        for (uint32_t kind = 0; kind < FXM_EVT_KINDS; ++kind) {
            printf("  %-28s%10llu\n", fxm_event_names[kind], ull(queued[kind]));
            if (queued[kind] == 0)
                finding("no event of a kind");
        }
        printf("frames: %llu in, %llu dropped by the kernel, %llu out\n", ull(received), ull(dropped), ull(sent));
        printf("the cards: %s\n", fabric->counts().c_str());
        printf("%u runs, %u falls of a link, %u steps of the clock; longest stop %lld ms, besides at most %lld ms in "
               "which "
               "the kernel closed the ports\n",
               runs, fabric->flaps, fabric->steps, static_cast<long long>(longest_stop),
               static_cast<long long>(longest_closing));
        printf("after a stop, from run %u to the last: heap %lld to %lld KiB, resident %lld to %lld KiB, %zu to %zu "
               "descriptors, %zu to %zu threads\n",
               WARM_UP, static_cast<long long>(first_sample.heap >> 10), static_cast<long long>(last_sample.heap >> 10),
               static_cast<long long>(first_sample.resident >> 10), static_cast<long long>(last_sample.resident >> 10),
               first_sample.descriptors, last_sample.descriptors, first_sample.threads, last_sample.threads);
        printf("resident KiB after each stop:");
        for (const int64_t kib : resident_series)
            printf(" %lld", static_cast<long long>(kib));
        printf("\n%llu calls, %llu findings\n", ull(calls_made()), ull(findings()));
    }

    const installation_t installation;
    manager_t manager;
    int64_t begun = 0, end = 0, longest_stop = 0, longest_closing = 0;
    uint32_t runs = 0;
    uint64_t dropped = 0, received = 0, sent = 0, queued[FXM_EVT_KINDS] = {}, due[FXM_EVT_KINDS] = {}, discarded = 0;
    std::vector<int64_t> resident_series;
    sample_t first_sample{}, last_sample{};
};

int main(int argc, char **argv)
{
    const options_t options = robust_begin(argc, argv, "Usage: soak MINUTES [--seed N]");
    seed = options.seed;
    mallopt(M_ARENA_MAX, 1); // others keep the most that they ever held, which would hide or feign growth
    name_thread("main");
    fflush(stdout);
    watch(LONGEST_CALL, 60000 * options.amount + 2 * LONGEST_CALL);
    soak_t soak;
    soak.run(60000 * options.amount);
    return findings() == 0 ? 0 : 1;
}
