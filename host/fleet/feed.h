// The events of this site as batches, numbered and chained, from the ring or, where the ring has lost them, from the history.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "daemon/history.h"
#include "daemon/ring.h"

namespace fxm::fleet
{

struct batch {
    uint64_t first = 0, last = 0; // numbers of its events, or of the lost ones
    size_t events = 0;
    std::string text;  // an event a line
    uint64_t lost = 0; // numbers that its only event, a gap, tells of
};

class feed
{
  public:
    static constexpr size_t MOST_EVENTS = 1000;
    static constexpr size_t MOST_BYTES = 262144;

    // `past` may be null: then what the ring has lost is lost.
    feed(const ring *events, history *past) : events_(events), past_(past) {}

    // What comes behind the number `after`; what is lost is one event of the type `gap`. Empty if there is nothing yet.
    std::optional<batch> next(uint64_t after) const;

    uint64_t waiting(uint64_t after) const; // events behind it, at most

  private:
    std::optional<batch> from_history(uint64_t after) const;

    const ring *events_;
    history *past_;
};

} // namespace fxm::fleet
