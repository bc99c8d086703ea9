// What a site tells of itself, for the status, the metrics and tests. Numbers are of this run of fxmd.
#pragma once

#include <cstdint>
#include <string>

namespace fxm::fleet
{

struct desk_numbers {
    uint64_t requests = 0, repeated = 0, late = 0, denied = 0;
};

struct site_status {
    std::string site;
    bool connected = false;
    std::string server;   // that it is connected to, or tries
    std::string error;    // what has failed last; empty while all is well
    uint64_t sent = 0;    // number of the last event that the stream has confirmed; 0: none
    uint64_t waiting = 0; // numbers behind it
    uint64_t batches = 0, cards = 0, connects = 0, refused = 0;
    uint64_t gaps = 0;              // numbers that neither the ring nor the history had any more
    uint64_t resent_after_loss = 0; // numbers that the stream had confirmed and lost
    uint64_t cards_waiting = 0;
    desk_numbers requests;
};

} // namespace fxm::fleet
