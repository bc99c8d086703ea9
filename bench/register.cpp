// fxm_read_register against a simulated card, beside the bare round trip: a frame that a process on the other end of a
// cable sends back. Both are measured in turns, so that what disturbs one disturbs the other.
#include <cstdio>
#include <string>
#include <vector>

#include "setup.h"
#include "wire.h"

constexpr uint32_t ADDRESS = 0x1000;

static void read_register(size_t card)
{
    uint32_t value = 0;
    // fxmsim counts up by 2.
    const int result = fxm_read_register(FIRST_FXSV + 2 * card, ADDRESS, &value, nullptr, 0);
    if (result != FXM_API_SUCCESS)
        fail("fxm_read_register has returned %d", result);
}

static void print_row(const char *what, const summary_t &us)
{
    printf("    %-20s %8.1f %8.1f %8.1f", what, us.median, us.p99, us.mean);
}

struct result_t {
    double bare, library; // medians
};

static result_t measure(const bare_t &bare, size_t threads, const char *name)
{
    constexpr size_t turns = 10;
    const size_t times = full_or_quick(20000, 2000) / turns / threads;
    const uint64_t sent = counter("FXM_STATS_T_REGR");
    std::vector<double> bare_us;
    std::vector<double> library_us;
    for (size_t i = 0; i < turns; ++i) {
        progress(name, i, turns);
        time_each(
            threads, times, [&](size_t lane) { bare.round_trip(lane); }, &bare_us);
        time_each(threads, times, read_register, &library_us);
    }
    progress("", 0, 0);
    const uint64_t resent = counter("FXM_STATS_T_REGR") - sent - library_us.size();

    const summary_t bare_time = summarise(bare_us);
    const summary_t library_time = summarise(library_us);
    printf("  %s\n", name);
    print_row("bare round trip", bare_time);
    printf("\n");
    print_row("fxm_read_register", library_time);
    printf("   %llu of %zu\n", static_cast<unsigned long long>(resent), library_us.size());
    return {bare_time.median, library_time.median};
}

static void measure_all(const char *where, bool with_demand)
{
    bare_t bare;
    start_cards(("fxsv 020000100000 count=" + std::to_string(bare_t::LANES)).c_str());
    start_library("");
    wait_for_cards(bare_t::LANES);
    read_register(0);

    printf("%s\n                               us: median      p99     mean   sent again\n", where);
    const result_t one = measure(bare, 1, "1 thread");
    const result_t all = measure(bare, bare_t::LANES, "16 threads, 16 cards");
    printf("  fxm / bare by the medians: %.2f at 1 thread, %.2f at 16 (%.2f of the single bare round trip)\n",
           one.library / one.bare, all.library / all.bare, all.library / one.bare);
    if (with_demand) {
        demand("median at 1 thread", one.library / one.bare, 2, " bare round trips");
        demand("median at 16 threads", all.library / all.bare, 2, " bare round trips at 16 threads");
    }
    stop_library();
    stop_cards();
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm0", "card0");
    // What starts from here on inherits it. The wake of an idle virtual CPU would hide everything else.
    hold_to_cpu(0);
    measure_all("Both sides on one CPU", true);
    release_cpus();
    printf("\n");
    measure_all("On all CPUs, for information", false);
    return bench_end();
}
