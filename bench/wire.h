// What the benchmarks put on the wire: announcements of many cards, and the bare programs that the library is compared
// with.
#ifndef BENCH_WIRE_H
#define BENCH_WIRE_H

#include <pcap/pcap.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
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

// A capture opened like the library's: every frame at once, a ring with room for 60,000 frames.
pcap_t *open_port(const char *interface);

// The least that a program has to do to read a register of a card: it sends a Register Read, and a thread takes the
// Completion out of the capture and hands the value to the reader with its tag, through a mutex and a condition
// variable. A request that gets no answer in 100 ms is sent again. The program knows the cards in advance, builds each
// request once, and keeps nothing but a slot for each reader, whose number is its tag.
struct bare_reader_t {
    static constexpr size_t LANES = 64; // lane i reads from card i
    explicit bare_reader_t(const char *interface);
    ~bare_reader_t();
    bare_reader_t(const bare_reader_t &) = delete;
    bare_reader_t &operator=(const bare_reader_t &) = delete;

    uint32_t read(size_t lane); // register 0x1000; one thread for each lane

  private:
    struct alignas(64) slot_t {
        std::mutex lock; // guards waiting and value
        std::condition_variable answered;
        bool waiting = false;
        uint32_t value = 0;
        frame_t request;
    };
    void receive();

    pcap_t *handle;
    slot_t slots[LANES];
    std::thread receiver;
};

#endif
