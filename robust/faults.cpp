// No failing call brings the library down. Each case is a process: a run of the library in which the n-th call of a kind
// fails, once or from then on for ever, and then a run without a fault. See robust/README.md.
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "faults_calls.h"
#include "host.h"
#include "net.h"
#include "registry/fxm_tables.h"
#include "sim.h"
#include "wait.h"
#include "wire/fxm_port.h"

using std::chrono::milliseconds;
namespace fs = std::filesystem;

constexpr uint64_t FXSV = 0x020000001000, FXSV40 = 0x020000004000, FXIO_CARD = 0x020000002100;
constexpr uint32_t CARDS = 3, HANG = 30 /* s */, MOST_CASES = 400000, WORKERS = 6;

// ---------------------------------------------------------------------------------------------------------------- cases

struct case_t {
    uint32_t kind, n;
    bool ever, done, hit, third;
    char text[330], owner[100]; // what did not hold; where somebody else's library died
};
static struct shared_t {
    std::atomic<uint32_t> next, finished;
    uint32_t number, counts[KINDS];
    bool cold; // the library has not run before, and what is made once is not told from what is left over
    case_t cases[MOST_CASES];
} * shared;
static case_t *current;            // null: a run without a fault
static const char *volatile phase; // what the run is in

static void failed(const char *format, ...) __attribute__((format(printf, 1, 2)));
static void failed(const char *format, ...)
{
    char text[sizeof(current->text)];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (current == nullptr)
        harness_failed(std::string("a run without a fault: ") + text);
    else if (current->text[0] == '\0')
        memcpy(current->text, text, sizeof(text));
}

static bool until(const std::function<bool()> &done, int64_t ms)
{
    const auto limit = std::chrono::steady_clock::now() + milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

// Tells where a case has died, or what it hangs in: the frames from there on. The death is that of the first frame that
// belongs to the library, libpcap or log4cxx. An exception that nobody has caught is the library's death in any case.
static bool uncaught = false;
static void on_death(int number, siginfo_t *, void *context)
{
    static std::atomic_flag dead;
    while (dead.test_and_set()) // threads that die at the same time
        pause();
    inside = false;
    signal(SIGALRM, SIG_DFL);
    alarm(3); // a thread that has died in the heap gets no further
    snprintf(current->text, sizeof(current->text), "%s in %s", number == SIGALRM ? "hangs" : strsignal(number), phase);
    void *frames[48];
    const int count = backtrace(frames, 48);
    const auto *at = static_cast<const ucontext_t *>(context);
    void **frame = std::find(frames, frames + count, reinterpret_cast<void *>(at->uc_mcontext.gregs[REG_RIP]));
    std::string text = current->text + std::string(":");
    for (; frame != frames + count && text.size() < sizeof(current->text); ++frame) {
        Dl_info info{};
        dladdr(*frame, &info);
        char offset[32];
        snprintf(offset, sizeof(offset), "+0x%zx", static_cast<char *>(*frame) - static_cast<char *>(info.dli_fbase));
        const std::string name = info.dli_sname != nullptr ? info.dli_sname : offset;
        if (current->owner[0] == '\0' && whose(*frame) != SYSTEM && number != SIGALRM) {
            snprintf(current->owner, sizeof(current->owner), "%s", name.c_str());
            current->third = whose(*frame) != FXM && !uncaught;
        }
        text += " " + name.substr(0, 44);
    }
    snprintf(current->text, sizeof(current->text), "%s", text.c_str());
    _exit(1);
}

// ------------------------------------------------------------------------------------------------------------------ run

template <typename... Codes> static constexpr uint32_t any_of(Codes... codes) { return ((1u << codes) | ... | 0); }
constexpr uint32_t OK = any_of(FXM_API_SUCCESS), OK_ENOENT = any_of(FXM_API_SUCCESS, FXM_API_ENOENT),
                   OK_ENOMEM = any_of(FXM_API_SUCCESS, FXM_API_ENOMEM),
                   OK_SEND = OK_ENOENT | any_of(FXM_API_ENOLINK, FXM_API_EPROTO),
                   OK_CARD = OK_SEND | any_of(FXM_API_ETIMEDOUT);

static std::atomic<uint32_t> events[FXM_EVT_KINDS];
static void on_event(uint64_t, int32_t type, uint64_t) { events[type].fetch_add(1); }

// One life of the library, and what it has answered.
class run_t
{
  public:
    explicit run_t(const fs::path &installation) : dir(installation.string())
    {
        for (const char *name : {"logfile", "syslogfile", "statslogfile"}) {
            std::error_code absent;
            fs::resize_file(installation / name, 0, absent);
        }
        for (auto &count : events)
            count = 0;
        set_up("card1", true);
    }

    void life(bool all)
    {
        phase = "fxm_init_manager";
        std::thread manager([this] {
            inside = has_clock_ahead = true;
            result = fxm_init_manager(dir.c_str(), FXM_LOG_CONFIGURED);
            inside = false;
            returned = true;
        });
        const auto over = [this] { return returned || g_init_flag.load() == FXM_ON; };
        if (!until(over, 10000))
            failed("the library does not come up");
        up = !returned;
        if (up)
            use(all);
        phase = "a stop";
        if (call("fxm_fini_manager", OK, [] { return fxm_fini_manager(); }) != FXM_API_SUCCESS)
            failed("a stop is refused");
        manager.join();
        std::ifstream file(fs::path(dir) / "logfile");
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("ERROR ") || line.starts_with("FATAL "))
                log += line + "\n";
        check_accounts();
    }

    bool logged(const char *text) const { return log.find(text) != std::string::npos; }
    bool stopped_itself() const { return logged("FATAL _fxm_fini_manager: LFI will terminate by reason of internal"); }

    int result = -1;
    bool up = false, not_running = false;

  private:
    // Calls a function; one that answers what fxm.h does not allow has failed the case.
    template <typename Call> int call(const char *name, uint32_t allowed, Call function)
    {
        phase = name;
        inside = true;
        const int answer = function();
        inside = false;
        not_running = not_running || answer == FXM_API_ENOSYS;
        allowed |= current != nullptr ? any_of(FXM_API_ENOSYS) : 0;
        if (answer < 0 || answer > FXM_API_ENOSYS || (allowed >> answer & 1) == 0 || (answer != 0 && strict()))
            failed("%s has returned %d", name, answer);
        return answer;
    }
#define CALL(allowed, function, ...) call(#function, allowed, [&] { return function(__VA_ARGS__); })

    static bool strict() { return !armed.load(); }

    // Waits for what may never come after a fault. A library that has lost one call and runs on does it all the same.
    void expect(const char *what, bool firm, const std::function<bool()> &done)
    {
        phase = what;
        firm = strict() || (firm && !fault.ever);
        if (!until([&] { return done() || returned; }, firm ? 20000 : 300) && firm)
            failed("missing: %s", what);
    }

    void use(bool all)
    {
        void *handles[FXM_EVT_KINDS] = {};
        for (int32_t kind = 0; kind < static_cast<int32_t>(FXM_EVT_KINDS); ++kind)
            CALL(OK_ENOMEM, fxm_register_callback, kind, on_event, 0, &handles[kind]);
        CALL(OK, fxm_start_manager);
        expect("the cards", true, [] {
            fxm_fx_guard_t guard;
            return fxm_fx_tbl.fxsv_total + fxm_fx_tbl.fxio_total == CARDS;
        });
        read(FXSV);
        if (all) {
            use_cards();
            query();
            disturb();
        }
        for (void *handle : handles)
            if (handle != nullptr)
                CALL(OK, fxm_unregister_callback, handle);
    }

    static constexpr fxm_retry_param_t retry = {50, 100}; // for a crowded machine

    void read(uint64_t id)
    {
        uint32_t value = 0xabad1dea;
        const int answer = CALL(OK_CARD, fxm_read_register, id, 0x2000, &value, &retry, 0);
        if (value != (answer == FXM_API_SUCCESS ? 0 : 0xabad1dea))
            failed("fxm_read_register has returned %d and given 0x%x", answer, value);
    }

    void use_cards()
    {
        constexpr uint32_t verify = FXM_FLAG_VERIFY | FXM_FLAG_LIVECHECK;
        uint32_t value = 0, words[4] = {};
        uint64_t size = sizeof(words);
        if (CALL(OK_CARD, fxm_write_register, FXSV40, 0x1000, 0x12345678, &retry, verify) == 0 &&
            CALL(OK_CARD, fxm_modify_register, FXSV40, 0x1000, 0xff, 0xff, &retry, verify) == 0 &&
            CALL(OK_CARD, fxm_read_register, FXSV40, 0x1000, &value, &retry, 0) == 0 && value != 0x123456ff)
            failed("a register holds 0x%08x", value);
        if ((CALL(OK_CARD, fxm_dump_register, FXSV40, 0x1000, 0x1010, words, &size, &retry, 0) == 0) != (size == 16))
            failed("a dump of registers of %llu bytes", static_cast<unsigned long long>(size));
        CALL(OK_CARD, fxm_set_vlanid, FXIO_CARD, 200, &retry, verify);
        CALL(OK_CARD, fxm_set_vlanid, FXIO_CARD, 100, &retry, verify);
        CALL(OK_SEND, fxm_send_resetframe, FXSV, 1, nullptr, 0);
        const uint8_t page[FXM_MMS_PAGE_SIZE] = {};
        CALL(OK_SEND, fxm_write_mmspage, FXIO_CARD, 1, page, 0);
        for (const uint64_t id : {FXSV, FXSV40}) {
            size = 8;
            const uint32_t allowed = OK_CARD | any_of(FXM_API_EBUSY);
            if (CALL(allowed, fxm_write_eeprom, id, 4, 0xcafe0000, &retry, FXM_FLAG_VERIFY) == 0 &&
                CALL(allowed, fxm_dump_eeprom, id, 0, 8, words, &size, &retry, FXM_FLAG_FORCELOCK) == 0 &&
                (size != 8 || words[1] != 0xcafe0000))
                failed("an EEPROM holds 0x%08x", words[1]);
        }
        CALL(OK_CARD, fxm_unlock_eeprom, FXSV40);
    }

    template <typename Get> void list(const char *name, Get get)
    {
        uint64_t *ids = reinterpret_cast<uint64_t *>(16);
        uint32_t count = 0;
        const int answer = call(name, OK_ENOMEM, [&] { return get(&ids, &count); });
        if (answer != FXM_API_SUCCESS && (count != 0 || ids != reinterpret_cast<uint64_t *>(16)))
            failed("%s has returned %d and written its outputs", name, answer);
        if (answer == FXM_API_SUCCESS)
            CALL(OK, fxm_free_idlist, ids);
    }

    void query()
    {
        fxm_fxsv_t fxsv;
        fxm_fxio_t fxio;
        CALL(OK_ENOENT, fxm_get_fxsv, FXSV, &fxsv);
        CALL(OK_ENOENT, fxm_get_fxio, FXIO_CARD, &fxio);
        list("fxm_get_fxsvids", fxm_get_fxsvids);
        list("fxm_get_fxioids", fxm_get_fxioids);
        list("fxm_get_group_fxsvids", [](auto ids, auto count) { return fxm_get_group_fxsvids(100, ids, count); });
        list("fxm_get_update_fxioids", [](auto ids, auto count) { return fxm_get_update_fxioids(1, ids, count); });
        CALL(OK, fxm_stdump, 0);
        CALL(OK, fxm_stdump, 1);
        CALL(OK, fxm_set_loglevel, FXM_LOG_CONFIGURED);
    }

    void disturb()
    {
        CALL(OK_ENOMEM | any_of(FXM_API_EPROTO), fxm_stop_monitor, FXSV);
        CALL(OK, fxm_restart_monitor, FXSV);
        set_up("card1", false);
        expect("the fall of a link", true, [] { return fxm_ports[1].pt_link.load() == 0; });
        set_up("card1", true);
        const uint32_t changes = events[FXM_EVT_CHANNELSTATECHANGE];
        clock_ahead = 600000; // for the interval check alone: all cards have been silent for long
        expect("cards that expire", false, [&] { return events[FXM_EVT_CHANNELSTATECHANGE] >= changes + CARDS; });
        clock_ahead = 0;
        CALL(OK_ENOENT, fxm_delete_fxio, FXIO_CARD);
    }

    static void check_accounts()
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        for (uint32_t i = 0; i < FXM_MEMS; ++i)
            if (i != FXM_MEM_WREG_NODE && g_stats.mem[i].alloc != g_stats.mem[i].free) // write locks live on
                failed("account %s: %u taken, %u released", fxm_mem_names[i], g_stats.mem[i].alloc,
                       g_stats.mem[i].free);
    }

    const std::string dir;
    std::string log;
    std::atomic<bool> returned{false};
};

// --------------------------------------------------------------------------------------------------------------- checks

// What fxm_init_manager has returned belongs to the fault, and so does what the log says.
static void judge(const run_t &run)
{
    const uint32_t kind = current->kind;
    const uint32_t may =
        origin_of(kind) == LOG ? 0 : row_of(kind).follows; // a log that cannot be written is no reason to stop
    const bool itself = run.stopped_itself(), refused = !run.up && !itself;
    // The log says nothing without log4cxx, or without the memory that it needs.
    const bool mute =
        origin_of(kind) == LOG || call_of(kind) == CALL_new || (origin_of(kind) == SYSTEM && current->ever);
    bool allowed = run.result == FXM_API_SUCCESS && run.up && !itself && !run.not_running;
    if (refused && (may & (current->ever ? REFUSES_EVER : REFUSES_ONCE)) != 0)
        allowed = run.result == FXM_API_EPROTO || ((may & NO_ENTRY) != 0 && run.result == FXM_API_ENOENT) ||
                  ((may & NO_MEMORY) != 0 && run.result == FXM_API_ENOMEM) ||
                  ((may & BAD_ARGUMENT) != 0 && run.result == FXM_API_EINVAL);
    // A worker that cannot be started stops the library with the same words as one that fails.
    if ((itself || mute) && (may & (STOPS | REFUSES_ONCE | REFUSES_EVER)) != 0)
        allowed = allowed || run.result == FXM_API_EPROTO;
    if (!allowed)
        failed("fxm_init_manager has returned %d%s%s%s", run.result, run.up ? "" : " at once",
               itself ? " after an internal stop" : "", run.not_running ? ", calls FXM_API_ENOSYS" : "");
    if ((itself || refused) && !mute && (may & SILENT) == 0 && !run.logged(row_of(kind).message))
        failed("the log does not say: %s", row_of(kind).message);
}

struct sample_t {
    int64_t descriptors, threads;
    int32_t blocks[KINDS];
};
static int64_t entries(const char *path) { return std::distance(fs::directory_iterator(path), {}); }
static sample_t sample()
{
    until([] { return entries("/proc/self/task") == 1; }, 2000); // a joined thread may still be on its way out
    sample_t now{entries("/proc/self/fd"), entries("/proc/self/task"), {}};
    std::copy_n(std::begin(live), KINDS, now.blocks);
    return now;
}

static void compare(const sample_t &before, const sample_t &now)
{
    if (shared->cold)
        return;
    if (now.descriptors != before.descriptors || now.threads != before.threads)
        failed("%lld descriptors and %lld threads are left over",
               static_cast<long long>(now.descriptors - before.descriptors),
               static_cast<long long>(now.threads - before.threads));
    for (uint32_t kind = 0; kind < KINDS; ++kind)
        if ((origin_of(kind) == FXM || origin_of(kind) == PCAP) && now.blocks[kind] != before.blocks[kind])
            failed("%d blocks of %s are left over", now.blocks[kind] - before.blocks[kind], kind_name(kind).c_str());
}

// -------------------------------------------------------------------------------------------------------------- workers

// A fabric in a network namespace of its own, and a library that has run before, so that what is made once is made.
extern "C" int __llvm_profile_write_file() __attribute__((weak)); // in the build that counts branches

class worker_t
{
  public:
    worker_t()
    {
        if (!enter_namespace())
            _exit(1);
        lay_cable("fxm0", "card0");
        lay_cable("fxm1", "card1");
        installation.configure("ether_port = fxm0 fxm1\neeprom_verify_count = 2\neeprom_retry_interval = 1\n"
                               "eeprom_rw_interval = 1\nframe_retry_interval_livecheck = 20\n");
        sim.start("--port0 card0 --port1 card1 --period 50");
        sim.command("fxsv 020000001000");
        sim.command("fxsv 020000004000 gen=40g locktype=id");
        sim.command("fxio 020000002100 ver=1 gen=40g");
        for (int i = 0; i < 2 && !shared->cold; ++i)
            run_t(installation.dir).life(true);
    }

    // The calls of a run, the greater number of two.
    void count()
    {
        for (int i = 0; i < (shared->cold ? 1 : 2); ++i) {
            for (auto &calls : reached)
                calls = 0;
            run_t run(installation.dir);
            armed = true;
            run.life(true);
            armed = false;
            for (uint32_t kind = 0; kind < KINDS; ++kind)
                shared->counts[kind] = std::max(shared->counts[kind], reached[kind].load());
        }
    }

    void work()
    {
        const sample_t before = sample();
        if (!shared->cold)
            run_t(installation.dir).life(true);
        compare(before, sample());
        for (uint32_t i = 0; (i = shared->next.fetch_add(1)) < shared->number; shared->finished.fetch_add(1)) {
            case_t &next = shared->cases[i];
            const pid_t child = fork();
            if (child == 0)
                one(&next, before);
            int status = 0;
            waitpid(child, &status, 0);
            if (!next.done && next.text[0] == '\0')
                snprintf(next.text, sizeof(next.text), "the process has ended with status 0x%x", status);
        }
    }

  private:
    [[noreturn]] void one(case_t *next, const sample_t &before)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        static char stack[1 << 16];
        const stack_t other = {stack, 0, sizeof(stack)};
        sigaltstack(&other, nullptr);
        struct sigaction action {
        };
        action.sa_sigaction = on_death;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM})
            sigaction(number, &action, nullptr);
        std::set_terminate([] {
            uncaught = true;
            abort();
        });
        alarm(HANG);
        if (freopen("/dev/null", "w", stderr) == nullptr) // log4cxx complains there
            _exit(1);
        current = next;
        fault = {next->kind, next->n, next->ever};
        for (auto &calls : reached)
            calls = 0;
        {
            run_t run(installation.dir);
            armed = true;
            run.life(true);
            armed = false;
            next->hit = reached[fault.kind] >= fault.n;
            judge(run);
        }
        if (origin_of(fault.kind) != LOG)
            compare(before, sample());
        fault.kind = KINDS;
        run_t again(installation.dir);
        again.life(false);
        if (again.result != FXM_API_SUCCESS)
            failed("a start after the fault: fxm_init_manager has returned %d", again.result);
        compare(before, sample());
        next->done = true;
        if (__llvm_profile_write_file != nullptr)
            __llvm_profile_write_file();
        _exit(0);
    }

    const installation_t installation;
    sim_t sim;
};

template <typename Task> static pid_t start_worker(Task task)
{
    fflush(stdout);
    const pid_t id = fork();
    if (id != 0)
        return id;
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        worker_t worker;
        task(&worker);
    }
    _exit(0);
}

static bool ended_well(pid_t id)
{
    int status = 0;
    return waitpid(id, &status, 0) == id && status == 0;
}

// --------------------------------------------------------------------------------------------------------------- report

struct wish_t {
    std::string kind;
    uint32_t n = 0, every = 1, seed = 0;
    bool sample = false, cold = false;
};

static void choose_cases(const wish_t &wish)
{
    std::mt19937 dice(wish.seed);
    for (uint32_t kind = 0; kind < KINDS; ++kind) {
        const uint32_t count = shared->counts[kind];
        const std::string name = kind_name(kind);
        if (count == 0 || (!wish.kind.empty() && name != wish.kind && name.substr(0, name.find('.')) != wish.kind))
            continue;
        std::set<uint32_t> chosen;
        for (uint32_t n = 1; n <= count; n += wish.every)
            chosen.insert(chosen.end(), n);
        if (wish.sample)
            chosen = {1, std::min(2u, count), std::min(3u, count), count, 1 + static_cast<uint32_t>(dice()) % count};
        if (wish.n != 0)
            chosen = {wish.n};
        for (const uint32_t n : chosen)
            for (const bool ever : {false, true})
                if (shared->number < MOST_CASES && (!ever || !wish.sample || n == 1 || n == *chosen.rbegin() || n == 3))
                    shared->cases[shared->number++] = {kind, n, ever, false, false, false, "", ""};
    }
    std::shuffle(shared->cases, shared->cases + shared->number, dice); // so that the slow ones are spread
}

static int report()
{
    struct sum_t {
        uint32_t runs[2], missed, survivors, third;
    };
    std::map<uint32_t, sum_t> sums;
    struct text_t {
        std::set<uint32_t> numbers; // of the calls
        std::string example;
    };
    std::map<std::string, text_t> texts;
    uint32_t survivors = 0;
    for (uint32_t i = 0; i < shared->number; ++i) {
        const case_t &one = shared->cases[i];
        sum_t &sum = sums[one.kind];
        sum.runs[one.ever] += 1;
        sum.missed += one.done && !one.hit ? 1 : 0;
        if (one.text[0] == '\0')
            continue;
        (one.third ? sum.third : sum.survivors) += 1;
        survivors += one.third ? 0 : 1;
        const std::string what = one.third ? std::string("somebody else's death in ") + one.owner : one.text;
        text_t &text = texts[kind_name(one.kind) + (one.ever ? " for ever: " : " once: ") + what];
        text.numbers.insert(one.n);
        text.example = one.third ? std::string("   ") + one.text + "\n" : "";
    }
    printf("%-28s%8s%8s%8s%8s%11s%13s\n", "kind", "calls", "once", "ever", "missed", "survivors", "third party");
    for (const auto &[kind, sum] : sums)
        printf("%-28s%8u%8u%8u%8u%11u%13u\n", kind_name(kind).c_str(), shared->counts[kind], sum.runs[0], sum.runs[1],
               sum.missed, sum.survivors, sum.third);
    for (const auto &[head, text] : texts) {
        printf("%s\n%s   %zu cases, n =", head.c_str(), text.example.c_str(), text.numbers.size());
        uint32_t shown = 0;
        for (auto n = text.numbers.begin(); n != text.numbers.end() && shown++ < 12; ++n)
            printf(" %u", *n);
        printf("\n");
    }
    printf("%u cases, %u survivors\n", shared->number, survivors);
    return survivors == 0 ? 0 : 1;
}

static void run_all()
{
    std::vector<pid_t> ids(WORKERS);
    for (pid_t &id : ids)
        id = start_worker([](worker_t *worker) { worker->work(); });
    bool good = true;
    for (int status = 0; !ids.empty(); std::this_thread::sleep_for(milliseconds(100))) {
        std::erase_if(ids, [&](pid_t id) {
            const bool ended = waitpid(id, &status, WNOHANG) == id;
            good = good && (!ended || status == 0);
            return ended;
        });
        if (isatty(STDOUT_FILENO) != 0 && printf("\r%u of %u cases ", shared->finished.load(), shared->number) > 0)
            fflush(stdout);
    }
    printf("\n");
    if (!good)
        harness_failed("a worker has failed; see above");
}

int main(int argc, char **argv)
{
    wish_t wish;
    wish.seed = std::random_device{}() % 1000000 + 1;
    const auto usage =
        "Usage: faults [--kind NAME [--n N | --every N]] [--cold] [--sample] [--seed N] [-h] [--version]\n";
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i], value = i + 1 < argc ? argv[i + 1] : "";
        const std::map<std::string, bool *> flags = {{"--sample", &wish.sample}, {"--cold", &wish.cold}};
        const std::map<std::string, uint32_t *> numbers = {
            {"--n", &wish.n}, {"--every", &wish.every}, {"--seed", &wish.seed}};
        if (option == "-h" || option == "--help" || option == "--version")
            return printf("%s", option == "--version" ? "faults (fxm) " FXM_VERSION "\n" : usage) < 0 ? 1 : 0;
        if (flags.contains(option)) {
            *flags.at(option) = true;
        } else if (option == "--kind" && !value.empty()) {
            wish.kind = argv[++i];
        } else if (numbers.contains(option) && atoi(value.c_str()) > 0) {
            *numbers.at(option) = static_cast<uint32_t>(atoi(argv[++i]));
        } else {
            fprintf(stderr, "faults: unknown argument: %s\n%s", argv[i], usage);
            return 2;
        }
    }
    on_failure = [](const std::string &what) {
        fprintf(stderr, "the run has failed: %s\n", what.c_str());
        _exit(1);
    };
    printf("seed %u\n", wish.seed);
    void *frame = nullptr;
    backtrace(&frame, 1); // loads what it needs
    shared = static_cast<shared_t *>(
        mmap(nullptr, sizeof(shared_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    shared->cold = wish.cold;
    faults_begin();
    if (!ended_well(start_worker([](worker_t *worker) { worker->count(); })))
        harness_failed("there is no run without a fault; see above");
    choose_cases(wish);
    if (shared->number == 0)
        return fprintf(stderr, "faults: no call is of the kind %s; --sample shows the kinds\n", wish.kind.c_str()), 2;
    run_all();
    return report();
}
