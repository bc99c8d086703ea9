// The wire under the benchmarks: cables, raw sockets, announcements written by hand, and the bare round trip that the
// library's is compared with.
#ifndef BENCH_WIRE_H
#define BENCH_WIRE_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

void lay_cable(const char *near, const char *far); // a veth pair, linked
void set_link(const char *interface, bool up);
int open_wire(const char *interface, uint16_t ether_type); // a raw socket that takes in this EtherType; with 0 nothing
void send_frame(int fd, const std::vector<uint8_t> &frame);

constexpr size_t AT_FLOW_ID = 20;
constexpr size_t AT_LINK_STATUS = 24;
constexpr uint64_t FIRST_FXSV = 0x020000100000;
constexpr uint64_t FIRST_FXIO = 0x020000200000;

std::vector<uint8_t> fxsv_frame(uint64_t id); // 1G/10G, 272 bytes
std::vector<uint8_t> fxio_frame(uint64_t id); // 60 bytes

// One announcement of each of so many cards, FXSV and FXIO in turn, to be sent over and over.
struct announcements_t {
    explicit announcements_t(size_t cards);
    announcements_t(const announcements_t &) = delete;
    announcements_t &operator=(const announcements_t &) = delete;
    void send(int fd); // all of them; the kernel may lose some
    uint64_t last_id;  // the card of the last frame, an FXIO card
    std::vector<std::vector<uint8_t>> frame;
    std::vector<iovec> part;
    std::vector<mmsghdr> message;
};

// A process at the far end of a cable of its own that sends frames of 60 bytes back: poll, receive, send.
struct bare_t {
    bare_t(); // before the library runs
    ~bare_t();
    bare_t(const bare_t &) = delete;
    bare_t &operator=(const bare_t &) = delete;
    static constexpr size_t LANES = 16;
    void round_trip(size_t lane) const; // one thread for each lane
    void one_way() const;               // a frame that is taken in and not sent back
    int fd[LANES];
    int far_id;
};

#endif
