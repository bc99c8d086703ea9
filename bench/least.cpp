#include "least.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <pthread.h>

#include <cstddef>
#include <cstring>

#include "setup.h"
#include "wire.h"

// ----------------------------------------------------------------------------------------------------------- registry

constexpr uint32_t LEAST_LENGTH = 28, LEAST_FXIO = 44, LEAST_FXSV = 272, LEAST_FXSV_40G = 496;
constexpr uint8_t DEVINFO = 0x10, NOTIFY = 0x11, DEVINFO_40G = 0x18, NOTIFY_40G = 0x19;

// 12 TPID, 14 TCI with priority 4, 16 EtherType, 18 subtype, 23 host: 0 for FXSV, 1 for FXIO.
static bool is_announcement(const uint8_t *frame, uint32_t length)
{
    if (length < LEAST_LENGTH || length > sizeof(least_registry_t::card_t::frame))
        return false;
    if (frame[12] != 0x81 || frame[13] != 0 || (frame[14] & 0xe0) != 0x80 || frame[16] != 0x88 || frame[17] != 0xb6)
        return false;
    const uint8_t subtype = frame[18];
    const bool is_40g = subtype == DEVINFO_40G || subtype == NOTIFY_40G;
    if (subtype != DEVINFO && subtype != NOTIFY && !is_40g)
        return false;
    if (frame[23] != 0)
        return length >= LEAST_FXIO;
    return length >= (is_40g ? LEAST_FXSV_40G : LEAST_FXSV);
}

static uint64_t id_of(const uint8_t *frame)
{
    uint64_t id = 0;
    for (size_t i = 6; i < 12; ++i)
        id = id << 8 | frame[i];
    return id;
}

void least_registry_t::take(const uint8_t *frame, uint32_t length)
{
    if (!is_announcement(frame, length))
        return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    {
        const std::lock_guard guard(cards_lock);
        card_t &card = cards[id_of(frame)];
        if (card.length != length || memcmp(card.frame, frame, length) != 0) {
            memcpy(card.frame, frame, length);
            card.length = length;
        }
        card.heard_ms = now.tv_sec * 1000 + now.tv_nsec / 1000000;
    }
    const std::lock_guard guard(counters_lock);
    ++all;
    ++by_subtype[frame[18]];
}

// -------------------------------------------------------------------------------------------------------- capture loop

// The library's way of opening a port: every frame at once, read without blocking.
static pcap_t *open_capture(const char *interface)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *handle = open_port(interface);
    if (pcap_setnonblock(handle, 1, errbuf) != 0)
        fail("no capture: %s", errbuf);
    return handle;
}

capture_loop_t::capture_loop_t(const char *interface, least_registry_t *least, int ms)
    : handle(open_capture(interface)), registry(least), poll_ms(ms)
{
    reader = std::thread([this] { read_frames(); });
}

capture_loop_t::~capture_loop_t()
{
    stop = true;
    reader.join();
    pcap_close(handle);
}

int64_t capture_loop_t::cpu_ns()
{
    clockid_t clock{};
    if (pthread_getcpuclockid(reader.native_handle(), &clock) != 0)
        fail("the thread of the capture loop has no clock");
    return read_clock(clock);
}

void capture_loop_t::read_frames()
{
    pollfd ready = {pcap_get_selectable_fd(handle), POLLIN, 0};
    pcap_pkthdr *header = nullptr;
    const uint8_t *frame = nullptr;
    uint64_t number = 0;
    while (!stop) {
        while (pcap_next_ex(handle, &header, &frame) == 1) {
            ++number;
            if (registry != nullptr)
                registry->take(frame, header->caplen);
            if (frame[9] == 0) // in the ids of the fences alone
                fence = frame[AT_FLOW_ID];
        }
        received = number;
        poll(&ready, 1, poll_ms);
    }
}
