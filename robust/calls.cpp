#include "calls.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include "diag/fxm_snapshot.h"
#include "net.h"
#include "wait.h"

// The book must not order the threads, or it would hide from the sanitizer what the library itself does not order. So
// all its words are relaxed.
constexpr auto RELAXED = std::memory_order_relaxed;

// ------------------------------------------------------------------------------------------------------------ findings

static std::atomic<uint64_t> finding_count{0};
constexpr uint64_t FINDINGS_SHOWN = 50;

void finding(const char *format, ...)
{
    if (finding_count.fetch_add(1, RELAXED) >= FINDINGS_SHOWN)
        return;
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fprintf(stderr, "FINDING: %s\n", text);
}

uint64_t findings() { return finding_count.load(RELAXED); }

int64_t steady_ms() { return static_cast<int64_t>(_fxm_monotonic_ns() / 1000000); }

// ------------------------------------------------------------------------------------------------------------ the book

struct row_t {
    std::atomic<uint64_t> results[FXM_API_CODES];
    std::atomic<int64_t> longest; // us
};
static row_t rows[FXM_API_ROWS];

void book(fxm_api_row_t row, int result, int64_t us)
{
    if (result == NOT_CALLED)
        return;
    row_t &booked = rows[row];
    booked.results[result].fetch_add(1, RELAXED);
    int64_t known = booked.longest.load(RELAXED);
    while (us > known && !booked.longest.compare_exchange_weak(known, us, RELAXED)) {
    }
}

uint64_t calls_made()
{
    uint64_t sum = 0;
    for (const row_t &row : rows) {
        for (const auto &result : row.results)
            sum += result.load(RELAXED);
    }
    return sum;
}

void print_book()
{
    printf("%-26s", "calls by result");
    for (const char *name :
         {"SUCCESS", "EINVAL", "ERANGE", "ENOENT", "ENOLINK", "ENOMEM", "EPROTO", "TIMEDOUT", "EBUSY", "ENOSYS"})
        printf("%9s", name);
    printf("  longest ms\n");
    for (uint32_t row = 0; row < FXM_API_ROWS; ++row) {
        if (rows[row].longest.load(RELAXED) == 0)
            continue; // never called
        printf("%-26s", fxm_row_names[row]);
        for (const auto &result : rows[row].results)
            printf("%9llu", static_cast<unsigned long long>(result.load(RELAXED)));
        printf("%12.1f\n", static_cast<double>(rows[row].longest.load(RELAXED)) / 1000);
    }
}

// ------------------------------------------------------------------------------------------------------------ watchdog

struct thread_record_t {
    std::atomic<bool> taken;
    std::atomic<const char *> name;
    std::atomic<const char *> doing; // null: nothing that is watched
    std::atomic<int64_t> since;
};
static thread_record_t thread_records[64];

// The record of this thread, until it ends.
struct own_record_t {
    own_record_t()
    {
        for (thread_record_t &candidate : thread_records) {
            bool is_free = false;
            if (candidate.taken.compare_exchange_strong(is_free, true)) {
                record = &candidate;
                record->name.store("callbacks", RELAXED);
                return;
            }
        }
        fprintf(stderr, "too many threads\n");
        abort();
    }
    ~own_record_t()
    {
        record->doing.store(nullptr, RELAXED);
        record->taken.store(false);
    }
    own_record_t(const own_record_t &) = delete;
    own_record_t &operator=(const own_record_t &) = delete;
    thread_record_t *record = nullptr;
};

static thread_record_t *own_record()
{
    static thread_local own_record_t own;
    return own.record;
}

void name_thread(const std::string &name)
{
    own_record()->name.store(strdup(name.c_str()), std::memory_order_release); // the watchdog may read it at any time
    pthread_setname_np(pthread_self(), name.c_str());
}

doing_t::doing_t(const char *what)
    : outer(own_record()->doing.load(RELAXED)), outer_since(own_record()->since.load(RELAXED))
{
    own_record()->since.store(steady_ms(), RELAXED);
    own_record()->doing.store(what, RELAXED);
}

doing_t::~doing_t()
{
    own_record()->doing.store(outer, RELAXED);
    own_record()->since.store(outer_since, RELAXED);
}

[[noreturn]] static void report_hang(const char *why)
{
    fprintf(stderr, "HANG: %s\n", why);
    for (const thread_record_t &record : thread_records) {
        const char *doing = record.doing.load(RELAXED);
        if (record.taken.load(RELAXED))
            fprintf(stderr, "  %-16s %s for %lld ms\n", record.name.load(std::memory_order_acquire),
                    doing != nullptr ? doing : "-",
                    doing != nullptr ? static_cast<long long>(steady_ms() - record.since.load(RELAXED)) : 0);
    }
    // The stacks of all threads, those of the library included, where a debugger is installed.
    const std::string command = "timeout 60 gdb -p " + std::to_string(getpid()) +
                                " -batch -ex 'thread apply all backtrace 24' 1>&2 2>/dev/null || "
                                "echo 'no stacks: gdb is missing or may not attach' 1>&2";
    fflush(stdout);
    if (system(command.c_str()) != 0)
        fprintf(stderr, "no shell for gdb\n");
    _exit(1);
}

void watch(int64_t most, int64_t all)
{
    const int64_t end = steady_ms() + all;
    std::thread([=] {
        pthread_setname_np(pthread_self(), "watchdog");
        while (steady_ms() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            for (const thread_record_t &record : thread_records) {
                const int64_t since = record.since.load(RELAXED);
                const char *doing = record.doing.load(RELAXED);
                // Read again: the two words are not one.
                if (doing != nullptr && steady_ms() - since > most && record.since.load(RELAXED) == since)
                    report_hang(doing);
            }
        }
        report_hang("the program has not ended in its time");
    }).detach();
}

// ----------------------------------------------------------------------------------------------------- process and ends

size_t entries_of(const char *directory)
{
    std::error_code none; // no such directory: no entries
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory, none), {}));
}

void expect_even(int lists)
{
    fxm_snapshot_t now;
    _fxm_snapshot(&now);
    const fxm_stats_t &stats = now.stats;
    for (uint32_t account = 0; account < FXM_MEMS; ++account) {
        const auto in_use = static_cast<int32_t>(stats.mem[account].alloc - stats.mem[account].free);
        if (account == FXM_MEM_WREG_NODE || (account == FXM_MEM_IDLIST && lists < 0))
            continue; // write locks live on
        if (in_use != (account == FXM_MEM_IDLIST ? lists : 0))
            finding("account %s has %d in use after a stop", fxm_mem_names[account], in_use);
    }
    if (stats.cb_called != stats.cb_returned)
        finding("%u callbacks called, %u returned", stats.cb_called, stats.cb_returned);
    if (stats.alloc_fail != 0 && !memory_short.load(RELAXED))
        finding("%u allocations failed", stats.alloc_fail);
}

options_t robust_begin(int argc, char **argv, const char *usage)
{
    options_t options;
    options.seed = std::random_device{}();
    for (int i = 1; i < argc; ++i) {
        char *rest = nullptr;
        const bool seed = strcmp(argv[i], "--seed") == 0 && i + 1 < argc;
        i += seed ? 1 : 0;
        const unsigned long long value = strtoull(argv[i], &rest, 0);
        if (*argv[i] == '\0' || *argv[i] == '-' || *rest != '\0' || (!seed && (value == 0 || value > 1000000))) {
            fprintf(stderr, "wrong argument: %s\n%s\n", argv[i], usage);
            exit(2);
        }
        if (seed)
            options.seed = static_cast<uint32_t>(value);
        else
            options.amount = static_cast<int64_t>(value);
    }
    if (options.amount == 0) {
        fprintf(stderr, "%s\n", usage);
        exit(2);
    }
    printf("seed %u\n", options.seed);
    fflush(stdout);
    on_failure = [](const std::string &what) {
        fprintf(stderr, "the run has failed: %s\n", what.c_str());
        fflush(stdout);
        _exit(1);
    };
    if (!enter_namespace())
        exit(1);
    return options;
}
