// fxm_read_register from a simulated card, beside the bare program that reads the same register of the same card. The
// two take turns, each on a cable of its own to the same fxmsim, so that what disturbs one disturbs the other.
#include <algorithm>
#include <barrier>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bare_log.h"
#include "host.h"
#include "net.h"
#include "setup.h"
#include "wire.h"

constexpr unsigned CARDS = bare_reader_t::LANES;
constexpr size_t READS_OF_A_TURN = 2000;

using read_t = std::function<void(size_t)>; // from the card of that number

static void read_register(size_t card)
{
    uint32_t value = 0;
    const int result = fxm_read_register(FIRST_FXSV + 2 * card, 0x1000, &value, nullptr, 0);
    if (result != FXM_API_SUCCESS)
        fail("fxm_read_register has returned %d", result);
}

// fxmsim answers everything at once. An answer that is late on a crowded machine is asked for again.
static void print_sent_again(uint64_t sent_before, uint64_t reads)
{
    printf("  fxm has sent %llu of %llu requests again\n",
           static_cast<unsigned long long>(counter("FXM_STATS_T_REGR") - sent_before - reads),
           static_cast<unsigned long long>(reads));
}

// --------------------------------------------------------------------------------------------------------- one thread

struct side_t {
    const char *name;
    read_t read;
    std::vector<double> medians, p99s; // us, of the turns
    double max = 0;
    size_t slow = 0; // above 100 us

    void take_turn()
    {
        std::vector<double> us;
        time_each(1, READS_OF_A_TURN, read, &us);
        const summary_t turn = summarise(us);
        medians.push_back(turn.median);
        p99s.push_back(turn.p99);
        max = std::max(max, turn.max);
        slow += static_cast<size_t>(std::count_if(us.begin(), us.end(), [](double time) { return time > 100; }));
    }
    void print() const
    {
        printf("  %-12s %14.2f %8.2f %8.1f   %zu of %zu\n", name, median(medians), median(p99s), max, slow,
               medians.size() * READS_OF_A_TURN);
    }
};

static void take_turns(const char *what, side_t *bare, side_t *library)
{
    const size_t turns = full_or_quick(40, 10);
    const uint64_t sent = counter("FXM_STATS_T_REGR");
    for (size_t i = 0; i < turns; ++i) {
        progress(what, i, turns);
        bare->take_turn();
        library->take_turn();
    }
    progress(what, turns, turns);
    printf("%s\n               us: median      p99      max   above 100 us\n", what);
    bare->print();
    library->print();
    print_sent_again(sent, turns * READS_OF_A_TURN);
}

static void measure_one_thread(bare_reader_t *program)
{
    side_t bare = {"bare program", [=](size_t card) { program->read(card); }, {}, {}};
    side_t library = {"fxm", read_register, {}, {}};
    take_turns("One thread, one CPU", &bare, &library);
    row("read_median", median(library.medians), median(bare.medians), "us", {goal_t::RATIO_AT_MOST, 1.08});
    row("read_p99", median(library.p99s), median(bare.p99s), "us", {goal_t::RATIO_AT_MOST, 1.2});
}

// The texts of the lines that the library writes for one read.
static std::vector<std::string> lines_of_a_read(const std::filesystem::path &dir)
{
    log_t log(dir / "logfile");
    const size_t before = log.lines().size();
    read_register(0);
    std::vector<std::string> texts;
    for (size_t i = before; i < log.lines().size(); ++i)
        texts.push_back(log.lines()[i].substr(std::string("INFO ").size()));
    if (texts.size() != 2)
        fail("a read writes %zu lines", texts.size());
    return texts;
}

// The library logs each call and its result at INFO. So the bare program logs two lines of the same lengths, which it
// does not have to format.
static void measure_with_log(bare_reader_t *program, const std::filesystem::path &dir)
{
    fxm_set_loglevel(FXM_LOG_INFO);
    const std::vector<std::string> lines = lines_of_a_read(dir);
    open_bare_log(dir / "barelog", "%p %m%n"); // as in the installation that the library has
    const auto read_and_log = [&](size_t card) {
        write_bare_log(lines[0]);
        program->read(card);
        write_bare_log(lines[1]);
    };
    side_t bare = {"bare program", read_and_log, {}, {}};
    side_t library = {"fxm", read_register, {}, {}};
    take_turns("One thread, one CPU, two log lines for each read", &bare, &library);
    close_bare_log();
    fxm_set_loglevel(FXM_LOG_WARN);
    row("read_info", median(library.medians), median(bare.medians), "us", {goal_t::RATIO_AT_MOST, 1.1});
}

// ------------------------------------------------------------------------------------------------------- many threads

// Reads per second, all threads together: from the moment when all are ready to the return of the last read.
static double reads_per_second(size_t threads, size_t times, const read_t &read)
{
    int64_t begun = 0;
    std::barrier ready(static_cast<std::ptrdiff_t>(threads), [&]() noexcept { begun = now_ns(); });
    std::vector<int64_t> ended(threads);
    const auto run = [&](size_t i) {
        ready.arrive_and_wait();
        for (size_t n = 0; n < times; ++n)
            read(i);
        ended[i] = now_ns();
    };
    run_at_once(threads, run);
    const int64_t last = *std::max_element(ended.begin(), ended.end());
    return static_cast<double>(threads * times) * 1e9 / static_cast<double>(last - begun);
}

static void measure_many(bare_reader_t *program, size_t threads, const char *row_name)
{
    const size_t turns = full_or_quick(40, 16);
    const size_t times = full_or_quick(8000, 4000) / threads;
    const uint64_t sent = counter("FXM_STATS_T_REGR");
    std::vector<double> bare;
    std::vector<double> library;
    for (size_t i = 0; i < turns; ++i) {
        progress("reads at once, turn", i, turns);
        bare.push_back(reads_per_second(threads, times, [=](size_t card) { program->read(card); }));
        library.push_back(reads_per_second(threads, times, read_register));
    }
    progress("", turns, turns);
    printf("  %2zu threads: %8.0f reads/s by the bare program, %8.0f by fxm, ratio %.2f\n", threads, median(bare),
           median(library), median(library) / median(bare));
    print_sent_again(sent, turns * threads * times);
    if (row_name != nullptr)
        row(row_name, median(library), median(bare), "reads/s", {goal_t::RATIO_AT_LEAST, 0.9});
}

// ---------------------------------------------------------------------------------------------------------------------

// Runs `measure` beside cards, library and bare program, which all run on the CPUs of the caller.
static void with_cards(const std::function<void(bare_reader_t *)> &measure)
{
    start_cards(CARDS, "--port0 card0 --port1 card1");
    start_library("");
    for (uint64_t card = 0; card < CARDS; ++card)
        wait_until([=] { return connected(FIRST_FXSV + 2 * card); }, "the cards to be connected");
    {
        bare_reader_t program("fxm1");
        measure(&program);
    }
    stop_library();
    stop_cards();
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    lay_cable("fxm1 address 02:00:00:00:aa:01", "card1"); // the address from which the bare program sends
    const std::filesystem::path dir = configure("");
    // The wake of an idle virtual CPU would hide everything else. What starts from here on inherits it.
    hold_to_cpu(0);
    with_cards([&](bare_reader_t *program) {
        measure_one_thread(program);
        measure_with_log(program, dir);
        printf("Many threads, each with a card of its own, one CPU, for information\n");
        for (const size_t threads : {8u, 16u, 64u})
            measure_many(program, threads, nullptr);
    });
    release_cpus();
    with_cards([](bare_reader_t *program) {
        printf("Many threads, each with a card of its own, all CPUs\n");
        measure_many(program, 8, "reads_8");
        measure_many(program, 16, "reads_16");
        measure_many(program, 64, "reads_64");
    });
    return bench_end();
}
