// What the benchmarks put on the wire: announcements of many cards, and the bare round trip that the library's is
// compared with.
#ifndef BENCH_WIRE_H
#define BENCH_WIRE_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "frames.h"
#include "net.h"

// Announcements to which every other byte is the same.
constexpr size_t AT_FLOW_ID = 20;
constexpr size_t AT_LINK_STATUS = 24;
constexpr uint64_t FIRST_FXIO = 0x020000200000;
frame_t fxio_frame(uint64_t id); // 60 bytes

// One announcement of each of so many cards, FXSV and FXIO in turn, to be sent over and over. The cards behind another
// port begin at another, even `first`.
struct announcements_t {
    explicit announcements_t(size_t cards, size_t first = 0);
    announcements_t(const announcements_t &) = delete;
    announcements_t &operator=(const announcements_t &) = delete;
    void send(const wire_t &wire) { send(wire, 0, message.size()); } // all of them; the kernel may lose some
    void send(const wire_t &wire, size_t begin, size_t end);
    uint64_t last_id; // the card of the last frame, an FXIO card
    std::vector<frame_t> frame;
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
    std::unique_ptr<wire_t> wire[LANES];
    int far_id;
};

#endif
