#include "fleet/feed.h"

#include <algorithm>

#include "common/error.h"

namespace fxm::fleet
{

static batch gap(uint64_t from, uint64_t to) { return {from, to, 1, gap_text(from, to) + '\n', to - from + 1}; }

// False if the batch is full, and the event is not in it.
static bool add(batch *to, uint64_t seq, std::string_view text)
{
    if (to->events != 0 && (to->events >= feed::MOST_EVENTS || to->text.size() + text.size() >= feed::MOST_BYTES))
        return false;
    if (to->events == 0)
        to->first = seq;
    to->last = seq;
    to->events += 1;
    to->text.append(text).push_back('\n');
    return true;
}

uint64_t feed::waiting(uint64_t after) const
{
    const uint64_t last = events_->last_seq();
    // Numbers jump between two runs, so there are never more events than are kept.
    const uint64_t kept = (past_ != nullptr ? past_->status().events : 0) + events_->count().kept;
    return last > after ? std::min(last - after, kept) : 0;
}

// Numbers rise by one within a run of fxmd, and jump between two runs. So a hole is one only if the history has nothing
// from before it: then it begins later than what is asked for.
std::optional<batch> feed::from_history(uint64_t after) const
{
    uint64_t oldest = 0;
    history_query oldest_one;
    oldest_one.limit = 1;
    past_->query_events(oldest_one, [&](uint64_t seq, std::string_view) { oldest = seq; });
    if (oldest == 0)
        return std::nullopt;
    if (after != 0 && oldest > after + 1)
        return gap(after + 1, oldest - 1);
    batch made;
    bool full = false;
    history_query rest;
    rest.after_seq = after;
    rest.limit = MOST_EVENTS;
    past_->query_events(rest, [&](uint64_t seq, std::string_view text) { full = full || !add(&made, seq, text); });
    if (made.events == 0)
        return std::nullopt;
    return made;
}

std::optional<batch> feed::next(uint64_t after) const
{
    const uint64_t start = events_->start_seq();
    if (past_ != nullptr && after + 1 < events_->first_seq()) {
        try {
            if (auto made = from_history(after))
                return made;
            // The history writes once a second; what it has not yet, it will have.
            if (after >= start && !past_->status().failing)
                return std::nullopt;
        } catch (const api_error &) { // it cannot be read
        }
    }
    if (after < start) {
        // What an earlier run has told behind `after` is not stored. With a history, its numbers up to `start` were not used.
        if (past_ == nullptr && after != 0)
            return gap(after + 1, start);
        after = start;
    }
    const ring::batch read = events_->read(after, MOST_EVENTS);
    if (read.gap_to != 0)
        return gap(read.gap_from, read.gap_to);
    batch made;
    for (const auto &event : read.events) {
        if (!add(&made, event->seq, event->text))
            break;
    }
    if (made.events == 0)
        return std::nullopt;
    return made;
}

} // namespace fxm::fleet
