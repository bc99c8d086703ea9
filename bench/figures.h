// What the benchmarks share, whether they drive the library from outside or reach inside: options, figures, demands and
// rows.
#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

// Takes --quick and --strict, and ends the program with status 2 on anything else.
void take_options(int argc, char **argv);
bool demand_missed(); // under --strict

size_t full_or_quick(size_t full, size_t quick);                             // by --quick
void progress(const char *what, size_t done, size_t total);                  // on standard error, if that is a terminal
void demand(const char *what, double value, double limit, const char *unit); // prints whether it is at most the limit

// One row of docs/performance.md: a figure, and the limit that the same run has measured beside it. bench/report.py knows
// the rows by their names, and scripts/bench --report collects them from the file that FXM_BENCH_ROWS names.
struct goal_t {
    enum kind_t { TOLD, RATIO_AT_MOST, RATIO_AT_LEAST, FIGURE_AT_MOST } kind;
    double value;
};
constexpr double NO_LIMIT = 0;
void row(const char *name, double figure, double limit, const char *unit,
         goal_t goal); // prints it and whether it holds

// ------------------------------------------------------------------------------------------------------------ figures

int64_t read_clock(clockid_t clock); // ns
inline int64_t now_ns() { return read_clock(CLOCK_MONOTONIC); }
void sleep_until(int64_t monotonic_ns);

struct summary_t {
    double median, p99, max, mean;
};
summary_t summarise(std::vector<double> samples);
double median(std::vector<double> samples);

// Runs `op(i)` on each of `threads` threads i at once, of which the calling one is 0, until all have returned.
void run_at_once(size_t threads, const std::function<void(size_t)> &op);

// Runs `op(i)` so many times on each of `threads` threads i at once, and adds the time of each in microseconds.
void time_each(size_t threads, size_t times, const std::function<void(size_t)> &op, std::vector<double> *us);

#endif
