// The status document, for the API, and the watch over the ports that feeds it.
#pragma once

#include <boost/json.hpp>

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/counters.h"
#include "daemon/log.h"
#include "daemon/ring.h"

namespace fxm
{

struct services;

// The library raises no event for a port, so the model's thread compares now and then.
class port_watch
{
  public:
    port_watch(std::vector<std::string> names, ring *events, logger *log);

    void poll(); // at most every 200 ms it looks; the model's thread

    enum class state { closed, down, up };
    static const char *word(state value);
    static state state_of(const port_counters &port);

    int64_t changed_ms(size_t port) const; // when its state changed last; 0: not since the start

  private:
    struct seen {
        state last = state::closed;
        int64_t changed_ms = 0;
        bool known = false;
    };

    const std::vector<std::string> names_;
    ring *events_;
    logger *log_;
    int64_t next_ms_ = 0;
    mutable std::mutex mutex_; // guards seen_
    std::array<seen, 2> seen_;
};

boost::json::object status_document(services &all);
boost::json::array ports_of(services &all);
uint64_t resident_bytes(); // of this process

} // namespace fxm
