#include "ctl/doctor.h"

#include <fmt/format.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "common/claim.h"
#include "ctl/client.h"
#include "ctl/findings.h"
#include "daemon/config.h"

namespace fxm
{

namespace json = boost::json;

// Some periods in which every card announces itself.
constexpr auto LISTEN = std::chrono::seconds(3);

static std::string interfaces()
{
    std::string names;
    if (struct if_nameindex *list = if_nameindex()) {
        for (const struct if_nameindex *entry = list; entry->if_index != 0; ++entry) {
            if (strcmp(entry->if_name, "lo") != 0)
                names += (names.empty() ? "" : ", ") + std::string(entry->if_name);
        }
        if_freenameindex(list);
    }
    return names.empty() ? "none" : names;
}

static short interface_flags(const std::string &name)
{
    ifreq request{};
    strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool known = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (fd >= 0)
        close(fd);
    return known ? request.ifr_flags : static_cast<short>(0);
}

// ------------------------------------------------------------------------------------------------------- EtherTypes

// What a port has received.
struct heard {
    std::map<uint16_t, uint64_t> announcing;     // frames that announce a card, by EtherType
    std::map<uint16_t, uint64_t> wrong_priority; // the same, but the library drops them
    std::map<uint16_t, uint64_t> untagged;
    std::map<uint16_t, uint64_t> all;
};

static bool is_announcement(uint8_t subtype)
{
    return subtype == 0x10 || subtype == 0x11 || subtype == 0x18 || subtype == 0x19;
}

// Both layouts have the subtype in byte 18. The tagged one is: TPID, TCI, EtherType; the other: EtherType, TPID, TCI.
static void sort(const uint8_t *frame, size_t size, heard *out)
{
    constexpr uint16_t TPID = 0x8100;
    constexpr size_t SHORTEST = 28; // an announcement without its class's part
    constexpr uint8_t PRIORITY = 0x80;
    const auto word = [frame](size_t at) { return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]); };
    const bool tagged = word(12) == TPID && size >= 18;
    const uint16_t type = word(tagged ? 16 : 12);
    ++out->all[type];
    if (size < SHORTEST)
        return;
    const bool changed = !tagged && word(14) == TPID;
    if (!tagged && !changed) {
        if (is_announcement(frame[14]))
            ++out->untagged[type];
    } else if (is_announcement(frame[18])) {
        const bool right = (frame[tagged ? 14 : 16] & 0xe0) == PRIORITY;
        ++(right ? out->announcing : out->wrong_priority)[type];
    }
}

// A socket that hears everything at one port.
class listener
{
  public:
    explicit listener(const std::string &name) : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        // Bound before it receives, so that it hears this port alone.
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
        packet_mreq all{};
        all.mr_ifindex = address.sll_ifindex;
        all.mr_type = PACKET_MR_PROMISC;
        const int one = 1;
        if (fd_ >= 0 && setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &one, sizeof(one)) == 0 &&
            setsockopt(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof(all)) == 0 &&
            bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0)
            return;
        fault_ = errno;
    }
    ~listener()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    int fd() const { return fd_; }
    int fault() const { return fault_; } // an errno value; 0: it hears
    const heard &found() const { return found_; }

    // Takes what has arrived, but not for ever.
    void receive()
    {
        for (int frames = 0; frames < 256 && receive_one(); ++frames) {
        }
    }

  private:
    bool receive_one()
    {
        constexpr size_t TAG = 4;
        uint8_t frame[TAG + 128];
        alignas(cmsghdr) char control[128];
        sockaddr_ll from{};
        iovec part{frame + TAG, sizeof(frame) - TAG};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof(from);
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t size = recvmsg(fd_, &message, 0);
        if (size < 0)
            return false;
        if (size < ETH_HLEN + 2 || from.sll_pkttype == PACKET_OUTGOING)
            return true;
        for (cmsghdr *entry = CMSG_FIRSTHDR(&message); entry != nullptr; entry = CMSG_NXTHDR(&message, entry)) {
            tpacket_auxdata aux{};
            if (entry->cmsg_level != SOL_PACKET || entry->cmsg_type != PACKET_AUXDATA)
                continue;
            memcpy(&aux, CMSG_DATA(entry), sizeof(aux));
            if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0)
                continue;
            // The kernel has moved the tag out of the frame; it belongs between the addresses and the type.
            memmove(frame, frame + TAG, 12);
            const unsigned tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? aux.tp_vlan_tpid : ETH_P_8021Q;
            frame[12] = static_cast<uint8_t>(tpid >> 8);
            frame[13] = static_cast<uint8_t>(tpid);
            frame[14] = static_cast<uint8_t>(aux.tp_vlan_tci >> 8);
            frame[15] = static_cast<uint8_t>(aux.tp_vlan_tci);
            sort(frame, static_cast<size_t>(size) + TAG, &found_);
            return true;
        }
        sort(frame + TAG, static_cast<size_t>(size), &found_);
        return true;
    }

    const int fd_;
    int fault_ = 0;
    heard found_;
};

static std::string types(const std::map<uint16_t, uint64_t> &counts)
{
    std::string text;
    for (const auto &[type, count] : counts)
        text += fmt::format("{}{:#06x}", text.empty() ? "" : ", ", type);
    return text;
}

static void judge_frames(const std::string &name, const heard &found, uint16_t wanted, report *out)
{
    const std::string about = "frames at " + name;
    const auto seconds = LISTEN.count();
    if (const auto right = found.announcing.find(wanted); right != found.announcing.end())
        out->ok(about, fmt::format("{} announcements of cards with EtherType {:#06x} in {} s", right->second, wanted,
                                   seconds));
    else if (!found.announcing.empty())
        out->wrong(about,
                   fmt::format("cards announce themselves with EtherType {}, but {:#06x} is configured",
                               types(found.announcing), wanted),
                   fmt::format("set ether_type = {:#06x} below [library]", found.announcing.begin()->first));
    else if (!found.wrong_priority.empty())
        out->wrong(about,
                   fmt::format("announcements of cards arrive with a VLAN priority other than 4: EtherType {}",
                               types(found.wrong_priority)),
                   "let the switch keep the priority of tagged frames");
    else if (found.untagged.contains(wanted))
        out->wrong(about, fmt::format("frames of cards arrive without a VLAN tag: {}", found.untagged.at(wanted)),
                   "let the switch send tagged frames to this port");
    else
        out->wrong(about,
                   found.all.empty() ? fmt::format("nothing has arrived in {} s", seconds)
                                     : fmt::format("no card has announced itself in {} s; EtherTypes that arrive: {}",
                                                   seconds, types(found.all)),
                   "look at the cable, at the switch between, and at the power of the cards");
}

// All ports at the same time.
static void check_frames(const std::vector<std::string> &names, uint16_t wanted, report *out)
{
    std::vector<std::unique_ptr<listener>> ears;
    std::vector<pollfd> ready;
    for (const std::string &name : names) {
        ears.push_back(std::make_unique<listener>(name));
        ready.push_back({ears.back()->fault() == 0 ? ears.back()->fd() : -1, POLLIN, 0});
    }
    if (std::all_of(ready.begin(), ready.end(), [](const pollfd &entry) { return entry.fd < 0; }))
        ready.clear();
    const auto end = std::chrono::steady_clock::now() + LISTEN;
    while (!ready.empty() && std::chrono::steady_clock::now() < end) {
        poll(ready.data(), ready.size(), 50);
        for (size_t i = 0; i < ears.size(); ++i) {
            if (ready[i].revents != 0)
                ears[i]->receive();
        }
    }
    for (size_t i = 0; i < names.size(); ++i) {
        if (const int fault = ears[i]->fault(); fault == EPERM)
            out->warn("frames at " + names[i], "not looked at: that takes the right to open raw sockets",
                      "run fxmctl doctor with sudo");
        else if (fault != 0)
            out->wrong("frames at " + names[i], strerror(fault), "look at the interface with: ip link");
        else
            judge_frames(names[i], ears[i]->found(), wanted, out);
    }
}

// -------------------------------------------------------------------------------------------------------------- checks

// Whether the process may open raw sockets; nothing if the kernel does not say.
static std::optional<bool> has_right(pid_t process)
{
    constexpr unsigned RIGHT = 13; // CAP_NET_RAW
    std::ifstream file(fmt::format("/proc/{}/status", process));
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("CapEff:"))
            return (std::stoull(line.substr(line.find_first_not_of(" \t", 7)), nullptr, 16) >> RIGHT & 1) != 0;
    }
    return std::nullopt;
}

static void check_rights(std::optional<pid_t> daemon, report *out)
{
    const char *about = "raw sockets";
    const std::string advice =
        "run fxmd as root or as a service with CAP_NET_RAW, or: setcap cap_net_raw+ep $(command -v fxmd)";
    if (const auto may = daemon ? has_right(*daemon) : std::nullopt) {
        if (*may)
            out->ok(about, "fxmd may open them");
        else
            out->wrong(about, "fxmd may not open them: it lacks CAP_NET_RAW", advice);
        return;
    }
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        close(fd);
        out->ok(about, "this user may open them");
    } else if (errno == EPERM) {
        out->warn(about, "this user may not open them, and fxmd cannot be looked at: it needs CAP_NET_RAW", advice);
    } else {
        out->wrong(about, strerror(errno), "load the kernel's packet sockets: modprobe af_packet");
    }
}

// Returns whether the port can carry frames.
static bool check_port(const std::string &name, report *out)
{
    const std::string about = "port " + name;
    if (if_nametoindex(name.c_str()) == 0) {
        out->wrong(about, fmt::format("there is no such interface; there are {}", interfaces()),
                   "correct ports in the configuration");
        return false;
    }
    const short flags = interface_flags(name);
    if ((flags & IFF_LOOPBACK) != 0) {
        out->wrong(about, "this is the loopback interface", "name an Ethernet interface");
        return false;
    }
    if ((flags & IFF_UP) == 0) {
        out->wrong(about, "the interface is down", fmt::format("ip link set {} up", name));
        return false;
    }
    if ((flags & IFF_RUNNING) == 0) {
        out->wrong(about, "no carrier", "plug in the cable, and look at the other end");
        return false;
    }
    out->ok(about, "up, with carrier");
    return true;
}

// The process that listens at the socket, by the kernel.
static std::optional<pid_t> listener_at(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return std::nullopt;
    memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ucred peer{};
    socklen_t size = sizeof(peer);
    const bool known = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
                       getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid != 0;
    if (fd >= 0)
        close(fd);
    return known ? std::optional(peer.pid) : std::nullopt;
}

// Returns the process of fxmd, also if it refuses to answer this user.
static std::optional<pid_t> check_socket(const std::string &path, report *out)
{
    try {
        client api({path, "", ""});
        const json::object status = api.get("/v1/status");
        const auto pid = static_cast<pid_t>(status.at("pid").to_number<int64_t>());
        out->ok("fxmd",
                fmt::format("version {} (pid {}) answers at {}", status.at("version").as_string().c_str(), pid, path));
        const json::string &state = status.at("library").at("state").as_string();
        if (state != "running")
            out->wrong("fxmd", fmt::format("its library is not running: {}", state.c_str()),
                       "the lines below say what is wrong with the ports; fxmctl log has the reason");
        for (const json::value &warning : status.at("warnings").as_array())
            out->warn("fxmd", std::string(warning.as_string().c_str()), "see fxmctl status and fxmctl log");
        const json::object &history = status.at("history").as_object();
        if (history.at("state").as_string() == "failing")
            out->wrong("history", fmt::format("cannot be written: {}", history.at("error").as_string().c_str()),
                       "make room, or correct the owner of the directory");
        const json::value *fleet = status.if_contains("fleet"); // null: of none
        if (fleet != nullptr && fleet->is_object() && fleet->at("state").as_string() == "cut-off")
            out->wrong(
                "fleet",
                fmt::format("{} cannot be reached: {}", fleet->at("server").as_string().c_str(),
                            fleet->at("error").is_string() ? fleet->at("error").as_string().c_str() : "no answer yet"),
                "look at the server, the cable to it and the certificates of [fleet] in fxmd.toml");
        return pid;
    } catch (const ctl_error &failure) {
        out->wrong("fxmd", failure.what(), failure.hint);
    } catch (const std::exception &failure) {
        out->wrong("fxmd", fmt::format("answers at {}, but not as expected: {}", path, failure.what()),
                   "use fxmctl and fxmd of one version");
    }
    return listener_at(path);
}

static void check_claim(const std::string &name, std::optional<pid_t> daemon, report *out)
{
    const auto holder = port_claim::holder(if_nametoindex(name.c_str()));
    const std::string about = "claim on " + name;
    if (!holder)
        out->warn(about, "nobody manages this port", "start fxmd");
    else if (daemon && holder->pid == *daemon)
        out->ok(about, fmt::format("held by fxmd (pid {})", holder->pid));
    else if (holder->name == "fxmd")
        out->warn(about, fmt::format("held by fxmd (pid {}), which does not serve this socket", holder->pid),
                  "set --socket or FXM_SOCKET to the socket of that fxmd");
    else
        out->wrong(
            about,
            fmt::format("held by {} (pid {})", holder->name.empty() ? "another program" : holder->name, holder->pid),
            fmt::format("end it (kill {}), or use it instead of fxmd", holder->pid));
}

// The history, as far as it can be judged from outside: a running fxmd says itself what is wrong with it.
static void check_state(const config &settings, bool daemon_runs, report *out)
{
    const char *about = "history";
    const std::string dir = settings.state_dir;
    struct stat status {
    };
    if (!settings.history_enabled) {
        out->ok(about, "is off");
        return;
    }
    if (stat(dir.c_str(), &status) != 0) {
        if (!daemon_runs)
            out->warn(about, fmt::format("cannot look at {}: {}", dir, strerror(errno)),
                      fmt::format("fxmd makes the directory if it may; otherwise: install -d -o fxm -g fxm {}", dir));
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        out->wrong(about, fmt::format("{} is not a directory", dir), "correct state_dir in the configuration");
        return;
    }
    std::error_code error;
    const auto space = std::filesystem::space(dir, error);
    constexpr uintmax_t NEEDED = 10u << 20;
    if (access(dir.c_str(), W_OK) != 0 && (errno == EROFS || geteuid() == 0))
        out->wrong(about, fmt::format("{} cannot be written: {}", dir, strerror(errno)),
                   "mount the file system for writing");
    else if (!error && space.available < NEEDED)
        out->wrong(about, fmt::format("the file system of {} has {} KiB left", dir, space.available >> 10),
                   "make room; fxmd goes on without a history until then");
    else if (!daemon_runs && geteuid() != 0 && access(dir.c_str(), W_OK) != 0)
        out->warn(about, fmt::format("this user may not write to {}", dir),
                  fmt::format("if fxmd is to run as this user: chown {} {}", geteuid(), dir));
    else
        out->ok(about, fmt::format("{} has {} MiB left", dir, space.available >> 20));
    const passwd *service = !daemon_runs && geteuid() == 0 ? getpwnam("fxm") : nullptr;
    if (service != nullptr && status.st_uid != service->pw_uid && (status.st_mode & S_IWOTH) == 0)
        out->warn(about, fmt::format("the user fxm, as which the service runs, does not own {}", dir),
                  fmt::format("chown -R fxm:fxm {}", dir));
}

static std::optional<config> check_configuration(const std::string &file, report *out)
{
    const char *about = "configuration";
    try {
        config settings = load_config(file);
        out->ok(about, file + " is good");
        return settings;
    } catch (const config_error &failure) {
        if (access(file.c_str(), R_OK) != 0 && errno == EACCES && geteuid() != 0) {
            out->warn(about, fmt::format("this user may not read {}, so ports and history are not looked at", file),
                      "run fxmctl doctor with sudo");
            return std::nullopt;
        }
        std::istringstream lines(failure.what());
        for (std::string line; std::getline(lines, line);)
            out->wrong(about, line, "");
        out->wrong(about, "fxmd does not start with it; ports and history are not looked at",
                   "correct it, then: fxmd --check --config " + file);
    }
    return std::nullopt;
}

int run_doctor(const doctor_options &how)
{
    report found;
    const std::optional<config> settings = check_configuration(how.config_file, &found);
    const std::string socket = settings && how.socket == "/run/fxm/fxmd.sock" ? settings->socket : how.socket;
    const std::optional<pid_t> daemon = check_socket(socket, &found);
    check_rights(daemon, &found);
    if (settings) {
        std::vector<std::string> usable;
        for (const std::string &name : settings->ports) {
            if (if_nametoindex(name.c_str()) != 0)
                check_claim(name, daemon, &found);
            if (check_port(name, &found))
                usable.push_back(name);
        }
        check_frames(usable, ether_type_of(*settings), &found);
        check_state(*settings, daemon.has_value(), &found);
    }
    found.print(how.json, how.colour);
    return found.good() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace fxm
