// Lists of cards, one card, and the graph, made from what the room knows. A card of a silent site is never called well.
#include <boost/json.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "common/card_id.h"
#include "common/filter.h"
#include "daemon/card.h"
#include "daemon/topology.h"
#include "fleet/names.h"
#include "fleet/room_call.h"
#include "fxm.h"

namespace fxm::fleet
{

namespace json = boost::json;

constexpr size_t ROOM_CARDS_AT_ONCE = 64; // that one step of a list looks at under the lock
constexpr size_t ROOM_LIST_PIECE = 28000; // made at once
constexpr size_t ROOM_STEPS = 256;        // at once

static std::string id_in(const std::string &of, const std::string &site, uint64_t id)
{
    return of.empty() ? fmt::format("{}/{}", site, format_id(id)) : format_id(id);
}

// `"id":...,"site":...,"health":...` and the members `row` of a list. A card of a silent site is never called well.
static void put_card(std::string *out, const std::string &of, const std::string &site, site_state state,
                     const room_card &card, std::string_view row)
{
    *out += fmt::format(R"("id":"{}","site":"{}",)", id_in(of, site, card.known.id), site);
    if (state == site_state::live)
        *out += fmt::format(R"("health":"{}")", word(card.known.state));
    else
        *out += fmt::format(R"("health":"silent","last_health":"{}")", word(card.known.state));
    *out += row;
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
    room_cards(const view *sites, std::string head, std::string site, list_request what, view::place after)
        : sites_(sites), head_(std::move(head)), site_(std::move(site)), what_(std::move(what)),
          next_(std::move(after)), left_(what_.limit)
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
        for (size_t steps = 0; !ended_ && out->size() < ROOM_LIST_PIECE && steps < ROOM_STEPS; ++steps)
            step(out);
        // Nothing among so many cards: an empty line, so that other requests come between.
        if (!ended_ && out->empty())
            *out += '\n';
        return ended_ && out->empty() ? state::end : state::more;
    }

  private:
    void put(std::string *out, const std::string &site, site_state state, const room_card &card) const
    {
        std::string text = "{";
        put_card(&text, site_, site, state, card, card.members().row());
        text += '}';
        if (what_.shown || what_.rows) {
            const json::value parsed = json::parse(text);
            const json::object &members = parsed.as_object();
            text = (what_.rows ? "[" : "{\"id\":") + json::serialize(members.at("id"));
            if (site_.empty() && !what_.rows)
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
            next_, site_, std::min<uint64_t>(ROOM_CARDS_AT_ONCE, left_),
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
            *out +=
                last ? fmt::format("],\"next\":\"{}\"}}\n", id_in(site_, last->site, last->id)) : "],\"next\":null}\n";
    }

    const view *sites_;
    const std::string head_;
    const std::string site_;
    const list_request what_;
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

void list_room_cards(const room_call &of)
{
    list_request what = list_request_of(of.call.request);
    view::place after{of.site, 0};
    if (!what.after.empty())
        after = place_of(of.site, what.after, "after");
    const view &sites = of.asked.sites();
    const auto [boot, seq] = of.site.empty() ? std::pair(of.all.boot, sites.last()) : sites.position(of.site);
    http_reply reply;
    if (what.ndjson)
        reply.type = "application/x-ndjson";
    reply.headers.emplace_back("Fxm-Position", fmt::format("{}.{}", boot, seq));
    reply.source = std::make_unique<room_cards>(
        &sites, fmt::format(R"({{"schema":"fxm/1","boot":"{}","seq":{},"cards":[)", boot, seq), of.site,
        std::move(what), std::move(after));
    of.call.answer(std::move(reply));
}

void show_room_card(const room_call &of)
{
    const view::place where = place_of(of.site, of.call.parts.at(0), "id");
    http_reply reply;
    // A down port may name the odd address of a 40G card.
    for (const uint64_t id : {where.id, where.id & ~uint64_t{1}}) {
        if (of.asked.sites().with_card({where.site, id},
                                       [&](const std::string &site, site_state state, const room_card &card) {
                                           reply.body = R"({"schema":"fxm/1",)";
                                           put_card(&reply.body, of.site, site, state, card, card.members().text);
                                           reply.body += "}\n";
                                       })) {
            of.call.answer(std::move(reply));
            return;
        }
    }
    throw api_error("FXM_API_ENOENT", fmt::format("the site {} has no card {}", where.site, format_id(where.id)));
}

// ----------------------------------------------------------------------------------------------------------- topology

// The graph of the cards that the room knows, made from their documents.
static void add_to_graph(const room_card &card, site_state state, fabric_graph *graph)
{
    facts known = card.all_facts();
    if (state != site_state::live)
        known.state = health::silent;
    const json::value parsed = json::parse("{\"id\":0" + card.members().text + "}");
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

void show_room_topology(const room_call &of)
{
    later(of.all, of.call, 0, [&sites = of.asked.sites(), site = of.site] {
        http_reply reply;
        reply.body = topology_json(read_graphs(sites, site));
        return reply;
    });
}

void show_room_topology_dot(const room_call &of)
{
    later(of.all, of.call, 0, [&sites = of.asked.sites(), site = of.site] {
        http_reply reply;
        reply.type = "text/vnd.graphviz";
        reply.body = topology_dot(read_graphs(sites, site));
        return reply;
    });
}

} // namespace fxm::fleet
