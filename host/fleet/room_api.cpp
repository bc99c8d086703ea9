// The API of a room. What concerns one site, by ?site=NAME or an id such as north/02:00:00:00:10:00, is answered as that
// site would: cards and events from what the room knows, everything else by asking it. Without a site, lists and events
// are those of all.
#include <boost/json.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "common/card_id.h"
#include "daemon/metrics.h"
#include "daemon/status.h"
#include "fleet/names.h"
#include "fleet/room_call.h"
#include "fxm.h"

namespace fxm::fleet
{

namespace json = boost::json;

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
                      {"state", now.link.connected ? "connected" : "cut-off"},
                      {"server", now.link.server},
                      {"error", nullptr},
                      {"allow", word(asked.options().allow)},
                      {"cards_read", now.cards},
                      {"cards_wanted", now.reading},
                      {"filled", now.filled}};
    if (!now.link.error.empty())
        made["error"] = now.link.error;
    return made;
}

static json::array warnings_of(const room &asked)
{
    json::array made;
    const room_status now = asked.status();
    if (!now.link.connected)
        made.emplace_back(fmt::format("no server is reached: {}", now.link.error.empty() ? "not yet" : now.link.error));
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
    for (const char *name : {"version", "ports", "time_ms"})
        made[name] = or_nothing(of.document, name);
    made["boot"] = of.boot;
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
    http_request request = of.call.request;
    // For the log of the site.
    request.who.user =
        request.who.local ? fmt::format("uid={}", of.call.id.uid) : fmt::format("role={}", of.call.id.role);
    const uint64_t queue = std::hash<std::string>()(of.site) | 1;
    later(of.all, of.call, queue, [&asked = of.asked, site = of.site, needs, request = std::move(request), change] {
        http_reply reply = asked.ask(site, needs, request);
        if (change && reply.status == 200)
            change(&reply);
        return reply;
    });
}

// The status of one site, with the role that its caller has there over this room.
static void show_site_status(const room_call &of)
{
    const auto known = of.asked.sites().site(of.site);
    const role most = std::min(of.asked.options().allow, of.call.who);
    const json::value allowed = or_nothing(known->document, "allow");
    const role told = allowed.is_string() ? role_of(std::string_view(allowed.get_string())) : role::none;
    const role given = std::min(most, std::max(told, role::view));
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
    if (!of.site.empty()) {
        forward(of, role::view);
        return;
    }
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
