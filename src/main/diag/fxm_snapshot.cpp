// The copies for the daemon, see the header. Called by threads of the host.
#include "diag/fxm_snapshot.h"

#include <pcap/pcap.h>

#include <mutex>

#include "core/fxm_state.h"
#include "registry/fxm_blacklist.h"
#include "registry/fxm_tables.h"
#include "wire/fxm_port.h"

// libpcap adds up what the kernel hands out and resets, without a lock of its own. Nothing is taken under this one.
static std::mutex pcap_stats_mutex;

static uint64_t _dropped(pcap_t *handle)
{
    std::lock_guard guard(pcap_stats_mutex);
    pcap_stat stat{};
    return pcap_stats(handle, &stat) == 0 ? stat.ps_drop : 0;
}

void _fxm_snapshot(fxm_snapshot_t *out)
{
    *out = {};
    // The ports stay open until every call that has found the library running has returned.
    fxm_call_t call;
    out->running = call.running;
    for (uint32_t port = 0; call.running && port < FXM_PORT_NUM; ++port) {
        if (fxm_ports[port].pt_pcap == nullptr)
            continue;
        out->port[port] = {fxm_ports[port].pt_mac, _dropped(fxm_ports[port].pt_pcap), fxm_ports[port].pt_if_index,
                           fxm_ports[port].pt_link.load(), 0};
    }
    {
        fxm_mutex_guard_t guard(&g_stats_lock);
        out->stats = g_stats;
    }
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port)
        out->port[port].total_down = out->stats.port_total_down[port];
    out->refused = fxm_cards_refused.load(std::memory_order_relaxed);
}

std::vector<uint64_t> _fxm_blacklist_ids()
{
    fxm_call_t call;
    return call.running ? _fxm_blacklist_copy() : std::vector<uint64_t>{};
}

void _fxm_set_card_limit(uint32_t cards) { fxm_card_limit.store(cards, std::memory_order_relaxed); }
