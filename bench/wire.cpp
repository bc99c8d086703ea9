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
#include <cstdlib>
#include <cstring>
#include <string>

#include "setup.h"

static void ip_link(const std::string &arguments)
{
    if (system(("PATH=$PATH:/usr/sbin:/sbin ip link " + arguments).c_str()) != 0)
        fail("ip link %s does not work; is iproute2 installed?", arguments.c_str());
}

// The flags of an interface once these are set and those cleared.
static short change_flags(const char *interface, int set, int clear)
{
    ifreq request{};
    strncpy(request.ifr_name, interface, sizeof(request.ifr_name) - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool good = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>((request.ifr_flags | set) & ~clear);
    if (set != clear)
        good = good && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    if (!good)
        fail("interface %s: %s", interface, strerror(errno));
    return request.ifr_flags;
}

void set_link(const char *interface, bool up) { change_flags(interface, up ? IFF_UP : 0, up ? 0 : IFF_UP); }

void lay_cable(const char *near, const char *far)
{
    ip_link(std::string("add ") + near + " type veth peer name " + far);
    set_link(near, true);
    set_link(far, true);
    const auto linked = [=] { return (change_flags(near, 0, 0) & change_flags(far, 0, 0) & IFF_RUNNING) != 0; };
    wait_until(linked, "the link of a new cable");
}

int open_wire(const char *interface, uint16_t ether_type)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    const int on = 1;
    const timeval limit = {0, 100000};
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
                                  host};                              // 23 class; all else zero
    for (size_t i = 0; i < 6; ++i)
        frame[6 + i] = static_cast<uint8_t>(id >> (40 - 8 * i));
    frame.resize(size);
    return frame;
}

std::vector<uint8_t> fxsv_frame(uint64_t id) { return announcement(id, 272, 0); }
std::vector<uint8_t> fxio_frame(uint64_t id) { return announcement(id, 60, 1); }

announcements_t::announcements_t(size_t cards)
    : last_id(FIRST_FXIO + cards - 1), frame(cards), part(cards), message(cards)
{
    for (size_t i = 0; i < cards; ++i) {
        frame[i] = i % 2 == 0 ? fxsv_frame(FIRST_FXSV + i) : fxio_frame(FIRST_FXIO + i);
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

// --------------------------------------------------------------------------------------------------- bare round trips

// A frame of 60 bytes: an Ethernet header, whether it wants an answer, its number. Each lane has an EtherType of its
// own from 0x9000 on, so that its socket sees its frames alone.
constexpr size_t BARE_SIZE = 60, AT_ANSWER = 14, AT_NUMBER = 15;
constexpr uint16_t LANE_0 = 0x9000;

[[noreturn]] static void answer_frames(int fd)
{
    for (;;) {
        pollfd ready = {fd, POLLIN, 0};
        uint8_t frame[2048];
        poll(&ready, 1, -1);
        // A frame that is lost on a crowded machine is asked for again.
        if (recv(fd, frame, sizeof(frame), MSG_DONTWAIT) == BARE_SIZE && frame[AT_ANSWER] != 0)
            (void)send(fd, frame, BARE_SIZE, 0);
    }
}

bare_t::bare_t()
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
    ip_link("del near");
}

static void send_bare(int fd, size_t lane, uint8_t answer, uint8_t number)
{
    const uint8_t frame[BARE_SIZE] = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, LANE_0 >> 8, static_cast<uint8_t>(lane), answer, number};
    if (send(fd, frame, sizeof(frame), 0) != BARE_SIZE)
        fail("cannot send: %s", strerror(errno));
}

void bare_t::round_trip(size_t lane) const
{
    static thread_local uint8_t number;
    uint8_t frame[2048];
    ++number;
    for (int attempt = 0; attempt < 10; ++attempt) {
        send_bare(fd[lane], lane, 1, number);
        while (recv(fd[lane], frame, sizeof(frame), 0) == BARE_SIZE) {
            if (frame[AT_NUMBER] == number)
                return;
        }
    }
    fail("a bare frame does not come back");
}

void bare_t::one_way() const { send_bare(fd[0], 0, 0, 0); }
