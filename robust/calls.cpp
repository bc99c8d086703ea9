#include "calls.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "diag/fxm_snapshot.h"
#include "net.h"
#include "wait.h"

// The book must not order the threads, or it would hide from the sanitizer what the library itself does not order. So
// all its words are relaxed.
constexpr auto RELAXED = std::memory_order_relaxed;

targets_t targets;
std::atomic<bool> memory_short{false};

constexpr int NOT_CALLED = -1; // there was nothing to call for

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
    DIR *opened = opendir(directory);
    if (opened == nullptr)
        return 0;
    size_t count = 0;
    while (readdir(opened) != nullptr)
        ++count;
    closedir(opened);
    return count;
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

// ------------------------------------------------------------------------------------------------------- the arguments

static uint64_t any_card(dice_t *dice)
{
    return dice->one_in(50) ? 0x02eeeeee0000 : targets.cards[dice->below(static_cast<uint32_t>(targets.cards.size()))];
}

static uint64_t unlucky_card(dice_t *dice)
{
    return dice->one_in(40) ? any_card(dice) : targets.prey[dice->below(static_cast<uint32_t>(targets.prey.size()))];
}

// The last argument of most operations: an answer is waited for as long as the configuration says, for a short time, or
// until a stop.
struct retry_t {
    explicit retry_t(dice_t *dice, bool refused = false)
        : param{dice->below(3), refused           ? 0
                                : dice->one_in(8) ? 1000
                                                  : 1 + dice->below(30)},
          given(refused || !dice->one_in(4) ? &param : nullptr)
    {
    }
    fxm_retry_param_t param;
    const fxm_retry_param_t *given;
};

// A register, or an address of the EEPROM.
static uint32_t address(dice_t *dice, bool wrong, uint32_t limit)
{
    return wrong ? 4 * dice->below(limit / 4) + 1 + dice->below(3) : 4 * dice->below(limit / 4);
}

constexpr uint32_t REGISTERS = 0x100; // few, so that the threads meet

static std::atomic<uint64_t *> lists[16];

int held_lists()
{
    return static_cast<int>(
        std::count_if(std::begin(lists), std::end(lists), [](auto &list) { return list.load() != nullptr; }));
}

void free_lists()
{
    for (auto &list : lists)
        fxm_free_idlist(list.exchange(nullptr));
}

template <typename Call> static int call_list(dice_t *dice, bool wrong, Call call)
{
    uint64_t *list = nullptr;
    uint32_t count = dice->one_in(4) ? 3 : 0;
    const uint32_t most = count;
    const bool no_count = wrong && dice->one_in(2);
    const int result = call(wrong && !no_count ? nullptr : &list, no_count ? nullptr : &count);
    if (result != FXM_API_SUCCESS) {
        if (list != nullptr)
            finding("a refused list was written");
        return result;
    }
    if ((list == nullptr) != (count == 0) || (most != 0 && count > most) || !std::is_sorted(list, list + count))
        finding("a list of %u ids, at most %u asked for", count, most);
    if (list != nullptr && dice->one_in(16))
        list = lists[dice->below(16)].exchange(list); // held for a while, perhaps over a stop
    fxm_free_idlist(list);
    return result;
}

registration_t registrations[REGISTRATIONS];
static std::atomic<uint32_t> next_registration{0};
static std::atomic<uint32_t> live[24]; // numbers of registrations, and 1; 0 none
thread_local bool in_callback = false;

static int register_callback(dice_t *dice, bool wrong)
{
    void *handle = nullptr;
    const auto type = static_cast<int32_t>(dice->below(6));
    if (wrong) {
        const uint32_t what = dice->below(3);
        return fxm_register_callback(what == 0 ? 6 : type, what == 1 ? nullptr : targets.callback, 0,
                                     what == 2 ? nullptr : &handle);
    }
    // The number comes round after so long that its last registration has ended, with a stop if not before.
    const uint32_t number = next_registration.fetch_add(1, RELAXED) % REGISTRATIONS;
    registration_t &made = registrations[number];
    made.ended.store(false, RELAXED);
    made.closed.store(false, RELAXED);
    const int result = fxm_register_callback(type, targets.callback, number, &handle);
    if (result != FXM_API_SUCCESS)
        return result;
    made.handle.store(handle, RELAXED);
    const uint32_t old = live[dice->below(24)].exchange(number + 1);
    if (old != 0) {
        registration_t &over = registrations[old - 1];
        if (fxm_unregister_callback(over.handle.load(RELAXED)) == FXM_API_SUCCESS) {
            over.ended.store(true, RELAXED);
            over.closed.store(!in_callback, RELAXED);
        }
    }
    return result;
}

static int unregister_callback(dice_t *dice, bool wrong)
{
    if (wrong)
        return fxm_unregister_callback(dice->one_in(2) ? nullptr
                                                       : reinterpret_cast<void *>(uintptr_t{dice->below(9999)}));
    const uint32_t number = live[dice->below(24)].exchange(0);
    if (number == 0)
        return NOT_CALLED;
    registration_t &over = registrations[number - 1];
    const int result = fxm_unregister_callback(over.handle.load(RELAXED));
    if (result == FXM_API_SUCCESS) {
        over.ended.store(true, RELAXED);
        over.closed.store(!in_callback, RELAXED);
    }
    return result;
}

static int init_manager(dice_t *dice, bool wrong)
{
    if (wrong)
        return dice->one_in(2) ? fxm_init_manager(targets.dir, 6) : fxm_init_manager("/nonexistent/fxm", FXM_LOG_ERROR);
    if (!targets.start_allowed())
        return NOT_CALLED;
    const int result = fxm_init_manager(targets.dir, FXM_LOG_ERROR);
    targets.started(result);
    return result;
}

template <typename Call> static int dump(dice_t *dice, bool wrong, uint32_t limit, Call call)
{
    uint32_t buffer[512];
    const uint32_t begin = address(dice, false, limit);
    const uint32_t end = begin + 4 * (1 + dice->below(dice->one_in(50) ? 512 : 4));
    uint64_t size = wrong ? 0 : sizeof(buffer);
    const int result = call(begin, std::min(end, limit), buffer, &size);
    if (size > sizeof(buffer) || (result == FXM_API_SUCCESS && size != std::min(end, limit) - begin))
        finding("a dump of 0x%x to 0x%x has given %llu bytes", begin, end, static_cast<unsigned long long>(size));
    return result;
}

// ------------------------------------------------------------------------------------------------------- the functions

template <typename... Codes> static constexpr uint32_t any_of(Codes... codes) { return (0u | ... | (1u << codes)); }

constexpr uint32_t OK = any_of(FXM_API_SUCCESS);
constexpr uint32_t INVALID = any_of(FXM_API_EINVAL);
constexpr uint32_t RECORD = any_of(FXM_API_SUCCESS, FXM_API_ENOENT);
constexpr uint32_t LIST = any_of(FXM_API_SUCCESS, FXM_API_ERANGE);
constexpr uint32_t SEND = any_of(FXM_API_SUCCESS, FXM_API_ENOENT, FXM_API_ENOLINK, FXM_API_EPROTO);
constexpr uint32_t ANSWER = SEND | any_of(FXM_API_ETIMEDOUT);
constexpr uint32_t LOCKED = ANSWER | any_of(FXM_API_EBUSY);
constexpr uint32_t STARTED = any_of(FXM_API_SUCCESS, FXM_API_EBUSY);

// `wrong` 0: it has no wrong arguments.
struct function_t {
    int (*call)(dice_t *dice, bool wrong);
    uint32_t right, wrong;
};

// In the order of the rows.
static const function_t functions[] = {
    {[](dice_t *dice, bool wrong) { return call_list(dice, wrong, fxm_get_fxsvids); }, LIST, INVALID},
    {[](dice_t *dice, bool wrong) {
         const uint64_t time = now_ms() - dice->below(1000);
         return call_list(dice, wrong,
                          [=](auto list, auto count) { return fxm_get_update_fxsvids(time, list, count); });
     },
     LIST, INVALID},
    {[](dice_t *dice, bool wrong) {
         const auto group = static_cast<uint16_t>(100 + dice->below(3));
         return call_list(dice, wrong,
                          [=](auto list, auto count) { return fxm_get_group_fxsvids(group, list, count); });
     },
     LIST, INVALID},
    {[](dice_t *dice, bool wrong) { return call_list(dice, wrong, fxm_get_fxioids); }, LIST, INVALID},
    {[](dice_t *dice, bool wrong) {
         const uint64_t time = now_ms() - dice->below(1000);
         return call_list(dice, wrong,
                          [=](auto list, auto count) { return fxm_get_update_fxioids(time, list, count); });
     },
     LIST, INVALID},
    {[](dice_t *dice, bool wrong) {
         const auto group = static_cast<uint16_t>(wrong ? 4095 : 100 + dice->below(3));
         return call_list(dice, false,
                          [=](auto list, auto count) { return fxm_get_group_fxioids(group, list, count); });
     },
     LIST, INVALID},
    {[](dice_t *dice, bool wrong) {
         fxm_fxsv_t record;
         return fxm_get_fxsv(any_card(dice), wrong ? nullptr : &record);
     },
     RECORD, INVALID},
    {[](dice_t *dice, bool wrong) {
         fxm_fxio_t record;
         return fxm_get_fxio(any_card(dice), wrong ? nullptr : &record);
     },
     RECORD, INVALID},
    {[](dice_t *dice, bool) { return fxm_delete_fxsv(unlucky_card(dice)); }, RECORD, 0},
    {[](dice_t *dice, bool) { return fxm_delete_fxio(unlucky_card(dice)); }, RECORD, 0},
    {[](dice_t *dice, bool wrong) {
         const auto vlan = static_cast<uint16_t>(wrong ? 15 : 100 + dice->below(3));
         return fxm_set_vlanid(any_card(dice), vlan, retry_t(dice).given, dice->below(4));
     },
     ANSWER, INVALID},
    {[](dice_t *dice, bool) {
         return fxm_send_resetframe(any_card(dice), static_cast<uint8_t>(dice->below(256)), nullptr, 0);
     },
     SEND, 0},
    {[](dice_t *dice, bool wrong) {
         const char page[FXM_MMS_PAGE_SIZE] = {};
         return fxm_write_mmspage(any_card(dice), wrong ? FXM_MMS_PAGES : dice->below(FXM_MMS_PAGES), page,
                                  dice->below(2));
     },
     ANSWER, INVALID},
    {[](dice_t *dice, bool wrong) {
         uint32_t value;
         const bool no_wait = wrong && dice->one_in(2);
         return fxm_read_register(any_card(dice), address(dice, wrong && !no_wait, REGISTERS), &value,
                                  retry_t(dice, no_wait).given, dice->below(2));
     },
     ANSWER, INVALID},
    {[](dice_t *dice, bool wrong) {
         return fxm_write_register(any_card(dice), address(dice, wrong, REGISTERS), dice->below(0xffff),
                                   retry_t(dice).given, dice->below(4));
     },
     ANSWER, INVALID},
    {[](dice_t *dice, bool wrong) {
         return fxm_modify_register(any_card(dice), address(dice, wrong, REGISTERS), dice->below(0xffff), 0xff0,
                                    retry_t(dice).given, dice->below(4));
     },
     ANSWER, INVALID},
    {[](dice_t *dice, bool wrong) {
         return dump(dice, wrong, REGISTERS, [&](uint32_t begin, uint32_t end, uint32_t *buffer, uint64_t *size) {
             return fxm_dump_register(any_card(dice), begin, end, buffer, size, retry_t(dice).given, dice->below(2));
         });
     },
     ANSWER, any_of(FXM_API_EINVAL, FXM_API_ERANGE)},
    {[](dice_t *dice, bool wrong) {
         uint32_t value;
         return fxm_read_eeprom(any_card(dice), address(dice, wrong, FXM_EEPROM_SIZE), wrong ? nullptr : &value,
                                retry_t(dice).given, dice->below(8));
     },
     LOCKED, INVALID},
    {[](dice_t *dice, bool wrong) {
         return fxm_write_eeprom(any_card(dice), address(dice, wrong, FXM_EEPROM_SIZE), dice->below(0xffff),
                                 retry_t(dice).given, dice->below(8));
     },
     LOCKED, INVALID},
    {[](dice_t *dice, bool wrong) {
         return dump(dice, wrong, FXM_EEPROM_SIZE, [&](uint32_t begin, uint32_t end, uint32_t *buffer, uint64_t *size) {
             return fxm_dump_eeprom(any_card(dice), begin, end, buffer, size, retry_t(dice).given, dice->below(8));
         });
     },
     LOCKED, any_of(FXM_API_EINVAL, FXM_API_ERANGE)},
    {[](dice_t *dice, bool) { return fxm_unlock_eeprom(any_card(dice)); }, ANSWER, 0},
    {[](dice_t *dice, bool) { return fxm_stop_monitor(unlucky_card(dice)); }, OK, 0},
    {[](dice_t *dice, bool) { return fxm_restart_monitor(dice->one_in(2) ? unlucky_card(dice) : any_card(dice)); }, OK,
     0},
    {register_callback, OK, INVALID},
    {unregister_callback, OK | INVALID, INVALID},
    {[](dice_t *dice, bool) { return fxm_free_idlist(lists[dice->below(16)].exchange(nullptr)); }, OK, 0},
    {[](dice_t *dice, bool wrong) {
         const int32_t levels[] = {FXM_LOG_CONFIGURED, FXM_LOG_FATAL, FXM_LOG_ERROR, FXM_LOG_ERROR,
                                   FXM_LOG_WARN,       FXM_LOG_INFO,  FXM_LOG_DEBUG, FXM_LOG_TRACE};
         return fxm_set_loglevel(wrong ? FXM_LOG_TRACE + 1 : levels[dice->below(8)]);
     },
     OK, INVALID},
    {init_manager, STARTED, any_of(FXM_API_EINVAL, FXM_API_EBUSY)},
    {[](dice_t *, bool) { return fxm_start_manager(); }, OK, 0},
    {[](dice_t *, bool) { return targets.stop_due() ? fxm_fini_manager() : NOT_CALLED; }, OK, 0},
    {[](dice_t *dice, bool) { return dice->one_in(4) ? fxm_stdump(dice->one_in(8) ? 1 : 0) : NOT_CALLED; }, OK, 0},
};
static_assert(std::size(functions) == FXM_API_ROWS);

int call_row(fxm_api_row_t row, dice_t *dice, bool wrong)
{
    const function_t &function = functions[row];
    wrong = wrong && function.wrong != 0;
    const int result = timed(row, [&] { return function.call(dice, wrong); });
    if (result == NOT_CALLED)
        return result;
    uint32_t promised = (wrong ? function.wrong : function.right) | any_of(FXM_API_ENOSYS);
    if (memory_short.load(RELAXED))
        promised |= any_of(FXM_API_ENOMEM, FXM_API_EPROTO);
    if ((any_of(result) & promised) == 0)
        finding("%s has returned %d%s", fxm_row_names[row], result, wrong ? ", called with wrong arguments" : "");
    return result;
}

void expect_stopped(dice_t *dice)
{
    for (uint32_t row = 0; row < FXM_API_ROWS; ++row) {
        const bool answers = row == FXM_ROW_FREE_IDLIST || row == FXM_ROW_FINI_MANAGER;
        const int result = call_row(static_cast<fxm_api_row_t>(row), dice, false);
        if (!answers && result != FXM_API_ENOSYS && result != NOT_CALLED)
            finding("%s has returned %d after a stop", fxm_row_names[row], result);
    }
    if (fxm_stdump(0) != FXM_API_ENOSYS || fxm_unregister_callback(nullptr) != FXM_API_ENOSYS)
        finding("a dump or an unregistration has not returned FXM_API_ENOSYS after a stop");
}
