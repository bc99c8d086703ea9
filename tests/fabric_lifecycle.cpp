// The life of a manager: starts, refusals, configuration, log, state, ports that come and go, stops.
#include <dlfcn.h>
#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "fabric.h"

namespace fs = std::filesystem;
using lifecycle = fabric_t;
using lines_t = std::vector<std::string>;

static size_t entries(const char *directory)
{
    return static_cast<size_t>(std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

// Index of the line in the log, behind `from`; the number of lines when it is not there.
static size_t find_line(log_t *log, const std::string &line, size_t from = 0)
{
    const lines_t &lines = log->lines();
    const auto begin = lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size()));
    return static_cast<size_t>(std::find(begin, lines.end(), line) - lines.begin());
}

// These lines stand in the log in this order, whatever stands between them.
static void expect_order(log_t *log, const lines_t &expected)
{
    size_t at = 0;
    for (const std::string &line : expected) {
        at = find_line(log, line, at);
        ASSERT_LT(at, log->lines().size()) << "missing, or too early: " << line << "\n" << log->tail(60);
        ++at;
    }
}

// What is logged from here to the end of `act`.
static lines_t lines_of(log_t *log, const std::function<void()> &act)
{
    const auto before = static_cast<std::ptrdiff_t>(log->lines().size());
    act();
    return {log->lines().begin() + before, log->lines().end()};
}

// The text with `word` in the place of its #.
static std::string put_in(const std::string &text, const std::string &word)
{
    const size_t at = text.find('#');
    return text.substr(0, at) + word + text.substr(at + 1);
}

// A function that needs a running library, with a call of it; some arguments are just beyond their bounds.
struct function_t {
    std::string name;
    int (*call)();
    int result;          // of a library that runs and knows no card
    std::string in, out; // what its log lines say behind "(IN)" and "(OUT)", # for the result
};

#define CALL(name, ...) #name, [] { return name(__VA_ARGS__); }

static const std::vector<function_t> &functions()
{
    static fxm_fxsv_t fxsv;
    static fxm_fxio_t fxio;
    static uint64_t *list;
    static uint32_t count;
    static uint32_t word[4];
    static uint64_t size;
    static uint8_t page[128];
    static void *cbid;
    static const fxm_callback_t ignore = [](uint64_t, int32_t, uint64_t) {};
    static const fxm_retry_param_t retry = {5, 70};
    static const std::string id = "id=0x020000001000";
    static const std::string ret_id = " ret=#, " + id;
    static const std::string null = ", retry_param=NULL, flags=0x00000000";
    static const std::string given = ", retry_cnt=5, retry_int=70, flags=0x80000005";
    static const std::vector<function_t> all = {
        {CALL(fxm_start_manager), 0, "", " ret=#"},
        {CALL(fxm_set_loglevel, 6), 1, " log_level=6", " ret=#, g_log_level=3"},
        {CALL(fxm_stdump, 7), 0, " verbose=7", " ret=#"},
        {CALL(fxm_get_fxsv, FXSV_1G, &fxsv), 3, ". " + id, ". ret=# " + id},
        {CALL(fxm_get_fxio, FXSV_1G, &fxio), 3, ". " + id, ". ret=# " + id},
        {CALL(fxm_get_fxsvids, nullptr, &count), 1, "", " ret=#"},
        {CALL(fxm_get_fxioids, &list, &count), 0, "", " ret=#"},
        {CALL(fxm_get_update_fxsvids, UINT64_MAX, &list, &count), 0, "", " ret=#"},
        {CALL(fxm_get_update_fxioids, 0, &list, &count), 0, "", " ret=#"},
        {CALL(fxm_get_group_fxsvids, 0, &list, &count), 1, " groupid=0", " ret=#, groupid=0"},
        {CALL(fxm_get_group_fxioids, 4094, &list, &count), 0, " groupid=4094", " ret=#, groupid=4094"},
        {CALL(fxm_delete_fxsv, FXSV_1G), 3, ". " + id, ". ret=# " + id},
        {CALL(fxm_delete_fxio, FXSV_1G), 3, ". " + id, ". ret=# " + id},
        {CALL(fxm_stop_monitor, FXSV_1G), 0, " " + id, ret_id},
        {CALL(fxm_restart_monitor, FXSV_1G), 0, " " + id, ret_id},
        {CALL(fxm_register_callback, 6, ignore, 0, &cbid), 1, " type=6", " ret=#, type=6"},
        {CALL(fxm_unregister_callback, reinterpret_cast<void *>(-16)), 1, " cbid=0xfffffffffffffff0", " ret=#"},
        {CALL(fxm_read_register, FXSV_1G, 4, word, nullptr, 0), 3, ". " + id + ", addr=0x00000004" + null, ret_id},
        {CALL(fxm_write_register, FXSV_1G, 4, 10, &retry, 0x80000005), 3,
         ". " + id + ", addr=0x00000004, data=0x0000000A" + given, ret_id},
        {CALL(fxm_modify_register, FXSV_1G, 4, 10, 15, nullptr, 0), 3,
         ". " + id + ", addr=0x00000004, data=0x0000000A, mask=0x0000000F" + null, ret_id},
        {CALL(fxm_dump_register, FXSV_1G, 4, 16, word, &(size = 11), &retry, 0x80000005), 1,
         ". " + id + ", startaddr=0x00000004, endaddr=0x00000010" + given, ret_id},
        {CALL(fxm_set_vlanid, FXSV_1G, 15, nullptr, 0), 1, ". " + id + ", vlanid=15" + null, ret_id + ", vlanid=15"},
        {CALL(fxm_send_resetframe, FXSV_1G, 0x5a, &retry, 0x80000005), 3, ". " + id + ", status=0x5A" + given, ret_id},
        {CALL(fxm_write_mmspage, FXSV_1G, 1024, page, 7), 1, ". " + id + ", page=1024, flags=0x00000007", ret_id},
        {CALL(fxm_read_eeprom, FXSV_1G, 0x800, word, nullptr, 0), 1, ". " + id + ", addr=0x00000800" + null, ret_id},
        {CALL(fxm_write_eeprom, FXSV_1G, 0x7fc, 10, &retry, 0x80000005), 3,
         ". " + id + ", addr=0x000007FC, data=0x0000000A" + given, ret_id},
        {CALL(fxm_dump_eeprom, FXSV_1G, 4, 16, word, &(size = sizeof(word)), nullptr, 0), 3,
         ". " + id + ", startaddr=0x00000004, endaddr=0x00000010" + null, ret_id},
        {CALL(fxm_unlock_eeprom, FXSV_1G), 3, " " + id, ret_id},
    };
    return all;
}

// The counted results of each function by their codes, and "" for those of all.
static std::map<std::string, std::vector<uint64_t>> results(const dump_t &dump)
{
    std::map<std::string, std::vector<uint64_t>> counts;
    std::string name;
    for (const std::string &line : section(dump, "  - API error code"))
        counts[""].push_back(std::stoull(line.substr(line.rfind(' '))));
    for (const std::string &line : section(dump, "  - API error code detail")) {
        if (line.ends_with("()"))
            name = line.substr(4, line.size() - 6);
        else
            counts[name].push_back(std::stoull(line.substr(line.rfind(' '))));
    }
    return counts;
}

// What stands between the two in a source file, each time.
static std::set<std::string> found_in(const std::string &file, const std::string &before, char behind)
{
    std::ifstream stream(FXM_SOURCE_DIR "/" + file);
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    std::set<std::string> found;
    for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
        const size_t begin = at + before.size();
        found.insert(text.substr(begin, text.find(behind, begin) - begin));
    }
    return found;
}

TEST(library, exports_what_its_header_declares_under_a_version_and_nothing_else)
{
    std::set<std::string> expected = {"fxm_init_manager", "fxm_fini_manager", "fxm_free_idlist"};
    for (const function_t &function : functions())
        expected.insert(function.name);
    ASSERT_EQ(expected.size(), 31u);
    EXPECT_EQ(found_in("include/fxm.h", "FXM_EXPORT int ", '('), expected);
    std::set<std::string> mapped = found_in("src/main/fxm.map", "\n        ", ';');
    EXPECT_EQ(mapped.erase("*"), 1u) << "what is local";
    EXPECT_EQ(mapped, expected) << "each by its name";

    FILE *symbols = popen("nm -D --defined-only --format=posix " FXM_LIBRARY, "r");
    ASSERT_NE(symbols, nullptr);
    const std::string version = "@@FXM_1.0";
    std::set<std::string> exported;
    for (char line[512]; fgets(line, sizeof(line), symbols) != nullptr;) {
        const std::string symbol = std::string(line).substr(0, std::string(line).find(' '));
        if (symbol != "FXM_1.0") // the version itself
            exported.insert(symbol.ends_with(version) ? symbol.substr(0, symbol.find('@')) : symbol + " (no version)");
    }
    ASSERT_EQ(pclose(symbols), 0) << "nm does not read the library";
    EXPECT_EQ(exported, expected);
}

// ----------------------------------------------------------------------------------------------------------- state

TEST_F(lifecycle, functions_answer_only_while_the_library_runs_and_every_call_is_logged_and_counted)
{
    const auto expect_all = [&](bool running, const std::string &when) {
        for (const auto &[name, call, result, in, out] : functions()) {
            const int expected = running ? result : FXM_API_ENOSYS;
            int actual = -1;
            lines_t lines = lines_of(&log, [&, call = call] { actual = call(); });
            EXPECT_EQ(actual, expected) << name << " " << when;
            const std::string begin = "INFO " + name + ": ";
            std::erase_if(lines, [&](const std::string &line) { return !line.starts_with(begin); });
            EXPECT_EQ(lines, (lines_t{begin + "(IN)" + in, begin + "(OUT)" + put_in(out, std::to_string(expected))}))
                << when;
        }
    };
    for (const function_t &function : functions())
        EXPECT_EQ(function.call(), FXM_API_ENOSYS) << function.name << " before the start";
    EXPECT_EQ(fxm_free_idlist(nullptr), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS) << "hinders no later start";
    for (const char *round : {"once", "again"}) {
        SCOPED_TRACE(round);
        run(FXM_LOG_INFO);
        auto expected = results(dump(1));
        expect_all(true, "running");
        const auto counted = results(dump(1));
        for (const function_t &function : functions())
            expected[function.name][static_cast<size_t>(function.result)] += 1;
        expected["fxm_stdump"][FXM_API_SUCCESS] += 1; // the first of the two, which did not count itself yet
        std::vector<uint64_t> sums(10);
        for (const auto &[name, counts] : counted) {
            for (size_t code = 0; code < 10 && !name.empty(); ++code) {
                EXPECT_EQ(counts[code], expected[name][code]) << name << " " << code;
                sums[code] += counts[code];
            }
        }
        EXPECT_EQ(sums, counted.at(""));
        char registered[100];
        snprintf(registered, sizeof(registered), "INFO fxm_register_callback: (OUT) ret=0, type=5, cbid=%p", cbid[5]);
        EXPECT_GE(log.count(registered), 1u) << registered;
        // Twice is as good as once. From the first on nothing is answered, though the stop may take its time.
        EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
        expect_all(false, "while it stops");
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
        expect_all(false, "after the stop");
    }
}

TEST_F(lifecycle, ten_runs_in_one_process_each_begin_afresh_and_leave_nothing_but_the_hosts_lists)
{
    start_cards("--period 1");
    cards("fxsv 020000001000");
    cards("fxio 020000002000");
    size_t files = 0;
    size_t threads = 0;
    for (int i = 0; i < 10 && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(manager.start(dir, FXM_LOG_INFO));
        const dump_t fresh = dump(); // frames do not come through yet
        EXPECT_TRUE(has_line(fresh, "    fxsv total: 0"));
        EXPECT_EQ(frames_counted(fresh, 0, "FXM_STATS_R_TOTAL"), 0u);
        EXPECT_EQ(memory(fresh, "fxsv").alloc, 0u);
        EXPECT_EQ(section(fresh, "  - Black list ids"), (dump_t{"    no entry."}));
        EXPECT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
        const auto heard_on_both = [] {
            fxm_fxsv_t record{};
            const auto &state = record.fsv_card.fcd_state;
            return fxm_get_fxsv(FXSV_1G, &record) == FXM_API_SUCCESS && state[0][0] == 1 && state[1][0] == 1;
        };
        EXPECT_TRUE(wait_for(heard_on_both, "the card on both ports"));
        EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
        uint64_t *list = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(fxm_get_fxsvids(&list, &count), FXM_API_SUCCESS);
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
        EXPECT_EQ(std::vector<uint64_t>(list, list + count), std::vector{FXSV_1G});
        EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
        if (i == 0) { // the first run opens what stays: log files
            files = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
    }
    EXPECT_EQ(entries("/proc/self/fd"), files) << "open files are left";
    EXPECT_EQ(entries("/proc/self/task"), threads) << "threads are left";
    EXPECT_GE(log.count("INFO _fxm_reg_init: fxm_write_reg_lock_mng is already initialized."), 9u)
        << "write locks outlive a stop";
    EXPECT_EQ(log.count("INFO fxm_free_idlist: (OUT) ret=0"), 10u);
    EXPECT_EQ(sys_log.count("Starting FXM LFI"), 10u);
    EXPECT_EQ(sys_log.count("FXM LFI stopped"), 10u);
}

TEST_F(lifecycle, start_and_stop_follow_one_order)
{
    ASSERT_TRUE(manager.start(dir, FXM_LOG_INFO));
    EXPECT_EQ(manager.stop(), FXM_API_SUCCESS); // with nothing on the wire: each thread ends by itself
    const std::string index[] = {std::to_string(if_nametoindex("fxm0")), std::to_string(if_nametoindex("fxm1"))};
    const std::string opened = "INFO _fxm_socket_open_win: Success. IF name=fxm";
    const lines_t subsystems = {"stats", "fx", "blacklist", "event_cb", "cmp", "reg"};
    lines_t order = {"INFO fxm_log_init: Log initialize is done. logconfig_filepath:" + dir.string(),
                     "INFO _fxm_config_value_print: start.", "INFO _fxm_config_value_print: end."};
    const auto go_on = [&](std::initializer_list<std::string> lines) { order.insert(order.end(), lines); };
    for (const std::string &name : subsystems)
        go_on({"INFO _fxm_" + name + "_init: start.", "INFO _fxm_" + name + "_init: end. ret=0"});
    go_on({opened + "0, IF index=" + index[0] + ", IF status=1, IF MAC=02000000aa00",
           opened + "1, IF index=" + index[1] + ", IF status=1, IF MAC=02000000aa01",
           "INFO fxm_init_manager: Initialization was completed.", "INFO _fxm_interval_check: start.",
           "INFO fxm_fini_manager: (IN)", "INFO fxm_fini_manager: (OUT) ret=0", "INFO _fxm_interval_check: end.",
           "INFO _fxm_stats_task_com: end."});
    for (auto name = subsystems.rbegin(); name != subsystems.rend(); ++name)
        go_on({"INFO _fxm_" + *name + "_fini: start.", "INFO _fxm_" + *name + "_fini: end."});
    go_on({"INFO _fxm_config_fini: start.", "INFO _fxm_config_fini: end.", "INFO fxm_init_manager: (OUT) ret=0"});
    expect_order(&log, order);
    // The workers run between the opening of the ports and the release of the subsystems.
    const lines_t workers = {"_fxm_recv_task: # if_index=" + index[0] + ", mac=02000000aa00",
                             "_fxm_recv_task: # if_index=" + index[1] + ", mac=02000000aa01", "_fxm_event_task_com: #",
                             "_fxm_watch_linkstate: #", "_fxm_stats_task_com: #"};
    for (const std::string &worker : workers) {
        const auto line = [&](const char *what) { return find_line(&log, "INFO " + put_in(worker, what)); };
        EXPECT_GT(line("start."), find_line(&log, "INFO _fxm_reg_init: end. ret=0")) << worker;
        EXPECT_LT(line("start."), line("end.")) << worker;
        EXPECT_LT(line("end."), find_line(&log, "INFO _fxm_reg_fini: start.")) << worker;
    }
    EXPECT_EQ(sys_log.lines(), (lines_t{"Starting FXM LFI", "FXM LFI stopped"}));
}

TEST_F(lifecycle, a_stop_asked_for_during_the_start_is_not_lost)
{
    manager.launch(dir, FXM_LOG_INFO);
    ASSERT_TRUE(wait_for_line("INFO _fxm_stats_init: start."));
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    EXPECT_EQ(manager.result(), FXM_API_SUCCESS);
}

// -------------------------------------------------------------------------------------------------------- the process

// Runs `child` in a process of its own, which is to exit with status 0.
static testing::AssertionResult exits_well(const std::function<void()> &child)
{
    fflush(nullptr);
    const pid_t id = fork();
    if (id == 0) {
        child();
        exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    if (!wait_for([&] { return waitpid(id, &status, WNOHANG) != 0; }, "a process to end")) {
        kill(id, SIGKILL);
        waitpid(id, &status, 0);
    }
    if (status == 0)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "exit status not 0");
}

TEST_F(lifecycle, a_process_that_exits_while_its_threads_call_ends_well)
{
    const char *const given = getenv("FXM_TEST_EXITS"); // more of them
    const int rounds = given != nullptr ? atoi(given) : 40;
    for (int round = 0; round < rounds; ++round) {
        const auto child = [&] {
            const int32_t level = round % 4 == 3 ? FXM_LOG_INFO : FXM_LOG_TRACE;
            static auto *const host = new manager_t; // never destroyed: that would be a stop
            if (!host->start(dir, level) || fxm_start_manager() != FXM_API_SUCCESS)
                return;
            static std::atomic<int> calling;
            for (int i = 0; i < 4; ++i) {
                std::thread([] {
                    for (uint64_t id = 0;; ++id) {
                        fxm_fxsv_t record;
                        fxm_get_fxsv(id, &record);
                        calling += id == 20 ? 1 : 0;
                    }
                }).detach();
            }
            wait_for([] { return calling == 4; }, "all threads to call");
        };
        ASSERT_TRUE(exits_well(child)) << "round " << round;
        fs::remove(dir / "logfile");
    }
}

TEST_F(lifecycle, library_stays_when_it_is_closed_while_it_runs)
{
    // Another one than that of this process.
    const fs::path other = dir / "libfxm-other.so";
    fs::copy_file(FXM_LIBRARY, other);
    const auto child = [&] {
        void *const library = dlopen(other.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto init = reinterpret_cast<int (*)(const char *, int32_t)>(dlsym(library, "fxm_init_manager"));
        const auto start = reinterpret_cast<int (*)()>(dlsym(library, "fxm_start_manager"));
        const auto stop = reinterpret_cast<int (*)()>(dlsym(library, "fxm_fini_manager"));
        std::thread host([&] { EXPECT_EQ(init(dir.c_str(), FXM_LOG_INFO), FXM_API_SUCCESS); });
        wait_for([&] { return start() == FXM_API_SUCCESS; }, "the library to come up");
        EXPECT_EQ(dlclose(library), 0);
        EXPECT_EQ(start(), FXM_API_SUCCESS);
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
        host.join();
    };
    EXPECT_TRUE(exits_well(child));
}

// -------------------------------------------------------------------------------------------------------- refusals

TEST_F(lifecycle, one_manager_runs_in_a_process_until_its_last_callback_has_returned)
{
    run();
    wire[0]->send(fxsv_1g_frame());
    EXPECT_EQ(fxm_init_manager("/nowhere", 99), FXM_API_EBUSY) << "before any look at the arguments";
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}));
    const dump_t lines = dump(1);
    const auto row = std::find(lines.begin(), lines.end(), "    fxm_init_manager()");
    ASSERT_GT(lines.end() - row, 10);
    EXPECT_EQ(row[1 + FXM_API_EBUSY], "      FXM_API_EBUSY        : 1");

    // A stop waits for the callback under way, and is a stop all the while.
    static std::atomic<bool> inside;
    static std::atomic<bool> held;
    inside = false;
    held = true;
    const auto hold = [](uint64_t, int32_t, uint64_t) {
        inside = true;
        while (held)
            std::this_thread::yield();
    };
    void *handle = nullptr;
    ASSERT_EQ(fxm_register_callback(FXM_EVT_UPDATEDEVINFO, hold, 0, &handle), FXM_API_SUCCESS);
    frame_t frame = fxsv_1g_frame();
    frame[20] = 1;
    wire[0]->send(frame);
    EXPECT_TRUE(wait_for([&] { return inside.load(); }, "the callback"));
    const dump_t meanwhile = dump();
    EXPECT_EQ(number_after(meanwhile, "    Total called  : "), number_after(meanwhile, "    Total returned: ") + 1);
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_EBUSY) << "while it stops";
    EXPECT_FALSE(manager.returned());
    held = false;
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

TEST_F(lifecycle, bad_arguments_are_refused_and_a_good_call_may_follow)
{
    for (const int32_t level : {-2, 6, INT32_MIN, INT32_MAX})
        EXPECT_EQ(refused_start(dir.c_str(), level), FXM_API_EINVAL) << level;
    EXPECT_EQ(refused_start((dir / "nowhere").c_str(), 3), FXM_API_EINVAL);
    EXPECT_EQ(refused_start((dir / "conf/fxm.conf").c_str(), 3), FXM_API_EINVAL) << "no directory";
    EXPECT_EQ(refused_start((dir / "conf").c_str(), 3), FXM_API_EPROTO) << "no log properties";

    configure("ether_port = nowhere0\n");
    const std::string longest = dir.string().append(481 - dir.string().size(), '/');
    EXPECT_EQ(refused_start((longest + "/").c_str(), 3), FXM_API_EPROTO) << "too long";
    EXPECT_EQ(log.lines().size(), 0u) << "nothing is logged before the log is there";
    EXPECT_EQ(refused_start(longest.c_str(), 3), FXM_API_ENOENT) << "gets as far as the port that is not there";
    const std::string first = "fxm_log_init: Log initialize is done. logconfig_filepath:" + longest;
    EXPECT_EQ(log.lines().at(0), "INFO " + first.substr(0, 511)) << "a line has at most so many characters";

    // Log properties that log4cxx does not take hinder no start.
    std::ofstream(dir / "conf/fxm_log4c_win.properties") << "log4j.logger.logfile=TRACE, NOWHERE\n"
                                                            "log4j.appender.NOWHERE=no.such.Appender\n";
    configure("");
    manager.launch(dir, FXM_LOG_INFO);
    ASSERT_TRUE(wait_for([] { return fxm_start_manager() == FXM_API_SUCCESS; }, "the library to come up"));
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

TEST_F(lifecycle, without_a_directory_the_paths_of_the_default_installation_count)
{
    // Relative to the working directory, on this system.
    const fs::path before = fs::current_path();
    fs::current_path(dir);
    fs::create_directories("C:/Program Files/QOR");
    fs::create_directory_symlink(dir, "C:/Program Files/QOR/FXM");
    configure("ether_port = nowhere0\n");
    for (const char *none : {static_cast<const char *>(nullptr), ""})
        EXPECT_EQ(refused_start(none, 3), FXM_API_ENOENT) << "read: its port is not there";
    fs::current_path(before);
    EXPECT_EQ(log.count("INFO     ether_port0_name              : nowhere0"), 2u);
}

// --------------------------------------------------------------------------------------------------- configuration

TEST_F(lifecycle, an_error_in_the_configuration_is_named_and_stops_the_start)
{
    std::vector<std::pair<std::string, std::string>> bad = {
        // A line is read in pieces of 127 bytes, and each piece is a line.
        {std::string(127, '#') + "no_such_key = 1", "Unknown config parameter: no_such_key"},
        {" # not at the beginning", "Unknown config parameter: #"},
        {"Log_level = 3", "Unknown config parameter: Log_level"},
        {"tag_min = 6\ntag_max = 5", "config parameter error: tag_min > tag_max"},
        {"tag_max = 5\ntag_min = 6", "config parameter error: tag_min > tag_max"}};
    const auto add = [&](const std::string &error, const std::string &line) {
        bad.emplace_back(line, error + ": " + line.substr(0, line.find(' ')));
    };
    for (const char *line :
         {"log_level", "log_level =", "log_level = -1", "frame_retry_count = ten", "frame_retry_count = 10#",
          "frame_retry_count = 0x", "frame_retry_count = 08", "frame_retry_count = 4294967296",
          "eeprom_lock_other_bit = 0x100000000", "stats_verbose_level = -1", "ether_type = 65536",
          "ether_port =", "ether_port_ifindex = none", "ether_port_ifindex = 1 -1", "ether_port_ifindex = 00000000001",
          "ether_port_ifindex = 4294967296", "broadcast_mac = 3:00:ff:ff:ff:ff", "broadcast_mac = 03:00:ff:ff:ff:fg",
          "broadcast_mac = 03:00:ff:ff:ff:ff:00"})
        add("config parameter parse error", line);
    const std::string range = "out of range error";
    for (const char *line : {"log_level = 6", "eeprom_id_number = -1", "eeprom_verify_interval = 0"})
        add(range, line);
    // The least and the greatest number that each key takes.
    std::istringstream ranges(
        "devinfo_check_interval 1000 100000  devinfo_expire_time 1000 100000  devinfo_flag_check_interval 1 100000 "
        "vlan_check_interval 1 1000  frame_retry_interval 1 1000  frame_retry_count 0 100 "
        "frame_retry_interval_livecheck 1 1000  frame_retry_count_livecheck 0 100  eeprom_id_number 1 32768 "
        "eeprom_retry_interval 1 1000  eeprom_retry_count 0 1000  eeprom_check_interval 0 1000 "
        "eeprom_check_retry_count 0 1000  eeprom_verify_count 0 60  eeprom_rw_interval 0 1000  tag_min 0 255 "
        "tag_max 0 255  network_composition 1 2  eeprom_type 0 1  stats_interval 1 2592000 "
        "force_lock_try_count 0 1000  register_verify_interval 0 1000  update_evt_mask 1 2");
    std::string key;
    for (uint32_t low = 0, high = 0; ranges >> key >> low >> high;) {
        add(range, key + " = " + std::to_string(high + 1));
        if (low > 0)
            add(range, key + " = " + std::to_string(low - 1));
    }
    ASSERT_EQ(bad.size(), 5u + 19 + 3 + 23 + 11);
    for (const auto &[lines, message] : bad) {
        SCOPED_TRACE(lines);
        configure(lines);
        const lines_t logged =
            lines_of(&log, [&] { EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_EPROTO); });
        ASSERT_EQ(logged,
                  (lines_t{"INFO fxm_log_init: Log initialize is done. logconfig_filepath:" + dir.string(),
                           "ERROR _fxm_config_read: " + message,
                           "ERROR fxm_init_manager: Failed to _fxm_config_read() err=" + std::to_string(EPROTO)}));
    }
    // A regular file that opens and cannot be read.
    const std::string path = dir.string() + "/conf/fxm.conf";
    fs::remove(path);
    fs::create_symlink("/proc/self/mem", path);
    EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_EPROTO);
    EXPECT_EQ(log.count("ERROR _fxm_config_read: file open error: " + path + ". err=" + std::to_string(EIO)), 1u);
    fs::remove(path);
    EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT) << "there is neither eth0 nor eth1 here";
    EXPECT_EQ(log.count("WARN _fxm_config_read: Failed to _fxm_file_exist(). path=" + path), 1u);
    EXPECT_EQ(log.count_with("_fxm_config_value_print"), 0u);
}

TEST_F(lifecycle, configuration_is_read_by_its_rules_and_shown)
{
    configure("# a comment = of a whole line\n"
              "\n"
              " \t \r\n"
              "log_level=0x5 # words behind a value do not count\n"
              "\tframe_retry_count these words neither = 020\r\n"
              "frame_retry_count = bad, but the first occurrence wins\n"
              "ether_port = fxm0,fxm1, third\n"
              "tag_min = 7\n"
              "tag_max = 7\n"
              "id_list_upper_limit = -1\n"
              "eeprom_lock_other_bit = 0X1f\n"
              "ether_type = 0x9aBc\n"
              "stats_verbose_level = 4294967295\n"
              "broadcast_mac = 01:23:45:67:89:aB\n"
              "devinfo_expire_time = 100000");
    ASSERT_TRUE(manager.start(dir, FXM_LOG_CONFIGURED));
    const lines_t shown = section(dump(), "  - Config parameters");
    std::istringstream expected(
        "ether_port0_name fxm0  ether_port1_name fxm1  broadcast_mac 0123456789ab  use_port_num_linux 2  "
        "devinfo_expire_time 100000  frame_retry_count 16  eeprom_id_number 0x0100  eeprom_lock_other_bit 0x0000001f  "
        "tag_min 7  tag_max 7  id_list_upper_limit 0xffffffff  log_level 5  stats_verbose_level 4294967295  "
        "ether_type 0x9abc");
    for (std::string key, value; expected >> key >> value;) {
        char text[100];
        snprintf(text, sizeof(text), "    %-30s: %s", key.c_str(), value.c_str());
        EXPECT_TRUE(has_line(shown, text)) << text;
    }
    ASSERT_EQ(shown.size(), 36u);
    const size_t begin = find_line(&log, "INFO _fxm_config_value_print: start.");
    for (size_t i = 0; i < shown.size(); ++i)
        EXPECT_EQ(log.lines().at(begin + 1 + i), "INFO " + shown[i]);
    EXPECT_EQ(log.lines().at(begin + 1 + shown.size()), "INFO _fxm_config_value_print: end.");
    EXPECT_EQ(stats_log.count_with("fxm status dump (v4294967295)"), 1u) << "the dump of the start";
    EXPECT_GT(log.count_with("TRACE "), 0u) << "the configured level counts";
}

TEST_F(lifecycle, log_level_filters_the_log_and_nothing_but_the_log)
{
    configure("log_level = 2\n");
    run(FXM_LOG_INFO);
    EXPECT_EQ(log.count_with("TRACE ") + log.count_with("DEBUG "), 0u);
    lines_t lines = lines_of(&log, [&] {
        EXPECT_EQ(fxm_set_loglevel(FXM_LOG_FATAL), FXM_API_SUCCESS);
        EXPECT_TRUE(has_line(dump(), "    Log level : FATAL")) << "a dump does not go by the level";
        EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
        EXPECT_EQ(fxm_set_loglevel(-2), FXM_API_EINVAL);
        EXPECT_EQ(fxm_set_loglevel(FXM_LOG_INFO), FXM_API_SUCCESS);
    });
    // The first lines of a worker may come as late as here.
    std::erase_if(lines, [](const std::string &line) { return line.ends_with("start."); });
    EXPECT_EQ(lines,
              (lines_t{"INFO fxm_set_loglevel: (IN) log_level=0", "INFO _fxm_set_loglevel: Set loglevel. old=3, new=0",
                       "INFO fxm_set_loglevel: (OUT) ret=0, g_log_level=3"}));
    EXPECT_EQ(fxm_set_loglevel(FXM_LOG_CONFIGURED), FXM_API_SUCCESS);
    EXPECT_TRUE(has_line(dump(), "    Log level : WARN"));
    EXPECT_EQ(fxm_set_loglevel(FXM_LOG_TRACE), FXM_API_SUCCESS);
    EXPECT_EQ(log.lines().back(), "INFO fxm_set_loglevel: (OUT) ret=0, g_log_level=5");
    lines = lines_of(&log, [] { fxm_delete_fxsv(FXSV_1G); });
    std::erase_if(lines, [](const std::string &line) { return line.find(" fx ") == std::string::npos; });
    EXPECT_EQ(lines, (lines_t{"TRACE _fxm_fx_lock: fx lock", "TRACE _fxm_fx_unlock: fx unlock"}));
}

// ------------------------------------------------------------------------------------------------------------ ports

TEST_F(lifecycle, without_any_port_the_start_fails_and_with_one_it_does_not)
{
    const std::string socket_error[] = {"ERROR fxm_init_manager: Failed to _fxm_socket_open(). port=0, err=2",
                                        "ERROR fxm_init_manager: Failed to _fxm_socket_open(). port=1, err=2"};
    configure("ether_port = nowhere0 nowhere1\n");
    EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT);
    expect_order(&log, {"ERROR _fxm_socket_open_win: end. ret=2", socket_error[0],
                        "ERROR _fxm_socket_open_win: end. ret=2", socket_error[1], "INFO _fxm_reg_fini: start.",
                        "INFO _fxm_config_fini: end.", "INFO fxm_init_manager: (OUT) ret=3"});
    configure("ether_port = nowhere0\n");
    EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT);
    EXPECT_EQ(log.count(socket_error[1]), 1u) << "one port was configured, one was tried";

    const std::string index1 = std::to_string(if_nametoindex("fxm1"));
    for (const std::string &second_alone :
         {std::string("ether_port = nowhere0 fxm1\n"), "ether_port_ifindex = 4000000000, " + index1 + "\n"}) {
        configure(second_alone);
        run();
        wire[0]->send(fxsv_1g_frame());
        wire[1]->send(fxio_frame());
        expect_events(events_of(FXIO, {FXM_EVT_NEWDEVINFO}), 1);
        EXPECT_TRUE(has_line(dump(), "      MAC addr  : 000000000000")) << "of the port that is none";
        EXPECT_EQ(stop(), FXM_API_SUCCESS) << "the port that failed is forgotten";
    }
    // The index names port 0, and a second word that is no number ends the list.
    configure("ether_port_ifindex = " + index1 + " none\nether_port = fxm0\n");
    run();
    wire[0]->send(fxio_frame());
    wire[1]->send(fxsv_1g_frame());
    ASSERT_TRUE(wait_for([&] { return !events().empty(); }, "the card"));
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_state[0][0], 1u);
    EXPECT_TRUE(has_line(dump(), "    use_port_num_win              : 1"));
}

TEST_F(lifecycle, a_deleted_interface_stops_the_library_with_an_error_however_it_goes)
{
    // Twice as it runs; then set down before, at once and once the library knows.
    for (int i = 0; i < 4 && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        run(FXM_LOG_INFO);
        const size_t falls = sys_log.count_with("(UP->DOWN)");
        if (i >= 2)
            ip("link set fxm0 down");
        if (i >= 3)
            wait_for([&] { return sys_log.count_with("(UP->DOWN)") > falls; }, "the fall");
        ip("link del fxm0");
        EXPECT_EQ(manager.result(), FXM_API_EPROTO);
        if (i == 0)
            expect_order(&log, {"FATAL _fxm_recv_pcap: Failed to pcap_next_ex().",
                                "ERROR _fxm_recv_frame: Failed to _fxm_recv_pcap(). port_num=0",
                                "FATAL _fxm_recv_win: Failed to _fxm_recv_frame(). port_num=0",
                                "FATAL _fxm_fini_manager: LFI will terminate by reason of internal error.",
                                "INFO _fxm_interval_check: end.", "INFO _fxm_config_fini: end.",
                                "INFO fxm_init_manager: Internal err is detected. internal_err=71",
                                "INFO fxm_init_manager: (OUT) ret=6"});
        EXPECT_EQ(sys_log.lines().back(), "FXM LFI stopped");
        ip("link add fxm0 type veth peer name card0\nlink set card0 up\nlink set fxm0 up");
        wire[0] = std::make_unique<wire_t>(0);
    }
    // The error of the last run is forgotten, by a start that fails and by one that does not.
    configure("ether_port = lo nowhere0\n");
    EXPECT_EQ(refused_start(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT);
    EXPECT_GE(log.count_with("WARN _fxm_socket_open_win: Interface is loopback."), 1u);
    configure("");
    run();
    wire[1]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}), 1);
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}
