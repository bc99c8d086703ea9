// Opening by configuration, closing and sending. Opened and closed on the caller's thread of fxm_init_manager; any
// thread sends.
#include "wire/fxm_port.h"

#include <cerrno>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "fxm_log4cxxif.h"

fxm_port_t fxm_ports[FXM_PORT_NUM];

constexpr uint32_t FXM_SEND_WAIT = 50; // ms at most that a frame waits for room

// Senders and the receive thread share one capture handle, without a lock. On Linux libpcap sends with one send(2) on the
// descriptor and reads only the mapped ring, so they do not touch the same data. Only a send that fails writes to the
// handle: its error text, which nobody reads. Two that fail at once may mix their words there and do no other harm. A lock
// around the system call would be held whenever the card preempts the sender of the frame that has woken it, and would
// keep all other senders from sending. A second handle for sending would capture every frame that the library sends.

void _fxm_ports_clear()
{
    for (fxm_port_t &port : fxm_ports) {
        port.pt_mac = 0;
        port.pt_link = 0;
        port.pt_pcap = nullptr;
        port.pt_if_index = 0;
    }
}

int _fxm_socket_open(uint32_t number)
{
    uint32_t if_index = number == 0 ? g_config.ether_port0_ifindex : g_config.ether_port1_ifindex;
    // A name without an interface gives index 0, which no interface has: it fails with ENOENT like any unknown index.
    if (!_fxm_config_ports_by_index())
        if_index = _fxm_adapter_index(number == 0 ? g_config.ether_port0_name : g_config.ether_port1_name);
    return _fxm_socket_open_win(if_index, &fxm_ports[number]);
}

void _fxm_socket_close(uint32_t number)
{
    if (fxm_ports[number].pt_pcap != nullptr)
        pcap_close(fxm_ports[number].pt_pcap);
    fxm_ports[number].pt_pcap = nullptr;
}

// One attempt: 0, or the system's error.
static int _try_send(uint32_t port, const uint8_t *frame, uint32_t length)
{
    errno = 0;
    const int rc = pcap_sendpacket(fxm_ports[port].pt_pcap, frame, static_cast<int>(length));
    return rc == 0 ? 0 : (errno != 0 ? errno : EPROTO);
}

int _fxm_send(uint32_t port, const uint8_t *frame, uint32_t length)
{
    fxm_assert(port < FXM_PORT_NUM && fxm_ports[port].pt_pcap != nullptr);
    _fxm_check_wait("a frame to a card");
    // EAGAIN means that the socket's own buffer is full for a moment, which is no reason to refuse a frame. Senders wait
    // side by side, and not past a stop. A full queue of the interface gives ENOBUFS instead. The
    // kernel offers no wait for that, so the frame is refused.
    uint32_t left = FXM_SEND_WAIT;
    int err = _try_send(port, frame, length);
    while (err == EAGAIN && left > 0 && !_fxm_stopping()) {
        left = _fxm_capture_wait_room(fxm_ports[port].pt_pcap, left);
        err = _try_send(port, frame, length);
    }
    if (err != 0) {
        fxm_log_error("%s: Failed to pcap_sendpacket().", __func__);
        return EPROTO;
    }
    return 0;
}
