#include "setup.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>

#include "host.h"
#include "net.h"
#include "sim.h"
#include "wait.h"

constexpr int64_t SECOND = 1000000000;

static struct {
    cpu_set_t cpus;
    std::optional<installation_t> installation; // of the library
    manager_t library;
    sim_t cards;
} program;

// -------------------------------------------------------------------------------------------------------- the program

void bench_begin(int argc, char **argv)
{
    take_options(argc, argv);
    sched_getaffinity(0, sizeof(program.cpus), &program.cpus);
    on_failure = [](const std::string &what) { fail("%s", what.c_str()); };
    if (!enter_namespace())
        exit(1);
    program.installation.emplace();
    lay_cable("fxm0", "card0");
}

int bench_end()
{
    program.installation.reset();
    return demand_missed() ? 1 : 0;
}

void fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fflush(stdout);
    fprintf(stderr, "Measurement failed: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    bench_end();
    _exit(1); // other threads may be anywhere; fxmsim ends with its input
}

void wait_until(const std::function<bool()> &done, const char *what)
{
    const int64_t limit = now_ns() + 30 * SECOND;
    while (!done()) {
        if (now_ns() > limit)
            fail("waited in vain for %s", what);
        sched_yield();
    }
}

void hold_to_cpu(int number, int tid)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE && number >= 0; ++cpu) {
        if (CPU_ISSET(cpu, &program.cpus) == 0)
            continue;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        --number;
    }
    if (sched_setaffinity(tid, sizeof(one), &one) != 0)
        fail("cannot keep to one CPU: %s", strerror(errno));
}

void release_cpus() { sched_setaffinity(0, sizeof(program.cpus), &program.cpus); }

// -------------------------------------------------------------------------------------------------------- the library

void start_library(const std::string &lines) { start_library_at("fxm0", lines); }

void start_library_at(const std::string &ports, const std::string &lines)
{
    std::filesystem::remove(program.installation->dir / "statslogfile"); // of an earlier run
    program.installation->configure("ether_port = " + ports + "\n" + lines);
    if (!program.library.start(program.installation->dir, FXM_LOG_WARN))
        fail("fxm_init_manager has returned %d", program.library.result());
    fxm_start_manager();
}

void stop_library()
{
    const int result = program.library.stop();
    if (result != FXM_API_SUCCESS)
        fail("the library has stopped with %d", result);
}

uint64_t counter(const char *name, int port)
{
    // Only what is new: a dump has a line for each card, and all dumps of a flood together are a hundred megabytes.
    std::ifstream dumps(program.installation->dir / "statslogfile");
    dumps.seekg(0, std::ios::end);
    if (fxm_stdump(0) != FXM_API_SUCCESS)
        fail("no status dump");
    dump_t dump;
    for (std::string line; std::getline(dumps, line);)
        dump.push_back(line);
    return frames_counted(dump, port, name);
}

bool connected(uint64_t id)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS)
        return fxsv.fsv_card.fcd_state[0][0] == 1;
    return fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS && fxio.fio_card.fcd_state[0][0] == 1;
}

std::filesystem::path configure(const std::string &lines)
{
    program.installation->configure("ether_port = fxm0\n" + lines);
    return program.installation->dir;
}

// ------------------------------------------------------------------------------------------------------------- fxmsim

void start_cards(unsigned count, const char *options)
{
    program.cards.start(options);
    tell_cards("fxsv %012llx count=%u", static_cast<unsigned long long>(FIRST_FXSV), count);
}

void tell_cards(const char *format, ...)
{
    char command[128];
    va_list args;
    va_start(args, format);
    vsnprintf(command, sizeof(command), format, args);
    va_end(args);
    program.cards.command(command);
}

void stop_cards() { program.cards.stop(); }
