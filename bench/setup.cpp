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
    pid_t id;
    int in, out;
} cards;

// -------------------------------------------------------------------------------------------------------- the program

static void write_file(const fs::path &path, const std::string &text) { std::ofstream(path) << text; }

static void make_installation()
{
    std::string name = fs::temp_directory_path() / "fxm-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        fail("cannot make a directory: %s", strerror(errno));
    program.dir = name;
    fs::create_directory(program.dir / "conf");
    const std::string appender = "log4j.appender.STATS";
    write_file(program.dir / "conf/fxm_log4c_win.properties",
               "log4j.rootLogger=OFF\nlog4j.logger.statslogfile=INFO, STATS\n" + appender +
                   "=org.apache.log4j.FileAppender\n" + appender + ".File=" + (program.dir / "status").string() + "\n" +
                   appender + ".layout=org.apache.log4j.PatternLayout\n" + appender +
                   ".layout.ConversionPattern=%m%n\n");
}

void bench_begin(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option != "--quick" && option != "--strict") {
            fprintf(stderr,
                    "Usage: %s [--quick] [--strict]\nQuick: fewer samples. Strict: status 1 if a demand is missed.\n",
                    argv[0]);
            exit(2);
        }
        (option == "--quick" ? program.quick : program.strict) = true;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sched_getaffinity(0, sizeof(program.cpus), &program.cpus);
    if (unshare(CLONE_NEWNET) != 0)
        fail("cannot make a network namespace: %s. Run it as root or through scripts/bench.", strerror(errno));
    // Keeps the kernel's own frames off the wire; a kernel without IPv6 has no such file.
    write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    make_installation();
    lay_cable("fxm0", "card0");
}

int bench_end()
{
    std::error_code ignored;
    fs::remove_all(program.dir, ignored);
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
    bench_end();
    _exit(1); // other threads may be anywhere; fxmsim ends with its input
}

void progress(const char *what, size_t done, size_t total)
{
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    static int64_t shown;
    if (terminal && (done == total || now_ns() - shown > SECOND / 5)) {
        shown = now_ns();
        fprintf(stderr, "\r\033[K");
        if (done != total)
            fprintf(stderr, "%s: %zu of %zu", what, done, total);
    }
}

void demand(const char *what, double value, double limit, const char *unit)
{
    const bool holds = value <= limit;
    program.missed = program.missed || !holds;
    printf("Demand: %s at most %g%s: %.3g%s, %s\n", what, limit, unit, value, unit, holds ? "holds" : "MISSED");
}

// ------------------------------------------------------------------------------------------------------------ figures

int64_t read_clock(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

void sleep_until(int64_t monotonic_ns)
{
    const timespec time = {monotonic_ns / SECOND, monotonic_ns % SECOND};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

summary_t summarise(std::vector<double> samples)
{
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
        std::vector<double> own(times);
        start.arrive_and_wait();
        for (double &sample : own) {
            const int64_t begun = now_ns();
            op(i);
            sample = static_cast<double>(now_ns() - begun) / 1000;
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

void hold_to_cpu(int number)
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
    if (sched_setaffinity(0, sizeof(one), &one) != 0)
        fail("cannot keep to one CPU: %s", strerror(errno));
}

void release_cpus() { sched_setaffinity(0, sizeof(program.cpus), &program.cpus); }

// -------------------------------------------------------------------------------------------------------- the library

void start_library(const std::string &lines)
{
    write_file(program.dir / "conf/fxm.conf", "ether_port = fxm0\n" + lines);
    library.returned = false;
    library.thread = std::thread([] {
        library.result = fxm_init_manager(program.dir.c_str(), FXM_LOG_FATAL);
        library.returned = true;
    });
    // Not before the library writes its first dump, and so has set up its log: log4cxx would complain.
    wait_until([] { return fs::exists(program.dir / "status") || library.returned; }, "the library's log");
    wait_until([] { return fxm_start_manager() == FXM_API_SUCCESS || library.returned; }, "the library to come up");
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
    const size_t at = text.find(name, text.rfind("+ Port0"));
    if (at == std::string::npos)
        fail("no counter %s in the status dump", name);
    return std::stoull(text.substr(text.find(':', at) + 1));
}

bool connected(uint64_t id)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    if (fxm_get_fxsv(id, &fxsv) == FXM_API_SUCCESS)
        return fxsv.fsv_card.fcd_state[0][0] == 1;
    return fxm_get_fxio(id, &fxio) == FXM_API_SUCCESS && fxio.fio_card.fcd_state[0][0] == 1;
}

// ------------------------------------------------------------------------------------------------------------- fxmsim

static void expect_ok()
{
    std::string line;
    for (char c = 0; c != '\n'; line += c) {
        if (read(cards.out, &c, 1) != 1)
            fail("fxmsim has ended");
    }
    if (!line.starts_with("ok"))
        fail("fxmsim answers: %s", line.c_str());
}

void start_cards(unsigned count)
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
    expect_ok();
    tell_cards("fxsv %012llx count=%u", static_cast<unsigned long long>(FIRST_FXSV), count);
}

void tell_cards(const char *command, ...)
{
    va_list args;
    va_start(args, command);
    vdprintf(cards.in, command, args);
    va_end(args);
    dprintf(cards.in, "\n");
    expect_ok();
}

void stop_cards()
{
    close(cards.in);
    close(cards.out);
    waitpid(cards.id, nullptr, 0);
}
