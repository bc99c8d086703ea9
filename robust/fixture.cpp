#include "fixture.h"

#include <pcap/pcap.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"

void finding(const char *what, const char *file, int line)
{
    fprintf(stderr, "finding: %s:%d: this does not hold: %s\n", file, line, what);
    abort();
}

frame_t input_t::bytes(size_t number)
{
    const size_t taken = std::min(number, left);
    frame_t frame(at, at + taken);
    at += taken;
    left -= taken;
    return frame;
}

// The checks of the locks would take a stack for each lock, which is most of the time. The fuzzer prints its own.
extern "C" int backtrace(void **, int) { return 0; }

// ----------------------------------------------------------------------------------------------------------- the wire

// A frame in a block of its own size, so that a step behind its end is seen.
struct captured_t {
    std::unique_ptr<uint8_t[]> bytes;
    uint32_t captured, length;
};

struct pcap { // the wire of one port
    std::mutex lock;
    std::deque<captured_t> frames;
    size_t in_hand = 0; // frames that the library is taking now
    int fd = -1;
};

static pcap wires[FXM_PORT_NUM];
static bool wakes;
int (*wire_sent)(uint32_t, const frame_t &);
std::atomic<uint64_t> fuzz_count;
static const char *counted; // what they are

void wire_put(uint32_t port, const frame_t &frame, uint32_t wire_length)
{
    const auto size = static_cast<uint32_t>(frame.size());
    captured_t captured{std::unique_ptr<uint8_t[]>(new uint8_t[size]), size, std::max(size, wire_length)};
    std::copy(frame.begin(), frame.end(), captured.bytes.get());
    const std::lock_guard guard(wires[port].lock);
    wires[port].frames.push_back(std::move(captured));
    if (wakes)
        (void)eventfd_write(wires[port].fd, 1);
}

size_t wire_waiting(uint32_t port)
{
    const std::lock_guard guard(wires[port].lock);
    return wires[port].frames.size() + wires[port].in_hand;
}

void wire_clear()
{
    for (pcap &wire : wires) {
        const std::lock_guard guard(wire.lock);
        wire.frames.clear();
    }
}

void wire_wake(bool on) { wakes = on; }

void wire_attach(uint32_t port)
{
    fxm_ports[port].pt_pcap = &wires[port];
    fxm_ports[port].pt_mac = 0x0200000000f0 + port;
    fxm_ports[port].pt_link = 1;
}

static uint32_t port_of(const pcap *wire) { return static_cast<uint32_t>(wire - wires); }

extern "C" {

int pcap_dispatch(pcap_t *wire, int most, pcap_handler handler, u_char *arg)
{
    std::deque<captured_t> frames;
    {
        const std::lock_guard guard(wire->lock);
        eventfd_t signals = 0;
        if (wakes)
            (void)eventfd_read(wire->fd, &signals);
        while (!wire->frames.empty() && frames.size() < static_cast<size_t>(most)) {
            frames.push_back(std::move(wire->frames.front()));
            wire->frames.pop_front();
        }
        wire->in_hand = frames.size();
    }
    for (captured_t &frame : frames) {
        pcap_pkthdr header{};
        header.caplen = frame.captured;
        header.len = frame.length;
        handler(arg, &header, frame.bytes.get());
        frame.bytes.reset(); // the library keeps no pointer into a frame
    }
    fuzz_count += frames.size();
    const std::lock_guard guard(wire->lock);
    wire->in_hand = 0;
    return static_cast<int>(frames.size());
}

int pcap_sendpacket(pcap_t *wire, const u_char *bytes, int size)
{
    errno = wire_sent == nullptr ? 0 : wire_sent(port_of(wire), frame_t(bytes, bytes + size));
    return errno == 0 ? 0 : -1;
}

// Devices are named "0" and "1".
static pcap_if_t devices[FXM_PORT_NUM] = {{&devices[1], const_cast<char *>("0"), nullptr, nullptr, 0},
                                          {nullptr, const_cast<char *>("1"), nullptr, nullptr, 0}};

int pcap_findalldevs(pcap_if_t **all, char *)
{
    *all = devices;
    return 0;
}
void pcap_freealldevs(pcap_if_t *) {}
pcap_t *pcap_create(const char *device, char *) { return &wires[device[0] - '0']; }
int pcap_activate(pcap_t *) { return 0; }
void pcap_close(pcap_t *) {}
int pcap_set_snaplen(pcap_t *, int) { return 0; }
int pcap_set_promisc(pcap_t *, int) { return 0; }
int pcap_set_timeout(pcap_t *, int) { return 0; }
int pcap_set_immediate_mode(pcap_t *, int) { return 0; }
int pcap_set_buffer_size(pcap_t *, int) { return 0; }
int pcap_setnonblock(pcap_t *, int, char *) { return 0; }
int pcap_fileno(pcap_t *wire) { return wire->fd; }
int pcap_get_selectable_fd(pcap_t *wire) { return wire->fd; }
const struct timeval *pcap_get_required_select_timeout(pcap_t *) { return nullptr; }
}

void fuzz_begin(const char *what)
{
    counted = what;
    atexit([] { fprintf(stderr, "count: %llu %s\n", _ull(fuzz_count.load()), counted); });
    g_log_level = FXM_LOG_FATAL;
    for (pcap &wire : wires)
        wire.fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

frame_t announce(uint32_t kind, uint64_t mac)
{
    static const frame_t kinds[] = {fxsv_1g_frame(), fxsv_40g_frame(), fxio_frame(), fxio_mr_frame()};
    return from(mac, kinds[kind % std::size(kinds)]);
}

// --------------------------------------------------------------------------------------------------------- the tables

template <typename Class> static void check_class() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    static uint32_t groups[FXM_GROUPS];
    memset(groups, 0, sizeof(groups));
    uint32_t cards = 0;
    fxm_rbnode_t *link = _fxm_rbtree_first(&Class::map());
    const auto all = [](const fxm_seat_t &) { return true; };
    const auto visit = [&](fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        DEMAND(link != nullptr);
        typename Class::node_t *node = Class::link_t::record(link);
        const fxm_card_data_t &card = Class::card(Class::record(node));
        DEMAND(seat->node == node);
        DEMAND(_fxm_tbl_seat<Class>(card.fcd_id) == seat);
        DEMAND(_fxm_rbtree_find(&Class::map(), &card.fcd_id) == link);
        const fxm_watch_t watch = _fxm_watch_of(card, Class::ignore_state(node));
        DEMAND(watch.ports == seat->watch.ports && watch.oldest == seat->watch.oldest);
        groups[std::min<uint32_t>(card.fcd_vlan_id, FXM_GROUPS - 1)] += 1;
        cards += 1;
        link = _fxm_rbtree_next(link);
        DEMAND(link == nullptr || Class::card(Class::record(Class::link_t::record(link))).fcd_id > card.fcd_id);
        return true;
    };
    _fxm_roster_walk(&Class::roster(), sizeof(typename Class::node_t), all, visit);
    DEMAND(link == nullptr);
    DEMAND(cards == Class::total() && cards == Class::roster().count);
    DEMAND(memcmp(groups, Class::groups(), sizeof(groups)) == 0);
    std::vector<uint64_t> ids(cards);
    _fxm_roster_ids(&Class::roster(), ids.data());
    DEMAND(std::is_sorted(ids.begin(), ids.end()));
    fxm_mutex_guard_t guard(&g_stats_lock);
    DEMAND(g_stats.mem[Class::account].alloc - g_stats.mem[Class::account].free == cards);
}

void check_tables()
{
    fxm_fx_guard_t guard;
    check_class<fxsv_class>();
    check_class<fxio_class>();
}

void check_accounts_empty()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    for (uint32_t account = 0; account < FXM_MEMS; ++account)
        DEMAND(account == FXM_MEM_WREG_NODE || g_stats.mem[account].alloc == g_stats.mem[account].free);
}
