// What the benchmarks of the library from outside share: the library running in a network namespace of its own beside
// simulated cards. A failure of the measurement itself ends the program with status 1.
#ifndef BENCH_SETUP_H
#define BENCH_SETUP_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "figures.h"
#include "fxm.h"

// Takes --quick and --strict, moves the process into a network namespace and joins fxm0 to card0. Before any thread.
void bench_begin(int argc, char **argv);
int bench_end(); // the exit status: 1 for a demand that was missed, under --strict

[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

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

// For a program that starts the library itself: writes the same configuration and returns the installation directory.
std::filesystem::path configure(const std::string &lines);

// fxmsim, at card0 alone unless its options say otherwise, with so many FXSV cards from FIRST_FXSV up, in steps of 2.
constexpr uint64_t FIRST_FXSV = 0x020000100000;
void start_cards(unsigned count, const char *options = "--port0 card0");
void tell_cards(const char *command, ...) __attribute__((format(printf, 1, 2))); // one of fxmsim's commands
void stop_cards();

#endif
