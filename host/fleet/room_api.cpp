// The API of a room. What concerns one site, by ?site=NAME or an id such as north/02:00:00:00:10:00, is answered as that
// site would: cards and events from what the room knows, everything else by asking it. Without a site, lists and events
// are those of all.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

#include "common/card_id.h"
#include "common/filter.h"
#include "daemon/api.h"
#include "daemon/card.h"
#include "daemon/embedded.h"
#include "daemon/metrics.h"
#include "daemon/ring.h"
#include "daemon/status.h"
#include "daemon/topology.h"
#include "fleet/names.h"
#include "fleet/room.h"
#include "fxm.h"

namespace fxm::fleet
{

namespace json = boost::json;

constexpr size_t ROOM_CARDS_AT_ONCE = 64;  // that one step of a list looks at under the lock
constexpr size_t ROOM_LIST_PIECE = 28000;  // made at once
constexpr size_t ROOM_EVENTS_AT_ONCE = 12; // taken in one step
constexpr auto ROOM_QUIET = std::chrono::seconds(10);

// A request and the site that it concerns.
struct room_call {
    services &all;
    room &asked;
    std::string site; // empty: all
    api_call &call;
};

static std::string id_in(const std::string &of, const std::string &site, uint64_t id)
{
    return of.empty() ? fmt::format("{}/{}", site, format_id(id)) : format_id(id);
}

// ---------------------------------------------------------------------------------------------------------- one card

// `"id":...,"site":...,"health":...` and the members of a list. A card of a silent site is never called well.
static void put_card(std::string *out, const std::string &of, const std::string &site, site_state state,
                     const room_card &card)
{
    *out += fmt::format(R"("id":"{}","site":"{}",)", id_in(of, site, card.known.id), site);
    if (state == site_state::live)
        *out += fmt::format(R"("health":"{}")", word(card.known.state));
    else
        *out += fmt::format(R"("health":"silent","last_health":"{}")", word(card.known.state));
    *out += card.row;
}

// A member of a list by its name, such as "channels.p0m0".
static const json::value &member_of(const json::object &of, std::string_view name)
{
    static const json::value nothing;
    const json::value *found = of.if_contains(name);
    const size_t dot = name.find('.');
    if (found == nullptr && dot != std::string_view::npos) {
        const json::value *outer = of.if_contains(name.substr(0, dot));
        if (outer != nullptr && outer->is_object())
            found = outer->get_object().if_contains(name.substr(dot + 1));
    }
    return found != nullptr ? *found : nothing;
}

// -------------------------------------------------------------------------------------------------------------- lists

class room_cards : public http_source
{
  public:
    struct choice {
        std::string site;
        filter wanted;
        std::optional<member_set> shown; // all
        view::place after;
        uint64_t limit = UINT64_MAX;
        bool ndjson = false, rows = false;
    };

    room_cards(const view *sites, std::string head, choice what)
        : sites_(sites), head_(std::move(head)), what_(std::move(what)), next_(what_.after), left_(what_.limit)
    {
        if (what_.shown)
            names_ = what_.shown->names();
        else if (what_.rows)
            names_ = member_set::all().names();
    }

    state read(std::string *out) override
    {
        if (ended_)
            return state::end;
        if (!begun_ && what_.rows) {
            *out += R"({"schema":"fxm/1","fields":["id")";
            for (const std::string_view name : names_)
                *out += fmt::format(",\"{}\"", name);
            *out += "]}\n";
        } else if (!begun_ && !what_.ndjson) {
            *out += head_;
        }
        begun_ = true;
        while (!ended_ && out->size() < ROOM_LIST_PIECE)
            step(out);
        return ended_ && out->empty() ? state::end : state::more;
    }

  private:
    void put(std::string *out, const std::string &site, site_state state, const room_card &card) const
    {
        std::string text = "{";
        put_card(&text, what_.site, site, state, card);
        text += '}';
        if (what_.shown || what_.rows) {
            const json::value parsed = json::parse(text);
            const json::object &members = parsed.as_object();
            text = (what_.rows ? "[" : "{\"id\":") + json::serialize(members.at("id"));
            if (what_.site.empty() && !what_.rows)
                text += fmt::format(R"(,"site":"{}")", site);
            for (const std::string_view name : names_) {
                text += what_.rows ? "," : fmt::format(",\"{}\":", name);
                text += json::serialize(member_of(members, name));
            }
            text += what_.rows ? ']' : '}';
        }
        if (what_.rows)
            *out += text + '\n';
        else if (what_.ndjson)
            *out += R"({"schema":"fxm/1",)" + text.substr(1) + '\n';
        else
            *out += (any_ ? "," : "") + text;
    }

    void step(std::string *out)
    {
        const auto last = sites_->visit(
            next_, what_.site, std::min<uint64_t>(ROOM_CARDS_AT_ONCE, left_),
            [this](const facts &known) { return what_.wanted.empty() || what_.wanted.matches(known); },
            [&](const std::string &site, site_state state, const room_card &card) {
                put(out, site, state, card);
                any_ = true;
                --left_;
            });
        next_ = last.value_or(view::place{});
        if (last && left_ != 0)
            return;
        ended_ = true;
        if (!what_.ndjson)
            *out += last ? fmt::format("],\"next\":\"{}\"}}\n", id_in(what_.site, last->site, last->id))
                         : "],\"next\":null}\n";
    }

    const view *sites_;
    const std::string head_;
    const choice what_;
    std::vector<std::string_view> names_;
    view::place next_;
    uint64_t left_;
    bool begun_ = false, any_ = false, ended_ = false;
};

// "north/02:00:00:00:10:00", or with a site given the id alone.
static view::place place_of(const std::string &site, const std::string &text, const char *name)
{
    const size_t slash = text.find('/');
    const auto id = parse_id(std::string_view(text).substr(slash == std::string::npos ? 0 : slash + 1));
    std::string of = slash == std::string::npos ? site : text.substr(0, slash);
    if (!id || !is_site(of) || (!site.empty() && of != site))
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is \"{}\"; it must be a card id of a site", name, text),
                        "write an id like north/02:00:00:00:10:00");
    return {std::move(of), *id};
}

static void list_room_cards(const room_call &of)
{
    const http_request &request = of.call.request;
    room_cards::choice what;
    what.site = what.after.site = of.site;
    what.ndjson = wants(request, "application/x-ndjson");
    for (const auto &[key, value] : request.query) {
        if (key == "fields") {
            what.shown = member_set::parse(value);
        } else if (key == "after") {
            what.after = place_of(of.site, value, "after");
        } else if (key == "limit") {
            const auto limit = parse_u32(value);
            if (!limit || *limit == 0)
                throw api_error("FXM_API_EINVAL", fmt::format("\"limit\" is \"{}\"; it must be 1 or more", value));
            what.limit = *limit;
        } else if (key == "rows") {
            if (value != "true" || !what.ndjson)
                throw api_error("FXM_API_EINVAL", fmt::format("\"rows\" is \"{}\"", value),
                                "write rows=true, with Accept: application/x-ndjson");
            what.rows = true;
        } else if (key == "filter") {
            what.wanted = filter::parse(value);
        } else if (filter::is_key(key)) {
            what.wanted.add(key, value);
        } else {
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not known here", key),
                            "possible are: site, fields, rows, after, limit, filter, and the keys of a filter");
        }
    }
    const view &sites = of.asked.sites();
    const auto [boot, seq] = of.site.empty() ? std::pair(of.all.boot, sites.last()) : sites.position(of.site);
    http_reply reply;
    if (what.ndjson)
        reply.type = "application/x-ndjson";
    reply.headers.emplace_back("Fxm-Position", fmt::format("{}.{}", boot, seq));
    reply.source = std::make_unique<room_cards>(
        &sites, fmt::format(R"({{"schema":"fxm/1","boot":"{}","seq":{},"cards":[)", boot, seq), std::move(what));
    of.call.answer(std::move(reply));
}

static void show_room_card(const room_call &of)
{
    const view::place where = place_of(of.site, of.call.parts.at(0), "id");
    http_reply reply;
    // A down port may name the odd address of a 40G card.
    for (const uint64_t id : {where.id, where.id & ~uint64_t{1}}) {
        if (of.asked.sites().with_card({where.site, id},
                                       [&](const std::string &site, site_state state, const room_card &card) {
                                           reply.body = R"({"schema":"fxm/1",)";
                                           put_card(&reply.body, of.site, site, state, card);
                                           reply.body += card.details + "}\n";
                                       })) {
            of.call.answer(std::move(reply));
            return;
        }
    }
    throw api_error("FXM_API_ENOENT", fmt::format("the site {} has no card {}", where.site, format_id(where.id)));
}

// ------------------------------------------------------------------------------------------------------------- events

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
            put(out, seq_, "event", event.text);
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
        put(out, event.number, "event", json::serialize(made));
    }

    void put(std::string *out, uint64_t seq, const char *type, const std::string &text) const
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

static void stream_room_events(const room_call &of)
{
    const http_request &request = of.call.request;
    filter wanted;
    std::string after = request.last_event_id;
    for (const auto &[key, value] : request.query) {
        if (key == "filter")
            wanted = filter::parse(value);
        else if (key == "after" && after.empty())
            after = value;
        else if (key != "after")
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not known here", key),
                            "possible are: site, after, filter");
    }
    const view &sites = of.asked.sites();
    auto [boot, seq] = of.site.empty() ? std::pair(of.all.boot, sites.last()) : sites.position(of.site);
    bool resumed = true;
    if (!after.empty()) {
        const auto [of_boot, of_seq] = parse_position(after);
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
    auto source = std::make_unique<room_stream>(&of.all, &sites, of.site, std::move(wanted), sse, from.place);
    source->begin(boot, seq, resumed, from.gap_to);
    reply.source = std::move(source);
    of.call.answer(std::move(reply));
}

// -------------------------------------------------------------------------------------------------------------- sites

static json::object counts_of(const site_numbers &of)
{
    json::object made;
    uint64_t classes[2] = {};
    uint64_t healths[OWN_HEALTHS] = {};
    for (size_t kind = 0; kind < 2; ++kind) {
        for (size_t i = 0; i < OWN_HEALTHS; ++i) {
            classes[kind] += of.cards[kind][i];
            healths[i] += of.cards[kind][i];
        }
    }
    made["total"] = of.total();
    made["fxsv"] = classes[0];
    made["fxio"] = classes[1];
    const bool is_live = of.state == site_state::live;
    for (size_t i = 0; i < OWN_HEALTHS; ++i)
        made[health_words[i]] = is_live ? healths[i] : 0;
    made["silent"] = is_live ? 0 : of.total();
    return made;
}

static json::value or_nothing(const json::object &from, std::string_view name)
{
    const json::value *found = from.if_contains(name);
    return found != nullptr ? *found : json::value();
}

static json::object site_document(const site_numbers &of)
{
    const json::object &own = of.document;
    json::object made{{"site", of.site},       {"state", word(of.state)}, {"age_ms", of.age_ms},
                      {"offset_ms", nullptr},  {"boot", of.boot},         {"seq", of.seq},
                      {"waiting", of.waiting}, {"events", of.events},     {"doubled", of.doubled},
                      {"lost", of.lost},       {"cards", counts_of(of)},  {"told_cards", of.told_cards}};
    if (of.offset_ms)
        made["offset_ms"] = *of.offset_ms;
    for (const char *name : {"schema", "version", "allow", "ports", "library"})
        made[name] = or_nothing(own, name);
    return made;
}

static void show_sites(const room_call &of)
{
    json::array list;
    for (const site_numbers &one : of.asked.sites().sites()) {
        if (of.site.empty() || one.site == of.site)
            list.push_back(site_document(one));
    }
    json::object made = document();
    made["sites"] = std::move(list);
    of.call.answer(json_reply(made));
}

static json::object room_document(const room &asked)
{
    const room_status now = asked.status();
    json::object made{{"user", asked.options().name},
                      {"state", now.connected ? "connected" : "cut-off"},
                      {"server", now.server},
                      {"error", nullptr},
                      {"allow", word(asked.options().allow)},
                      {"cards_read", now.cards},
                      {"cards_wanted", now.reading},
                      {"filled", now.filled}};
    if (!now.error.empty())
        made["error"] = now.error;
    return made;
}

static json::array warnings_of(const room &asked)
{
    json::array made;
    const room_status now = asked.status();
    if (!now.connected)
        made.emplace_back(fmt::format("no server is reached: {}", now.error.empty() ? "not yet" : now.error));
    constexpr int64_t LATE_MS = 1000;
    for (const site_numbers &of : asked.sites().sites()) {
        if (of.state == site_state::silent)
            made.emplace_back(fmt::format("the site {} has been silent for {} s", of.site, of.age_ms / 1000));
        else if (of.state == site_state::refused)
            made.emplace_back(fmt::format("the site {} speaks {}, and this room \"{}\"", of.site,
                                          json::serialize(or_nothing(of.document, "schema")), SCHEMA));
        if (of.offset_ms && std::abs(*of.offset_ms) >= LATE_MS)
            made.emplace_back(fmt::format("the clock of the site {} is {} ms off", of.site, *of.offset_ms));
        if (of.lost != 0)
            made.emplace_back(fmt::format("{} events of the site {} are lost to this room", of.lost, of.site));
        if (of.differs)
            made.emplace_back(
                fmt::format("the site {} has {} cards, and the bucket {}", of.site, of.told_cards, of.total()));
    }
    return made;
}

static void show_room_status(const room_call &of)
{
    json::object sites{{"total", 0}};
    for (const char *name : site_state_words)
        sites[name] = 0;
    json::object cards = counts_of({});
    const auto add = [](json::object *to, std::string_view name, const json::value &by) {
        json::value &value = (*to)[name];
        value = (value.is_null() ? 0 : value.to_number<uint64_t>()) + by.to_number<uint64_t>();
    };
    for (const site_numbers &one : of.asked.sites().sites()) {
        add(&sites, "total", 1);
        add(&sites, word(one.state), 1);
        for (const auto &count : counts_of(one))
            add(&cards, count.key(), count.value());
    }
    json::object made = document();
    made["version"] = FXM_VERSION;
    made["pid"] = getpid();
    made["boot"] = of.all.boot;
    made["seq"] = of.asked.sites().last();
    made["time_ms"] = clock_ms();
    made["started_ms"] = of.all.started_ms;
    made["room"] = room_document(of.asked);
    made["sites"] = std::move(sites);
    made["cards"] = std::move(cards);
    made["clients"] = of.all.server->clients();
    made["resident_bytes"] = resident_bytes();
    made["role"] = word(of.call.who);
    made["warnings"] = warnings_of(of.asked);
    of.call.answer(json_reply(made));
}

// What a silent site has told of itself last.
static json::object last_status(const site_numbers &of)
{
    json::object made = document();
    for (const char *name : {"version", "boot", "ports", "time_ms"})
        made[name] = or_nothing(of.document, name);
    made["seq"] = of.seq;
    made["started_ms"] = nullptr;
    made["library"] =
        json::object{{"state", "unknown"}, {"restarts", 0}, {"last_result", nullptr}, {"next_start_ms", nullptr}};
    if (!made["ports"].is_array())
        made["ports"] = json::array();
    made["cards"] = counts_of(of);
    made["history"] = json::object{{"state", "unknown"}, {"events", 0}, {"error", nullptr}};
    made["jobs"] = json::object{{"queued", 0}, {"running", 0}};
    made["clients"] = 0;
    made["eeprom_writer"] = false;
    made["fleet"] = nullptr;
    made["warnings"] = json::array();
    return made;
}

// -------------------------------------------------------------------------------------------------------- other sites

// On a thread of the executor: it waits for the site.
static void forward(const room_call &of, role needs, const std::function<void(http_reply *)> &change = {})
{
    if (needs > of.asked.options().allow)
        throw api_error(
            "FXM_DENIED", fmt::format("this room asks its sites as {} at most", word(of.asked.options().allow)),
            fmt::format("set allow = \"{}\" below [fleet] in the file of a room whose user may that", word(needs)));
    const uint64_t queue = std::hash<std::string>()(of.site) | 1;
    later(of.all, of.call, queue, [&asked = of.asked, site = of.site, needs, request = of.call.request, change] {
        http_reply reply = asked.ask(site, needs, request);
        if (change && reply.status == 200)
            change(&reply);
        return reply;
    });
}

// The graph of the cards that the room knows, made from their documents.
static void add_to_graph(const room_card &card, site_state state, fabric_graph *graph)
{
    facts known = card.known;
    if (state != site_state::live)
        known.state = health::silent;
    const json::value parsed = json::parse("{\"id\":0" + card.row + card.details + "}");
    const json::object &members = parsed.as_object();
    if (known.kind == card_class::fxio) {
        const json::value &multi_root = member_of(members, "multi_root");
        graph->devices[known.id] = {known, multi_root.is_int64() ? static_cast<int>(multi_root.get_int64()) : -1};
        return;
    }
    fabric_graph::server &server = graph->servers[known.id];
    server.card = known;
    const json::value &ports = member_of(members, "down_ports");
    for (const json::value &entry : ports.is_array() ? ports.get_array() : json::array()) {
        const json::object &port = entry.as_object();
        const json::value &partner = member_of(port, "partner");
        const auto number = static_cast<unsigned>(member_of(port, "port").to_number<uint8_t>());
        const auto id = partner.is_string() ? parse_id(std::string_view(partner.get_string())) : std::nullopt;
        if (id)
            server.ports.emplace_back(number, *id);
        if (number < FXM_DOWN_PORTS && member_of(port, "connected") == true)
            server.connected |= 1u << number;
    }
}

static fabric_graphs read_graphs(const view &sites, const std::string &of)
{
    fabric_graphs made;
    std::optional<view::place> next{{of, 0}};
    while (next) {
        next = sites.visit(
            *next, of, ROOM_CARDS_AT_ONCE, [](const facts &) { return true; },
            [&](const std::string &site, site_state state, const room_card &card) {
                const std::string prefix = of.empty() ? site + "/" : "";
                if (made.empty() || made.back().first != prefix)
                    made.emplace_back(prefix, fabric_graph{});
                try {
                    add_to_graph(card, state, &made.back().second);
                } catch (const std::exception &) { // it is no card of this schema
                }
            });
    }
    return made;
}

static void show_room_topology(const room_call &of)
{
    later(of.all, of.call, 0, [&sites = of.asked.sites(), site = of.site] {
        http_reply reply;
        reply.body = topology_json(read_graphs(sites, site));
        return reply;
    });
}

static void show_room_topology_dot(const room_call &of)
{
    later(of.all, of.call, 0, [&sites = of.asked.sites(), site = of.site] {
        http_reply reply;
        reply.type = "text/vnd.graphviz";
        reply.body = topology_dot(read_graphs(sites, site));
        return reply;
    });
}

// The status of one site, with the role that its caller has there over this room.
static void show_site_status(const room_call &of)
{
    const auto known = of.asked.sites().site(of.site);
    const role most = std::min(of.asked.options().allow, of.call.who);
    const json::value allowed = or_nothing(known->document, "allow");
    const role given =
        std::min(most, allowed.is_string() ? role_of(std::string_view(allowed.get_string())) : role::view);
    const auto complete = [given, site = of.site, state = known->state, age = known->age_ms](json::object *made) {
        (*made)["site"] = site;
        (*made)["site_state"] = word(state);
        (*made)["role"] = word(given);
        if (state == site_state::silent)
            (*made)["warnings"].as_array().emplace_back(
                fmt::format("{} has been silent for {} s; this is its last state", site, age / 1000));
    };
    if (known->state == site_state::live) {
        forward(of, role::view, [complete](http_reply *reply) {
            json::value parsed = json::parse(reply->body);
            complete(&parsed.as_object());
            reply->body = json::serialize(parsed) + "\n";
        });
        return;
    }
    json::object made = last_status(*known);
    complete(&made);
    of.call.answer(json_reply(made));
}

static void show_room_metrics(const room_call &of)
{
    http_reply reply;
    reply.type = METRICS_TYPE;
    reply.body = room_metrics_text(of.asked);
    of.call.answer(std::move(reply));
}

// ------------------------------------------------------------------------------------------------------------- routes

// In a route table a handler takes services; those of a room take more, so they stand beside it.
struct room_route {
    route how;
    void (*handle)(const room_call &);
};

static const room_route room_routes[] = {
    {{"GET", "/v1/sites", role::view, nullptr}, show_sites},
    {{"GET", "/v1/cards", role::view, nullptr}, list_room_cards},
    {{"GET", "/v1/cards/*", role::view, nullptr}, show_room_card},
    {{"GET", "/v1/events", role::view, nullptr}, stream_room_events},
    {{"GET", "/v1/topology", role::view, nullptr}, show_room_topology},
    {{"GET", "/v1/topology.dot", role::view, nullptr}, show_room_topology_dot},
    {{"GET", "/metrics", role::view, nullptr}, show_room_metrics},
};

void handle_room_request(services &all, room &asked, const http_request &given, const http_server::responder &answer)
{
    http_request request = given;
    std::string site;
    for (auto argument = request.query.begin(); argument != request.query.end();) {
        if (argument->first == "site") {
            site = argument->second;
            argument = request.query.erase(argument);
        } else {
            ++argument;
        }
    }
    // /v1/cards/north/02:00:00:00:10:00/vlan
    constexpr std::string_view CARDS = "/v1/cards/";
    if (request.path.starts_with(CARDS)) {
        const std::string first =
            request.path.substr(CARDS.size(), request.path.find('/', CARDS.size()) - CARDS.size());
        if (CARDS.size() + first.size() < request.path.size() && is_site(first) && !parse_id(first)) {
            site = site.empty() ? first : site;
            request.path.erase(CARDS.size(), first.size() + 1);
        }
    }
    static const std::vector<route> own = [] {
        std::vector<route> made;
        for (const room_route &entry : room_routes)
            made.push_back(entry.how);
        return made;
    }();
    std::vector<std::span<const route>> tables = {own};
    for (const std::span<const route> table : own_tables())
        tables.push_back(table);
    // The request outlives the call: later() copies what it keeps.
    handle_request(all, tables, request, answer, [&](size_t table, const route &found, api_call &call) {
        const room_call of{all, asked, site, call};
        if (!site.empty() && !asked.sites().site(site))
            throw api_error("FXM_API_ENOENT", fmt::format("there is no site {}", site), "GET /v1/sites lists them");
        if (table == 0) {
            room_routes[&found - own.data()].handle(of);
            return;
        }
        const std::string_view path = found.pattern;
        if (path == "/v1/status") {
            (site.empty() ? show_room_status : show_site_status)(of);
        } else if (site.empty() && (path == "/v1/reload" || path == "/v1/log")) {
            found.handle(all, call); // of the room itself
        } else if (path == "/") {
            // The page learns from it that it is one of a room.
            call.answer = [name = asked.options().name, answer = call.answer](http_reply reply) {
                constexpr std::string_view HEAD = "<html ";
                const size_t place = reply.body.find(HEAD);
                if (place != std::string::npos)
                    reply.body.insert(place + HEAD.size(), fmt::format("data-room=\"{}\" ", name));
                answer(std::move(reply));
            };
            found.handle(all, call);
        } else if (path == "/favicon.ico" || path == "/v1/registers" || path == "/v1/schema") {
            found.handle(all, call);
        } else if (site.empty()) {
            throw api_error("FXM_API_EINVAL",
                            fmt::format("{} {} concerns one site", call.request.method, call.request.path),
                            "add ?site=NAME; GET /v1/sites lists them");
        } else {
            forward(of, found.needs);
        }
    });
}

} // namespace fxm::fleet
