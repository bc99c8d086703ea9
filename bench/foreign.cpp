// Whether a read ever gets the value of another register: many reads of a card beside one register whose answer comes
// when its reader has given up. Each register has a value of its own.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "setup.h"
#include "wire.h"

constexpr uint32_t REGISTERS = 64; // that are answered at once, from address 0
constexpr uint32_t LATE = 0x1000;  // address of the other
constexpr uint32_t LATE_MS = 20;
constexpr unsigned THREADS = 4;

static uint32_t value_at(uint32_t addr) { return 0xc0de0000 | addr; }

// Reads it; counts a value that is not the register's. Any failure but the one expected ends the measurement.
static bool is_foreign(uint32_t addr, const fxm_retry_param_t *retry, int expected)
{
    uint32_t value = 0;
    const int result = fxm_read_register(FIRST_FXSV, addr, &value, retry, 0);
    if (result != FXM_API_SUCCESS && result != expected)
        fail("fxm_read_register has returned %d", result);
    return result == FXM_API_SUCCESS && value != value_at(addr);
}

int main(int argc, char **argv)
{
    // The number of reads may come first.
    size_t given = 0;
    if (argc > 1 && argv[1][0] != '-') {
        given = strtoull(argv[1], nullptr, 10);
        memmove(argv + 1, argv + 2, static_cast<size_t>(argc - 1) * sizeof(*argv));
        --argc;
    }
    bench_begin(argc, argv);
    const size_t reads = given > 0 ? given : full_or_quick(4000000, 100000);
    hold_to_cpu(0); // the fastest, and so the soonest for a tag to come round
    start_cards(1);
    for (uint32_t addr = 0; addr < 4 * REGISTERS; addr += 4)
        tell_cards("reg all %u %u", addr, value_at(addr));
    tell_cards("reg all %u %u", LATE, value_at(LATE));
    tell_cards("fault all late addr=%u ms=%u", LATE, LATE_MS);
    start_library("");
    wait_until([] { return connected(FIRST_FXSV); }, "the card to be connected");

    std::atomic<size_t> done{0};
    std::atomic<size_t> foreign{0};
    std::atomic<size_t> given_up{0};
    std::thread impatient([&] {
        const fxm_retry_param_t retry = {0, LATE_MS / 4};
        for (; done < reads; ++given_up)
            foreign += is_foreign(LATE, &retry, FXM_API_ETIMEDOUT) ? 1 : 0;
    });
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            for (uint32_t n = i; done++ < reads; ++n)
                foreign += is_foreign(n % REGISTERS * 4, nullptr, FXM_API_SUCCESS) ? 1 : 0;
        });
    }
    while (done < reads) {
        progress("reads", done, reads);
        sleep_until(now_ns() + 200000000);
    }
    progress("reads", reads, reads);
    for (std::thread &thread : threads)
        thread.join();
    impatient.join();
    stop_library();
    stop_cards();
    printf("%zu reads by %u threads beside %zu of a register that answers late\n"
           "  values of another register: %zu\n",
           reads, THREADS, given_up.load(), foreign.load());
    const int status = bench_end();
    return foreign == 0 ? status : 1;
}
