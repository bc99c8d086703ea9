// Everything that a host and a fabric can do, at random and at once, with a stop every second or so: threads and callbacks
// call all functions with right and wrong arguments, start and stop the library, links flap, cards come, go and lie.
// Usage: storm SECONDS [--seed N]; scripts/storm runs it under ThreadSanitizer.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "calls.h"
#include "frames.h"
#include "host.h"
#include "net.h"
#include "sim.h"
#include "wait.h"

using std::chrono::milliseconds;

constexpr uint32_t WORKERS = 13;         // one of them is inside fxm_init_manager, so twelve call
constexpr int64_t LONGEST_CALL = 120000; // ms; far beyond what the configuration below allows with a sanitizer
constexpr uint64_t FXSV = 0x020000010000, FXSV40 = 0x020000011000, FXIO_CARDS = 0x020000012000;
constexpr uint64_t FLEETING = 0x020000013000; // cards that the fabric adds and removes
constexpr uint64_t LIARS = 0x020000014000;    // ids of hand-written frames, in both classes
constexpr uint32_t EACH = 10;
constexpr auto RELAXED = std::memory_order_relaxed;

// Short waits, so that no call lasts for more than some seconds, and few tags, so that they run out.
static const char *const configuration =
    "ether_port = fxm0 fxm1\ndevinfo_flag_check_interval = 20\n"
    "devinfo_check_interval = 1000\ndevinfo_expire_time = 1000\n"
    "frame_retry_interval = 20\nframe_retry_count = 2\n"
    "frame_retry_interval_livecheck = 20\nframe_retry_count_livecheck = 1\n"
    "tag_max = 23\nstats_interval = 1\nlog_level = 1\n"
    "eeprom_retry_interval = 5\neeprom_retry_count = 10\nforce_lock_try_count = 2\n"
    "eeprom_rw_interval = 5\neeprom_verify_count = 5\neeprom_check_retry_count = 5\n";

static uint32_t seed;
static std::atomic<bool> quit{false}, hold{false}, park{false};
static std::atomic<uint32_t> parked{0};
static std::atomic<int> inside{0}; // threads in a call that may start the library
static std::atomic<int> callbacks_inside{0};
static std::atomic<uint64_t> stops{0}, callbacks{0};
static std::atomic<int64_t> stop_at{0};
static std::atomic<uint64_t> clock_offset{0};

// One allocation in 200 fails while memory is short.
static void *allocate(size_t size)
{
    static std::atomic<uint32_t> count{0};
    return memory_short.load(RELAXED) && count.fetch_add(1, RELAXED) % 200 == 0 ? nullptr : malloc(size);
}

static void sleep_ms(int64_t ms) { std::this_thread::sleep_for(milliseconds(ms)); }

// ------------------------------------------------------------------------------------------------ threads and callbacks

static int call_anything(dice_t *dice)
{
    const auto row = static_cast<fxm_api_row_t>(dice->below(FXM_API_ROWS));
    return timed(row, [=] { return call_row(row, *dice); });
}

// An answer is waited for as long as the configuration says, for a short time, or until a stop.
static const fxm_retry_param_t *retries(const choice_t &choose)
{
    static thread_local fxm_retry_param_t param;
    param = {choose.below(3), choose.one_in(16) ? 0 : choose.one_in(8) ? 1000 : 1 + choose.below(30)};
    return choose.one_in(4) ? nullptr : &param;
}

static void on_event(uint64_t, int32_t, uint64_t arg)
{
    static thread_local dice_t dice(seed + static_cast<uint32_t>(stops.load(RELAXED)));
    const registration_t &registration = registrations[arg];
    in_callback = true;
    callbacks_inside.fetch_add(1, RELAXED);
    callbacks.fetch_add(1, RELAXED);
    if (registration.ended.load(RELAXED))
        finding("a callback through an ended registration");
    if (inside.load(RELAXED) == 0)
        finding("a callback after the stop");
    if (dice.one_in(4))
        call_anything(&dice);
    if (registration.closed.load(RELAXED))
        finding("a registration has been ended under its callback");
    callbacks_inside.fetch_sub(1, RELAXED);
}

static bool start_allowed()
{
    inside.fetch_add(1);
    if (!hold.load())
        return true;
    inside.fetch_sub(1);
    return false;
}

// A run lasts up to three seconds; one in eight is stopped while it starts.
static void started(int result)
{
    static thread_local dice_t dice(seed + 1000 + static_cast<uint32_t>(stops.load(RELAXED)));
    if (result == FXM_API_SUCCESS) {
        if (in_callback)
            finding("a callback has started the library");
        stop_at.store(steady_ms() + (dice.one_in(8) ? 0 : dice.below(3000)), RELAXED);
        stops.fetch_add(1);
    }
    inside.fetch_sub(1);
}

static void work(uint32_t number)
{
    name_thread("caller " + std::to_string(number));
    dice_t dice(seed + 100 + number);
    while (!quit.load(RELAXED)) {
        if (park.load()) {
            parked.fetch_add(1);
            while (park.load())
                sleep_ms(1);
            parked.fetch_sub(1);
        }
        // A library that is stopped or stopping is to be called, but not as fast as it can say so.
        if (call_anything(&dice) == FXM_API_ENOSYS)
            sleep_ms(dice.below(3));
    }
}

// ----------------------------------------------------------------------------------------------------------- the fabric

class fabric_t
{
  public:
    fabric_t() : dice(seed + 1)
    {
        sim.start("--port0 card0 --port1 card1 --period 100");
        for (const std::string cards :
             {"fxsv 020000010000 ", "fxsv 020000011000 gen=40g ", "fxio 020000012000 ver=1 mr=3 "})
            sim.command(cards + "count=" + std::to_string(EACH));
    }

    void run()
    {
        name_thread("fabric");
        static const std::vector<void (fabric_t::*)()> changes = {
            &fabric_t::set_fields, &fabric_t::come_or_go, &fabric_t::misbehave, &fabric_t::hold_lock,
            &fabric_t::lie,        &fabric_t::lie,        &fabric_t::flap,      &fabric_t::set_fields,
            &fabric_t::answer,     &fabric_t::step_clock};
        while (!quit.load(RELAXED)) {
            const doing_t doing("a change of the fabric");
            (this->*changes[dice.below(static_cast<uint32_t>(changes.size()))])();
            const bool stopping = inside.load() != 0 && steady_ms() >= stop_at.load(RELAXED);
            if (stopping && !hurried && dice.one_in(2))
                hurry();
            hurried = stopping;
            sleep_ms(dice.below(20));
        }
        sim.stop();
    }

  private:
    std::string card()
    {
        static const uint64_t classes[] = {FXSV, FXSV40, FXIO_CARDS};
        char text[32];
        snprintf(text, sizeof(text), " %.12llx ",
                 static_cast<unsigned long long>(classes[dice.below(3)] + uint64_t{2} * dice.below(EACH)));
        return text;
    }

    std::string one_of(const std::vector<std::string> &choices)
    {
        return choices[dice.below(static_cast<uint32_t>(choices.size()))];
    }

    void set_fields()
    {
        const std::string id = card();
        sim.command("set" + id +
                    one_of({"int=01", "int=00", "int=83", "vlan=100", "vlan=101", "power=no", "power=yes",
                            "layout=change", "layout=normal", "port0link=no", "engine=busy", "engine=hang",
                            "engine=refuse", "engine=normal", "looks=2", "locktype=id", "locktype=bit"}));
        const bool fxio = id.starts_with(" 020000012");
        sim.command("set" + id +
                    (fxio ? one_of({"connected=yes", "connected=no", "fault0=yes", "fault0=no", "fault1=yes"})
                          : one_of({"down0=020000012000", "down0=none", "down1=020000012002", "status1=0102"})));
        sim.command(one_of({"announce", "notify"}) + id);
    }

    void come_or_go()
    {
        const uint32_t number = dice.below(EACH);
        char id[32];
        snprintf(id, sizeof(id), " %.12llx ", static_cast<unsigned long long>(FLEETING + uint64_t{2} * number));
        sim.command(there[number] ? std::string("remove") + id : one_of({"fxsv", "fxio"}) + id);
        there[number] = !there[number];
        sim.command(one_of({"silent", "speak", "speak", "deaf", "hear", "hear"}) + card());
    }

    void misbehave()
    {
        sim.command("fault" + card() +
                    one_of({"drop count=3", "late ms=30 count=4", "twice count=5", "other-mac count=2",
                            "other-port count=2", "other-tag count=2", "value value=7 count=2", "ignore-write count=2",
                            "ignore-vlan count=1", "drop every=4"}));
        sim.command("heal" + card());
    }

    void hold_lock()
    {
        sim.command("holder" + card() + one_of({"take", "give", "keep 3", "visit 5 3", "gone", "gone"}));
    }

    void flap()
    {
        const uint32_t port = dice.below(2);
        if (up[port] && !dice.one_in(3)) // a link is up for most of the time
            return;
        up[port] = !up[port];
        set_up("card" + std::to_string(port), up[port]);
    }

    void send(uint32_t port, const frame_t &frame)
    {
        if (up[port])
            wire[port].send(frame);
    }

    // Wakes all threads of the library, so that a stop is over as soon as it can be and meets more of the calls.
    void hurry()
    {
        for (int i = 0; i < 20; ++i) {
            set_mtu("card0", 1400 + static_cast<int>(dice.below(100)));
            for (uint32_t port = 0; port < 2; ++port)
                send(port, from(LIARS + 256 + dice.below(32), fxio_frame()));
            sleep_ms(3);
        }
    }

    // Forward, all channels go down in one pass, unless a step back comes before it.
    void step_clock() { clock_offset.store(600000 * dice.below(2), RELAXED); }

    // More than one wake takes: announcements of both classes with the same ids, whose content changes or is cut off.
    void lie()
    {
        for (uint32_t i = dice.below(300); i > 0; --i) {
            frame_t frame = dice.one_in(2) ? fxio_mr_frame() : dice.one_in(2) ? fxsv_40g_frame() : fxsv_1g_frame();
            frame = on_vlan(static_cast<uint16_t>(100 + dice.below(3)),
                            from(LIARS + dice.below(dice.one_in(4) ? 256 : 16), frame));
            for (uint32_t changes = dice.below(6); changes > 0; --changes)
                frame[20 + dice.below(static_cast<uint32_t>(frame.size()) - 20)] =
                    static_cast<uint8_t>(dice.below(256));
            if (dice.one_in(4))
                frame = in_change_layout(frame);
            if (dice.one_in(16))
                frame.resize(dice.one_in(2) ? 28 + dice.below(300) : 14 + dice.below(30));
            send(dice.below(2), frame);
        }
    }

    // Completions that nobody has asked for, or that somebody has asked another card for.
    void answer()
    {
        for (uint32_t i = dice.below(60); i > 0; --i) {
            frame_t frame = from(FXSV + uint64_t{2} * dice.below(EACH), fxio_frame());
            frame[18] = 0x20;
            frame[23] = static_cast<uint8_t>(dice.below(24)); // the tag
            send(dice.below(2), frame);
        }
    }

    dice_t dice;
    sim_t sim;
    wire_t wire[2] = {wire_t("card0", 0), wire_t("card1", 0)};
    bool up[2] = {true, true}, hurried = false;
    bool there[EACH] = {};
};

// ------------------------------------------------------------------------------------------------------------ the storm

class storm_t
{
  public:
    void run(int64_t ms)
    {
        const int64_t end = steady_ms() + ms;
        std::vector<std::thread> threads;
        park = true;
        for (uint32_t number = 0; number < WORKERS; ++number)
            threads.emplace_back(work, number);
        fabric_t fabric;
        threads.emplace_back([&] { fabric.run(); });
        wait_parked();
        while (steady_ms() < end) {
            const uint32_t number = dice.one_in(2) ? 1 : 2 + dice.below(5);
            memory_short = dice.one_in(4);
            runs(number, std::min<int64_t>(end, steady_ms() + 5000 * number));
            check();
        }
        quit = true;
        park = false;
        for (std::thread &thread : threads)
            thread.join();
    }

  private:
    // Lets the threads go until the library has been stopped so often, and leaves it stopped and them parked.
    void runs(uint32_t number, int64_t end)
    {
        const doing_t doing("some starts and stops");
        before = stops.load();
        hold = false;
        park = false;
        while (stops.load() < before + number && steady_ms() < end)
            sleep_ms(5);
        hold = true;
        while (inside.load() != 0) {
            fxm_fini_manager();
            sleep_ms(5);
        }
        sleep_ms(20); // they call the stopped library
        park = true;
        wait_parked();
    }

    void wait_parked()
    {
        while (parked.load() != WORKERS)
            sleep_ms(1);
    }

    void check()
    {
        const doing_t doing("the checks after a stop");
        // Lists are counted by the run that has made them, so only after a single run it is known how many there are.
        expect_even(stops.load() == before + 1 ? held_lists() : -1);
        if (callbacks_inside.load() != 0)
            finding("a callback goes on after the stop");
        free_lists();
        expect_stopped(dice);
        same("threads", "/proc/self/task", &threads_before);
        same("descriptors", "/proc/self/fd", &descriptors_before);
        if (findings() != shown)
            fprintf(stderr, "the log ends with\n%s", log_t(installation.dir / "logfile").tail(30).c_str());
        shown = findings();
        for (const char *name : {"logfile", "syslogfile", "statslogfile"})
            std::filesystem::resize_file(installation.dir / name, 0);
    }

    // A thread that has been joined leaves the list a moment later.
    static void same(const char *what, const char *directory, size_t *first)
    {
        if (*first == 0)
            *first = entries_of(directory);
        else if (!poll_until([&] { return entries_of(directory) == *first; }))
            finding("%zu %s after a stop, %zu after the first", entries_of(directory), what, *first);
    }

  public:
    const installation_t installation;

  private:
    dice_t dice{seed};
    uint64_t before = 0, shown = 0;
    size_t threads_before = 0, descriptors_before = 0;
};

int main(int argc, char **argv)
{
    const options_t options = robust_begin(argc, argv, "Usage: storm SECONDS [--seed N]");
    seed = options.seed;
    for (const std::string p : {"0", "1"})
        lay_cable("fxm" + p, "card" + p);
    storm_t storm;
    const std::string dir = storm.installation.dir;
    storm.installation.configure(configuration);
    fxm_platform.wall_clock_ms = [] { return now_ms() + clock_offset.load(RELAXED); };
    targets.dir = dir.c_str();
    targets.callback = on_event;
    targets.retries = retries;
    targets.start_allowed = start_allowed;
    targets.stop_due = [] { return steady_ms() >= stop_at.load(RELAXED); };
    targets.started = started;
    targets.failed = [](const std::string &what) { finding("%s", what.c_str()); };
    for (uint32_t i = 0; i < EACH; ++i) {
        for (const uint64_t first : {FXSV, FXSV40, FXIO_CARDS, FLEETING, LIARS})
            targets.cards.push_back(first + uint64_t{2} * i);
        targets.prey.push_back(FLEETING + uint64_t{2} * i);
        targets.prey.push_back(LIARS + uint64_t{2} * i);
    }
    fxm_platform.allocate = allocate;
    name_thread("main");
    fflush(stdout);
    watch(LONGEST_CALL, 1000 * options.amount + 2 * LONGEST_CALL);
    storm.run(1000 * options.amount);
    print_book();
    printf("%llu calls, %llu stops, %llu callbacks, %llu findings\n", static_cast<unsigned long long>(calls_made()),
           static_cast<unsigned long long>(stops.load()), static_cast<unsigned long long>(callbacks.load()),
           static_cast<unsigned long long>(findings()));
    return findings() == 0 ? 0 : 1;
}
