#include "daemon/ring.h"

#include <fmt/format.h>

#include <chrono>

namespace fxm
{

const char *word(event_type type)
{
    constexpr const char *words[] = {"change", "job", "port", "library"};
    return words[static_cast<size_t>(type)];
}

std::string event_head(event_type type, uint64_t seq, int64_t time_ms)
{
    return fmt::format(R"({{"schema":"fxm/1","type":"{}","seq":{},"time_ms":{},)", word(type), seq, time_ms);
}

std::string gap_text(uint64_t from, uint64_t to)
{
    return fmt::format(R"({{"schema":"fxm/1","type":"gap","from":{},"to":{}}})", from, to);
}

ring::ring(uint64_t last_seq) : slots_(SIZE), start_(last_seq), first_(last_seq + 1), last_(last_seq) {}

void ring::on_append(std::function<void()> notify) { notify_ = std::move(notify); }

// The caller holds the mutex.
void ring::place(const event_draft &draft)
{
    using namespace std::chrono;
    const uint64_t seq = ++last_;
    const int64_t now = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    slots_[seq % SIZE] =
        std::make_shared<const event>(event{seq, now, draft.type, draft.card, draft.before, draft.after,
                                            event_head(draft.type, seq, now) + draft.members + '}'});
    events_[static_cast<size_t>(draft.type)] += 1;
    if (last_ - first_ >= SIZE)
        first_ = last_ - SIZE + 1;
}

void ring::append(const event_draft &draft)
{
    {
        std::lock_guard guard(mutex_);
        place(draft);
    }
    if (notify_)
        notify_();
}

void ring::append(const std::vector<event_draft> &drafts)
{
    if (drafts.empty())
        return;
    // In slices, so that readers get their turn in a burst.
    for (size_t at = 0; at < drafts.size();) {
        std::lock_guard guard(mutex_);
        for (const size_t end = std::min(drafts.size(), at + 256); at < end; ++at)
            place(drafts[at]);
    }
    if (notify_)
        notify_();
}

ring::batch ring::read(uint64_t after, size_t limit) const
{
    batch result;
    std::lock_guard guard(mutex_);
    uint64_t next = after + 1;
    if (next < first_) {
        result.gap_from = next;
        result.gap_to = first_ - 1;
        next = first_;
    }
    for (; next <= last_ && result.events.size() < limit; ++next)
        result.events.push_back(slots_[next % SIZE]);
    return result;
}

uint64_t ring::last_seq() const
{
    std::lock_guard guard(mutex_);
    return last_;
}

uint64_t ring::first_seq() const
{
    std::lock_guard guard(mutex_);
    return first_;
}

ring::numbers ring::count() const
{
    std::lock_guard guard(mutex_);
    return {events_, last_ + 1 - first_};
}

} // namespace fxm
