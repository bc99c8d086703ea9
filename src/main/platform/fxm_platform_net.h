// The half of the platform layer that speaks rtnetlink and libpcap; included by the other half only, which hands its
// functions out.
#ifndef FXM_PLATFORM_NET_H
#define FXM_PLATFORM_NET_H

#include <cstdint>

#include "platform/fxm_platform.h"

void _fxm_set_last_error(int err);
uint32_t _fxm_netlink_adapters(fxm_adapter_t *list, uint32_t *size);
bool _fxm_netlink_notice_create(fxm_notice_t *notice);
bool _fxm_netlink_notice_arm(fxm_notice_t *notice);
int _fxm_pcap_mintocopy(pcap *handle);

#endif
