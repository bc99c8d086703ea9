#include "net.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "wait.h"

static_assert(wire_t::ALL == ETH_P_ALL);

static std::string system_error(const std::string &what) { return what + ": " + strerror(errno); }

// ---------------------------------------------------------------------------------------------------------- namespace

static bool write_file(const char *path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

bool enter_namespace()
{
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    const bool root = geteuid() == 0;
    if (unshare(root ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        fprintf(stderr, "Cannot make a network namespace: %s.\nRun the program as root%s.\n", strerror(errno),
                root ? " with CAP_SYS_ADMIN" : ", or let users make namespaces (user.max_user_namespaces)");
        return false;
    }
    if (!root && !(write_file("/proc/self/setgroups", "deny") && write_file("/proc/self/uid_map", "0 " + uid + " 1") &&
                   write_file("/proc/self/gid_map", "0 " + gid + " 1"))) {
        fprintf(stderr, "Cannot become root of a user namespace. Run the program as root.\n");
        return false;
    }
    // Keeps the kernel's own frames off the wire. Nothing depends on it, and a kernel without IPv6 has no such file.
    write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    set_up("lo", true);
    return true;
}

// --------------------------------------------------------------------------------------------------------- interfaces

void ip(const std::string &commands)
{
    FILE *input = popen("PATH=$PATH:/usr/sbin:/sbin ip -batch -", "w");
    if (input == nullptr)
        return harness_failed(system_error("popen"));
    fputs((commands + "\n").c_str(), input);
    if (pclose(input) != 0)
        harness_failed("ip (is iproute2 installed?) does not do:\n" + commands);
}

// One ioctl on an interface; false, with errno, if it fails. The socket stays open, so that interfaces can be changed
// when the process has no descriptor left.
static bool control(unsigned long what, const std::string &interface, ifreq *request)
{
    static const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    interface.copy(request->ifr_name, sizeof(request->ifr_name) - 1);
    return ioctl(fd, what, request) == 0;
}

void set_up(const std::string &interface, bool up)
{
    ifreq request{};
    bool good = control(SIOCGIFFLAGS, interface, &request);
    request.ifr_flags = static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    good = good && control(SIOCSIFFLAGS, interface, &request);
    if (!good)
        harness_failed(system_error(interface + (up ? " up" : " down")));
}

void set_mtu(const std::string &interface, int mtu)
{
    ifreq request{};
    request.ifr_mtu = mtu;
    if (!control(SIOCSIFMTU, interface, &request))
        harness_failed(system_error(interface + " MTU " + std::to_string(mtu)));
}

bool is_running(const std::string &interface)
{
    ifreq request{};
    return control(SIOCGIFFLAGS, interface, &request) && (request.ifr_flags & IFF_RUNNING) != 0;
}

void lay_cable(const std::string &near, const std::string &far)
{
    const std::string ends[] = {near.substr(0, near.find(' ')), far.substr(0, far.find(' '))};
    ip("link add " + near + " type veth peer name " + far + "\nlink set " + ends[0] + " up\nlink set " + ends[1] +
       " up");
    if (!poll_until([&] { return is_running(ends[0]) && is_running(ends[1]); }))
        harness_failed("no link between " + ends[0] + " and " + ends[1]);
}

// --------------------------------------------------------------------------------------------------------------- wire

wire_t::wire_t(const std::string &name, uint16_t ether_type)
    : fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)), interface(name)
{
    // The type comes with the interface, so that no frame of another interface slips in before.
    const int on = 1;
    const int buffer = 8 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ether_type);
    address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer));
    // What this end sends itself is of no interest.
    if (fd < 0 || setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        harness_failed(system_error("cannot open a raw socket on " + name));
}

wire_t::~wire_t() { close(fd); }

void wire_t::send(const frame_t &frame) const
{
    ssize_t sent = ::send(fd, frame.data(), frame.size(), 0);
    if (sent < 0 && errno == ENETDOWN) // of a time when the interface was down; told once, at the first call after it
        sent = ::send(fd, frame.data(), frame.size(), 0);
    // A cable without a link loses the frame (ENOBUFS), as it loses a real card's.
    if (sent != static_cast<ssize_t>(frame.size()) && errno != ENOBUFS)
        harness_failed(system_error("cannot send on " + interface));
}

// The kernel takes an outer VLAN tag out of a frame and hands it over beside it.
bool wire_t::read_one(frame_t *frame) const
{
    frame->resize(2048);
    iovec data = {frame->data(), frame->size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t got = recvmsg(fd, &message, MSG_DONTWAIT);
    if (got < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ENETDOWN)
            harness_failed(system_error("cannot receive on " + interface));
        frame->clear();
        return false;
    }
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

frame_t wire_t::receive()
{
    frame_t frame;
    if (!poll_until([&] { return read_one(&frame); }))
        harness_failed("no frame of the library's on " + interface);
    return frame;
}

std::vector<frame_t> wire_t::received()
{
    std::vector<frame_t> frames;
    for (frame_t frame; read_one(&frame);)
        frames.push_back(frame);
    return frames;
}
