#include "figures.h"

#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>

constexpr int64_t SECOND = 1000000000;

static struct {
    bool quick, strict, missed;
} program;

void take_options(int argc, char **argv)
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
}

bool demand_missed() { return program.strict && program.missed; }

size_t full_or_quick(size_t full, size_t quick) { return program.quick ? quick : full; }

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
    if (path != nullptr && file == nullptr) {
        fprintf(stderr, "Cannot write to %s: %s\n", path, strerror(errno));
        exit(1);
    }
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

void run_at_once(size_t threads, const std::function<void(size_t)> &op)
{
    std::vector<std::thread> others;
    for (size_t i = 1; i < threads; ++i)
        others.emplace_back(op, i);
    op(0);
    for (std::thread &thread : others)
        thread.join();
}

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
    run_at_once(threads, run);
}
