// The library's counters and ports as documents show them. The one place of fxmd that reads the library's snapshot.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
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

// Counters that never fall while fxmd runs: the library begins at 0 whenever it starts again, and a port whenever it is
// opened. It must be read at least once between two such beginnings; the model's thread does so several times a second.
class lasting_counters
{
  public:
    // Like read_counters, with sums over all beginnings for `downs`, `dropped` and `frames` of each port, for `events` and
    // for `refused`. The other members are as the library has them. Any thread.
    counters read(const std::vector<std::string> &port_names);

  private:
    struct sum {
        uint64_t before = 0; // of all earlier beginnings
        uint64_t last = 0;
        uint64_t add(uint64_t value);
    };

    std::mutex mutex_; // held over a reading, so that readings come in their order; under it the library's locks
    std::vector<sum> sums_;
};

// The limit of cards in the library; see `max_cards`.
void limit_cards(uint32_t cards);

} // namespace fxm
