#include "ctl/doctor.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "common/claim.h"
#include "ctl/client.h"
#include "ctl/output.h"
#include "daemon/config.h"

namespace fxm
{

namespace json = boost::json;

// Longer than the period in which every card announces itself.
constexpr auto LISTEN = std::chrono::milliseconds(2500);

enum class verdict { ok, warning, wrong };

struct finding {
    verdict how;
    std::string about;
    std::string what;
    std::string advice; // what to type
};

class report
{
  public:
    void ok(std::string about, std::string what) { add(verdict::ok, std::move(about), std::move(what), ""); }
    void warn(std::string about, std::string what, std::string advice)
    {
        add(verdict::warning, std::move(about), std::move(what), std::move(advice));
    }
    void wrong(std::string about, std::string what, std::string advice)
    {
        add(verdict::wrong, std::move(about), std::move(what), std::move(advice));
    }
    const std::vector<finding> &all() const { return findings_; }
    bool good() const
    {
        return std::none_of(findings_.begin(), findings_.end(),
                            [](const finding &f) { return f.how == verdict::wrong; });
    }

  private:
    void add(verdict how, std::string about, std::string what, std::string advice)
    {
        findings_.push_back({how, std::move(about), std::move(what), std::move(advice)});
    }
    std::vector<finding> findings_;
};

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

// What a frame looks like; 0 for one that is no frame of a card in either layout.
static uint16_t card_type(const uint8_t *frame, size_t size)
{
    constexpr uint16_t TPID = 0x8100;
    if (size < 28)
        return 0;
    const auto word = [&frame](size_t at) { return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]); };
    const bool tagged = word(12) == TPID;
    const bool changed = !tagged && word(14) == TPID;
    if (!tagged && !changed)
        return 0;
    const uint8_t subtype = frame[18];
    const bool announces = subtype == 0x10 || subtype == 0x11 || subtype == 0x18 || subtype == 0x19;
    const bool right_priority = (frame[tagged ? 14 : 16] & 0xe0) == 0x80;
    return announces && right_priority ? word(tagged ? 16 : 12) : 0;
}

struct heard {
    std::map<uint16_t, uint64_t> card_types; // EtherTypes of frames that look like announcements
    std::map<uint16_t, uint64_t> all_types;
};

static std::optional<heard> listen_to(const std::string &name)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (fd < 0)
        return std::nullopt;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    // The kernel takes the tag of the tagged layout out of the frame and tells it beside the data.
    const int one = 1;
    packet_mreq all{};
    all.mr_ifindex = address.sll_ifindex;
    all.mr_type = PACKET_MR_PROMISC;
    heard found;
    if (setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof(one)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd);
        return std::nullopt;
    }
    setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof(all));
    const auto end = std::chrono::steady_clock::now() + LISTEN;
    for (size_t frames = 0; frames < 100000 && std::chrono::steady_clock::now() < end; ++frames) {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, 100) <= 0)
            continue;
        uint8_t frame[2048];
        alignas(cmsghdr) char control[128];
        sockaddr_ll from{};
        iovec part{frame + 4, sizeof(frame) - 4};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof(from);
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT);
        if (size < 14 || from.sll_pkttype == PACKET_OUTGOING)
            continue;
        const uint8_t *begin = frame + 4;
        size_t length = static_cast<size_t>(size);
        for (cmsghdr *entry = CMSG_FIRSTHDR(&message); entry != nullptr; entry = CMSG_NXTHDR(&message, entry)) {
            if (entry->cmsg_level != SOL_PACKET || entry->cmsg_type != PACKET_AUXDATA)
                continue;
            tpacket_auxdata aux{};
            memcpy(&aux, CMSG_DATA(entry), sizeof(aux));
            if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0)
                continue;
            // Put the tag back between the addresses and the type.
            memmove(frame, frame + 4, 12);
            frame[12] = 0x81;
            frame[13] = 0x00;
            frame[14] = static_cast<uint8_t>(aux.tp_vlan_tci >> 8);
            frame[15] = static_cast<uint8_t>(aux.tp_vlan_tci);
            begin = frame;
            length += 4;
        }
        const bool tagged = begin[12] == 0x81 && begin[13] == 0x00 && length >= 18;
        const size_t at = tagged ? 16 : 12;
        found.all_types[static_cast<uint16_t>(begin[at] << 8 | begin[at + 1])] += 1;
        if (const uint16_t type = card_type(begin, length))
            found.card_types[type] += 1;
    }
    close(fd);
    return found;
}

static void check_frames(const std::string &name, uint16_t wanted, report *out)
{
    const auto found = listen_to(name);
    if (!found) {
        out->warn("frames at " + name, "cannot listen without the right to open raw sockets", "run it with sudo");
        return;
    }
    const auto configured = found->card_types.find(wanted);
    std::string others;
    for (const auto &[type, count] : found->card_types) {
        if (type != wanted)
            others += fmt::format("{}{:#06x}", others.empty() ? "" : ", ", type);
    }
    if (configured != found->card_types.end()) {
        out->ok("frames at " + name,
                fmt::format("{} announcements of cards with EtherType {:#06x} in {:.1f} s", configured->second, wanted,
                            std::chrono::duration<double>(LISTEN).count()));
        return;
    }
    if (!others.empty()) {
        out->wrong(
            "frames at " + name,
            fmt::format("cards announce themselves with EtherType {}, but {:#06x} is configured", others, wanted),
            fmt::format("set ether_type = {} below [library]", others.substr(0, others.find(','))));
        return;
    }
    std::string seen;
    for (const auto &[type, count] : found->all_types)
        seen += fmt::format("{}{:#06x} ({} frames)", seen.empty() ? "" : ", ", type, count);
    out->wrong("frames at " + name,
               fmt::format("no card announces itself; EtherTypes that arrive: {}", seen.empty() ? "none" : seen),
               "look at the cable, at the switch between, and at the power of the cards");
}

// -------------------------------------------------------------------------------------------------------------- checks

static void check_rights(report *out)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        close(fd);
        out->ok("raw sockets", "this user may open them");
    } else if (errno == EPERM) {
        out->warn("raw sockets", "this user may not open them; fxmd needs that right",
                  "run fxmd as a service or as root, or: setcap cap_net_raw+ep $(command -v fxmd)");
    } else {
        out->wrong("raw sockets", strerror(errno), "load the kernel's packet sockets: modprobe af_packet");
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

// Who the daemon at the socket is, by the kernel.
static std::optional<pid_t> check_socket(const std::string &path, report *out)
{
    try {
        client api({path, "", ""});
        const json::object status = api.get("/v1/status");
        const auto pid = static_cast<pid_t>(status.at("pid").to_number<int64_t>());
        out->ok("fxmd",
                fmt::format("version {} (pid {}) answers at {}", status.at("version").as_string().c_str(), pid, path));
        for (const json::value &warning : status.at("warnings").as_array())
            out->warn("fxmd", std::string(warning.as_string().c_str()), "see fxmctl status and fxmctl log");
        const json::object &history = status.at("history").as_object();
        if (history.at("state").as_string() == "failing")
            out->wrong("history", fmt::format("cannot be written: {}", history.at("error").as_string().c_str()),
                       "make room, or correct the owner of the directory");
        return pid;
    } catch (const ctl_error &failure) {
        out->wrong("fxmd", failure.what(), failure.hint);
    } catch (const std::exception &failure) {
        out->wrong("fxmd", fmt::format("answers at {}, but not as expected: {}", path, failure.what()),
                   "use fxmctl and fxmd of one version");
    }
    return std::nullopt;
}

static void check_claim(const std::string &name, std::optional<pid_t> daemon, report *out)
{
    const auto holder = port_claim::holder(if_nametoindex(name.c_str()));
    const std::string about = "claim on " + name;
    if (!holder)
        out->warn(about, "nobody manages this port", "start fxmd");
    else if (daemon && holder->pid == *daemon)
        out->ok(about, fmt::format("held by fxmd (pid {})", holder->pid));
    else
        out->wrong(
            about,
            fmt::format("held by {} (pid {})", holder->name.empty() ? "another program" : holder->name, holder->pid),
            fmt::format("end it (kill {}), or use it instead of fxmd", holder->pid));
}

static void check_state(const config &settings, bool daemon_runs, report *out)
{
    const std::filesystem::path dir = settings.state_dir;
    if (!std::filesystem::is_directory(dir)) {
        if (!daemon_runs)
            out->warn("history", fmt::format("there is no directory {}; fxmd makes it if it may", dir.string()),
                      fmt::format("install -d -o fxm -g fxm {}", dir.string()));
        return;
    }
    std::error_code error;
    const auto space = std::filesystem::space(dir, error);
    constexpr uintmax_t NEEDED = 10u << 20;
    if (geteuid() == 0 && access(dir.c_str(), W_OK) != 0)
        out->wrong("history", fmt::format("{} cannot be written: {}", dir.string(), strerror(errno)),
                   "mount the file system for writing");
    else if (!error && space.available < NEEDED)
        out->wrong("history", fmt::format("{} has {} KiB left", dir.string(), space.available >> 10),
                   "make room; fxmd goes on without a history until then");
    else
        out->ok("history", fmt::format("{} has {} MiB left", dir.string(), space.available >> 20));
}

static void print(const report &found, const doctor_options &how)
{
    constexpr const char *words[] = {"ok", "warning", "WRONG"};
    if (how.json) {
        json::array list;
        for (const finding &entry : found.all())
            list.push_back(
                json::object{{"verdict", entry.how == verdict::wrong ? "wrong" : words[static_cast<int>(entry.how)]},
                             {"about", entry.about},
                             {"what", entry.what},
                             {"advice", entry.advice.empty() ? json::value(nullptr) : json::value(entry.advice)}});
        put(json::serialize(json::object{{"schema", "fxm/1"}, {"findings", std::move(list)}}) + "\n");
        return;
    }
    constexpr const char *colours[] = {"32", "33", "31;1"};
    for (const finding &entry : found.all()) {
        const auto index = static_cast<size_t>(entry.how);
        const std::string mark = how.colour ? fmt::format("\x1b[{}m{:<8}\x1b[0m", colours[index], words[index])
                                            : fmt::format("{:<8}", words[index]);
        put(fmt::format("{} {}: {}\n", mark, entry.about, entry.what));
        if (!entry.advice.empty())
            put(fmt::format("         {}\n", entry.advice));
    }
}

int run_doctor(const doctor_options &how)
{
    report found;
    check_rights(&found);
    std::optional<config> settings;
    try {
        settings = load_config(how.config_file);
        found.ok("configuration", how.config_file + " is good");
    } catch (const config_error &failure) {
        found.wrong("configuration", failure.what(),
                    "correct it, and check it with: fxmd --check --config " + how.config_file);
    }
    const std::string socket = settings && how.socket == "/run/fxm/fxmd.sock" ? settings->socket : how.socket;
    const std::optional<pid_t> daemon = check_socket(socket, &found);
    if (settings) {
        const auto type = settings->library.find("ether_type");
        const auto wanted = static_cast<uint16_t>(type != settings->library.end() ? std::stoul(type->second) : 0x88b6);
        for (const std::string &name : settings->ports) {
            if (if_nametoindex(name.c_str()) != 0)
                check_claim(name, daemon, &found);
            if (check_port(name, &found))
                check_frames(name, wanted, &found);
        }
        check_state(*settings, daemon.has_value(), &found);
    }
    print(found, how);
    return found.good() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace fxm
