// No failing call brings the library down. Each case is a process: a run of the library in which the n-th call of a kind
// fails, once or from then on for ever, and then a run without a fault. scripts/faults chooses the cases and sums up.
#include <execinfo.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <exception>
#include <fstream>

#include "core/fxm_state.h"
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
constexpr uint32_t CARDS = 3, HANG = 30 /* s */;

// ---------------------------------------------------------------------------------------------------------------- cases

struct case_t {
    uint32_t kind, n;
    bool ever, done, hit;
    char text[330], owner[100]; // what did not hold; where somebody else's library died
};
static case_t *current;            // null: a run without a fault
static const char *volatile phase; // what the run is in
static bool cold; // the library has not run before, and what is made once is not told from what is left over

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
            snprintf(current->owner, sizeof(current->owner), "%s",
                     whose(*frame) == FXM || uncaught ? "fxm" : name.c_str());
        }
        text += " " + name.substr(0, 44);
    }
    snprintf(current->text, sizeof(current->text), "%s", text.c_str());
    _exit(1);
}

// ------------------------------------------------------------------------------------------------------------------ run

constexpr uint32_t OK_ENOMEM = OK | any_of(FXM_API_ENOMEM);

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
        if (!until([this] { return returned || g_init_flag.load() == FXM_ON; }, 10000))
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
        const int answer = CALL(ANSWERED, fxm_read_register, id, 0x2000, &value, &retry, 0);
        if (value != (answer == FXM_API_SUCCESS ? 0 : 0xabad1dea))
            failed("fxm_read_register has returned %d and given 0x%x", answer, value);
    }

    void use_cards()
    {
        constexpr uint32_t verify = FXM_FLAG_VERIFY | FXM_FLAG_LIVECHECK;
        uint32_t value = 0, words[4] = {};
        uint64_t size = sizeof(words);
        if (CALL(ANSWERED, fxm_write_register, FXSV40, 0x1000, 0x12345678, &retry, verify) == 0 &&
            CALL(ANSWERED, fxm_modify_register, FXSV40, 0x1000, 0xff, 0xff, &retry, verify) == 0 &&
            CALL(ANSWERED, fxm_read_register, FXSV40, 0x1000, &value, &retry, 0) == 0 && value != 0x123456ff)
            failed("a register holds 0x%08x", value);
        if ((CALL(ANSWERED, fxm_dump_register, FXSV40, 0x1000, 0x1010, words, &size, &retry, 0) == 0) != (size == 16))
            failed("a dump of registers of %llu bytes", static_cast<unsigned long long>(size));
        CALL(ANSWERED, fxm_set_vlanid, FXIO_CARD, 200, &retry, verify);
        CALL(ANSWERED, fxm_set_vlanid, FXIO_CARD, 100, &retry, verify);
        CALL(SENT, fxm_send_resetframe, FXSV, 1, nullptr, 0);
        const uint8_t page[FXM_MMS_PAGE_SIZE] = {};
        CALL(SENT, fxm_write_mmspage, FXIO_CARD, 1, page, 0);
        for (const uint64_t id : {FXSV, FXSV40}) {
            size = 8;
            if (CALL(LOCKED, fxm_write_eeprom, id, 4, 0xcafe0000, &retry, FXM_FLAG_VERIFY) == 0 &&
                CALL(LOCKED, fxm_dump_eeprom, id, 0, 8, words, &size, &retry, FXM_FLAG_FORCELOCK) == 0 &&
                (size != 8 || words[1] != 0xcafe0000))
                failed("an EEPROM holds 0x%08x", words[1]);
        }
        CALL(ANSWERED, fxm_unlock_eeprom, FXSV40);
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
        CALL(FOUND, fxm_get_fxsv, FXSV, &fxsv);
        CALL(FOUND, fxm_get_fxio, FXIO_CARD, &fxio);
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
        CALL(FOUND, fxm_delete_fxio, FXIO_CARD);
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
    std::copy_n(blocks, KINDS, now.blocks);
    return now;
}

static void compare(const sample_t &before, const sample_t &now)
{
    if (cold)
        return;
    if (now.descriptors != before.descriptors || now.threads != before.threads)
        failed("%lld descriptors and %lld threads are left over",
               static_cast<long long>(now.descriptors - before.descriptors),
               static_cast<long long>(now.threads - before.threads));
    for (uint32_t kind = 0; kind < KINDS; ++kind)
        if ((origin_of(kind) == FXM || origin_of(kind) == PCAP) && now.blocks[kind] != before.blocks[kind])
            failed("%d blocks of %s are left over", now.blocks[kind] - before.blocks[kind], kind_name(kind).c_str());
}

// ---------------------------------------------------------------------------------------------------------------- cases

// Prints the calls of a run by kind.
static void count(const installation_t &installation)
{
    run_t run(installation.dir);
    armed = true;
    run.life(true);
    armed = false;
    for (uint32_t kind = 0; kind < KINDS; ++kind)
        if (reached[kind] > 0)
            printf("%s %u\n", kind_name(kind).c_str(), reached[kind].load());
}

static void watch_for_death()
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
}

extern "C" int __llvm_profile_write_file() __attribute__((weak)); // in the build that counts branches

// The process of the current case.
[[noreturn]] static void live_with_fault(const installation_t &installation, const sample_t &before)
{
    watch_for_death();
    if (freopen("/dev/null", "w", stderr) == nullptr) // log4cxx complains there
        _exit(1);
    fault = {current->kind, current->n, current->ever};
    {
        run_t run(installation.dir);
        armed = true;
        run.life(true);
        armed = false;
        current->hit = reached[fault.kind] >= fault.n;
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
    current->done = true;
    if (__llvm_profile_write_file != nullptr)
        __llvm_profile_write_file();
    _exit(0);
}

// A line for each case: kind, n, once or ever, how it went, where somebody has died, and what did not hold.
static bool tell(const case_t &over)
{
    const bool well = over.text[0] == '\0', third = over.owner[0] != '\0' && strcmp(over.owner, "fxm") != 0;
    printf("%s\t%u\t%s\t%s\t%s\t%s\n", kind_name(over.kind).c_str(), over.n, over.ever ? "for ever" : "once",
           !well      ? third ? "third" : "survivor"
           : over.hit ? "ok"
                      : "missed",
           third ? over.owner : "-", over.text);
    fflush(stdout);
    return well || third;
}

static bool run_case(const installation_t &installation, const sample_t &before)
{
    const pid_t child = fork();
    if (child == 0)
        live_with_fault(installation, before);
    int status = 0;
    waitpid(child, &status, 0);
    if (!current->done && current->text[0] == '\0')
        snprintf(current->text, sizeof(current->text), "the process has ended with status 0x%x", status);
    return tell(*current);
}

// Reads cases from the standard input, a line each: kind, n, and "once" or "ever". False: one has survived.
static bool run_cases(const installation_t &installation)
{
    const sample_t before = sample();
    if (!cold)
        run_t(installation.dir).life(true);
    compare(before, sample());
    auto *shared =
        static_cast<case_t *>(mmap(nullptr, sizeof(case_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    char name[64], often[8];
    bool good = true;
    for (uint32_t n = 0; scanf("%63s %u %7s", name, &n, often) == 3; current = nullptr) {
        current = shared;
        *current = {kind_named(name), n, strcmp(often, "ever") == 0, false, false, "", ""};
        if (current->kind == KINDS)
            harness_failed(std::string("there is no kind ") + name);
        good = run_case(installation, before) && good;
    }
    return good;
}

int main(int argc, char **argv)
{
    const auto usage =
        "Usage: faults [--cold] [--calls] [-h] [--version]\n"
        "Reads cases, a line each: a kind, n, and once or ever; prints how each went. --calls prints the\n"
        "kinds with the calls of a run instead. With --cold the library has not run before.\n"
        "./scripts/faults chooses the cases and sums up. Exit code: 0 fine, 1 a finding, 2 wrong usage.\n";
    bool calls = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "-h" || option == "--help" || option == "--version")
            return printf("%s", option == "--version" ? "faults (fxm) " FXM_VERSION "\n" : usage) < 0 ? 1 : 0;
        calls = calls || option == "--calls";
        cold = cold || option == "--cold";
        if (option != "--calls" && option != "--cold")
            return fprintf(stderr, "faults: unknown argument: %s\n%s", argv[i], usage), 2;
    }
    on_failure = [](const std::string &what) {
        fprintf(stderr, "the run has failed: %s\n", what.c_str());
        _exit(1);
    };
    void *frame = nullptr;
    backtrace(&frame, 1); // loads what it needs
    faults_begin();
    if (!enter_namespace())
        return 1;
    lay_cable("fxm0", "card0");
    lay_cable("fxm1", "card1");
    const installation_t installation;
    installation.configure("ether_port = fxm0 fxm1\neeprom_verify_count = 2\neeprom_retry_interval = 1\n"
                           "eeprom_rw_interval = 1\nframe_retry_interval_livecheck = 20\n");
    sim_t sim;
    sim.start("--port0 card0 --port1 card1 --period 50");
    for (const char *card :
         {"fxsv 020000001000", "fxsv 020000004000 gen=40g locktype=id", "fxio 020000002100 ver=1 gen=40g"})
        sim.command(card);
    for (int i = 0; i < 2 && !cold; ++i)
        run_t(installation.dir).life(true); // what is made once is made
    if (!calls)
        return run_cases(installation) ? 0 : 1;
    count(installation);
    return 0;
}
