// What the benchmarks share: options, figures and demands, and the library running in a network namespace of its own
// beside simulated cards. A failure of the measurement itself ends the program with status 1.
#ifndef BENCH_SETUP_H
#define BENCH_SETUP_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "fxm.h"

// Takes --quick and --strict, moves the process into a network namespace and joins fxm0 to card0. Before any thread.
void bench_begin(int argc, char **argv);
int bench_end(); // the exit status: 1 for a demand that was missed, under --strict

size_t full_or_quick(size_t full, size_t quick); // by --quick
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
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

// Runs `op(i)` so many times on each of `threads` threads i at once, and adds the time of each in microseconds.
void time_each(size_t threads, size_t times, const std::function<void(size_t)> &op, std::vector<double> *us);

// Polls without a pause until `done` holds; fails after half a minute.
void wait_until(const std::function<bool()> &done, const char *what);

// Holds the calling thread, and the threads and children that it makes from then on, to the first or second of the CPUs
// that the program was given (to the only one if there is one), or gives it back all. `tid` names another thread.
void hold_to_cpu(int number, int tid = 0);
void release_cpus();

// -------------------------------------------------------------------------------------------------------- the library

// Starts it at fxm0 with these lines of configuration, at log level WARN, and lets the frames in.
void start_library(const std::string &lines);
void start_library_at(const std::string &ports, const std::string &lines); // "fxm0 fxm1"
void stop_library();
uint64_t counter(const char *name, int port = 0); // of a status dump, such as "FXM_STATS_R_TOTAL"
bool connected(uint64_t id);                      // the card is in its table, with channel P0M0 up

// fxmsim at card0, with so many FXSV cards from FIRST_FXSV up, in steps of 2.
constexpr uint64_t FIRST_FXSV = 0x020000100000;
void start_cards(unsigned count);
void tell_cards(const char *command, ...) __attribute__((format(printf, 1, 2))); // one of fxmsim's commands
void stop_cards();

#endif
