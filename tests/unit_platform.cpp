// What the logic makes of a failing or strange system: the calls of the platform layer are stood in for, and below it
// three of the system's own.
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <pcap/pcap.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "events/fxm_event.h"
#include "events/fxm_linkstate.h"
#include "frames.h"
#include "fxm_log4cxxif.h"
#include "host.h"
#include "net.h"
#include "platform/fxm_platform.h"
#include "registry/fxm_devinfo.h"
#include "registry/fxm_keepalive.h"
#include "registry/fxm_tables.h"
#include "wait.h"
#include "wire/fxm_port.h"
#include "wire/fxm_recv.h"

// -------------------------------------------------------------------------------------------------- the system's own

static std::vector<int> send_errors; // of the sends to come; 0 and none left: the frame is sent
static int sends;

extern "C" int pcap_sendpacket(pcap_t *, const u_char *, int)
{
    ++sends;
    errno = send_errors.empty() ? 0 : send_errors.front();
    if (!send_errors.empty())
        send_errors.erase(send_errors.begin());
    return errno == 0 ? 0 : -1;
}

static std::string answer; // of the kernel to the next question

extern "C" ssize_t recv(int fd, void *buffer, size_t size, int flags)
{
    if (answer.empty())
        return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
    const size_t length = std::min(size, answer.size());
    memcpy(buffer, answer.data(), length);
    answer.clear();
    return static_cast<ssize_t>(length);
}

static std::atomic<int> ticks_left = -1; // sleeps that take no time until the library is stopped; -1: time is real

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *left)
{
    if (ticks_left < 0)
        return syscall(SYS_clock_nanosleep, clock, flags, time, left) == 0 ? 0 : errno;
    if (--ticks_left == 0)
        g_fini_flag = FXM_ON;
    return 0;
}

// ---------------------------------------------------------------------------------------------------------- fixtures

static std::atomic<bool> no_memory;

// Gives each test the real calls back, a log of its own, and fresh counters.
class platform : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(fxm_log_init(installation.dir.c_str()), 0);
        g_log_level = FXM_LOG_TRACE;
        _fxm_config_default();
        ASSERT_EQ(_fxm_stats_init(), 0);
        _fxm_ports_clear();
        fxm_platform.allocate = [](size_t size) { return no_memory ? nullptr : malloc(size); };
        calls.clear();
        adapters.clear();
    }

    void TearDown() override
    {
        fxm_platform = real;
        g_log_level = FXM_LOG_INFO;
        g_init_flag = g_fini_flag = FXM_OFF;
        internal_err = 0;
        no_memory = false;
    }

    bool logged(const std::string &line) { return log.count(line) > 0; }

    // A configuration and an adapter list with which the library starts.
    void make_startable(const std::string &lines = "")
    {
        installation.configure("ether_port_ifindex = 3\n" + lines);
        add_adapter(3, 6, 6, FXM_IF_OPER_UP, "lo");
        fxm_platform.get_adapters = give_adapters;
    }

    static uint32_t in_use()
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        return g_stats.mem[FXM_MEM_ADDRS].alloc - g_stats.mem[FXM_MEM_ADDRS].free;
    }

    static void add_adapter(uint32_t index, uint32_t type, uint32_t length, uint32_t status, const char *name)
    {
        fxm_adapter_t adapter{};
        adapter.IfIndex = index;
        adapter.IfType = type;
        adapter.PhysicalAddressLength = length;
        for (uint8_t i = 0; i < length; ++i)
            adapter.PhysicalAddress[i] = static_cast<uint8_t>(0x11 * (i + 1));
        adapter.OperStatus = status;
        snprintf(adapter.AdapterName, sizeof(adapter.AdapterName), "%s", name);
        adapters.push_back(adapter);
    }

    static uint32_t give_adapters(fxm_adapter_t *list, uint32_t *size)
    {
        const uint32_t answer = calls.empty() ? 0 : calls.front();
        if (!calls.empty())
            calls.erase(calls.begin());
        const auto needed = static_cast<uint32_t>(adapters.size() * sizeof(fxm_adapter_t));
        if (answer != 0 || list == nullptr) {
            *size = needed;
            return answer == 0 && needed > 0 ? FXM_ADAPTER_OVERFLOW : answer;
        }
        memcpy(list, adapters.data(), needed);
        for (size_t i = 0; i + 1 < adapters.size(); ++i)
            list[i].Next = &list[i + 1];
        return 0;
    }

    const fxm_platform_calls_t real = fxm_platform;
    installation_t installation;
    log_t log = log_t(installation.dir / "logfile");
    static inline std::vector<uint32_t> calls; // answers to come, 0 for the list as it is
    static inline std::vector<fxm_adapter_t> adapters;
};

TEST_F(platform, adapter_list_that_grows_once_is_fetched_and_twice_is_a_failure)
{
    add_adapter(7, 6, 6, FXM_IF_OPER_UP, "port");
    fxm_ports[0].pt_if_index = 7;
    fxm_platform.get_adapters = give_adapters;
    uint32_t state = 9;
    calls = {0, FXM_ADAPTER_OVERFLOW, 0};
    EXPECT_EQ(_fxm_get_linkstate_win(0, &state), 0);
    EXPECT_EQ(state, 1u);
    state = 9;
    for (const auto &[answers, line] :
         {std::pair(std::vector<uint32_t>{0, FXM_ADAPTER_OVERFLOW, FXM_ADAPTER_OVERFLOW},
                    "Failed to GetAdaptersAddresses() err=111"),
          {{0, 8}, "Failed to GetAdaptersAddresses() err=8"},
          {{5}, "ERROR_BUFFER_OVERFLOW was not returned to GetAdaptersAddresses(). err=5"}}) {
        calls = answers;
        EXPECT_EQ(_fxm_get_linkstate_win(0, &state), EPROTO);
        EXPECT_TRUE(logged(std::string("ERROR _fxm_get_linkstate_win: ") + line)) << line;
    }
    EXPECT_TRUE(logged("ERROR _fxm_get_linkstate_win: end. ret=71"));
    fxm_ports[0].pt_if_index = 8;
    EXPECT_EQ(_fxm_get_linkstate_win(0, &state), ENOENT);
    no_memory = true;
    EXPECT_EQ(_fxm_get_linkstate_win(0, &state), ENOMEM);
    EXPECT_TRUE(logged("ERROR _fxm_get_linkstate_win: Failed to malloc()"));
    EXPECT_EQ(state, 9u) << "a failed reading has written its output";
    EXPECT_EQ(in_use(), 0u) << "an adapter list has leaked";
}

TEST_F(platform, port_opens_on_the_first_usable_adapter_of_its_index)
{
    add_adapter(3, FXM_IF_TYPE_LOOPBACK, 6, FXM_IF_OPER_UP, "no-such-device");
    fxm_platform.get_adapters = give_adapters;
    EXPECT_EQ(_fxm_socket_open_win(3, &fxm_ports[0]), ENOENT);
    EXPECT_TRUE(logged("WARN _fxm_socket_open_win: Interface is loopback. if_index=3"));
    EXPECT_TRUE(logged("ERROR _fxm_socket_open_win: end. ret=2"));

    // An adapter that the capture library does not list: found here, refused there.
    add_adapter(3, 6, 0, FXM_IF_OPER_UP, "no-address");
    add_adapter(3, 6, 6, FXM_IF_OPER_UP, "no-such-device");
    EXPECT_EQ(_fxm_socket_open_win(3, &fxm_ports[0]), EPROTO);
    EXPECT_TRUE(logged("WARN _fxm_socket_open_win: PhysicalAddressLength is 0. if_index=3"));
    EXPECT_TRUE(logged("ERROR _fxm_socket_open_win: Failed to get_pcap(). err=2"));
    EXPECT_EQ(fxm_ports[0].pt_mac, 0u) << "a port that failed to open has left its record filled";
    EXPECT_EQ(fxm_ports[0].pt_if_index, 0u);

    // The first two entries do not do, the third opens: all eight bytes of a long address count.
    adapters.pop_back();
    add_adapter(3, 6, 8, FXM_IF_OPER_DOWN, "lo");
    ASSERT_EQ(_fxm_socket_open_win(3, &fxm_ports[0]), 0) << "needs the right to capture";
    EXPECT_EQ(fxm_ports[0].pt_mac, 0x1122334455667788u);
    EXPECT_EQ(fxm_ports[0].pt_link.load(), 0u) << "a port without link opens, and is down";
    EXPECT_EQ(fxm_ports[0].pt_if_index, 3u);
    EXPECT_EQ(in_use(), 0u);

    // Nothing has come, so the next read waits for a signal.
    ASSERT_EQ(_fxm_capture_mintocopy(fxm_ports[0].pt_pcap), 0);
    EXPECT_EQ(_fxm_recv_frame(0), 0);
    EXPECT_FALSE(fxm_recv_source[0].ready);

    // A congested port is tried again, for a while; any other failure is one at once.
    const struct {
        std::vector<int> errors;
        int result;
        int least, most; // sends
    } rows[] = {{{EAGAIN, EAGAIN}, 0, 3, 3},
                {{ENETDOWN}, EPROTO, 1, 1},
                {{ENOBUFS}, EPROTO, 1, 1},
                {{EAGAIN, EMSGSIZE}, EPROTO, 2, 2},
                {std::vector<int>(1000, EAGAIN), EPROTO, 2, 60}};
    const uint8_t frame[60] = {};
    for (const auto &row : rows) {
        send_errors = row.errors;
        sends = 0;
        EXPECT_EQ(_fxm_send(0, frame, sizeof(frame)), row.result);
        EXPECT_TRUE(sends >= row.least && sends <= row.most) << sends;
    }
    send_errors.clear();
    _fxm_socket_close(0);
}

TEST_F(platform, device_of_the_name_comes_before_one_that_contains_it)
{
    lay_cable("alo", "blo");
    for (const auto &[name, device] : {std::pair("lo", "lo"), std::pair("bl", "blo")}) {
        pcap_t *handle = nullptr;
        ASSERT_EQ(get_pcap(name, &handle), 0);
        pcap_close(handle);
        EXPECT_TRUE(logged(std::string("INFO get_pcap: Setting device name=") + device)) << log.tail();
    }
    EXPECT_EQ(log.count_with("name=alo"), 0u);
    ip("link del alo");
}

TEST_F(platform, adapter_of_unknown_state_goes_by_its_carrier)
{
    constexpr uint32_t up = IFF_UP, carrier = IFF_LOWER_UP;
    const struct {
        uint32_t flags;
        uint8_t state;
        uint32_t status;
    } rows[] = {{up | carrier, IF_OPER_UNKNOWN, FXM_IF_OPER_UP}, {up, IF_OPER_UNKNOWN, FXM_IF_OPER_DOWN},
                {carrier, IF_OPER_UNKNOWN, FXM_IF_OPER_DOWN},    {up, IF_OPER_UP, FXM_IF_OPER_UP},
                {up | carrier, IF_OPER_DOWN, FXM_IF_OPER_DOWN},  {up | carrier, IF_OPER_DORMANT, FXM_IF_OPER_DOWN}};
    for (const auto &row : rows) {
        struct {
            nlmsghdr header{sizeof(header) + sizeof(info) + sizeof(attribute) + sizeof(state), RTM_NEWLINK, NLM_F_MULTI,
                            1, 0};
            ifinfomsg info{};
            rtattr attribute{sizeof(attribute) + 1, IFLA_OPERSTATE};
            uint8_t state[4]{};
            nlmsghdr end{sizeof(end), NLMSG_DONE, NLM_F_MULTI, 1, 0};
        } message;
        message.info.ifi_flags = row.flags;
        message.state[0] = row.state;
        answer.assign(reinterpret_cast<const char *>(&message), sizeof(message));
        fxm_adapter_t adapter{};
        uint32_t size = sizeof(adapter);
        EXPECT_EQ(_fxm_get_adapters(&adapter, &size), 0u);
        EXPECT_EQ(adapter.OperStatus, row.status) << row.flags << " " << int{row.state};
    }
}

// Answers of the wait, one after the other; the last one stops the loop.
static std::vector<uint32_t> waits;

static uint32_t give_wait(fxm_event_t *, fxm_wait_source_t *, uint32_t ms)
{
    EXPECT_EQ(ms, 1000u);
    const uint32_t answer = waits.front();
    waits.erase(waits.begin());
    if (waits.empty())
        g_fini_flag = FXM_ON;
    return answer;
}

TEST_F(platform, link_watcher_reads_on_a_notice_alone_and_stops_the_library_when_it_cannot_watch)
{
    static int readings;
    fxm_platform.get_adapters = [](fxm_adapter_t *list, uint32_t *size) {
        readings += list != nullptr ? 1 : 0;
        return give_adapters(list, size);
    };
    add_adapter(0, 6, 6, FXM_IF_OPER_DOWN, "port");
    g_config.use_port_num_linux = 1;
    fxm_platform.last_error = [] { return 5u; };
    static bool created, armed;
    fxm_platform.notice_create = [](fxm_notice_t *) { return created; };
    fxm_platform.notice_arm = [](fxm_notice_t *) { return armed; };
    fxm_platform.wait_two = give_wait;
    waits = {FXM_WAIT_TIMEOUT, FXM_WAIT_SECOND, 77, FXM_WAIT_SECOND, FXM_WAIT_FAILED, FXM_WAIT_TIMEOUT};
    const std::string watcher = " _fxm_watch_linkstate_win: ";
    for (const auto &[create, arm, line] : {std::tuple(false, false, "Failed to WSACreateEvent()."),
                                            {true, false, "Failed to NotifyAddrChange(). err = 5"},
                                            {true, true, "WaitForMultipleObjects() returned WAIT_FAILED. lasterr=5"}}) {
        created = create, armed = arm;
        readings = 0;
        g_fini_flag = FXM_OFF;
        internal_err = 0;
        _fxm_watch_linkstate_win();
        EXPECT_TRUE(logged("FATAL" + watcher + line)) << line;
        EXPECT_EQ(internal_err.load(), EPROTO);
        EXPECT_EQ(g_fini_flag.load(), FXM_ON);
    }
    EXPECT_EQ(readings, 3) << "one at the start and one for each notice, of the one port in use";
    EXPECT_TRUE(logged("FATAL _fxm_fini_manager: LFI will terminate by reason of internal error."));
    EXPECT_TRUE(logged("TRACE" + watcher + "WaitForMultipleObjects() returned WAIT_TIMEOUT."));
    EXPECT_TRUE(logged("TRACE" + watcher + "WaitForMultipleObjects() returned 77."));
}

TEST_F(platform, change_that_falls_into_a_reading_brings_another_reading)
{
    static fxm_platform_calls_t system;
    static int readings;
    static int waited;
    system = real;
    readings = waited = 0;
    add_adapter(0, 6, 6, FXM_IF_OPER_DOWN, "port");
    g_config.use_port_num_linux = 1;
    fxm_platform.get_adapters = [](fxm_adapter_t *list, uint32_t *size) {
        if (list != nullptr && ++readings == 3)
            g_fini_flag = FXM_ON;
        // The kernel tells of it at once: first to an armed notice, then between its signal and its next arming.
        set_mtu("lo", 60000 + readings);
        return give_adapters(list, size);
    };
    fxm_platform.wait_two = [](fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms) {
        if (++waited == 5)
            g_fini_flag = FXM_ON;
        return system.wait_two(first, second, ms);
    };
    _fxm_watch_linkstate_win();
    EXPECT_EQ(readings, 3);
    EXPECT_EQ(internal_err.load(), 0);
}

static uint64_t clock_now;

// With empty card tables and an event queue, on a clock that the test sets.
class tables : public platform
{
  protected:
    void SetUp() override
    {
        platform::SetUp();
        ASSERT_EQ(_fxm_fx_init(), 0);
        ASSERT_EQ(_fxm_event_cb_init(), 0);
        fxm_platform.wall_clock_ms = [] { return clock_now; };
    }

    void TearDown() override
    {
        _fxm_event_cb_fini();
        _fxm_fx_fini();
        platform::TearDown();
    }

    // Of the port's first channel of card 0x10, after a pass at that time.
    static uint32_t state_at(uint64_t now, uint32_t port = 1)
    {
        clock_now = now;
        fxm_fx_guard_t guard;
        _devinfo_keepalive_check();
        fxm_fxsv_t seen{};
        EXPECT_EQ(_fxm_get_fxsv(0x10, &seen, nullptr, FXM_TBL_RECORD), 0);
        return seen.fsv_card.fcd_state[port][0];
    }
};

TEST_F(platform, receive_thread_stops_the_library_when_its_wait_fails)
{
    fxm_platform.capture_mintocopy = [](pcap *) { return -1; };
    fxm_platform.last_error = [] { return 9u; };
    fxm_platform.wait_two = give_wait;
    fxm_ports[1].pt_pcap = nullptr;
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 1024);
    fxm_ports[1].pt_pcap = dead;
    waits = {FXM_WAIT_TIMEOUT, 77, FXM_WAIT_FAILED, FXM_WAIT_TIMEOUT};
    _fxm_recv_win(1);
    EXPECT_TRUE(logged("ERROR _fxm_recv_win: failed to pcap_setmintocopy(). port_num=1"));
    EXPECT_TRUE(logged("TRACE _fxm_recv_win: WaitForMultipleObjects() returned WAIT_TIMEOUT. port_num=1"));
    EXPECT_TRUE(logged("TRACE _fxm_recv_win: WaitForMultipleObjects() returned 77. port_num=1"));
    EXPECT_TRUE(logged("FATAL _fxm_recv_win: WaitForMultipleObjects() returned WAIT_FAILED. lasterr=9, port_num=1"));
    EXPECT_EQ(internal_err.load(), EPROTO);
    pcap_close(dead);
}

// ------------------------------------------------------------------------------------------------------------- clock

TEST_F(tables, clock_steps_expire_channels_early_or_late_and_break_nothing)
{
    fxm_fxsv_t card;
    memset(&card, 0, sizeof(card));
    card.fsv_card.fcd_id = 0x10;
    card.fsv_card.fcd_state[1][0] = 1;
    card.fsv_card.fcd_recvtime[1][0] = 100000;
    {
        fxm_fx_guard_t guard;
        ASSERT_EQ(_fxm_set_fxsv(0x10, &card, FXM_WATCH, FXM_TBL_ALL), 0);
    }
    EXPECT_EQ(state_at(50000), 1u) << "a clock set back delays the expiry";
    EXPECT_EQ(state_at(104999), 1u) << "one millisecond before the expiry";
    EXPECT_EQ(state_at(105000), 0u) << "exactly at the expiry";
    {
        fxm_fx_guard_t guard;
        ASSERT_EQ(_fxm_set_fxsv(0x10, &card, FXM_IGNORE, FXM_TBL_ALL), 0);
    }
    EXPECT_EQ(state_at(900000), 1u) << "a card out of monitoring does not age";
    g_init_flag = FXM_ON;
    for (const int passes : {3, 5}) { // the second restart counts from the beginning
        EXPECT_EQ(fxm_restart_monitor(0x10), FXM_API_SUCCESS);
        for (int pass = 1; pass <= passes; ++pass)
            EXPECT_EQ(state_at(900000), 1u) << "restarted, pass " << pass;
    }
    EXPECT_EQ(state_at(900000), 0u) << "restarted and silent, sixth pass";
    EXPECT_EQ(fxm_restart_monitor(0x10), FXM_API_SUCCESS);
    for (int pass = 1; pass <= 6; ++pass)
        EXPECT_EQ(state_at(900000), 0u);
    uint32_t ignore_state = FXM_IGNORE;
    fxm_fx_guard_t guard;
    EXPECT_EQ(_fxm_get_fxsv(0x10, nullptr, &ignore_state, FXM_TBL_IGNORE_STATE), 0);
    EXPECT_EQ(ignore_state, FXM_WATCH) << "passes count for a card without a channel too";
}

TEST_F(tables, channels_heard_since_a_jump_of_the_clock_go_by_the_new_time)
{
    const auto hear = [](uint64_t now, uint32_t port = 1) {
        clock_now = now;
        EXPECT_EQ(_fxm_recv_devinfo(port, from(0x10, fxsv_40g_frame()).data(), 0), 0);
    };
    {
        fxm_fx_guard_t guard;
        fxm_fxsv_t card{};
        card.fsv_card.fcd_id = 0x10;
        ASSERT_EQ(_fxm_set_fxsv(0x10, &card, FXM_WATCH, FXM_TBL_ALL), 0);
    }
    hear(1000000);
    EXPECT_EQ(state_at(4600000), 0u) << "an hour ahead";
    hear(4600000);
    EXPECT_EQ(state_at(4604999), 1u) << "ahead, and heard since";
    EXPECT_EQ(state_at(1010000), 1u) << "an hour back";
    hear(1010000);
    EXPECT_EQ(state_at(1014999), 1u) << "back, and heard since";
    EXPECT_EQ(state_at(1015000), 0u) << "back, heard since, and silent then";
    hear(4600000);
    hear(4602000, 0);
    hear(1500000, 0);
    EXPECT_EQ(state_at(1504999, 0), 1u) << "the channel heard last, back, and heard since";
    EXPECT_EQ(state_at(1505000, 0), 0u) << "though the other channel has been heard ahead";
}

// ------------------------------------------------------------------------------------------------ failing resources

TEST_F(platform, start_that_fails_half_way_leaves_nothing_and_a_later_start_works)
{
    static int mutexes;
    static int events;
    static int fail_mutex;
    static int fail_event;
    installation.configure("ether_port = no-such-port\n");
    fxm_platform.mutex_make = [](pthread_mutex_t *handle, bool initialise) {
        return ++mutexes != fail_mutex && (!initialise || pthread_mutex_init(handle, nullptr) == 0);
    };
    fxm_platform.event_make = [](int *fd, bool) {
        *fd = -1;
        return ++events != fail_event;
    };
    const auto start = [&](int mutex, int event) {
        mutexes = events = 0;
        fail_mutex = mutex;
        fail_event = event;
        return fxm_init_manager(installation.dir.c_str(), FXM_LOG_TRACE);
    };
    // Stats, registry, blacklist, event queue, six entries, tags, write locks: twelve locks, which fail one after the
    // other until nothing fails any more but the port.
    int failing = 1;
    while (start(failing, 0) == FXM_API_EPROTO)
        ++failing;
    EXPECT_EQ(failing, 13);
    EXPECT_EQ(events, 258) << "stats, event task and 256 tags";
    for (const int i : {1, 2, 3, 4, 258})
        EXPECT_EQ(start(0, i), FXM_API_EPROTO) << "event " << i;
    EXPECT_EQ(start(0, 0), FXM_API_ENOENT);
    EXPECT_TRUE(logged("ERROR _fxm_stats_init: Failed to _fxm_mutex_init_st(). err=71"));
    EXPECT_TRUE(logged("ERROR _fxm_stats_init: Failed to _fxm_event_init(). err=71"));
    EXPECT_TRUE(logged("ERROR _fxm_fx_init: Failed to _fxm_mutex_init_st()"));
    EXPECT_TRUE(logged("ERROR _fxm_event_cb_init: Failed to _fxm_mutex_init_st() for fxm_event_queue. err=71"));
    EXPECT_TRUE(logged("ERROR _fxm_event_cb_init: Failed to _fxm_mutex_init() for cb_evt_tbl. err=71, i=3"));
    EXPECT_TRUE(logged("ERROR _fxm_event_cb_init: Failed to _fxm_event_init() for event_sig. err=71"));
    EXPECT_TRUE(logged("ERROR _fxm_cmp_init: Failed to _fxm_event_init()"));
    EXPECT_TRUE(logged("ERROR _fxm_reg_init: Failed to _fxm_mutex_init_st()"));
}

// ------------------------------------------------------------------------------------------------------- whole runs

TEST_F(platform, passes_come_as_often_as_their_interval_is_over)
{
    const std::string pass = "TRACE _fxm_interval_check: DEVINFO interval check start";
    size_t before = 0;
    make_startable();
    for (const auto &[tick, passes] : {std::pair(250, 3u), std::pair(300, 3u), std::pair(1000, 12u)}) {
        installation.configure("ether_port_ifindex = 3\ndevinfo_flag_check_interval = " + std::to_string(tick) + "\n");
        ticks_left = 12;
        EXPECT_EQ(fxm_init_manager(installation.dir.c_str(), FXM_LOG_TRACE), FXM_API_SUCCESS);
        ticks_left = -1;
        EXPECT_EQ(log.count(pass), before + passes) << "12 ticks of " << tick << " ms, 1000 ms between passes";
        before = log.count(pass);
    }
}

TEST_F(platform, tear_down_waits_for_the_calls_in_progress)
{
    make_startable();
    manager_t manager;
    ASSERT_TRUE(manager.start(installation.dir, FXM_LOG_INFO));
    {
        const fxm_call_t call;
        ASSERT_TRUE(call.running);
        fxm_fini_manager();
        const auto all_ended = [&] {
            return log.count_with("_fxm_recv_task: end.") + log.count("INFO _fxm_event_task_com: end.") +
                       log.count("INFO _fxm_watch_linkstate: end.") + log.count("INFO _fxm_stats_task_com: end.") ==
                   4;
        };
        EXPECT_TRUE(poll_until(all_ended)) << log.tail();
        // Nothing is left to wait for but this call. A tear-down that did not would be over soon.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_FALSE(manager.returned());
    }
    EXPECT_EQ(manager.result(), FXM_API_SUCCESS);
}

TEST_F(platform, host_is_told_when_memory_is_out_and_can_go_on)
{
    make_startable();
    no_memory = true;
    EXPECT_EQ(fxm_init_manager(installation.dir.c_str(), FXM_LOG_INFO), FXM_API_ENOMEM);
    no_memory = false;
    manager_t manager;
    ASSERT_TRUE(manager.start(installation.dir, FXM_LOG_INFO));
    fxm_fxsv_t card{};
    card.fsv_card.fcd_id = 1;
    {
        fxm_fx_guard_t guard;
        ASSERT_EQ(_fxm_set_fxsv(1, &card, FXM_WATCH, FXM_TBL_ALL), 0);
    }
    void *cbid = nullptr;
    for (const int expected : {FXM_API_ENOMEM, FXM_API_SUCCESS}) {
        uint64_t *list = nullptr;
        uint32_t count = 0;
        no_memory = expected == FXM_API_ENOMEM;
        EXPECT_EQ(fxm_stop_monitor(1), expected);
        EXPECT_EQ(fxm_register_callback(
                      0, [](uint64_t, int32_t, uint64_t) {}, 0, &cbid),
                  expected);
        EXPECT_EQ(fxm_get_fxsvids(&list, &count), expected);
        fxm_free_idlist(list);
    }
    EXPECT_TRUE(logged("ERROR fxm_stop_monitor: can't alloc memory for fxm_bl_node_t."));
    EXPECT_TRUE(logged("ERROR fxm_register_callback: Failed to _cbinfo_create()."));
    EXPECT_EQ(manager.stop(), FXM_API_SUCCESS);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    on_failure = [](const std::string &what) { ADD_FAILURE() << what; };
    return enter_namespace() ? RUN_ALL_TESTS() : 1;
}
