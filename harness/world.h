// A world for one run of the library: its threads, its clock and its locks, driven by a seed. The threads are those of the
// system, but exactly one of them holds the baton and runs. The linker puts the functions of this file in the place of
// those by which our own objects meet time and other threads (--wrap, see robust/CMakeLists.txt): locks, futexes,
// threads, the clock, sleep, poll and yield. Each of them is a step, and at each step the seed says who runs next. When
// nobody can run, the clock goes to the next deadline or event. What is outside our objects (log4cxx, the C library) is
// one step.
#ifndef HARNESS_WORLD_H
#define HARNESS_WORLD_H

#include <cstdint>
#include <functional>

constexpr uint64_t US = 1000, MS = 1000 * US; // the clock counts nanoseconds

// How the threads of a run are scheduled. Odds are one in so many steps; 0 never.
struct world_manner_t {
    uint32_t switches = 16; // another thread may go on
    uint32_t stalls = 0;    // the thread does not run for up to 30 ms, or a host for seconds
    uint32_t wakes = 0;     // a wait for a futex ends without a cause
};

// Makes the calling thread the first of a world. There is one world in a process.
void world_begin(uint64_t seed, bool trace);
void world_set_manner(const world_manner_t &manner);

bool world_has_me(); // the calling thread is one of the world's

uint64_t world_random();
inline uint32_t world_below(uint32_t limit) { return static_cast<uint32_t>((world_random() >> 32) * limit >> 32); }
inline bool world_one_in(uint32_t odds) { return odds != 0 && world_below(odds) == 0; }

uint64_t world_now();                                               // the monotonic clock
void world_at(uint64_t time, std::function<void()> act);            // runs between two steps; it must not wait
uint32_t world_spawn(const char *name, std::function<void()> body); // gives what world_join takes
void world_join(uint32_t thread);
void world_sleep(uint64_t ns);
void world_step();
void world_fds_changed(); // a descriptor has become readable

// Runs whenever nobody can run, before the clock goes on: whatever has arrived has then been handled. It must not lock.
extern void (*world_quiet)();

uint64_t world_stalled();       // ns that threads have been stalled, in all
uint64_t world_stalled_until(); // when the last of them goes on
uint64_t world_steps();
uint64_t world_hash(); // of all steps and notes

// A line of the trace, with time and thread.
void world_note(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Ends the process: what is wrong, and what each thread is waiting for.
[[noreturn]] void world_finding(const char *format, ...) __attribute__((format(printf, 1, 2)));
void world_report();

#endif
