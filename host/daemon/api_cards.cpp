// Lists of cards, one card, and the fabric as a graph.
#include <fmt/compile.h>
#include <fmt/format.h>

#include "common/card_id.h"
#include "common/filter.h"
#include "daemon/api.h"
#include "daemon/topology.h"

namespace fxm
{

namespace json = boost::json;

// Cards that one step of a list looks at while it holds the model's lock.
constexpr size_t CARDS_AT_ONCE = 64;
constexpr size_t LIST_PIECE = 28000; // made at once

// A list, made while it is sent.
class card_list : public http_source
{
  public:
    card_list(services *all, list_request what, uint64_t after)
        : all_(all), what_(std::move(what)), shown_(what_.shown.value_or(member_set::all())), next_(after),
          left_(what_.limit)
    {
    }

    state read(std::string *out) override
    {
        if (ended_)
            return state::end;
        if (!begun_ && what_.rows) {
            *out += R"({"schema":"fxm/1","fields":)";
            write_names(out, shown_);
            *out += "}\n";
        } else if (!begun_ && !what_.ndjson) {
            *out += fmt::format(R"({{"schema":"fxm/1","boot":"{}","seq":{},"cards":[)", all_->boot,
                                all_->events->last_seq());
        }
        begun_ = true;
        while (!ended_ && out->size() < LIST_PIECE)
            step(out);
        return ended_ && out->empty() ? state::end : state::more;
    }

  private:
    void put(std::string *out, const card &known) const
    {
        if (what_.rows) {
            write_row(out, known, shown_);
            *out += '\n';
            return;
        }
        if (what_.ndjson)
            *out += R"({"schema":"fxm/1",)";
        else
            *out += any_ ? ",{" : "{";
        write_card(out, known, shown_);
        *out += what_.ndjson ? "}\n" : "}";
    }

    void step(std::string *out)
    {
        const uint64_t last = all_->cards->visit(
            next_, std::min<uint64_t>(CARDS_AT_ONCE, left_), true,
            [&](const card &known) { return what_.wanted.empty() || what_.wanted.matches(facts_of(known)); },
            [&](const card &known) {
                put(out, known);
                any_ = true;
                --left_;
            });
        next_ = last;
        if (last != 0 && left_ != 0)
            return;
        ended_ = true;
        if (!what_.ndjson)
            *out += last != 0 ? fmt::format("],\"next\":\"{}\"}}\n", format_id(last)) : "],\"next\":null}\n";
    }

    services *all_;
    const list_request what_;
    const member_set shown_;
    uint64_t next_;
    uint64_t left_;
    bool begun_ = false;
    bool any_ = false;
    bool ended_ = false;
};

list_request list_request_of(const http_request &request)
{
    list_request what;
    what.ndjson = wants(request, "application/x-ndjson");
    for (const auto &[key, value] : request.query) {
        if (key == "fields") {
            what.shown = member_set::parse(value);
        } else if (key == "after") {
            what.after = value;
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
                            "possible are: fields, rows, after, limit, filter, and the keys of a filter");
        }
    }
    return what;
}

static void list_cards(services &all, api_call &call)
{
    list_request what = list_request_of(call.request);
    uint64_t after = 0;
    if (!what.after.empty()) {
        const auto id = parse_id(what.after);
        if (!id)
            throw api_error("FXM_API_EINVAL", fmt::format("\"after\" is \"{}\"; it must be a card id", what.after));
        after = *id;
    }
    http_reply reply;
    if (what.ndjson)
        reply.type = "application/x-ndjson";
    reply.headers.emplace_back("Fxm-Position", fmt::format("{}.{}", all.boot, all.events->last_seq()));
    reply.source = std::make_unique<card_list>(&all, std::move(what), after);
    call.answer(std::move(reply));
}

static void show_card(services &all, api_call &call)
{
    http_reply reply;
    all.cards->with_card(card_of(all, call), [&](const card &known) {
        reply.body = R"({"schema":"fxm/1",)";
        write_card(&reply.body, known, member_set::all());
        write_details(&reply.body, known);
        reply.body += "}\n";
    });
    call.answer(std::move(reply));
}

// ----------------------------------------------------------------------------------------------------------- topology

static void add_to_graph(const card &known, fabric_graph *graph)
{
    if (const fxm_fxsv_t *record = fxsv(known.data)) {
        fabric_graph::server &server = graph->servers[known.id];
        server.card = facts_of(known);
        for (unsigned i = 0; i < FXM_DOWN_PORTS; ++i) {
            const fxm_down_port_t &port = record->fsv_down_port[i];
            uint64_t partner = 0;
            for (const uint8_t byte : port.fdp_io_mac)
                partner = partner << 8 | byte;
            if (partner != 0)
                server.ports.emplace_back(i, partner);
            if ((port.fdp_port_status[1] & FXM_CONNECTED_BIT) != 0)
                server.connected |= 1u << i;
        }
    } else {
        const fxm_fxio_t &device = *fxio(known.data);
        graph->devices[known.id] = {facts_of(known),
                                    device.fio_card.fcd_ver == FXM_VER_MULTIROOT ? device.fio_mr_resource_num : -1};
    }
}

static fabric_graph read_graph(services &all)
{
    fabric_graph graph;
    uint64_t next = 0;
    do {
        next = all.cards->visit(
            next, CARDS_AT_ONCE, false, [](const card &) { return true; },
            [&](const card &known) { add_to_graph(known, &graph); });
    } while (next != 0);
    return graph;
}

// A graph of 65,536 cards takes some hundred milliseconds, too long for the HTTP thread.
static void show_topology(services &all, api_call &call)
{
    later(all, call, 0, [&all] {
        http_reply reply;
        reply.body = topology_json({{"", read_graph(all)}});
        return reply;
    });
}

static void show_topology_dot(services &all, api_call &call)
{
    later(all, call, 0, [&all] {
        http_reply reply;
        reply.type = "text/vnd.graphviz";
        reply.body = topology_dot({{"", read_graph(all)}});
        return reply;
    });
}

std::span<const route> card_routes()
{
    static constexpr route routes[] = {
        {"GET", "/v1/cards", role::view, list_cards},
        {"GET", "/v1/cards/*", role::view, show_card},
        {"GET", "/v1/topology", role::view, show_topology},
        {"GET", "/v1/topology.dot", role::view, show_topology_dot},
    };
    return routes;
}

} // namespace fxm
