// Program, figures, the library's thread, and fxmsim.
#include "setup.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include <string_view>
#include <thread>

#include "wire.h"

namespace fs = std::filesystem;

constexpr int64_t SECOND = 1000000000;

static struct {
    bool quick, strict, missed;
    cpu_set_t cpus;
    fs::path dir; // installation directory of the library
} program;

static struct {
    std::thread thread;
    std::atomic<bool> returned;
    int result;
} library;

static struct {
    pid_t id = 0;
    int in = -1;
    int out = -1;
} cards;

// -------------------------------------------------------------------------------------------------------- the program

static bool write_file(const fs::path &path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

static void make_installation()
{
    char name[] = "/tmp/fxm-bench-XXXXXX";
    if (mkdtemp(name) == nullptr)
        fail("cannot make a directory: %s", strerror(errno));
    program.dir = name;
    fs::create_directory(program.dir / "conf");
    const std::string log = (program.dir / "status").string();
    write_file(program.dir / "conf/fxm_log4c_win.properties",
               "log4j.rootLogger=OFF\n"
               "log4j.logger.statslogfile=INFO, STATS\n"
               "log4j.appender.STATS=org.apache.log4j.FileAppender\n"
               "log4j.appender.STATS.File=" +
                   log +
                   "\nlog4j.appender.STATS.layout=org.apache.log4j.PatternLayout\n"
                   "log4j.appender.STATS.layout.ConversionPattern=%m%n\n");
}

void bench_begin(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        program.quick = program.quick || option == "--quick";
        program.strict = program.strict || option == "--strict";
        if (option != "--quick" && option != "--strict") {
            fprintf(option == "--help" ? stdout : stderr,
                    "Usage: %s [--quick] [--strict]\n"
                    "  --quick   fewer samples\n"
                    "  --strict  a demand that is missed gives status 1\n",
                    argv[0]);
            exit(option == "--help" ? 0 : 2);
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CPU_ZERO(&program.cpus);
    sched_getaffinity(0, sizeof(program.cpus), &program.cpus);
    if (unshare(CLONE_NEWNET) != 0)
        fail("cannot make a network namespace: %s. Run it as root or through scripts/bench.", strerror(errno));
    // Keeps the kernel's own frames off the wire; a kernel without IPv6 has no such file.
    write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    make_installation();
}

static void remove_installation()
{
    std::error_code ignored;
    fs::remove_all(program.dir, ignored);
}

int bench_end()
{
    remove_installation();
    return program.strict && program.missed ? 1 : 0;
}

size_t full_or_quick(size_t full, size_t quick) { return program.quick ? quick : full; }

void fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fflush(stdout);
    fprintf(stderr, "Measurement failed: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    if (cards.id > 0)
        kill(cards.id, SIGTERM);
    remove_installation();
    _exit(1); // other threads may be anywhere
}

void progress(const char *what, size_t done, size_t total)
{
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    static int64_t shown;
    if (!terminal)
        return;
    if (done >= total) {
        fprintf(stderr, "\r\033[K");
    } else if (now_ns() - shown > SECOND / 5) {
        shown = now_ns();
        fprintf(stderr, "\r\033[K%s: %zu of %zu", what, done, total);
    }
}

void demand(const std::string &what, double value, double limit, const char *unit)
{
    const bool holds = value <= limit;
    program.missed = program.missed || !holds;
    printf("Demand: %s at most %g%s: %.3g%s, %s\n", what.c_str(), limit, unit, value, unit, holds ? "holds" : "MISSED");
}

// ------------------------------------------------------------------------------------------------------------ figures

static int64_t read_clock(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * SECOND + now.tv_nsec;
}

int64_t now_ns() { return read_clock(CLOCK_MONOTONIC); }

summary_t summarise(std::vector<double> samples)
{
    if (samples.empty())
        fail("nothing was measured");
    std::sort(samples.begin(), samples.end());
    const size_t number = samples.size();
    return {samples[number / 2], samples[number * 99 / 100], samples.back(),
            std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(number)};
}

void time_each(size_t threads, size_t times, const std::function<void(size_t)> &op, std::vector<double> *us)
{
    std::barrier start(static_cast<std::ptrdiff_t>(threads));
    std::mutex lock; // guards *us
    const auto run = [&](size_t i) {
        std::vector<double> own;
        own.reserve(times);
        start.arrive_and_wait();
        for (size_t n = 0; n < times; ++n) {
            const int64_t begun = now_ns();
            op(i);
            own.push_back(static_cast<double>(now_ns() - begun) / 1000);
        }
        const std::lock_guard guard(lock);
        us->insert(us->end(), own.begin(), own.end());
    };
    std::vector<std::thread> others;
    for (size_t i = 1; i < threads; ++i)
        others.emplace_back(run, i);
    run(0);
    for (std::thread &thread : others)
        thread.join();
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

unsigned cpus() { return static_cast<unsigned>(CPU_COUNT(&program.cpus)); }

void hold_to_cpu(unsigned number)
{
    unsigned left = number % cpus();
    int cpu = 0;
    while (CPU_ISSET(cpu, &program.cpus) == 0 || left-- > 0)
        ++cpu;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0)
        fail("cannot keep to one CPU: %s", strerror(errno));
}

void release_cpus() { sched_setaffinity(0, sizeof(program.cpus), &program.cpus); }

std::vector<std::pair<pid_t, int64_t>> thread_times()
{
    std::vector<std::pair<pid_t, int64_t>> times;
    for (const auto &entry : fs::directory_iterator("/proc/self/task")) {
        const pid_t id = std::stoi(entry.path().filename().string());
        // The kernel's name for the CPU clock of a thread of this process.
        times.emplace_back(id, read_clock(~id << 3 | 6));
    }
    return times;
}

// -------------------------------------------------------------------------------------------------------- the library

void start_library(const std::string &lines)
{
    write_file(program.dir / "conf/fxm.conf", "ether_port = fxm0\n" + lines);
    library.returned = false;
    library.thread = std::thread([] {
        library.result = fxm_init_manager(program.dir.c_str(), FXM_LOG_FATAL);
        library.returned = true;
    });
    const auto up = [] {
        usleep(1000);
        return fxm_start_manager() == FXM_API_SUCCESS || library.returned;
    };
    wait_until(up, "the library to come up");
    if (library.returned)
        fail("fxm_init_manager has returned %d", library.result);
}

void stop_library()
{
    fxm_fini_manager();
    library.thread.join();
    if (library.result != FXM_API_SUCCESS)
        fail("the library has stopped with %d", library.result);
}

uint64_t counter(const char *name)
{
    if (fxm_stdump(0) != FXM_API_SUCCESS)
        fail("no status dump");
    std::ifstream file(program.dir / "status");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const size_t port = text.rfind("+ Port0");
    const size_t at = port == std::string::npos ? port : text.find(name, port);
    if (at == std::string::npos)
        fail("no counter %s in the status dump", name);
    return std::stoull(text.substr(text.find(':', at) + 1));
}

template <typename Record>
static size_t count_connected(int (*list_ids)(uint64_t **, uint32_t *), int (*get)(uint64_t, Record *),
                              fxm_card_data_t Record::*card)
{
    uint64_t *list = nullptr;
    uint32_t count = 0;
    size_t connected = 0;
    if (list_ids(&list, &count) != FXM_API_SUCCESS)
        fail("no list of cards");
    for (uint32_t i = 0; i < count; ++i) {
        Record record;
        if (get(list[i], &record) == FXM_API_SUCCESS && (record.*card).fcd_state[0][0] == 1)
            ++connected;
    }
    fxm_free_idlist(list);
    return connected;
}

void wait_for_cards(size_t number)
{
    const auto all_there = [=] {
        usleep(1000);
        return count_connected(fxm_get_fxsvids, fxm_get_fxsv, &fxm_fxsv_t::fsv_card) +
                   count_connected(fxm_get_fxioids, fxm_get_fxio, &fxm_fxio_t::fio_card) ==
               number;
    };
    wait_until(all_there, "the cards to be connected");
}

// ------------------------------------------------------------------------------------------------------------- fxmsim

static void expect_ok(const char *command)
{
    std::string line;
    for (char c = 0; c != '\n'; line += c) {
        if (read(cards.out, &c, 1) != 1)
            fail("fxmsim has ended at: %s", command);
    }
    if (!line.starts_with("ok"))
        fail("fxmsim answers %s with: %s", command, line.c_str());
}

void start_cards(const char *command)
{
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
        fail("no pipe: %s", strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const char *const argv[] = {FXMSIM, "--port0", "card0", nullptr};
    const int err = posix_spawn(&cards.id, FXMSIM, &actions, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    if (err != 0)
        fail("cannot start %s: %s", FXMSIM, strerror(err));
    cards.in = in[1];
    cards.out = out[0];
    expect_ok("its start");
    const std::string line = std::string(command) + "\n";
    if (write(cards.in, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fail("fxmsim takes no command");
    expect_ok(command);
}

void stop_cards()
{
    close(cards.in); // the end of its input is its end
    close(cards.out);
    waitpid(cards.id, nullptr, 0);
    cards.id = 0;
}
