// What the library adds to a dump of a card's EEPROM: the time that is left of it when the bare cost of its frames and
// the configured waits are taken off.
#include <time.h>

#include <cstdio>
#include <string>
#include <vector>

#include "setup.h"
#include "wire.h"

constexpr uint64_t CARD = FIRST_FXSV;

// The reads for one word under the bit lock, without those of the watch: lock 2, engine 5, unlock 2.
constexpr uint64_t READS = 9;

struct costs_t {
    double round_trip, one_way, sleep; // us
};

// A wait of 1 ms in the library's own way.
static void sleep_1ms(size_t)
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    time.tv_nsec += 1000000;
    time.tv_sec += time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

static costs_t measure_costs(const bare_t &bare)
{
    const size_t times = full_or_quick(5000, 1000);
    std::vector<double> round_trip;
    std::vector<double> with_write;
    std::vector<double> sleep;
    for (size_t i = 0; i < times; ++i) {
        time_each(
            1, 1, [&](size_t) { bare.round_trip(0); }, &round_trip);
        // The far end deals with a write while nobody waits for it: what counts is how much later the next answer comes.
        const auto write_first = [&](size_t) {
            bare.one_way();
            bare.round_trip(0);
        };
        time_each(1, 1, write_first, &with_write);
    }
    time_each(1, times / 10, sleep_1ms, &sleep);
    // Of the sleeps the mean, for their sum counts; of the others what they cost when nothing disturbs them.
    const double median = summarise(round_trip).median;
    return {median, summarise(with_write).median - median, summarise(sleep).mean};
}

// Prints a row and returns the library's share in percent. `watch`: reads of the lock's watch, 1 ms before each.
static double measure_dump(const char *name, const std::string &lines, uint64_t watch, uint64_t engine_waits)
{
    const size_t words = full_or_quick(512, 64);
    bare_t bare;
    start_cards("fxsv 020000100000");
    start_library(lines);
    wait_for_cards(1);
    const costs_t costs = measure_costs(bare);

    std::vector<uint32_t> buffer(words);
    uint64_t size = words * sizeof(uint32_t);
    const uint64_t reads_before = counter("FXM_STATS_T_REGR");
    const uint64_t writes_before = counter("FXM_STATS_T_REGW");
    const int64_t begun = now_ns();
    const int result = fxm_dump_eeprom(CARD, 0, static_cast<uint32_t>(size), buffer.data(), &size, nullptr, 0);
    const double us = static_cast<double>(now_ns() - begun) / 1000;
    if (result != FXM_API_SUCCESS)
        fail("fxm_dump_eeprom has returned %d", result);
    const uint64_t reads = counter("FXM_STATS_T_REGR") - reads_before;
    const uint64_t writes = counter("FXM_STATS_T_REGW") - writes_before;
    stop_library();
    stop_cards();

    const auto part = [=](uint64_t number, double cost) { return static_cast<double>(number) * cost / 1000; };
    const double ms = us / 1000;
    const double frames_ms = part(reads, costs.round_trip) + part(writes, costs.one_way);
    const double waits_ms = part(words * (watch + engine_waits), costs.sleep);
    const double own_ms = ms - frames_ms - waits_ms;
    // 1 read at the start tells the kind of lock.
    const uint64_t extra = reads - 1 - words * (READS + watch);
    printf("%s\n"
           "  %zu words, %.0f ms: %llu reads of %.1f us and %llu writes of %.1f us %.0f ms, %llu waits of %.0f us %.0f "
           "ms\n"
           "  %llu reads more than the words need; fxm's own %.0f ms, %.1f us for each read, %.1f%% of the total\n",
           name, words, ms, static_cast<unsigned long long>(reads), costs.round_trip,
           static_cast<unsigned long long>(writes), costs.one_way, frames_ms,
           static_cast<unsigned long long>(words * (watch + engine_waits)), costs.sleep, waits_ms,
           static_cast<unsigned long long>(extra), own_ms, own_ms * 1000 / static_cast<double>(reads),
           own_ms / ms * 100);
    return own_ms / ms * 100;
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm0", "card0");
    hold_to_cpu(0); // see bench_register
    const double share =
        measure_dump("Defaults: a watch of 20 reads, 1 ms before each, and 1 ms before a look", "", 20, 1);
    demand("fxm's own share of the dump", share, 20, "%");
    measure_dump("\nWithout the watch (eeprom_verify_count = 0)", "eeprom_verify_count = 0\n", 0, 1);
    measure_dump("\nWithout any wait (eeprom_check_interval = 0 too)",
                 "eeprom_verify_count = 0\neeprom_check_interval = 0\n", 0, 0);
    return bench_end();
}
