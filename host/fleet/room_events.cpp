// The stream of events of all sites in the numbers of the room, and of one site in its own.
#include <boost/json.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "common/filter.h"
#include "daemon/ring.h"
#include "fleet/names.h"
#include "fleet/room_call.h"

namespace fxm::fleet
{

namespace json = boost::json;

constexpr size_t ROOM_EVENTS_AT_ONCE = 12; // taken in one step
constexpr auto ROOM_QUIET = std::chrono::seconds(10);

class room_stream : public http_source
{
  public:
    // Of one site in its own numbers, or of all in those of the room.
    room_stream(services *all, const view *sites, std::string site, filter wanted, bool sse, uint64_t place)
        : all_(all), sites_(sites), site_(std::move(site)), wanted_(std::move(wanted)), sse_(sse), place_(place)
    {
    }

    void begin(const std::string &boot, uint64_t seq, bool resumed, uint64_t gap_to)
    {
        boot_ = boot;
        put(&first_, seq, "boot",
            fmt::format(R"({{"schema":"fxm/1","type":"boot","boot":"{}","seq":{},"time_ms":{},"resumed":{}}})", boot,
                        seq, clock_ms(), resumed));
        if (gap_to != 0)
            put(&first_, gap_to, "gap", gap_text(seq + 1, gap_to));
        seq_ = std::max(seq, gap_to);
    }

    state read(std::string *out) override
    {
        if (ended_)
            return state::end;
        *out += std::exchange(first_, {});
        const view::reading found = sites_->read(place_, ROOM_EVENTS_AT_ONCE);
        if (found.gap_to != 0) {
            // The reader is slower than all sites together. In the numbers of a site the end of the gap is not known, so
            // it begins anew.
            all_->gaps += 1;
            if (!site_.empty()) {
                ended_ = true;
                return out->empty() ? state::end : state::more;
            }
            put(out, found.gap_to, "gap", gap_text(found.gap_from, found.gap_to));
            place_ = found.gap_to;
        }
        for (const auto &event : found.events) {
            place_ = event->number;
            if (!is_wanted(*event))
                continue;
            if (event->breaks && !site_.empty()) { // the reader connects again and lists
                ended_ = true;
                return out->empty() ? state::end : state::more;
            }
            put_event(out, *event);
        }
        const auto now = std::chrono::steady_clock::now();
        if (out->empty() && found.events.empty() && now - last_sent_ >= ROOM_QUIET)
            *out += sse_ ? ":\n\n" : "\n";
        if (!out->empty())
            last_sent_ = now;
        return found.events.empty() ? state::wait : state::more;
    }

    bool ready() override { return sites_->last() > place_; }

  private:
    bool is_wanted(const room_event &event) const
    {
        if (!site_.empty() && event.site != site_)
            return false;
        return !event.is_change || wanted_.empty() || wanted_.matches(event.before) || wanted_.matches(event.after);
    }

    void put_event(std::string *out, const room_event &event)
    {
        if (!site_.empty()) {
            seq_ = event.seq != 0 ? event.seq : seq_;
            put(out, seq_, event.type, event.text);
            return;
        }
        // The same with the names and numbers of the room.
        boost::system::error_code error;
        json::value parsed = json::parse(event.text, error);
        json::object made{{"schema", SCHEMA}};
        if (!error && parsed.is_object()) {
            for (auto &member : parsed.as_object()) {
                const std::string_view name = member.key();
                if (name == "seq")
                    continue;
                if (name == "card" && member.value().is_string())
                    made["card"] = fmt::format("{}/{}", event.site, std::string_view(member.value().get_string()));
                else if (name == "type" && member.value() == "gap")
                    made["type"] = "hole"; // in the numbers of the site, not of this stream
                else
                    made[name] = std::move(member.value());
            }
        }
        made["site"] = event.site;
        made["site_seq"] = event.seq;
        made["seq"] = event.number;
        put(out, event.number, event.type == "gap" ? "hole" : event.type, json::serialize(made));
    }

    void put(std::string *out, uint64_t seq, std::string_view type, const std::string &text) const
    {
        if (sse_)
            *out += fmt::format("id: {}.{}\nevent: {}\ndata: {}\n\n", boot_, seq, type, text);
        else
            *out += text + '\n';
    }

    services *all_;
    const view *sites_;
    const std::string site_;
    const filter wanted_;
    const bool sse_;
    std::string boot_;
    uint64_t place_;   // of the room
    uint64_t seq_ = 0; // of the site
    std::string first_;
    bool ended_ = false;
    std::chrono::steady_clock::time_point last_sent_ = std::chrono::steady_clock::now();
};

void stream_room_events(const room_call &of)
{
    const http_request &request = of.call.request;
    stream_request what = stream_request_of(request);
    const view &sites = of.asked.sites();
    auto [boot, seq] = of.site.empty() ? std::pair(of.all.boot, sites.last()) : sites.position(of.site);
    bool resumed = true;
    if (!what.after.empty()) {
        const auto [of_boot, of_seq] = parse_position(what.after);
        resumed = of_boot == boot && of_seq <= (of.site.empty() ? sites.last() : sites.site(of.site)->seq);
        if (resumed)
            seq = of_seq;
        else if (of.site.empty())
            seq = sites.first() - 1;
    }
    view::found from{seq, 0};
    if (!of.site.empty()) {
        const auto found = sites.find(of.site, boot, seq);
        from = found.value_or(view::found{sites.last(), 0});
        resumed = resumed && found;
    }
    http_reply reply;
    const bool sse = wants(request, "text/event-stream");
    reply.type = sse ? "text/event-stream" : "application/x-ndjson";
    reply.headers.emplace_back("Cache-Control", "no-store");
    reply.endless = true;
    auto source = std::make_unique<room_stream>(&of.all, &sites, of.site, std::move(what.wanted), sse, from.place);
    source->begin(boot, seq, resumed, from.gap_to);
    reply.source = std::move(source);
    of.call.answer(std::move(reply));
}

} // namespace fxm::fleet
