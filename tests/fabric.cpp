// The fixture's works: namespace, interfaces, raw sockets, simulator, host thread, log files.
#include "fabric.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Far beyond what anything here takes on a loaded machine with sanitizers.
constexpr auto WAIT_LIMIT = 30s;

// A card that only the fixture knows: its announcement comes behind all frames sent before.
constexpr uint64_t FENCE = 0x02fe0000fe00;

static bool poll_until(const std::function<bool()> &done)
{
    const auto limit = std::chrono::steady_clock::now() + WAIT_LIMIT;
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

bool wait_for(const std::function<bool()> &done, const std::string &what, const std::function<std::string()> &seen)
{
    // After a fatal failure, say of the start, nothing more will come.
    if (testing::Test::HasFatalFailure() ? done() : poll_until(done))
        return true;
    ADD_FAILURE() << "waited in vain for: " << what << (seen ? "\nseen:\n" + seen() : "");
    return false;
}

uint64_t now_ms()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void ip(const std::string &commands)
{
    FILE *input = popen("PATH=$PATH:/usr/sbin:/sbin ip -batch -", "w");
    ASSERT_NE(input, nullptr) << strerror(errno);
    fputs((commands + "\n").c_str(), input);
    ASSERT_EQ(pclose(input), 0) << "ip does not do:\n" << commands;
}

// ------------------------------------------------------------------------------------------------------------- frames

frame_t hex(std::string_view digits)
{
    frame_t frame;
    std::string compact;
    std::copy_if(digits.begin(), digits.end(), std::back_inserter(compact), [](char c) { return c != ' '; });
    for (size_t i = 0; i + 1 < compact.size(); i += 2)
        frame.push_back(static_cast<uint8_t>(std::stoul(compact.substr(i, 2), nullptr, 16)));
    EXPECT_EQ(compact.size() % 2, 0u) << "half a byte in: " << digits;
    return frame;
}

std::string to_hex(const frame_t &frame)
{
    std::string text;
    for (size_t i = 0; i < frame.size(); ++i) {
        char byte[32];
        if (i % 16 == 0)
            snprintf(byte, sizeof(byte), "%s%4zu:  %02x", i == 0 ? "" : "\n", i, frame[i]);
        else
            snprintf(byte, sizeof(byte), " %02x", frame[i]);
        text += byte;
    }
    return text;
}

testing::AssertionResult same_frame(const frame_t &expected, const frame_t &actual)
{
    if (expected == actual)
        return testing::AssertionSuccess();
    const auto [differ, other] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    return testing::AssertionFailure() << "frames of " << expected.size() << " and " << actual.size()
                                       << " bytes differ from offset " << differ - expected.begin() << "\nexpected\n"
                                       << to_hex(expected) << "\nactual\n"
                                       << to_hex(actual);
}

frame_t from(uint64_t mac, frame_t frame)
{
    for (size_t i = 0; i < 6; ++i)
        frame[6 + i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
    return frame;
}

frame_t on_vlan(uint16_t vlan, frame_t frame)
{
    frame[14] = static_cast<uint8_t>(0x80 | vlan >> 8);
    frame[15] = static_cast<uint8_t>(vlan);
    return frame;
}

frame_t fxsv_1g_frame()
{
    frame_t frame = hex("ff ff ff ff ff ff" //  0 destination
                        "02 00 00 00 10 00" //  6 source
                        "81 00 80 64"       // 12 TPID; TCI: priority 4, VLAN 100
                        "88 b6"             // 16 EtherType
                        "10 00 00 00 00 00" // 18 1G/10G DEVINFO; not read; flow id; ver; flags; host: FXSV
                        "00 00 00 00");     // 24 link status; three status bytes
    frame.resize(272);                      // 28 up port, 48 eight down ports: all zero
    return frame;
}

frame_t fxsv_40g_frame()
{
    frame_t frame = hex("ff ff ff ff ff ff" //  0 destination
                        "02 00 00 00 40 00" //  6 source: MAC 0
                        "81 00 80 64"       // 12 TPID; TCI: priority 4, VLAN 100
                        "88 b6"             // 16 EtherType
                        "18 00 00 01 00 00" // 18 40G DEVINFO; not read; flow id; ver 1; flags; host: FXSV
                        "00 00 00 00");     // 24 link status; three status bytes
    frame.resize(496);                      // 28 up port, 48 sixteen down ports: all zero
    return frame;
}

frame_t fxio_frame()
{
    return hex("ff ff ff ff ff ff" //  0 destination
               "02 00 00 00 20 00" //  6 source
               "81 00 80 64"       // 12 TPID; TCI: priority 4, VLAN 100
               "88 b6"             // 16 EtherType
               "10 00 00 00 00 01" // 18 1G/10G DEVINFO; not read; flow id; ver; flags; host: FXIO
               "00 00 00 00"       // 24 link status; three status bytes
               "00 00"             // 28 sub-state
               "00 00 00 00 00 00" // 30 MAC of the FXSV card
               "72 15 86 80"       // 36 device 0x1572, vendor 0x8086, least significant byte first
               "00 00 00 02");     // 40 not read; class code 0x020000, least significant byte first
}

frame_t fxio_mr_frame()
{
    return hex("ff ff ff ff ff ff" //  0 destination
               "02 00 00 00 21 00" //  6 source
               "81 00 80 64"       // 12 TPID; TCI: priority 4, VLAN 100
               "88 b6"             // 16 EtherType
               "10 00 00 00 00 01" // 18 1G/10G DEVINFO; not read; flow id; ver; flags; host: FXIO
               "00 00 01 00"       // 24 link status; three status bytes: card version 1, multi-root
               "00 00"             // 28 sub-state
               "00 00 00 00 00 00" // 30 MAC of the FXSV card
               "72 15 86 80"       // 36 device 0x1572, vendor 0x8086, least significant byte first
               "00 00 00 02"       // 40 not read; class code 0x020000, least significant byte first
               "01 02");           // 44 resource number 0x0102
}

// --------------------------------------------------------------------------------------------------------------- wire

wire_t::wire_t(int number) : port(number), fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)))
{
    const int on = 1;
    const int buffer = 8 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(("card" + std::to_string(port)).c_str()));
    EXPECT_GE(fd, 0) << strerror(errno);
    EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on)), 0) << strerror(errno);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer));
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
}

wire_t::~wire_t() { close(fd); }

void wire_t::send(const frame_t &frame) const
{
    ssize_t sent = ::send(fd, frame.data(), frame.size(), 0);
    if (sent < 0 && errno == ENETDOWN) // of a time when the interface was down; told once, at the first call after it
        sent = ::send(fd, frame.data(), frame.size(), 0);
    ASSERT_EQ(sent, static_cast<ssize_t>(frame.size())) << strerror(errno);
}

// One frame that came in at this end. The kernel takes an outer VLAN tag out of a frame and tells it beside it.
bool wire_t::read_one(frame_t *frame) const
{
    for (;;) {
        frame->resize(2048);
        sockaddr_ll source{};
        iovec data = {frame->data(), frame->size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
        msghdr message{};
        message.msg_name = &source;
        message.msg_namelen = sizeof(source);
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t got = recvmsg(fd, &message, MSG_DONTWAIT);
        if (got < 0) {
            EXPECT_TRUE(errno == EAGAIN || errno == EINTR || errno == ENETDOWN) << strerror(errno);
            frame->clear();
            return false;
        }
        if (source.sll_pkttype == PACKET_OUTGOING)
            continue; // a card's own
        frame->resize(static_cast<size_t>(got));
        for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != SOL_PACKET || header->cmsg_type != PACKET_AUXDATA)
                continue;
            tpacket_auxdata aux;
            memcpy(&aux, CMSG_DATA(header), sizeof(aux));
            if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0)
                continue;
            const uint16_t tag[2] = {htons(aux.tp_vlan_tpid), htons(aux.tp_vlan_tci)};
            const auto *bytes = reinterpret_cast<const uint8_t *>(tag);
            frame->insert(frame->begin() + 12, bytes, bytes + sizeof(tag));
        }
        return true;
    }
}

frame_t wire_t::receive()
{
    frame_t frame;
    wait_for([&] { return read_one(&frame); }, "a frame of the library's on port " + std::to_string(port));
    return frame;
}

std::vector<frame_t> wire_t::received()
{
    std::vector<frame_t> frames;
    for (frame_t frame; read_one(&frame);)
        frames.push_back(frame);
    return frames;
}

// ----------------------------------------------------------------------------------------------------- logs and dumps

const std::vector<std::string> &log_t::lines()
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return all; // not made yet
    file.seekg(at);
    std::stringstream fresh;
    fresh << file.rdbuf();
    partial += fresh.str();
    at += static_cast<std::streamoff>(fresh.str().size());
    size_t begin = 0;
    for (size_t end = partial.find('\n'); end != std::string::npos; end = partial.find('\n', begin)) {
        all.push_back(partial.substr(begin, end - begin));
        begin = end + 1;
    }
    partial.erase(0, begin);
    return all;
}

size_t log_t::count(const std::string &line)
{
    lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
}

size_t log_t::count_with(const std::string &text)
{
    lines();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [&](const std::string &line) { return line.find(text) != std::string::npos; }));
}

std::string log_t::tail(size_t number)
{
    lines();
    std::string text;
    for (size_t i = all.size() - std::min(number, all.size()); i < all.size(); ++i)
        text += "  | " + all[i] + "\n";
    return text;
}

dump_t section(const dump_t &dump, const std::string &title)
{
    const auto begin = std::find(dump.begin(), dump.end(), title);
    if (begin == dump.end()) {
        ADD_FAILURE() << "no section \"" << title << "\" in the dump";
        return {};
    }
    return {begin + 1, std::find(begin, dump.end(), " ")};
}

uint64_t frames_counted(const dump_t &dump, int port, const std::string &name)
{
    const dump_t lines = section(dump, "  - Fenxar message send/receive statistics");
    auto line = std::find(lines.begin(), lines.end(), "    + Port" + std::to_string(port));
    for (; line != lines.end(); ++line) {
        if (line->find(" " + name + " ") != std::string::npos)
            return std::stoull(line->substr(line->rfind(' ')));
    }
    ADD_FAILURE() << "no counter " << name << " of port " << port << " in the dump";
    return 0;
}

account_t memory(const dump_t &dump, const std::string &account)
{
    for (const std::string &line : section(dump, "  - Memory")) {
        std::istringstream words(line);
        std::string name;
        account_t value{};
        if (words >> name >> value.in_use >> value.alloc >> value.free && name == account)
            return value;
    }
    ADD_FAILURE() << "no memory account " << account << " in the dump";
    return {};
}

bool has_line(const dump_t &dump, const std::string &line)
{
    return std::find(dump.begin(), dump.end(), line) != dump.end();
}

// ----------------------------------------------------------------------------------------------------------- the host

manager_t::~manager_t()
{
    if (started())
        stop();
}

void manager_t::launch(const std::string &dir, int32_t log_level)
{
    ASSERT_FALSE(started());
    done = false;
    thread = std::thread([this, dir, log_level] {
        value = fxm_init_manager(dir.c_str(), log_level);
        done = true;
    });
}

// Dumps that are over: the configuration ends them, and behind its last value stands the end line.
static size_t whole_dumps(log_t *log)
{
    const std::vector<std::string> &lines = log->lines();
    size_t number = 0;
    for (size_t i = 0; i + 1 < lines.size(); ++i)
        number += lines[i].starts_with("    ether_type ") ? 1 : 0;
    return number;
}

bool manager_t::start(const std::string &dir, int32_t log_level)
{
    // The library writes a dump when it comes up, whatever its log level. To ask it over and over would fill its log.
    log_t stats(fs::path(dir) / "statslogfile");
    const size_t before = whole_dumps(&stats);
    launch(dir, log_level);
    // A level that does not exist is refused once the library is up, and changes nothing.
    return wait_for([&] { return whole_dumps(&stats) > before || returned(); }, "the first dump") &&
           wait_for([&] { return fxm_set_loglevel(99) != FXM_API_ENOSYS || returned(); }, "the library to come up") &&
           !returned();
}

int manager_t::result()
{
    // A library that hangs has no place where the test could go on.
    if (!poll_until([&] { return returned(); })) {
        fprintf(stderr, "fxm_init_manager has not returned\n");
        abort();
    }
    thread.join();
    return value;
}

int manager_t::stop()
{
    EXPECT_TRUE(started());
    if (!started())
        return -1;
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    return result();
}

std::ostream &operator<<(std::ostream &out, const event_t &event)
{
    static const char *const names[] = {"NEWDEVINFO",      "UPDATEDEVINFO",   "CONNECTIONCHANGE",
                                        "MAJORMINORERROR", "PATHSTATECHANGE", "CHANNELSTATECHANGE"};
    char id[32];
    snprintf(id, sizeof(id), " 0x%.12llx", static_cast<unsigned long long>(event.id));
    return out << (event.type >= 0 && event.type < 6 ? names[event.type] : "?") << id;
}

std::vector<event_t> events_of(uint64_t id, const std::vector<int32_t> &types)
{
    std::vector<event_t> events;
    for (const int32_t type : types)
        events.push_back({type, id});
    return events;
}

// -------------------------------------------------------------------------------------------------------- the fixture

static bool is_running(const std::string &interface)
{
    ifreq request{};
    interface.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool good = ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
    close(fd);
    return good;
}

// A change that the kernel tells to whoever watches interfaces.
static void set_mtu(const std::string &interface, int mtu)
{
    ifreq request{};
    interface.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    request.ifr_mtu = mtu;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(ioctl(fd, SIOCSIFMTU, &request), 0) << strerror(errno);
    close(fd);
}

void fabric_t::SetUp()
{
    for (const std::string p : {"0", "1"}) {
        ASSERT_NO_FATAL_FAILURE(ip("link add fxm" + p + " address 02:00:00:00:aa:0" + p + " type veth peer name card" +
                                   p + " address 02:00:00:00:cc:0" + p + "\nlink set fxm" + p + " up\nlink set card" +
                                   p + " up"));
        ASSERT_TRUE(wait_for([&] { return is_running("fxm" + p) && is_running("card" + p); }, "a link on fxm" + p));
    }
    wire = {std::make_unique<wire_t>(0), std::make_unique<wire_t>(1)};

    char name[] = "/tmp/fxm-fabric-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr) << strerror(errno);
    dir = name;
    fs::create_directory(dir / "conf");
    std::ofstream properties(dir / "conf/fxm_log4c_win.properties");
    properties << "log4j.rootLogger=OFF\n";
    for (const auto &[logger, pattern] :
         {std::pair("logfile", "%p %m%n"), std::pair("syslogfile", "%m%n"), std::pair("statslogfile", "%m%n")}) {
        properties << "log4j.logger." << logger << "=TRACE, " << logger << "\nlog4j.additivity." << logger
                   << "=false\nlog4j.appender." << logger << "=org.apache.log4j.FileAppender\nlog4j.appender." << logger
                   << ".File=" << (dir / logger).string() << "\nlog4j.appender." << logger
                   << ".layout=org.apache.log4j.PatternLayout\nlog4j.appender." << logger
                   << ".layout.ConversionPattern=" << pattern << "\n";
    }
    log = log_t(dir / "logfile");
    sys_log = log_t(dir / "syslogfile");
    stats_log = log_t(dir / "statslogfile");
    configure("");
}

void fabric_t::TearDown()
{
    if (manager.started())
        stop();
    stop_cards();
    if (HasFailure())
        fprintf(stderr, "the log ends with\n%s", log.tail(40).c_str());
    wire = {};
    for (const char *interface : {"fxm0", "fxm1"}) {
        if (if_nametoindex(interface) != 0) // a test may have deleted it
            ip(std::string("link del ") + interface);
    }
    fs::remove_all(dir);
}

void fabric_t::configure(const std::string &lines)
{
    std::ofstream file(dir / "conf/fxm.conf");
    file << lines << "\n";
    if (lines.find("ether_port") == std::string::npos)
        file << "ether_port = fxm0 fxm1\n";
}

void fabric_t::on_event(uint64_t id, int32_t type, uint64_t arg)
{
    auto *self = reinterpret_cast<fabric_t *>(arg);
    const std::lock_guard guard(self->event_lock);
    if (id != FENCE)
        self->event_list.push_back({type, id});
    else if (type == FXM_EVT_NEWDEVINFO)
        self->fences_seen += 1;
}

void fabric_t::start(int32_t log_level)
{
    ASSERT_TRUE(manager.start(dir, log_level)) << "fxm_init_manager has returned " << manager.result() << "\n"
                                               << log.tail();
    for (int32_t type = 0; type < 6; ++type) {
        ASSERT_EQ(fxm_register_callback(type, on_event, reinterpret_cast<uintptr_t>(this), &cbid[type]),
                  FXM_API_SUCCESS);
    }
}

void fabric_t::run(int32_t log_level)
{
    ASSERT_NO_FATAL_FAILURE(start(log_level));
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
}

int fabric_t::stop()
{
    EXPECT_TRUE(manager.started());
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    for (int mtu = 60000; !manager.returned() && mtu < 65000; ++mtu) {
        for (const int port : {0, 1}) {
            if (is_running("card" + std::to_string(port)))
                send_fence(port);
        }
        set_mtu("lo", mtu);
        std::this_thread::sleep_for(1ms);
    }
    return manager.result();
}

// Always with a VLAN of its own, so that each is news.
void fabric_t::send_fence(int port)
{
    fence_vlan = static_cast<uint16_t>(fence_vlan % 90 + 1);
    wire[static_cast<size_t>(port)]->send(on_vlan(static_cast<uint16_t>(4000 + fence_vlan), from(FENCE, fxio_frame())));
}

void fabric_t::settle(int port)
{
    const auto seen = [&] {
        const std::lock_guard guard(event_lock);
        return fences_seen;
    };
    const uint64_t before = seen();
    send_fence(port);
    ASSERT_TRUE(wait_for([&] { return seen() > before; }, "the frames on port " + std::to_string(port),
                         [&] { return log.tail(); }));
    ASSERT_EQ(fxm_delete_fxio(FENCE), FXM_API_SUCCESS);
}

std::vector<event_t> fabric_t::events()
{
    const std::lock_guard guard(event_lock);
    return event_list;
}

void fabric_t::expect_events(const std::vector<event_t> &expected, int port)
{
    wait_for([&] { return events().size() >= expected.size(); }, std::to_string(expected.size()) + " events",
             [&] { return testing::PrintToString(events()) + "\n" + log.tail(); });
    ASSERT_NO_FATAL_FAILURE(settle(port));
    EXPECT_EQ(events(), expected);
    const std::lock_guard guard(event_lock);
    event_list.clear();
}

fxm_fxsv_t fabric_t::fxsv(uint64_t id)
{
    fxm_fxsv_t record{};
    EXPECT_EQ(fxm_get_fxsv(id, &record), FXM_API_SUCCESS) << std::hex << id;
    return record;
}

fxm_fxio_t fabric_t::fxio(uint64_t id)
{
    fxm_fxio_t record{};
    EXPECT_EQ(fxm_get_fxio(id, &record), FXM_API_SUCCESS) << std::hex << id;
    return record;
}

void fabric_t::start_cards(const std::string &options)
{
    std::istringstream words(options);
    std::vector<std::string> args = {FXMSIM, "--port0", "card0", "--port1", "card1"};
    for (std::string word; words >> word;)
        args.push_back(word);
    std::vector<char *> argv;
    for (std::string &arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    int in[2];
    int out[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC), 0) << strerror(errno);
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0) << strerror(errno);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const int err = posix_spawn(&sim, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    sim_in = in[1];
    sim_out = out[0];
    ASSERT_EQ(err, 0) << argv[0] << ": " << strerror(err);
    sim_text.clear();
    const std::string answer = read_answer("(start)");
    ASSERT_EQ(answer.substr(0, 8), "ok ready") << answer;
}

// The next line that fxmsim prints; empty when it prints none.
std::string fabric_t::read_answer(const std::string &command)
{
    const auto limit = std::chrono::steady_clock::now() + WAIT_LIMIT;
    for (;;) {
        const size_t end = sim_text.find('\n');
        if (end != std::string::npos) {
            const std::string line = sim_text.substr(0, end);
            sim_text.erase(0, end + 1);
            return line;
        }
        pollfd waiting = {sim_out, POLLIN, 0};
        char buffer[4096];
        ssize_t got = 0;
        if (poll(&waiting, 1, 100) > 0)
            got = read(sim_out, buffer, sizeof(buffer));
        else if (std::chrono::steady_clock::now() < limit)
            continue;
        if (got <= 0) {
            ADD_FAILURE() << "fxmsim does not answer: " << command;
            return "";
        }
        sim_text.append(buffer, static_cast<size_t>(got));
    }
}

std::string fabric_t::cards(const std::string &command)
{
    const std::string line = command + "\n";
    EXPECT_EQ(write(sim_in, line.data(), line.size()), static_cast<ssize_t>(line.size())) << strerror(errno);
    const std::string answer = read_answer(command);
    EXPECT_TRUE(answer == "ok" || answer.starts_with("ok ")) << command << "\n" << answer;
    return answer.size() > 3 ? answer.substr(3) : "";
}

void fabric_t::stop_cards()
{
    if (sim <= 0)
        return;
    close(sim_in); // the end of its input is its end
    int status = 0;
    const auto ended = [&] { return waitpid(sim, &status, WNOHANG) == sim; };
    if (!poll_until(ended)) {
        ADD_FAILURE() << "fxmsim does not end";
        kill(sim, SIGKILL);
        waitpid(sim, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "fxmsim has ended with status " << status;
    close(sim_out);
    sim = -1;
}

bool fabric_t::wait_for_line(const std::string &line, size_t count)
{
    return wait_for([&] { return log.count(line) >= count; }, std::to_string(count) + " times: " + line,
                    [&] { return std::to_string(log.count(line)) + " times, in the end\n" + log.tail(); });
}

dump_t fabric_t::dump(uint32_t verbose)
{
    // The dump that the library writes when it comes up is over before another one begins: lines of two would mix.
    const auto complete = [&] {
        const size_t begun = stats_log.count_with("*** ");
        return begun > 0 && whole_dumps(&stats_log) == begun;
    };
    wait_for(complete, "a whole dump", [&] { return stats_log.tail(); });
    const auto before = static_cast<std::ptrdiff_t>(stats_log.lines().size());
    EXPECT_EQ(fxm_stdump(verbose), FXM_API_SUCCESS);
    const std::vector<std::string> &lines = stats_log.lines();
    return {lines.begin() + before, lines.end()};
}

dump_t fabric_t::dump_when(const std::function<bool(const dump_t &)> &good, const std::string &what)
{
    dump_t lines;
    wait_for(
        [&] {
            lines = dump();
            return good(lines);
        },
        what,
        [&] {
            std::string text;
            for (const std::string &line : lines)
                text += line + "\n";
            return text;
        });
    return lines;
}

// --------------------------------------------------------------------------------------------------------------- main

static bool write_file(const char *path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

// Everything after this happens in a network of our own. Without root, in a user namespace of our own.
static bool enter_namespace()
{
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    const bool root = geteuid() == 0;
    if (unshare(root ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        fprintf(stderr, "Cannot make a network namespace: %s.\nRun the test as root%s.\n", strerror(errno),
                root ? " with CAP_SYS_ADMIN" : ", or let users make namespaces (user.max_user_namespaces)");
        return false;
    }
    if (!root && !(write_file("/proc/self/setgroups", "deny") && write_file("/proc/self/uid_map", "0 " + uid + " 1") &&
                   write_file("/proc/self/gid_map", "0 " + gid + " 1"))) {
        fprintf(stderr, "Cannot become root of a user namespace. Run the test as root.\n");
        return false;
    }
    // Keeps the kernel's own frames off the wire. Nothing depends on it, and a kernel without IPv6 has no such file.
    write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    if (system("PATH=$PATH:/usr/sbin:/sbin ip link set lo up") != 0) {
        fprintf(stderr, "Cannot set up interfaces: is iproute2 installed?\n");
        return false;
    }
    return true;
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    signal(SIGPIPE, SIG_IGN); // a simulator that has died is told by its answers
    return enter_namespace() ? RUN_ALL_TESTS() : 1;
}
