// The library's counters and ports as documents show them. The one place of fxmd that reads the library's snapshot.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace fxm
{

struct named_count {
    const char *name;
    uint64_t value;
};

struct port_counters {
    unsigned number = 0;
    std::string name; // of the interface; as configured while the port is closed
    uint32_t if_index = 0;
    uint64_t mac = 0;
    bool open = false;
    bool up = false;
    uint32_t downs = 0;
    uint64_t received = 0;
    uint64_t sent = 0;
    uint64_t dropped = 0;
    std::vector<named_count> frames; // r_total, r_dev, ...
};

struct memory_account {
    const char *name;
    uint32_t allocated, freed;
};

struct counters {
    std::vector<port_counters> ports; // those that are configured
    std::vector<named_count> results; // FXM_API_SUCCESS, ...
    std::vector<std::pair<std::string, std::vector<named_count>>> functions;
    std::vector<named_count> events; // FXM_EVT_NEWDEVINFO, ...
    std::vector<memory_account> memory;
    uint32_t callbacks_called = 0, callbacks_returned = 0;
    uint64_t refused = 0; // announcements beyond the limit of cards
};

counters read_counters(const std::vector<std::string> &port_names);

// The limit of cards in the library; see `max_cards`.
void limit_cards(uint32_t cards);

} // namespace fxm
