// What the fuzz targets share: the input as a program, a wire without a network, and the checks of the card tables.
#ifndef FUZZ_FIXTURE_H
#define FUZZ_FIXTURE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "frames.h"
#include "fxm.h"

// Ends the process with a finding.
[[noreturn]] void finding(const char *what, const char *file, int line);
#define DEMAND(condition) ((condition) ? void() : finding(#condition, __FILE__, __LINE__))

// The input, read from its beginning. Behind its end everything is 0.
struct input_t {
    const uint8_t *at;
    size_t left;

    template <typename Number> Number number()
    {
        Number value = 0;
        for (size_t i = 0; i < sizeof(Number) && left > 0; ++i, --left)
            value = static_cast<Number>(value | static_cast<Number>(*at++) << 8 * i);
        return value;
    }
    uint8_t byte() { return number<uint8_t>(); }
    uint32_t below(uint32_t limit) { return byte() % limit; }
    template <typename Value, size_t Size> Value pick(const Value (&values)[Size]) { return values[byte() % Size]; }
    frame_t bytes(size_t number);
};

// Prints nothing and sends nothing: called once, before anything else. The end of the process tells how many there were.
void fuzz_begin(const char *what = "frames");
extern std::atomic<uint64_t> fuzz_count; // frames that the library has taken from a wire, unless it is something else

// ----------------------------------------------------------------------------------------------------------- the wire

// The functions of libpcap that the library calls are here in the program. Any thread may put frames on a wire.
void wire_put(uint32_t port, const frame_t &frame, uint32_t wire_length = 0); // 0: all of it was captured
size_t wire_waiting(uint32_t port); // frames that the library has not yet handled
void wire_clear();
void wire_attach(uint32_t port); // gives the library's port its handle
void wire_wake(bool on);         // whether a frame makes the descriptor of its port readable
extern int (*wire_sent)(uint32_t port, const frame_t &frame); // 0, or the errno value with which the send fails

// An announcement of card kind 0 to 3 (FXSV 1G, FXSV 40G, FXIO, FXIO multi-root) from `mac`.
frame_t announce(uint32_t kind, uint64_t mac);

// --------------------------------------------------------------------------------------------------------- the tables

// The orders, indexes and sums of both tables agree, and so do the memory accounts of their nodes.
void check_tables();

// All accounts but that of the write locks, which outlive their cards, have given back what they took.
void check_accounts_empty();

#endif
