// What the benchmarks share: options, figures and demands, and the library running in a network namespace of its own
// against simulated cards. A failure of the measurement itself ends the program with status 1.
#ifndef BENCH_SETUP_H
#define BENCH_SETUP_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fxm.h"

// -------------------------------------------------------------------------------------------------------- the program

// Takes --quick and --strict, and moves the process into a network namespace of its own. Before any thread.
void bench_begin(int argc, char **argv);
int bench_end(); // cleans up; the exit status: 1 for a demand that was missed under --strict

size_t full_or_quick(size_t full, size_t quick); // by --quick
[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
void progress(const char *what, size_t done, size_t total); // on standard error, if that is a terminal

// Prints the demand "what: value, at most limit" and whether it holds.
void demand(const std::string &what, double value, double limit, const char *unit);

// ------------------------------------------------------------------------------------------------------------ figures

int64_t now_ns(); // monotonic

struct summary_t {
    double median = 0, p99 = 0, max = 0, mean = 0;
};
summary_t summarise(std::vector<double> samples); // at least one

// Runs `op(i)` so many times on each of `threads` threads i at once, and adds the time of each in microseconds.
void time_each(size_t threads, size_t times, const std::function<void(size_t)> &op, std::vector<double> *us);

// Polls without a pause until `done` holds; fails after half a minute.
void wait_until(const std::function<bool()> &done, const char *what);

// Holds the calling thread, and the threads and children that it makes from then on, to one of the CPUs that the
// program was given, counted round, or gives it back all.
void hold_to_cpu(unsigned number);
void release_cpus();
unsigned cpus();

// CPU time so far of each thread of this process, in ns, by thread id.
std::vector<std::pair<pid_t, int64_t>> thread_times();

// -------------------------------------------------------------------------------------------------------- the library

// Starts it at fxm0 with these lines of configuration, at log level FATAL, and lets the frames in.
void start_library(const std::string &lines);
void stop_library();

// A counter of the status dump for port 0, by its name, such as "FXM_STATS_R_TOTAL".
uint64_t counter(const char *name);

// Waits until so many FXSV and FXIO cards together are in the tables with channel P0M0 up.
void wait_for_cards(size_t number);

// fxmsim at card0, which makes cards by `command`; see sim/README.md.
void start_cards(const char *command);
void stop_cards();

#endif
