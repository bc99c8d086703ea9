// fxm_read_register from a simulated card, beside the bare round trip: a frame that a process at the other end of a
// cable sends back. The two take turns, so that what disturbs one disturbs the other.
#include <cstdio>
#include <vector>

#include "setup.h"
#include "wire.h"

static void read_register(size_t card)
{
    uint32_t value = 0;
    const int result = fxm_read_register(FIRST_FXSV + 2 * card, 0x1000, &value, nullptr, 0);
    if (result != FXM_API_SUCCESS)
        fail("fxm_read_register has returned %d", result);
}

static void print_row(const char *what, const summary_t &us)
{
    printf("    %-18s %10.1f %8.1f %8.1f", what, us.median, us.p99, us.mean);
}

struct medians_t {
    double bare, library;
};

static medians_t measure(const bare_t &bare, size_t threads, const char *name)
{
    constexpr size_t turns = 10;
    const size_t times = full_or_quick(20000, 3200) / turns / threads;
    const uint64_t sent = counter("FXM_STATS_T_REGR");
    std::vector<double> bare_us;
    std::vector<double> library_us;
    for (size_t i = 0; i < turns; ++i) {
        progress(name, i, turns);
        time_each(
            threads, times, [&](size_t lane) { bare.round_trip(lane); }, &bare_us);
        time_each(threads, times, read_register, &library_us);
    }
    progress(name, turns, turns);
    // fxmsim answers everything at once, so only an answer that comes before the tag is armed is asked for twice.
    const uint64_t again = counter("FXM_STATS_T_REGR") - sent - library_us.size();

    const summary_t bare_time = summarise(bare_us);
    const summary_t library_time = summarise(library_us);
    printf("  %s\n", name);
    print_row("bare round trip", bare_time);
    printf("\n");
    print_row("fxm_read_register", library_time);
    printf("   %llu of %zu\n", static_cast<unsigned long long>(again), library_us.size());
    return {bare_time.median, library_time.median};
}

static void measure_all(const char *where, bool with_demand)
{
    constexpr unsigned cards = bare_t::LANES;
    bare_t bare;
    start_cards(cards);
    start_library("");
    wait_until([] { return connected(FIRST_FXSV + 2 * (cards - 1)); }, "the cards to be connected");

    printf("%s\n                      us: median      p99     mean   sent again\n", where);
    const medians_t one = measure(bare, 1, "1 thread");
    const medians_t all = measure(bare, cards, "16 threads on 16 cards");
    printf("  fxm / bare by the medians: %.2f at 1 thread, %.2f at 16 (%.1f of the single bare round trip)\n",
           one.library / one.bare, all.library / all.bare, all.library / one.bare);
    if (with_demand) {
        demand("median at 1 thread", one.library / one.bare, 2, " bare round trips");
        demand("median at 16 threads", all.library / all.bare, 2, " bare round trips of 16 threads");
    }
    stop_library();
    stop_cards();
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    // The wake of an idle virtual CPU would hide everything else. What starts from here on inherits it.
    hold_to_cpu(0);
    measure_all("Both sides on one CPU", true);
    release_cpus();
    printf("\n");
    measure_all("On all CPUs, for information", false);
    return bench_end();
}
