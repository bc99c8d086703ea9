#include "wire.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "setup.h"

// ------------------------------------------------------------------------------------------------------ announcements

frame_t fxio_frame(uint64_t id) { return changed(from(id, fxio_frame()), {}, 60); }

announcements_t::announcements_t(size_t cards, size_t first)
    : last_id(FIRST_FXIO + first + cards - 1), frame(cards), part(cards), message(cards)
{
    for (size_t i = 0; i < cards; ++i) {
        frame[i] = i % 2 == 0 ? from(FIRST_FXSV + first + i, fxsv_1g_frame()) : fxio_frame(FIRST_FXIO + first + i);
        part[i] = {frame[i].data(), frame[i].size()};
        message[i].msg_hdr.msg_iov = &part[i];
        message[i].msg_hdr.msg_iovlen = 1;
    }
}

void announcements_t::send(const wire_t &wire, size_t begin, size_t end)
{
    for (size_t done = begin; done < end;) {
        const int sent = sendmmsg(wire.fd, &message[done], static_cast<unsigned>(end - done), 0);
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
    const wire_t far("far");
    far_id = fork();
    if (far_id < 0)
        fail("cannot fork: %s", strerror(errno));
    if (far_id == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        answer_frames(far.fd);
    }
    for (size_t lane = 0; lane < LANES; ++lane) {
        const timeval limit = {0, 100000};
        wire[lane] = std::make_unique<wire_t>("near", static_cast<uint16_t>(LANE_0 + lane));
        setsockopt(wire[lane]->fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
}

bare_t::~bare_t()
{
    kill(far_id, SIGKILL);
    waitpid(far_id, nullptr, 0);
    ip("link del near");
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
        send_bare(wire[lane]->fd, lane, 1, number);
        while (recv(wire[lane]->fd, frame, sizeof(frame), 0) == BARE_SIZE) {
            if (frame[AT_NUMBER] == number)
                return;
        }
    }
    fail("a bare frame does not come back");
}

void bare_t::one_way() const { send_bare(wire[0]->fd, 0, 0, 0); }

// ------------------------------------------------------------------------------------------------------- bare reading

pcap_t *open_port(const char *interface)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = pcap_create(interface, errbuf);
    if (handle == nullptr)
        fail("no capture: %s", errbuf);
    pcap_set_snaplen(handle, 1024);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, 1000);
    pcap_set_immediate_mode(handle, 1);
    pcap_set_buffer_size(handle, 64 * 1024 * 1024);
    if (pcap_activate(handle) < 0)
        fail("no capture: %s", pcap_geterr(handle));
    return handle;
}

constexpr size_t AT_SUBTYPE = 18, AT_TAG = 23, AT_VALUE = 24, COMPLETION_SIZE = 28;
constexpr uint8_t COMPLETION = 0x20;

static frame_t read_request(size_t lane)
{
    const uint64_t card = FIRST_FXSV + 2 * lane;
    frame_t frame = hex("00 00 00 00 00 00" //  0 the card
                        "02 00 00 00 aa 01" //  6 this program
                        "81 00 80 64 88 b6" // 12 priority 4, VLAN 100, EtherType
                        "91 ff ff 00 00 00" // 18 Register Read; the last byte is the tag
                        "00 01 00 00");     // 24 register 0x1000, whose bit 12 travels as bit 16
    for (size_t i = 0; i < 6; ++i)
        frame[i] = static_cast<uint8_t>(card >> (40 - 8 * i));
    frame[AT_TAG] = static_cast<uint8_t>(lane);
    frame.resize(60);
    return frame;
}

bare_reader_t::bare_reader_t(const char *interface) : handle(open_port(interface))
{
    for (size_t lane = 0; lane < LANES; ++lane)
        slots[lane].request = read_request(lane);
    receiver = std::thread([this] { receive(); });
}

bare_reader_t::~bare_reader_t()
{
    pcap_breakloop(handle);
    receiver.join();
    pcap_close(handle);
}

// A blocking read sleeps once for each time that the ring is empty. A poll of one's own before reads that do not block
// costs a system call more, for the read that finds the ring empty.
void bare_reader_t::receive()
{
    (void)setpriority(PRIO_PROCESS, 0, -5); // so that a reader that it wakes does not preempt it; as in the library
    pcap_pkthdr *header = nullptr;
    const uint8_t *frame = nullptr;
    for (;;) {
        const int got = pcap_next_ex(handle, &header, &frame);
        if (got < 0)
            return; // the end of the program, or of the interface, at which the readers fail
        if (got == 0 || header->caplen < COMPLETION_SIZE || frame[AT_SUBTYPE] != COMPLETION || frame[AT_TAG] >= LANES)
            continue;
        slot_t &slot = slots[frame[AT_TAG]];
        {
            const std::lock_guard guard(slot.lock);
            slot.waiting = false;
            memcpy(&slot.value, frame + AT_VALUE, sizeof(slot.value));
        }
        slot.answered.notify_one();
    }
}

uint32_t bare_reader_t::read(size_t lane)
{
    slot_t &slot = slots[lane];
    for (int attempt = 0; attempt < 11; ++attempt) {
        {
            const std::lock_guard guard(slot.lock);
            slot.waiting = true;
        }
        if (pcap_sendpacket(handle, slot.request.data(), static_cast<int>(slot.request.size())) != 0)
            fail("cannot send: %s", pcap_geterr(handle));
        std::unique_lock guard(slot.lock);
        if (slot.answered.wait_for(guard, std::chrono::milliseconds(100), [&] { return !slot.waiting; }))
            return slot.value;
    }
    fail("a card does not answer the bare program");
}
