#include "setup.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>

#include "host.h"
#include "net.h"
#include "sim.h"
#include "wait.h"

constexpr int64_t SECOND = 1000000000;

static struct {
    bool quick, strict, missed;
    cpu_set_t cpus;
    std::optional<installation_t> installation; // of the library
    manager_t library;
    sim_t cards;
} program;

// -------------------------------------------------------------------------------------------------------- the program

void bench_begin(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option != "--quick" && option != "--strict") {
            fprintf(stderr,
                    "Usage: %s [--quick] [--strict]\nQuick: fewer samples. Strict: status 1 if a demand is missed.\n",
                    argv[0]);
            exit(2);
        }
        (option == "--quick" ? program.quick : program.strict) = true;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sched_getaffinity(0, sizeof(program.cpus), &program.cpus);
    on_failure = [](const std::string &what) { fail("%s", what.c_str()); };
    if (!enter_namespace())
        exit(1);
    program.installation.emplace();
    lay_cable("fxm0", "card0");
}

int bench_end()
{
    program.installation.reset();
    return program.strict && program.missed ? 1 : 0;
}

size_t full_or_quick(size_t full, size_t quick) { return program.quick ? quick : full; }

void fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fflush(stdout);
    fprintf(stderr, "Measurement failed: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    bench_end();
    _exit(1); // other threads may be anywhere; fxmsim ends with its input
}

void progress(const char *what, size_t done, size_t total)
{
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    static int64_t shown;
    if (terminal && (done == total || now_ns() - shown > SECOND / 5)) {
        shown = now_ns();
        fprintf(stderr, "\r\033[K");
        if (done != total)
            fprintf(stderr, "%s: %zu of %zu", what, done, total);
    }
}

void demand(const char *what, double value, double limit, const char *unit)
{
    const bool holds = value <= limit;
    program.missed = program.missed || !holds;
    printf("Demand: %s at most %g%s: %.3g%s, %s\n", what, limit, unit, value, unit, holds ? "holds" : "MISSED");
}

void row(const char *name, double figure, double limit, const char *unit, goal_t goal)
{
    static const char *const kinds[] = {"told", "ratio_at_most", "ratio_at_least", "figure_at_most"};
    const double ratio = limit != NO_LIMIT ? figure / limit : 0;
    const double value = goal.kind == goal_t::FIGURE_AT_MOST ? figure : ratio;
    const bool holds =
        goal.kind == goal_t::TOLD || (goal.kind == goal_t::RATIO_AT_LEAST ? value >= goal.value : value <= goal.value);
    program.missed = program.missed || !holds;
    printf("Row: %-22s %10.4g %s", name, figure, unit);
    if (limit != NO_LIMIT)
        printf(", limit %.4g, ratio %.3f", limit, ratio);
    if (goal.kind != goal_t::TOLD)
        printf(", goal %s %g: %s", kinds[goal.kind], goal.value, holds ? "holds" : "MISSED");
    printf("\n");
    const char *path = getenv("FXM_BENCH_ROWS");
    FILE *file = path != nullptr ? fopen(path, "a") : nullptr;
    if (path != nullptr && file == nullptr)
        fail("cannot write to %s: %s", path, strerror(errno));
    if (file == nullptr)
        return;
    fprintf(file, "%s\t%.6g\t%.6g\t%s\t%s\t%g\n", name, figure, limit, unit, kinds[goal.kind], goal.value);
    fclose(file);
}

// ------------------------------------------------------------------------------------------------------------ figures

int64_t read_clock(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

void sleep_until(int64_t monotonic_ns)
{
    const timespec time = {monotonic_ns / SECOND, monotonic_ns % SECOND};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

summary_t summarise(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const size_t number = samples.size();
    return {samples[number / 2], samples[number * 99 / 100], samples.back(),
            std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(number)};
}

double median(std::vector<double> samples) { return summarise(std::move(samples)).median; }

void time_each(size_t threads, size_t times, const std::function<void(size_t)> &op, std::vector<double> *us)
{
    std::barrier start(static_cast<std::ptrdiff_t>(threads));
    std::mutex lock; // guards *us
    const auto run = [&](size_t i) {
        std::vector<double> own(times);
        start.arrive_and_wait();
        for (double &sample : own) {
            const int64_t begun = now_ns();
            op(i);
            sample = static_cast<double>(now_ns() - begun) / 1000;
        }
        const std::lock_guard guard(lock);
        us->insert(us->end(), own.begin(), own.end());
    };
    std::vector<std::thread> others;
    for (size_t i = 1; i < threads; ++i)
        others.emplace_back(run, i);
    run(0);
    for (std::thread &thread : others)
        thread.join();
}

void wait_until(const std::function<bool()> &done, const char *what)
{
    const int64_t limit = now_ns() + 30 * SECOND;
    while (!done()) {
        if (now_ns() > limit)
            fail("waited in vain for %s", what);
        sched_yield();
    }
}

void hold_to_cpu(int number, int tid)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE && number >= 0; ++cpu) {
        if (CPU_ISSET(cpu, &program.cpus) == 0)
            continue;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        --number;
    }
    if (sched_setaffinity(tid, sizeof(one), &one) != 0)
        fail("cannot keep to one CPU: %s", strerror(errno));
}

void release_cpus() { sched_setaffinity(0, sizeof(program.cpus), &program.cpus); }

// -------------------------------------------------------------------------------------------------------- the library

void start_library(const std::string &lines) { start_library_at("fxm0", lines); }

void start_library_at(const std::string &ports, const std::string &lines)
{
    std::filesystem::remove(program.installation->dir / "statslogfile"); // of an earlier run
    program.installation->configure("ether_port = " + ports + "\n" + lines);
    if (!program.library.start(program.installation->dir, FXM_LOG_WARN))
        fail("fxm_init_manager has returned %d", program.library.result());
    fxm_start_manager();
}

void stop_library()
{
    const int result = program.library.stop();
    if (result != FXM_API_SUCCESS)
        fail("the library has stopped with %d", result);
}

uint64_t counter(const char *name, int port)
{
    // Only what is new: a dump has a line for each card, and all dumps of a flood together are a hundred megabytes.
    std::ifstream dumps(program.installation->dir / "statslogfile");
    dumps.seekg(0, std::ios::end);
    if (fxm_stdump(0) != FXM_API_SUCCESS)
        fail("no status dump");
    dump_t dump;
    for (std::string line; std::getline(dumps, line);)
        dump.push_back(line);
    return frames_counted(dump, port, name);
}

bool connected(uint64_t id)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS)
        return fxsv.fsv_card.fcd_state[0][0] == 1;
    return fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS && fxio.fio_card.fcd_state[0][0] == 1;
}

// ------------------------------------------------------------------------------------------------------------- fxmsim

void start_cards(unsigned count)
{
    program.cards.start("--port0 card0");
    tell_cards("fxsv %012llx count=%u", static_cast<unsigned long long>(FIRST_FXSV), count);
}

void tell_cards(const char *format, ...)
{
    char command[128];
    va_list args;
    va_start(args, format);
    vsnprintf(command, sizeof(command), format, args);
    va_end(args);
    program.cards.command(command);
}

void stop_cards() { program.cards.stop(); }
