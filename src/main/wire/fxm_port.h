// The two Ethernet ports of the library: opening a port, reading its link state, sending a frame. The functions marked
// _win are built on the calls of fxm_platform.h and live in platform/fxm_port_win.cpp.
#ifndef FXM_PORT_H
#define FXM_PORT_H

#include <pcap/pcap.h>

#include <atomic>
#include <cstdint>

#include "core/fxm_config.h"
#include "platform/fxm_platform.h"

// A record is filled when its port is opened, before any worker starts, and is zero otherwise. pt_mac, pt_pcap and
// pt_if_index do not change until the tear-down, so all threads read them without a lock.
struct fxm_port_t {
    uint64_t pt_mac;               // the port's own MAC, packed as a card id
    std::atomic<uint32_t> pt_link; // 1 up, else down; after the opening the link watcher alone writes it
    pcap_t *pt_pcap;               // null while closed
    uint32_t pt_if_index;
};

extern fxm_port_t fxm_ports[FXM_PORT_NUM];

inline const char *_fxm_link_name(uint32_t link) { return link == 1 ? "UP" : "DOWN"; }

[[nodiscard]] int _fxm_socket_open_win(uint32_t if_index, fxm_port_t *port); // 0, ENOENT, ENOMEM, EPROTO
[[nodiscard]] int _fxm_get_linkstate_win(uint32_t port, uint32_t *state);    // 0, ENOENT, ENOMEM, EPROTO; 1 up, else 0
[[nodiscard]] int get_pcap(const char *adapter_name, pcap_t **handle);       // 0, ENOENT, EPROTO

void _fxm_ports_clear();

// Opens port `number` by interface index or by name, as configured.
[[nodiscard]] int _fxm_socket_open(uint32_t number);
void _fxm_socket_close(uint32_t number);

[[nodiscard]] int _fxm_send(uint32_t port, const uint8_t *frame, uint32_t length); // 0 or EPROTO

#endif
