// What the library adds to a dump of a card's EEPROM: the time that is left of it when the bare cost of its frames and
// the configured waits are taken off.
#include <cstdio>
#include <string>
#include <vector>

#include "setup.h"
#include "wire.h"

constexpr size_t TURNS = 8; // so that what disturbs the machine disturbs the dump and the bare costs alike

struct costs_t {
    std::vector<double> round_trip, with_write, sleep; // us
};

static void measure_costs(const bare_t &bare, costs_t *costs)
{
    for (size_t i = 0; i < full_or_quick(500, 100); ++i) {
        time_each(
            1, 1, [&](size_t) { bare.round_trip(0); }, &costs->round_trip);
        // The far end deals with a write while nobody waits for it: what counts is how it delays the next answer.
        const auto write_first = [&](size_t) {
            bare.one_way();
            bare.round_trip(0);
        };
        time_each(1, 1, write_first, &costs->with_write);
    }
    time_each(
        1, full_or_quick(100, 50), [](size_t) { sleep_until(now_ns() + 1000000); }, &costs->sleep);
}

static double dump_ms(size_t first, size_t words)
{
    std::vector<uint32_t> buffer(words);
    uint64_t size = words * sizeof(uint32_t);
    const auto start = static_cast<uint32_t>(first * sizeof(uint32_t));
    const int64_t begun = now_ns();
    const int result =
        fxm_dump_eeprom(FIRST_FXSV, start, start + static_cast<uint32_t>(size), buffer.data(), &size, nullptr, 0);
    if (result != FXM_API_SUCCESS)
        fail("fxm_dump_eeprom has returned %d", result);
    return static_cast<double>(now_ns() - begun) / 1e6;
}

// Reads for one word under the bit lock, without those of the lock's watch: lock 2, engine 5, unlock 2. One read more
// at the start of each dump tells the kind of lock.
constexpr uint64_t READS = 9;

// Prints what it found and returns the library's share in percent. `watch`: reads of the lock's watch for a word;
// `waits`: of 1 ms, for a word.
static double measure_dump(const char *name, const std::string &lines, uint64_t watch, uint64_t waits)
{
    const size_t words = full_or_quick(512, 64);
    bare_t bare;
    start_cards(1);
    start_library(lines);
    wait_until([] { return connected(FIRST_FXSV); }, "the card to be connected");

    costs_t costs;
    double total = 0;
    const uint64_t reads_before = counter("FXM_STATS_T_REGR");
    const uint64_t writes_before = counter("FXM_STATS_T_REGW");
    for (size_t i = 0; i < TURNS; ++i) {
        progress(name, i, TURNS);
        measure_costs(bare, &costs);
        total += dump_ms(i * words / TURNS, words / TURNS);
    }
    progress(name, TURNS, TURNS);
    const uint64_t reads = counter("FXM_STATS_T_REGR") - reads_before;
    const uint64_t writes = counter("FXM_STATS_T_REGW") - writes_before;
    stop_library();
    stop_cards();

    // The sum of the waits counts, so their mean; of the frames what they cost when nothing disturbs them.
    const double sleep = summarise(costs.sleep).mean;
    const double round_trip = summarise(costs.round_trip).median;
    const double one_way = summarise(costs.with_write).median - round_trip;
    const auto ms = [](uint64_t number, double us) { return static_cast<double>(number) * us / 1000; };
    const double frames_ms = ms(reads, round_trip) + ms(writes, one_way);
    const double waits_ms = ms(words * waits, sleep);
    const double own_ms = total - frames_ms - waits_ms;
    const auto ull = [](uint64_t number) { return static_cast<unsigned long long>(number); };
    printf("%s\n  %7.0f ms for %zu words\n", name, total, words);
    printf("  %7.0f ms frames: %llu reads of %.1f us, %llu writes of %.1f us\n", frames_ms, ull(reads), round_trip,
           ull(writes), one_way);
    printf("  %7.0f ms waits: %llu of %.0f us\n", waits_ms, ull(words * waits), sleep);
    printf("  %7.0f ms fxm's own, %.1f%% of the total; %llu reads were sent again\n\n", own_ms, own_ms / total * 100,
           ull(reads - TURNS - words * (READS + watch)));
    return own_ms / total * 100;
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    hold_to_cpu(0); // as for the reading of a register
    measure_dump("Without any wait (eeprom_verify_count = 0, eeprom_check_interval = 0)",
                 "eeprom_verify_count = 0\neeprom_check_interval = 0\n", 0, 0);
    measure_dump("Without the watch (eeprom_verify_count = 0)", "eeprom_verify_count = 0\n", 0, 1);
    const double share = measure_dump(
        "With the defaults: 1 ms before each of the watch's 20 reads and before a look at the engine", "", 20, 21);
    demand("fxm's own share of the dump", share, 20, "%");
    return bench_end();
}
