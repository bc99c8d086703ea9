// The book of all calls: their results, how long they took, and what each thread is in now; and the checks of the process.
#ifndef ROBUST_CALLS_H
#define ROBUST_CALLS_H

#include <cstdint>
#include <string>

#include "functions.h"

// A failed check. It is printed, and the program ends with 1 when it has run to its end.
void finding(const char *format, ...) __attribute__((format(printf, 1, 2)));
uint64_t findings();

int64_t steady_ms();

// ------------------------------------------------------------------------------------------------------------ the book

// Marks what the calling thread is in, for the watchdog, until the end of the scope.
class doing_t
{
  public:
    explicit doing_t(const char *what);
    ~doing_t();
    doing_t(const doing_t &) = delete;
    doing_t &operator=(const doing_t &) = delete;

  private:
    const char *outer;
    int64_t outer_since;
};

// Gives the calling thread its name in the report of the watchdog and in a debugger.
void name_thread(const std::string &name);

void book(fxm_api_row_t row, int result, int64_t us);

// A call, booked and watched. A start is not watched, because it takes as long as the library runs.
template <typename Call> int timed(fxm_api_row_t row, Call call)
{
    const doing_t doing(row == FXM_ROW_INIT_MANAGER ? nullptr : fxm_row_names[row]);
    const uint64_t begin = _fxm_monotonic_ns();
    const int result = call();
    book(row, result, static_cast<int64_t>((_fxm_monotonic_ns() - begin) / 1000));
    return result;
}

uint64_t calls_made();
void print_book(); // a line for each function: calls by result, the longest

// Starts the watchdog, a thread of its own. When a thread is in one thing for longer than `most` ms, or the program has
// not ended after `all` ms, it prints what each thread is in and all stacks, and ends the program with 1.
void watch(int64_t most, int64_t all);

// --------------------------------------------------------------------------------------------------------- the process

size_t entries_of(const char *directory); // "/proc/self/task", "/proc/self/fd"

// Accounts, callbacks and events are even after a stop, when no call runs. `lists` are still held by the program; less
// than 0: it is not known how many.
void expect_even(int lists);

// The options of both programs: a positive number and --seed N. Ends the program on wrong usage. Prints the seed, and moves
// the process into a network namespace of its own. Before any thread.
struct options_t {
    int64_t amount = 0;
    uint32_t seed = 0;
};
options_t robust_begin(int argc, char **argv, const char *usage);

#endif
