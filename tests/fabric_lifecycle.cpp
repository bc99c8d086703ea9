// The life of a manager: starts, refusals, configuration, log, state, ports that come and go, stops.
#include "fabric.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <net/if.h>
#include <set>

namespace
{

namespace fs = std::filesystem;
using lifecycle = fabric_t;

size_t entries(const char *directory)
{
    return static_cast<size_t>(std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

// Index of the line in the log, behind `from`; the number of lines when it is not there.
size_t find_line(log_t *log, const std::string &line, size_t from = 0)
{
    const std::vector<std::string> &lines = log->lines();
    return static_cast<size_t>(
        std::find(lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end(), line) -
        lines.begin());
}

// These lines stand in the log in this order, whatever stands between them.
void expect_order(log_t *log, const std::vector<std::string> &expected)
{
    size_t at = 0;
    for (const std::string &line : expected) {
        at = find_line(log, line, at);
        ASSERT_LT(at, log->lines().size()) << "missing, or too early: " << line << "\n" << log->tail(60);
        ++at;
    }
}

// Every function that needs a running library, called with arguments that would do.
const std::vector<std::pair<std::string, std::function<int()>>> &functions_of_a_running_library()
{
    static fxm_fxsv_t fxsv_record;
    static fxm_fxio_t fxio_record;
    static uint64_t *list;
    static uint32_t count;
    static uint32_t word;
    static uint32_t buffer[4];
    static uint64_t size;
    static uint8_t page[128];
    static void *cbid;
    static const fxm_retry_param_t retry = {0, 1};
    static const std::vector<std::pair<std::string, std::function<int()>>> functions = {
        {"fxm_start_manager", [] { return fxm_start_manager(); }},
        {"fxm_set_loglevel", [] { return fxm_set_loglevel(FXM_LOG_TRACE); }},
        {"fxm_stdump", [] { return fxm_stdump(0); }},
        {"fxm_get_fxsv", [] { return fxm_get_fxsv(FXSV_1G, &fxsv_record); }},
        {"fxm_get_fxio", [] { return fxm_get_fxio(FXIO, &fxio_record); }},
        {"fxm_get_fxsvids", [] { return fxm_get_fxsvids(&list, &count); }},
        {"fxm_get_fxioids", [] { return fxm_get_fxioids(&list, &count); }},
        {"fxm_get_update_fxsvids", [] { return fxm_get_update_fxsvids(0, &list, &count); }},
        {"fxm_get_update_fxioids", [] { return fxm_get_update_fxioids(0, &list, &count); }},
        {"fxm_get_group_fxsvids", [] { return fxm_get_group_fxsvids(1, &list, &count); }},
        {"fxm_get_group_fxioids", [] { return fxm_get_group_fxioids(1, &list, &count); }},
        {"fxm_delete_fxsv", [] { return fxm_delete_fxsv(FXSV_1G); }},
        {"fxm_delete_fxio", [] { return fxm_delete_fxio(FXIO); }},
        {"fxm_stop_monitor", [] { return fxm_stop_monitor(FXSV_1G); }},
        {"fxm_restart_monitor", [] { return fxm_restart_monitor(FXSV_1G); }},
        {"fxm_register_callback",
         [] {
             return fxm_register_callback(
                 0, [](uint64_t, int32_t, uint64_t) {}, 0, &cbid);
         }},
        {"fxm_unregister_callback", [] { return fxm_unregister_callback(&cbid); }},
        {"fxm_read_register", [] { return fxm_read_register(FXSV_1G, 0, &word, &retry, 0); }},
        {"fxm_write_register", [] { return fxm_write_register(FXSV_1G, 0, 0, &retry, 0); }},
        {"fxm_modify_register", [] { return fxm_modify_register(FXSV_1G, 0, 0, 0, &retry, 0); }},
        {"fxm_dump_register",
         [] {
             size = sizeof(buffer);
             return fxm_dump_register(FXSV_1G, 0, 16, buffer, &size, &retry, 0);
         }},
        {"fxm_set_vlanid", [] { return fxm_set_vlanid(FXSV_1G, 100, &retry, 0); }},
        {"fxm_send_resetframe", [] { return fxm_send_resetframe(FXSV_1G, 0, &retry, 0); }},
        {"fxm_write_mmspage", [] { return fxm_write_mmspage(FXIO, 0, page, 0); }},
        {"fxm_read_eeprom", [] { return fxm_read_eeprom(FXSV_1G, 0, &word, &retry, 0); }},
        {"fxm_write_eeprom", [] { return fxm_write_eeprom(FXSV_1G, 0, 0, &retry, 0); }},
        {"fxm_dump_eeprom",
         [] {
             size = sizeof(buffer);
             return fxm_dump_eeprom(FXSV_1G, 0, 16, buffer, &size, &retry, 0);
         }},
        {"fxm_unlock_eeprom", [] { return fxm_unlock_eeprom(FXSV_1G); }},
    };
    return functions;
}

TEST(library, exports_its_functions_and_nothing_else)
{
    std::set<std::string> expected = {"fxm_init_manager", "fxm_fini_manager", "fxm_free_idlist"};
    for (const auto &[name, call] : functions_of_a_running_library())
        expected.insert(name);
    ASSERT_EQ(expected.size(), 31u);

    FILE *symbols = popen("nm -D --defined-only --format=posix " FXM_LIBRARY, "r");
    ASSERT_NE(symbols, nullptr);
    std::set<std::string> exported;
    for (char line[512]; fgets(line, sizeof(line), symbols) != nullptr;)
        exported.insert(std::string(line).substr(0, std::string(line).find(' ')));
    ASSERT_EQ(pclose(symbols), 0) << "nm does not read the library";
    EXPECT_EQ(exported, expected);
}

// ----------------------------------------------------------------------------------------------------------- state

TEST_F(lifecycle, functions_answer_only_while_the_library_runs)
{
    for (const auto &[name, call] : functions_of_a_running_library())
        EXPECT_EQ(call(), FXM_API_ENOSYS) << name << " before the start";
    EXPECT_EQ(fxm_free_idlist(nullptr), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS) << "hinders no later start";
    for (const bool second_time : {false, true}) {
        run();
        for (const auto &[name, call] : functions_of_a_running_library())
            EXPECT_NE(call(), FXM_API_ENOSYS) << name << (second_time ? " after another start" : "");
        // Twice is as good as once. From the first on nothing is answered, though the stop may take its time.
        EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
        for (const auto &[name, call] : functions_of_a_running_library())
            EXPECT_EQ(call(), FXM_API_ENOSYS) << name << " while stopping";
        EXPECT_EQ(stop(), FXM_API_SUCCESS);
        for (const auto &[name, call] : functions_of_a_running_library())
            EXPECT_EQ(call(), FXM_API_ENOSYS) << name << " after the stop";
    }
}

TEST_F(lifecycle, a_list_can_be_given_back_after_the_stop)
{
    run();
    wire[0]->send(fxsv_1g_frame());
    settle(0);
    uint64_t *list = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(fxm_get_fxsvids(&list, &count), FXM_API_SUCCESS);
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(list[0], FXSV_1G);
    EXPECT_EQ(fxm_free_idlist(list), FXM_API_SUCCESS);
}

TEST_F(lifecycle, twenty_runs_in_one_process_each_begin_afresh_and_leave_nothing)
{
    std::atomic<bool> quiet = false;
    std::thread traffic([&] {
        while (!quiet) {
            for (const size_t port : {0u, 1u}) {
                wire[port]->send(fxsv_1g_frame());
                wire[port]->send(fxio_frame());
            }
            std::this_thread::yield();
        }
    });
    size_t files = 0;
    size_t threads = 0;
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        ASSERT_TRUE(manager.start(dir, FXM_LOG_INFO)) << "run " << i;
        const dump_t fresh = dump(); // frames do not come through yet
        EXPECT_TRUE(has_line(fresh, "    fxsv total: 0")) << "run " << i;
        EXPECT_EQ(frames_counted(fresh, 0, "FXM_STATS_R_TOTAL"), 0u) << "run " << i;
        EXPECT_EQ(memory(fresh, "fxsv").alloc, 0u) << "run " << i;
        EXPECT_EQ(section(fresh, "  - Black list ids"), (dump_t{"    no entry."})) << "run " << i;
        EXPECT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
        fxm_fxsv_t record{};
        EXPECT_TRUE(wait_for(
            [&] {
                return fxm_get_fxsv(FXSV_1G, &record) == FXM_API_SUCCESS && record.fsv_card.fcd_state[0][0] == 1 &&
                       record.fsv_card.fcd_state[1][0] == 1;
            },
            "the card on both ports"));
        EXPECT_EQ(fxm_stop_monitor(FXIO), FXM_API_SUCCESS);
        EXPECT_EQ(stop(), FXM_API_SUCCESS) << "run " << i;
        if (i == 0) { // the first run opens what stays: log files
            files = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
    }
    EXPECT_EQ(entries("/proc/self/fd"), files) << "open files are left";
    EXPECT_EQ(entries("/proc/self/task"), threads) << "threads are left";
    quiet = true;
    traffic.join();
    EXPECT_GE(log.count("INFO _fxm_reg_init: fxm_write_reg_lock_mng is already initialized."), 19u)
        << "write locks outlive a stop";
    EXPECT_EQ(sys_log.count("Starting FXM LFI"), 20u);
    EXPECT_EQ(sys_log.count("FXM LFI stopped"), 20u);
}

TEST_F(lifecycle, start_and_stop_follow_one_order)
{
    ASSERT_TRUE(manager.start(dir, FXM_LOG_INFO));
    EXPECT_EQ(manager.stop(), FXM_API_SUCCESS); // with nothing on the wire: each thread ends by itself
    const std::string index[] = {std::to_string(if_nametoindex("fxm0")), std::to_string(if_nametoindex("fxm1"))};
    expect_order(&log, {
                           "INFO fxm_log_init: Log initialize is done. logconfig_filepath:" + dir.string(),
                           "INFO _fxm_config_value_print: start.",
                           "INFO _fxm_config_value_print: end.",
                           "INFO _fxm_stats_init: start.",
                           "INFO _fxm_stats_init: end. ret=0",
                           "INFO _fxm_fx_init: start.",
                           "INFO _fxm_fx_init: end. ret=0",
                           "INFO _fxm_blacklist_init: start.",
                           "INFO _fxm_blacklist_init: end. ret=0",
                           "INFO _fxm_event_cb_init: start.",
                           "INFO _fxm_event_cb_init: end. ret=0",
                           "INFO _fxm_cmp_init: start.",
                           "INFO _fxm_cmp_init: end. ret=0",
                           "INFO _fxm_reg_init: start.",
                           "INFO _fxm_reg_init: end. ret=0",
                           "INFO _fxm_socket_open_win: Success. IF name=fxm0, IF index=" + index[0] +
                               ", IF status=1, IF MAC=02000000aa00",
                           "INFO _fxm_socket_open_win: Success. IF name=fxm1, IF index=" + index[1] +
                               ", IF status=1, IF MAC=02000000aa01",
                           "INFO fxm_init_manager: Initialization was completed.",
                           "INFO _fxm_interval_check: start.",
                           "INFO fxm_fini_manager: (IN)",
                           "INFO fxm_fini_manager: (OUT) ret=0",
                           "INFO _fxm_interval_check: end.",
                           "INFO _fxm_stats_task_com: end.",
                           "INFO _fxm_reg_fini: start.",
                           "INFO _fxm_reg_fini: end.",
                           "INFO _fxm_cmp_fini: start.",
                           "INFO _fxm_cmp_fini: end.",
                           "INFO _fxm_event_cb_fini: start.",
                           "INFO _fxm_event_cb_fini: end.",
                           "INFO _fxm_blacklist_fini: start.",
                           "INFO _fxm_blacklist_fini: end.",
                           "INFO _fxm_fx_fini: start.",
                           "INFO _fxm_fx_fini: end.",
                           "INFO _fxm_stats_fini: start.",
                           "INFO _fxm_stats_fini: end.",
                           "INFO _fxm_config_fini: start.",
                           "INFO _fxm_config_fini: end.",
                           "INFO fxm_init_manager: (OUT) ret=0",
                       });
    EXPECT_EQ(log.lines().back(), "INFO fxm_init_manager: (OUT) ret=0");
    // The workers run between the opening of the ports and the release of the subsystems.
    const std::string ports[] = {" if_index=" + index[0] + ", mac=02000000aa00",
                                 " if_index=" + index[1] + ", mac=02000000aa01"};
    for (const auto &[name, tail] :
         {std::pair(std::string("_fxm_recv_task"), ports[0]), std::pair(std::string("_fxm_recv_task"), ports[1]),
          std::pair(std::string("_fxm_event_task_com"), std::string()),
          std::pair(std::string("_fxm_watch_linkstate"), std::string()),
          std::pair(std::string("_fxm_stats_task_com"), std::string())}) {
        const size_t started = find_line(&log, "INFO " + name + ": start." + tail);
        const size_t ended = find_line(&log, "INFO " + name + ": end." + tail);
        EXPECT_GT(started, find_line(&log, "INFO _fxm_reg_init: end. ret=0")) << name;
        EXPECT_LT(started, ended) << name;
        EXPECT_LT(ended, find_line(&log, "INFO _fxm_reg_fini: start.")) << name;
    }
    // Two dumps, of the start and of the stop.
    EXPECT_EQ(stats_log.count_with("fxm status dump (v0)"), 2u);
    EXPECT_EQ(stats_log.count("    Fini flag : ON"), 1u);
    EXPECT_EQ(sys_log.lines(), (std::vector<std::string>{"Starting FXM LFI", "FXM LFI stopped"}));
}

TEST_F(lifecycle, a_stop_asked_for_during_the_start_is_not_lost)
{
    manager.launch(dir, FXM_LOG_INFO);
    ASSERT_TRUE(wait_for_line("INFO _fxm_stats_init: start."));
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    EXPECT_EQ(manager.result(), FXM_API_SUCCESS);
}

// -------------------------------------------------------------------------------------------------------- refusals

TEST_F(lifecycle, one_manager_runs_in_a_process)
{
    // Two at once: whichever is second, at whatever step of the first, touches nothing.
    for (int i = 0; i < 3; ++i) {
        manager_t second;
        manager.launch(dir, FXM_LOG_INFO);
        second.launch(dir, FXM_LOG_INFO);
        ASSERT_TRUE(wait_for([&] { return manager.returned() || second.returned(); }, "one of them to be refused"));
        manager_t &refused = second.returned() ? second : manager;
        manager_t &running = second.returned() ? manager : second;
        EXPECT_EQ(refused.result(), FXM_API_EBUSY);
        ASSERT_TRUE(wait_for([&] { return fxm_start_manager() == FXM_API_SUCCESS; }, "the other to come up"));
        EXPECT_EQ(running.stop(), FXM_API_SUCCESS);
    }

    run();
    wire[0]->send(fxsv_1g_frame());
    EXPECT_EQ(fxm_init_manager("/nowhere", 99), FXM_API_EBUSY) << "before any look at the arguments";
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}));
    const dump_t lines = dump(1);
    const auto row = std::find(lines.begin(), lines.end(), "    fxm_init_manager()");
    ASSERT_GT(lines.end() - row, 10);
    EXPECT_EQ(row[1 + FXM_API_EBUSY], "      FXM_API_EBUSY        : 1");
    EXPECT_TRUE(has_line(lines, "    FXM_API_EBUSY        : 1"));

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
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    EXPECT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_EBUSY) << "while it stops";
    EXPECT_FALSE(manager.returned());
    held = false;
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

TEST_F(lifecycle, bad_arguments_are_refused_and_a_good_call_may_follow)
{
    for (const int32_t level : {-2, 6, INT32_MIN, INT32_MAX})
        EXPECT_EQ(fxm_init_manager(dir.c_str(), level), FXM_API_EINVAL) << level;
    EXPECT_EQ(fxm_init_manager((dir / "nowhere").c_str(), 3), FXM_API_EINVAL);
    EXPECT_EQ(fxm_init_manager((dir / "conf/fxm.conf").c_str(), 3), FXM_API_EINVAL) << "no directory";
    EXPECT_EQ(fxm_init_manager((dir / "conf").c_str(), 3), FXM_API_EPROTO) << "no log properties";
    EXPECT_EQ(log.lines().size(), 0u) << "nothing is logged before the log is there";

    // Directories of the longest name that does, and of one character more.
    fs::path deep = dir;
    while (deep.string().size() < 481 - 101)
        deep /= std::string(100, 'd');
    const fs::path longest = deep / std::string(481 - deep.string().size() - 1, 'e');
    const fs::path too_long = longest.string() + "e";
    configure("ether_port = nowhere0\n");
    for (const fs::path &place : {longest, too_long}) {
        fs::create_directories(place);
        fs::copy(dir / "conf", place / "conf");
    }
    ASSERT_EQ(longest.string().size(), 481u);
    EXPECT_EQ(fxm_init_manager(too_long.c_str(), 3), FXM_API_EPROTO);
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(fxm_init_manager(longest.c_str(), 3), FXM_API_ENOENT) << "gets as far as the port that is not there";
    EXPECT_GT(log.lines().size(), 0u);

    configure("");
    run();
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

TEST_F(lifecycle, without_a_directory_the_paths_of_the_default_installation_count)
{
    // Relative to the working directory, on this system.
    const fs::path before = fs::current_path();
    const fs::path install = dir / "C:/Program Files/QOR/FXM";
    fs::create_directories(install);
    configure("ether_port = nowhere0\n");
    fs::current_path(dir);
    for (const char *none : {static_cast<const char *>(nullptr), ""})
        EXPECT_EQ(fxm_init_manager(none, 3), FXM_API_EPROTO) << "no log properties there";
    fs::copy(dir / "conf", install / "conf");
    for (const char *none : {static_cast<const char *>(nullptr), ""})
        EXPECT_EQ(fxm_init_manager(none, 3), FXM_API_ENOENT) << "read: its port is not there";
    fs::current_path(before);
    EXPECT_EQ(log.count("INFO     ether_port0_name              : nowhere0"), 2u);
}

// --------------------------------------------------------------------------------------------------- configuration

TEST_F(lifecycle, an_error_in_the_configuration_is_named_and_stops_the_start)
{
    const std::string parse = "config parameter parse error: ";
    const std::string range = "out of range error: ";
    std::vector<std::pair<std::string, std::string>> bad = {
        {"no_such_key = 1", "Unknown config parameter: no_such_key"},
        {" # not at the beginning", "Unknown config parameter: #"},
        {"Log_level = 3", "Unknown config parameter: Log_level"},
        {"log_level", parse + "log_level"},
        {"log_level =", parse + "log_level"},
        {"log_level = -1", parse + "log_level"},
        {"log_level = 6", range + "log_level"},
        {"frame_retry_count = ten", parse + "frame_retry_count"},
        {"frame_retry_count = 10#", parse + "frame_retry_count"},
        {"frame_retry_count = 0x", parse + "frame_retry_count"},
        {"frame_retry_count = 08", parse + "frame_retry_count"},
        {"frame_retry_count = 4294967296", parse + "frame_retry_count"},
        {"eeprom_lock_other_bit = 0x100000000", parse + "eeprom_lock_other_bit"},
        {"stats_verbose_level = -1", parse + "stats_verbose_level"},
        {"eeprom_id_number = -1", range + "eeprom_id_number"},
        {"eeprom_verify_interval = 0", range + "eeprom_verify_interval"},
        {"ether_type = 65536", parse + "ether_type"},
        {"ether_port =", parse + "ether_port"},
        {"ether_port_ifindex = none", parse + "ether_port_ifindex"},
        {"ether_port_ifindex = 1 -1", parse + "ether_port_ifindex"},
        {"ether_port_ifindex = 00000000001", parse + "ether_port_ifindex"},
        {"ether_port_ifindex = 4294967296", parse + "ether_port_ifindex"},
        {"broadcast_mac = 3:00:ff:ff:ff:ff", parse + "broadcast_mac"},
        {"broadcast_mac = 03:00:ff:ff:ff:fg", parse + "broadcast_mac"},
        {"broadcast_mac = 03-00-ff-ff-ff-ff", parse + "broadcast_mac"},
        {"tag_min = 6\ntag_max = 5", "config parameter error: tag_min > tag_max"},
        {"tag_max = 5\ntag_min = 6", "config parameter error: tag_min > tag_max"},
    };
    // The first number below and above what each key takes.
    struct range_t {
        const char *key;
        uint32_t low, high;
    };
    for (const range_t &key : std::vector<range_t>{{"devinfo_check_interval", 1000, 100000},
                                                   {"devinfo_expire_time", 1000, 100000},
                                                   {"devinfo_flag_check_interval", 1, 100000},
                                                   {"vlan_check_interval", 1, 1000},
                                                   {"frame_retry_interval", 1, 1000},
                                                   {"frame_retry_count", 0, 100},
                                                   {"frame_retry_interval_livecheck", 1, 1000},
                                                   {"frame_retry_count_livecheck", 0, 100},
                                                   {"eeprom_id_number", 1, 32768},
                                                   {"eeprom_retry_interval", 1, 1000},
                                                   {"eeprom_retry_count", 0, 1000},
                                                   {"eeprom_check_interval", 0, 1000},
                                                   {"eeprom_check_retry_count", 0, 1000},
                                                   {"eeprom_verify_count", 0, 60},
                                                   {"eeprom_rw_interval", 0, 1000},
                                                   {"tag_min", 0, 255},
                                                   {"tag_max", 0, 255},
                                                   {"network_composition", 1, 2},
                                                   {"eeprom_type", 0, 1},
                                                   {"stats_interval", 1, 2592000},
                                                   {"force_lock_try_count", 0, 1000},
                                                   {"register_verify_interval", 0, 1000},
                                                   {"update_evt_mask", 1, 2}}) {
        bad.emplace_back(std::string(key.key) + " = " + std::to_string(key.high + 1), range + key.key);
        if (key.low > 0)
            bad.emplace_back(std::string(key.key) + " = " + std::to_string(key.low - 1), range + key.key);
    }
    for (const auto &[lines, message] : bad) {
        configure(lines);
        const size_t before = log.lines().size();
        ASSERT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_EPROTO) << lines;
        EXPECT_EQ(
            std::vector<std::string>(log.lines().begin() + static_cast<std::ptrdiff_t>(before), log.lines().end()),
            (std::vector<std::string>{"INFO fxm_log_init: Log initialize is done. logconfig_filepath:" + dir.string(),
                                      "ERROR _fxm_config_read: " + message,
                                      "ERROR fxm_init_manager: Failed to _fxm_config_read() err=" +
                                          std::to_string(EPROTO)}))
            << lines;
    }
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
    const size_t begin = find_line(&log, "INFO _fxm_config_value_print: start.");
    const std::vector<std::string> values = {
        "    ether_port0_name              : fxm0",
        "    ether_port1_name              : fxm1",
        "    broadcast_mac                 : 0123456789ab",
        "    ether_port0_ifindex           : 0",
        "    ether_port1_ifindex           : 1",
        "    use_port_num_win              : 2",
        "    use_port_num_linux            : 2",
        "    devinfo_check_interval        : 1000",
        "    devinfo_expire_time           : 100000",
        "    devinfo_flag_check_interval   : 100",
        "    vlan_check_interval           : 10",
        "    frame_retry_interval          : 100",
        "    frame_retry_count             : 16",
        "    frame_retry_interval_livecheck: 100",
        "    frame_retry_count_livecheck   : 10",
        "    eeprom_id_number              : 0x0100",
        "    eeprom_retry_interval         : 50",
        "    eeprom_retry_count            : 100",
        "    eeprom_check_interval         : 1",
        "    eeprom_check_retry_count      : 50",
        "    eeprom_verify_count           : 20",
        "    eeprom_verify_interval        : 1",
        "    eeprom_lock_other_bit         : 0x0000001f",
        "    eeprom_rw_interval            : 100",
        "    tag_min                       : 7",
        "    tag_max                       : 7",
        "    id_list_upper_limit           : 0xffffffff",
        "    log_level                     : 5",
        "    network_composition           : 2",
        "    eeprom_type                   : 0",
        "    stats_interval                : 3600",
        "    stats_verbose_level           : 4294967295",
        "    force_lock_try_count          : 10",
        "    register_verify_interval      : 0",
        "    update_evt_mask               : 2",
        "    ether_type                    : 0x9abc",
    };
    for (size_t i = 0; i < values.size(); ++i)
        EXPECT_EQ(log.lines().at(begin + 1 + i), "INFO " + values[i]);
    EXPECT_EQ(log.lines().at(begin + 1 + values.size()), "INFO _fxm_config_value_print: end.");
    EXPECT_EQ(section(dump(), "  - Config parameters"), values);
    EXPECT_EQ(stats_log.count_with("fxm status dump (v4294967295)"), 1u) << "the dump of the start";
    EXPECT_EQ(log.count_with("_fxm_set_loglevel: Set loglevel. old="), 1u);
    EXPECT_GT(log.count_with("TRACE "), 0u) << "the configured level counts";
}

TEST_F(lifecycle, without_a_configuration_file_the_defaults_stand)
{
    fs::remove(dir / "conf/fxm.conf");
    EXPECT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT) << "there is neither eth0 nor eth1 here";
    EXPECT_EQ(log.count("WARN _fxm_config_read: Failed to _fxm_file_exist(). path=" + dir.string() + "/conf/fxm.conf"),
              1u);
    EXPECT_EQ(log.count_with("_fxm_config_value_print"), 0u);
}

// -------------------------------------------------------------------------------------------------------------- log

TEST_F(lifecycle, log_level_filters_the_log_and_nothing_but_the_log)
{
    configure("log_level = 2\n");
    run(FXM_LOG_INFO);
    const auto lines_of = [&](const std::function<void()> &act) {
        const size_t before = log.lines().size();
        act();
        return std::vector<std::string>(log.lines().begin() + static_cast<std::ptrdiff_t>(before), log.lines().end());
    };
    using lines_t = std::vector<std::string>;
    EXPECT_EQ(log.count_with("TRACE ") + log.count_with("DEBUG "), 0u);

    EXPECT_EQ(
        lines_of([] { EXPECT_EQ(fxm_set_loglevel(FXM_LOG_FATAL), FXM_API_SUCCESS); }),
        (lines_t{"INFO fxm_set_loglevel: (IN) log_level=0", "INFO _fxm_set_loglevel: Set loglevel. old=3, new=0"}));
    EXPECT_EQ(lines_of([&] {
                  EXPECT_TRUE(has_line(dump(), "    Log level : FATAL")) << "a dump does not go by the level";
                  EXPECT_EQ(fxm_restart_monitor(FXIO), FXM_API_SUCCESS);
                  EXPECT_EQ(fxm_set_loglevel(FXM_LOG_INFO), FXM_API_SUCCESS);
              }),
              (lines_t{"INFO fxm_set_loglevel: (OUT) ret=0, g_log_level=3"}));
    for (const int32_t level : {-2, 6}) {
        EXPECT_EQ(lines_of([&] { EXPECT_EQ(fxm_set_loglevel(level), FXM_API_EINVAL); }),
                  (lines_t{"INFO fxm_set_loglevel: (IN) log_level=" + std::to_string(level),
                           "INFO fxm_set_loglevel: (OUT) ret=1, g_log_level=3"}));
    }
    EXPECT_EQ(fxm_set_loglevel(FXM_LOG_CONFIGURED), FXM_API_SUCCESS);
    EXPECT_TRUE(has_line(dump(), "    Log level : WARN"));
    EXPECT_EQ(lines_of([] { fxm_restart_monitor(FXIO); }), lines_t());
    EXPECT_EQ(fxm_set_loglevel(FXM_LOG_TRACE), FXM_API_SUCCESS);
    EXPECT_EQ(log.lines().back(), "INFO fxm_set_loglevel: (OUT) ret=0, g_log_level=5");
    EXPECT_EQ(lines_of([] { fxm_delete_fxsv(FXSV_1G); }),
              (lines_t{"INFO fxm_delete_fxsv: (IN). id=0x020000001000", "TRACE _fxm_fx_lock: fx lock",
                       "TRACE _fxm_fx_unlock: fx unlock", "INFO fxm_delete_fxsv: (OUT). ret=3 id=0x020000001000"}));
}

TEST_F(lifecycle, each_function_logs_its_call_and_its_result)
{
    run(FXM_LOG_INFO);
    wire[0]->send(fxsv_1g_frame());
    settle(0);
    fxm_fxsv_t fxsv_record;
    fxm_fxio_t fxio_record;
    uint64_t *list = nullptr;
    uint32_t count = 0;
    void *handle = nullptr;
    const auto expect = [&](int result, int actual, const std::string &in, const std::string &out) {
        EXPECT_EQ(actual, result);
        const std::vector<std::string> &lines = log.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[lines.size() - 2], "INFO " + in);
        EXPECT_EQ(lines[lines.size() - 1], "INFO " + out);
    };
    const auto pointer = [](const void *value) {
        char text[32];
        snprintf(text, sizeof(text), "%p", value);
        return std::string(text);
    };
    expect(0, fxm_start_manager(), "fxm_start_manager: (IN)", "fxm_start_manager: (OUT) ret=0");
    expect(0, fxm_get_fxsv(FXSV_1G, &fxsv_record), "fxm_get_fxsv: (IN). id=0x020000001000",
           "fxm_get_fxsv: (OUT). ret=0 id=0x020000001000");
    expect(3, fxm_get_fxio(1, &fxio_record), "fxm_get_fxio: (IN). id=0x000000000001",
           "fxm_get_fxio: (OUT). ret=3 id=0x000000000001");
    expect(1, fxm_get_fxsvids(nullptr, &count), "fxm_get_fxsvids: (IN)", "fxm_get_fxsvids: (OUT) ret=1");
    expect(0, fxm_get_fxioids(&list, &count), "fxm_get_fxioids: (IN)", "fxm_get_fxioids: (OUT) ret=0");
    expect(0, fxm_get_update_fxsvids(UINT64_MAX, &list, &count), "fxm_get_update_fxsvids: (IN)",
           "fxm_get_update_fxsvids: (OUT) ret=0");
    expect(0, fxm_get_update_fxioids(0, &list, &count), "fxm_get_update_fxioids: (IN)",
           "fxm_get_update_fxioids: (OUT) ret=0");
    expect(1, fxm_get_group_fxsvids(0, &list, &count), "fxm_get_group_fxsvids: (IN) groupid=0",
           "fxm_get_group_fxsvids: (OUT) ret=1, groupid=0");
    expect(0, fxm_get_group_fxioids(4094, &list, &count), "fxm_get_group_fxioids: (IN) groupid=4094",
           "fxm_get_group_fxioids: (OUT) ret=0, groupid=4094");
    expect(3, fxm_delete_fxio(FXSV_1G), "fxm_delete_fxio: (IN). id=0x020000001000",
           "fxm_delete_fxio: (OUT). ret=3 id=0x020000001000");
    expect(0, fxm_free_idlist(nullptr), "fxm_free_idlist: (IN)", "fxm_free_idlist: (OUT) ret=0");
    expect(0, fxm_stop_monitor(FXSV_1G), "fxm_stop_monitor: (IN) id=0x020000001000",
           "fxm_stop_monitor: (OUT) ret=0, id=0x020000001000");
    expect(0, fxm_restart_monitor(FXSV_1G), "fxm_restart_monitor: (IN) id=0x020000001000",
           "fxm_restart_monitor: (OUT) ret=0, id=0x020000001000");
    const int registered = fxm_register_callback(
        5, [](uint64_t, int32_t, uint64_t) {}, 0, &handle);
    expect(0, registered, "fxm_register_callback: (IN) type=5",
           "fxm_register_callback: (OUT) ret=0, type=5, cbid=" + pointer(handle));
    expect(1, fxm_register_callback(6, nullptr, 0, &handle), "fxm_register_callback: (IN) type=6",
           "fxm_register_callback: (OUT) ret=1, type=6");
    expect(0, fxm_unregister_callback(handle), "fxm_unregister_callback: (IN) cbid=" + pointer(handle),
           "fxm_unregister_callback: (OUT) ret=0");
    expect(0, fxm_stdump(7), "fxm_stdump: (IN) verbose=7", "fxm_stdump: (OUT) ret=0");
}

TEST_F(lifecycle, log_properties_that_log4cxx_does_not_take_do_not_hinder_the_start)
{
    std::ofstream(dir / "conf/fxm_log4c_win.properties") << "log4j.logger.logfile=TRACE, NOWHERE\n"
                                                            "log4j.appender.NOWHERE=no.such.Appender\n";
    manager.launch(dir, FXM_LOG_FATAL);
    ASSERT_TRUE(wait_for([] { return fxm_start_manager() == FXM_API_SUCCESS; }, "the library to come up"));
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

// ------------------------------------------------------------------------------------------------------------ ports

TEST_F(lifecycle, without_any_port_the_start_fails_and_with_one_it_does_not)
{
    const auto socket_error = [](int port, int err) {
        return "ERROR fxm_init_manager: Failed to _fxm_socket_open(). port=" + std::to_string(port) +
               ", err=" + std::to_string(err);
    };
    configure("ether_port = nowhere0 nowhere1\n");
    EXPECT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT);
    expect_order(&log, {"ERROR _fxm_socket_open_win: end. ret=2", socket_error(0, ENOENT),
                        "ERROR _fxm_socket_open_win: end. ret=2", socket_error(1, ENOENT), "INFO _fxm_reg_fini: start.",
                        "INFO _fxm_config_fini: end.", "INFO fxm_init_manager: (OUT) ret=3"});
    configure("ether_port = lo\n");
    EXPECT_EQ(fxm_init_manager(dir.c_str(), FXM_LOG_INFO), FXM_API_ENOENT);
    EXPECT_EQ(log.count("WARN _fxm_socket_open_win: Interface is loopback. if_index=1"), 1u);
    EXPECT_EQ(log.count(socket_error(1, ENOENT)), 1u) << "one port was configured, one was tried";

    const std::string index1 = std::to_string(if_nametoindex("fxm1"));
    for (const std::string &second_alone :
         {std::string("ether_port = nowhere0 fxm1\n"), "ether_port_ifindex = 4000000000, " + index1 + "\n"}) {
        configure(second_alone);
        run();
        wire[0]->send(fxsv_1g_frame());
        wire[1]->send(fxio_frame());
        expect_events(events_of(FXIO, {FXM_EVT_NEWDEVINFO}), 1);
        const dump_t ports = section(dump(), "  - Port information");
        EXPECT_EQ(ports, (dump_t{"    + Port0", "      MAC addr  : 000000000000", "      Link state: DOWN",
                                 "      Total down: 0", "    + Port1", "      MAC addr  : 02000000aa01",
                                 "      Link state: UP", "      Total down: 0"}));
        EXPECT_EQ(stop(), FXM_API_SUCCESS) << "the port that failed is forgotten";
    }
    // The index names port 0, and a second word that is no number ends the list.
    configure("ether_port_ifindex = " + index1 + " none\nether_port = fxm0\n");
    run();
    wire[1]->send(fxsv_1g_frame());
    wire[0]->send(fxio_frame());
    ASSERT_TRUE(wait_for([&] { return !events().empty(); }, "the card"));
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_state[0][0], 1u);
    EXPECT_EQ(fxsv(FXSV_1G).fsv_card.fcd_state[1][0], 0u);
    EXPECT_TRUE(has_line(dump(), "    use_port_num_win              : 1"));
}

TEST_F(lifecycle, a_deleted_interface_stops_the_library_with_an_error_and_it_can_be_started_again)
{
    run();
    ip("link del fxm0");
    EXPECT_EQ(manager.result(), FXM_API_EPROTO);
    expect_order(&log, {"ERROR _fxm_recv_frame: Failed to _fxm_recv_pcap(). port_num=0",
                        "FATAL _fxm_recv_win: Failed to _fxm_recv_frame(). port_num=0",
                        "FATAL _fxm_fini_manager: LFI will terminate by reason of internal error.",
                        "INFO _fxm_interval_check: end.", "INFO _fxm_config_fini: end.",
                        "INFO fxm_init_manager: Internal err is detected. internal_err=" + std::to_string(EPROTO),
                        "INFO fxm_init_manager: (OUT) ret=6"});
    EXPECT_EQ(sys_log.lines().back(), "FXM LFI stopped");

    run();
    wire[1]->send(fxsv_1g_frame());
    ASSERT_TRUE(wait_for([&] { return !events().empty(); }, "the card"));
    EXPECT_EQ(stop(), FXM_API_SUCCESS) << "the error of the last run is forgotten";
}

TEST_F(lifecycle, an_interface_that_goes_down_and_comes_up_goes_on)
{
    run();
    wire[0]->send(fxsv_1g_frame());
    expect_events(events_of(FXSV_1G, {FXM_EVT_NEWDEVINFO}));
    for (int i = 0; i < 3; ++i) {
        ip("link set fxm0 down");
        ASSERT_TRUE(wait_for([&] { return fxsv(FXSV_1G).fsv_card.fcd_state[0][0] == 0; }, "the channel to go down",
                             [&] { return log.tail(); }));
        ip("link set fxm0 up");
        ASSERT_TRUE(wait_for(
            [&] {
                return has_line(section(dump(), "  - Port information"), "      Link state: UP") &&
                       !has_line(dump(), "      Link state: DOWN");
            },
            "the link to come up", [&] { return log.tail(); }));
        wire[0]->send(fxsv_1g_frame());
        expect_events(events_of(FXSV_1G, {FXM_EVT_UPDATEDEVINFO, FXM_EVT_CHANNELSTATECHANGE, FXM_EVT_UPDATEDEVINFO,
                                          FXM_EVT_CHANNELSTATECHANGE}));
    }
    EXPECT_TRUE(has_line(dump(), "      Total down: 3"));
    EXPECT_EQ(stop(), FXM_API_SUCCESS);
}

} // namespace
