// The interface between the two halves of the platform layer: fxm_platform_net.cpp uses rtnetlink and libpcap,
// fxm_platform.cpp publishes its functions. No other file includes this header.
#ifndef FXM_PLATFORM_NET_H
#define FXM_PLATFORM_NET_H

#include <cstdint>
#include <ctime>

#include "platform/fxm_platform.h"

void _fxm_set_last_error(int err);
timespec _fxm_monotonic_in(uint32_t ms);
int64_t _fxm_ms_until(const timespec *deadline); // 0 once it is over
uint32_t _fxm_netlink_adapters(fxm_adapter_t *list, uint32_t *size);
bool _fxm_netlink_notice_create(fxm_notice_t *notice);
bool _fxm_netlink_notice_arm(fxm_notice_t *notice);
int _fxm_pcap_mintocopy(pcap *handle);

#endif
