// The ring of events: the last 65,536, each written once as text. A reader is a number, the event it has seen last, so
// that readers cost nothing and cannot hold up anybody. Any thread appends and reads.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "common/facts.h"

namespace fxm
{

enum class event_type { change, job, port, library };
constexpr size_t EVENT_TYPES = 4;

const char *word(event_type type);

// The beginning of the text of each event: {"schema":"fxm/1","type":"change","seq":8123,"time_ms":1764029374123,
std::string event_head(event_type type, uint64_t seq, int64_t time_ms);

// The whole text of an event that says that these are lost.
std::string gap_text(uint64_t from, uint64_t to);

struct event {
    uint64_t seq;
    int64_t time_ms;
    event_type type;
    uint64_t card; // 0: of no card
    facts before;  // of the card, for filters; equal to `after` unless the type is `change`
    facts after;
    std::string text; // the whole object, without a line end: {"schema":"fxm/1","type":"change","seq":8123,...}
};

// What an appender says. `members` are the members behind time_ms, without braces: "\"port\":0,...".
struct event_draft {
    event_type type;
    uint64_t card = 0;
    facts before;
    facts after;
    std::string members;
};

class ring
{
  public:
    static constexpr size_t SIZE = 65536;

    // `last_seq` is the number of the last event of an earlier run.
    explicit ring(uint64_t last_seq);

    // Called once behind every append or batch of them, on the thread that appends; must not block. Set before the first
    // append.
    void on_append(std::function<void()> notify);

    void append(const event_draft &draft);
    void append(const std::vector<event_draft> &drafts);

    struct batch {
        std::vector<std::shared_ptr<const event>> events;
        uint64_t gap_from = 0, gap_to = 0; // numbers that are lost to this reader; 0, 0 if none
    };
    // At most `limit` events behind `after`, oldest first.
    batch read(uint64_t after, size_t limit) const;
    // Goes past the events behind `after` that are not wanted, up to one that is, one that is lost, or the end. Returns
    // the number of the last one that was passed; `after` if none was. `wanted` runs under the mutex, which is given up
    // every few hundred events.
    template <typename Wanted> uint64_t skip(uint64_t after, Wanted wanted) const
    {
        constexpr uint64_t SLICE = 512;
        for (;;) {
            std::lock_guard guard(mutex_);
            if (after < first_ - 1)
                return after;
            for (const uint64_t end = std::min(last_, after + SLICE); after < end; ++after) {
                if (wanted(*slots_[(after + 1) % SIZE]))
                    return after;
            }
            if (after >= last_)
                return after;
        }
    }

    uint64_t start_seq() const { return start_; } // the number before the first event of this run
    uint64_t last_seq() const;
    uint64_t first_seq() const; // of the oldest event that is kept; last_seq() + 1 if none

    struct numbers {
        std::array<uint64_t, EVENT_TYPES> events{}; // of this run, by type
        uint64_t kept = 0;
    };
    numbers count() const;

  private:
    void place(const event_draft &draft);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<const event>> slots_; // by seq % SIZE
    const uint64_t start_;
    uint64_t first_;
    uint64_t last_;
    std::array<uint64_t, EVENT_TYPES> events_{};
    std::function<void()> notify_;
};

} // namespace fxm
