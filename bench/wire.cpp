// Cables by ip(8), raw sockets, announcements, the bare round trip.
#include "wire.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "setup.h"

// -------------------------------------------------------------------------------------------------------------- cables

static short flags_of(const char *interface, short set, short clear)
{
    ifreq request{};
    strncpy(request.ifr_name, interface, sizeof(request.ifr_name) - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool good = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (good && (set != 0 || clear != 0)) {
        request.ifr_flags = static_cast<short>((request.ifr_flags | set) & ~clear);
        good = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    if (!good)
        fail("interface %s: %s", interface, strerror(errno));
    close(fd);
    return request.ifr_flags;
}

void set_link(const char *interface, bool up) { flags_of(interface, up ? IFF_UP : 0, up ? 0 : IFF_UP); }

void lay_cable(const char *near, const char *far)
{
    const std::string command = std::string("PATH=$PATH:/usr/sbin:/sbin ip link add ") + near + " type veth peer name ";
    if (system((command + far).c_str()) != 0)
        fail("cannot make a pair of virtual interfaces; is iproute2 installed?");
    set_link(near, true);
    set_link(far, true);
    const auto linked = [=] { return (flags_of(near, 0, 0) & flags_of(far, 0, 0) & IFF_RUNNING) != 0; };
    wait_until(linked, "the link of a new cable");
}

int open_wire(const char *interface, uint16_t ether_type)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    const int on = 1;
    const timeval limit = {5, 0};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ether_type);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    if (fd < 0 || setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        fail("cannot open a raw socket on %s: %s", interface, strerror(errno));
    return fd;
}

void send_frame(int fd, const std::vector<uint8_t> &frame)
{
    if (send(fd, frame.data(), frame.size(), 0) != static_cast<ssize_t>(frame.size()))
        fail("cannot send: %s", strerror(errno));
}

// ------------------------------------------------------------------------------------------------------ announcements

static std::vector<uint8_t> announcement(uint64_t id, size_t size, uint8_t host)
{
    std::vector<uint8_t> frame = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, //  0 destination
                                  0,    0,    0,    0,    0,    0,    //  6 source, below
                                  0x81, 0x00, 0x80, 0x64,             // 12 TPID; TCI: priority 4, VLAN 100
                                  0x88, 0xb6,                         // 16 EtherType
                                  0x10, 0x00, 0x00, 0x00, 0x00,       // 18 DEVINFO; not read; flow id; ver; flags
                                  host, 0x00};                        // 23 class; link status; all else zero
    for (size_t i = 0; i < 6; ++i)
        frame[6 + i] = static_cast<uint8_t>(id >> (40 - 8 * i));
    frame.resize(size);
    return frame;
}

std::vector<uint8_t> fxsv_frame(uint64_t id) { return announcement(id, 272, 0); }
std::vector<uint8_t> fxio_frame(uint64_t id) { return announcement(id, 60, 1); }

announcements_t::announcements_t(size_t cards) : part(cards), message(cards)
{
    for (size_t i = 0; i < cards; ++i)
        frame.push_back(i % 2 == 0 ? fxsv_frame(FIRST_FXSV + i) : fxio_frame(FIRST_FXIO + i));
    for (size_t i = 0; i < cards; ++i) {
        part[i] = {frame[i].data(), frame[i].size()};
        message[i].msg_hdr.msg_iov = &part[i];
        message[i].msg_hdr.msg_iovlen = 1;
    }
}

void announcements_t::send(int fd)
{
    for (size_t done = 0; done < message.size();) {
        const int sent = sendmmsg(fd, &message[done], static_cast<unsigned>(message.size() - done), 0);
        if (sent < 0)
            fail("cannot send: %s", strerror(errno));
        done += static_cast<size_t>(sent);
    }
}

// -------------------------------------------------------------------------------------------------- bare round trips

constexpr size_t BARE_SIZE = 60;
constexpr uint8_t ANSWER = 1;       // the byte behind the header
constexpr uint16_t LANE_0 = 0x9000; // a lane for each of the EtherTypes from here on, so that each socket sees its own

[[noreturn]] static void answer_frames(int fd)
{
    for (;;) {
        pollfd ready = {fd, POLLIN, 0};
        uint8_t frame[2048];
        poll(&ready, 1, -1);
        const ssize_t got = recv(fd, frame, sizeof(frame), MSG_DONTWAIT);
        if (got == BARE_SIZE && frame[14] == ANSWER && send(fd, frame, BARE_SIZE, 0) != got)
            _exit(1);
    }
}

bare_t::bare_t() : far_id(-1)
{
    lay_cable("near", "far");
    const int far = open_wire("far", ETH_P_ALL);
    far_id = fork();
    if (far_id < 0)
        fail("cannot fork: %s", strerror(errno));
    if (far_id == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        answer_frames(far);
    }
    close(far);
    for (size_t lane = 0; lane < LANES; ++lane)
        fd[lane] = open_wire("near", static_cast<uint16_t>(LANE_0 + lane));
}

bare_t::~bare_t()
{
    kill(far_id, SIGKILL);
    waitpid(far_id, nullptr, 0);
    for (const int lane : fd)
        close(lane);
    if (system("PATH=$PATH:/usr/sbin:/sbin ip link del near") != 0)
        fail("cannot delete an interface");
}

static void send_bare(int fd, size_t lane, uint8_t answer)
{
    const uint8_t frame[BARE_SIZE] = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, LANE_0 >> 8, static_cast<uint8_t>(lane), answer};
    if (send(fd, frame, sizeof(frame), 0) != BARE_SIZE)
        fail("cannot send: %s", strerror(errno));
}

void bare_t::round_trip(size_t lane) const
{
    uint8_t frame[2048];
    send_bare(fd[lane], lane, ANSWER);
    if (recv(fd[lane], frame, sizeof(frame), 0) != BARE_SIZE)
        fail("a bare frame did not come back: %s", strerror(errno));
}

void bare_t::one_way() const { send_bare(fd[0], 0, 0); }
