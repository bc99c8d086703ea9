// Waiting, time and failure, for all parts of the harness and for the programs that use it.
#ifndef HARNESS_WAIT_H
#define HARNESS_WAIT_H

#include <cstdint>
#include <functional>
#include <string>

// Reports a failure of the harness itself. Unless the program has set on_failure, it prints the text and exits.
void harness_failed(const std::string &what);
extern void (*on_failure)(const std::string &what);

// Calls `done` until it holds: after a millisecond, and then after pauses that grow to 8 ms. False after half a minute,
// which is far beyond what anything here takes on a loaded machine with sanitizers.
bool poll_until(const std::function<bool()> &done);

uint64_t now_ms(); // wall clock, as in the records of the library

#endif
