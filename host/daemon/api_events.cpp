// The stream of events.
#include <fmt/format.h>

#include <charconv>
#include <chrono>

#include "common/filter.h"
#include "daemon/api.h"

namespace fxm
{

// Events that one step takes from the ring.
constexpr size_t EVENTS_AT_ONCE = 12;
// Shorter than the server's heartbeat, which calls read() of a quiet stream.
constexpr auto QUIET = std::chrono::seconds(10);

class event_stream : public http_source
{
  public:
    event_stream(services *all, filter wanted, bool sse, uint64_t after, bool resumed)
        : all_(all), wanted_(std::move(wanted)), sse_(sse), cursor_(after)
    {
        first_ = fmt::format(R"({{"schema":"fxm/1","type":"boot","boot":"{}","seq":{},"time_ms":{},"resumed":{}}})",
                             all_->boot, cursor_, clock_ms(), resumed);
    }

    state read(std::string *out) override
    {
        if (!first_.empty()) {
            put(out, cursor_, "boot", first_);
            first_.clear();
        }
        const ring::batch batch = all_->events->read(cursor_, EVENTS_AT_ONCE);
        if (batch.gap_to != 0) {
            all_->gaps += 1;
            put(out, batch.gap_to, "gap", gap_text(batch.gap_from, batch.gap_to));
            cursor_ = batch.gap_to;
        }
        for (const auto &entry : batch.events) {
            cursor_ = entry->seq;
            if (is_wanted(*entry))
                put(out, entry->seq, word(entry->type), entry->text);
        }
        const auto now = std::chrono::steady_clock::now();
        if (out->empty() && batch.events.empty() && now - last_sent_ >= QUIET)
            *out += sse_ ? ":\n\n" : "\n";
        if (!out->empty())
            last_sent_ = now;
        return batch.events.empty() ? state::wait : state::more;
    }

    bool ready() override
    {
        if (!wanted_.empty())
            cursor_ = all_->events->skip(cursor_, [this](const event &entry) { return is_wanted(entry); });
        return all_->events->last_seq() > cursor_;
    }

  private:
    bool is_wanted(const event &entry) const
    {
        return entry.type != event_type::change || wanted_.matches(entry.before) || wanted_.matches(entry.after);
    }

    void put(std::string *out, uint64_t seq, const char *type, const std::string &text) const
    {
        if (sse_)
            *out += fmt::format("id: {}.{}\nevent: {}\ndata: {}\n\n", all_->boot, seq, type, text);
        else
            *out += text + '\n';
    }

    services *all_;
    const filter wanted_;
    const bool sse_;
    uint64_t cursor_;
    std::string first_;
    std::chrono::steady_clock::time_point last_sent_ = std::chrono::steady_clock::now();
};

std::pair<std::string, uint64_t> parse_position(const std::string &text)
{
    const size_t dot = text.rfind('.');
    uint64_t seq = 0;
    if (dot != std::string::npos) {
        const char *end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + dot + 1, end, seq);
        if (error == std::errc{} && stop == end && dot != 0)
            return {text.substr(0, dot), seq};
    }
    throw api_error("FXM_API_EINVAL", fmt::format("\"after\" is \"{}\"; it must look like {}", text, "9f86d081.8123"));
}

stream_request stream_request_of(const http_request &request)
{
    stream_request what;
    what.after = request.last_event_id;
    for (const auto &[key, value] : request.query) {
        if (key == "filter")
            what.wanted = filter::parse(value);
        else if (key == "after" && what.after.empty())
            what.after = value;
        else if (key != "after")
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not known here", key),
                            "possible are: after, filter");
    }
    return what;
}

static void stream_events(services &all, api_call &call)
{
    stream_request what = stream_request_of(call.request);
    const uint64_t last = all.events->last_seq();
    uint64_t seq = last;
    bool resumed = true;
    if (!what.after.empty()) {
        const auto [boot, wanted_seq] = parse_position(what.after);
        // The client of an earlier run lists again, and gets all events of this run.
        resumed = boot == all.boot && wanted_seq <= last;
        seq = resumed ? wanted_seq : all.events->start_seq();
    }
    http_reply reply;
    const bool sse = wants(call.request, "text/event-stream");
    reply.type = sse ? "text/event-stream" : "application/x-ndjson";
    reply.headers.emplace_back("Cache-Control", "no-store");
    reply.endless = true;
    reply.source = std::make_unique<event_stream>(&all, std::move(what.wanted), sse, seq, resumed);
    call.answer(std::move(reply));
}

std::span<const route> event_routes()
{
    static constexpr route routes[] = {{"GET", "/v1/events", role::view, stream_events}};
    return routes;
}

} // namespace fxm
