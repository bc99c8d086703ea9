// Lists of cards, one card, and the fabric as a graph.
#include <fmt/compile.h>
#include <fmt/format.h>

#include <map>

#include "common/card_id.h"
#include "common/filter.h"
#include "daemon/api.h"

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
    struct choice {
        filter wanted;
        member_set shown = member_set::all();
        uint64_t after = 0;
        uint64_t limit = UINT64_MAX;
        bool ndjson = false;
        bool rows = false; // lines of values; the first one names them
    };

    card_list(services *all, choice what) : all_(all), what_(std::move(what)), next_(what_.after), left_(what_.limit) {}

    state read(std::string *out) override
    {
        if (ended_)
            return state::end;
        if (!begun_ && what_.rows) {
            *out += R"({"schema":"fxm/1","fields":)";
            write_names(out, what_.shown);
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
            write_row(out, known, what_.shown);
            *out += '\n';
            return;
        }
        if (what_.ndjson)
            *out += R"({"schema":"fxm/1",)";
        else
            *out += any_ ? ",{" : "{";
        write_card(out, known, what_.shown);
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
    choice what_;
    uint64_t next_;
    uint64_t left_;
    bool begun_ = false;
    bool any_ = false;
    bool ended_ = false;
};

static void list_cards(services &all, api_call &call)
{
    card_list::choice what;
    what.ndjson = wants(call.request, "application/x-ndjson");
    for (const auto &[key, value] : call.request.query) {
        if (key == "fields") {
            what.shown = member_set::parse(value);
        } else if (key == "after") {
            const auto id = parse_id(value);
            if (!id)
                throw api_error("FXM_API_EINVAL", fmt::format("\"after\" is \"{}\"; it must be a card id", value));
            what.after = *id;
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
    http_reply reply;
    if (what.ndjson)
        reply.type = "application/x-ndjson";
    reply.headers.emplace_back("Fxm-Position", fmt::format("{}.{}", all.boot, all.events->last_seq()));
    reply.source = std::make_unique<card_list>(&all, std::move(what));
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

// The graph, copied from the model in steps.
struct fabric_graph {
    struct server {
        facts card;
        std::vector<std::pair<unsigned, uint64_t>> ports; // that name a partner
        uint32_t connected = 0;                           // bit N: port N is
    };
    struct device {
        facts card;
        int multi_root; // -1: not multi-root
        bool attached = false;
    };
    std::map<uint64_t, server> servers;
    std::map<uint64_t, device> devices;
};

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
        graph->devices[known.id] = {
            facts_of(known), device.fio_card.fcd_ver == FXM_VER_MULTIROOT ? device.fio_mr_resource_num : -1, false};
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
    for (const auto &[id, server] : graph.servers) {
        for (const auto &[port, partner] : server.ports) {
            auto found = graph.devices.find(partner);
            // A down port may name the odd address of a 40G card.
            if (found == graph.devices.end())
                found = graph.devices.find(partner & ~uint64_t{1});
            if (found != graph.devices.end())
                found->second.attached = true;
        }
    }
    return graph;
}

static const fabric_graph::device *device_at(const fabric_graph &graph, uint64_t partner)
{
    for (const uint64_t id : {partner, partner & ~uint64_t{1}}) {
        const auto found = graph.devices.find(id);
        if (found != graph.devices.end())
            return &found->second;
    }
    return nullptr;
}

static std::string topology_json(const fabric_graph &graph)
{
    std::string text = R"({"schema":"fxm/1","servers":[)";
    const auto out = std::back_inserter(text);
    const char *server_comma = "";
    for (const auto &[id, server] : graph.servers) {
        fmt::format_to(out, R"({}{{"id":"{}","vlan":{},"health":"{}","generation":"{}","ports":[)", server_comma,
                       format_id(id), server.card.vlan, word(server.card.state), server.card.is_40g ? "40G" : "1/10G");
        server_comma = ",";
        const char *port_comma = "";
        for (const auto &[port, partner] : server.ports) {
            const fabric_graph::device *device = device_at(graph, partner);
            fmt::format_to(out, R"({}{{"port":{},"id":"{}","connected":{})", port_comma, port,
                           format_id(device != nullptr ? device->card.id : partner),
                           (server.connected & 1u << port) != 0);
            port_comma = ",";
            if (device == nullptr) {
                text += R"(,"health":null,"vendor":null,"device":null,"multi_root":null})";
                continue;
            }
            fmt::format_to(out, R"(,"health":"{}","vendor":"{:04x}","device":"{:04x}","multi_root":{}}})",
                           word(device->card.state), device->card.vendor, device->card.device,
                           device->multi_root < 0 ? "null" : std::to_string(device->multi_root));
        }
        text += "]}";
    }
    text += R"(],"unattached":[)";
    const char *comma = "";
    for (const auto &[id, device] : graph.devices) {
        if (device.attached)
            continue;
        fmt::format_to(out, "{}\"{}\"", comma, format_id(id));
        comma = ",";
    }
    text += "]}\n";
    return text;
}

static std::string topology_dot(const fabric_graph &graph)
{
    constexpr const char *colours[] = {"palegreen", "khaki", "salmon", "grey80", "white"}; // by health
    std::string text = "graph fabric {\n  rankdir=LR;\n  node [style=filled];\n";
    const auto out = std::back_inserter(text);
    for (const auto &[id, server] : graph.servers)
        fmt::format_to(out, "  \"{0}\" [shape=box, fillcolor={1}, label=\"{0}\\nFXSV vlan {2}\"];\n", format_id(id),
                       colours[static_cast<size_t>(server.card.state)], server.card.vlan);
    for (const auto &[id, device] : graph.devices)
        fmt::format_to(out, "  \"{0}\" [fillcolor={1}, label=\"{0}\\nFXIO {2:04x}:{3:04x}\"];\n", format_id(id),
                       colours[static_cast<size_t>(device.card.state)], device.card.vendor, device.card.device);
    for (const auto &[id, server] : graph.servers) {
        for (const auto &[port, partner] : server.ports) {
            const fabric_graph::device *device = device_at(graph, partner);
            fmt::format_to(out, "  \"{}\" -- \"{}\" [label=\"{}\"{}];\n", format_id(id),
                           format_id(device != nullptr ? device->card.id : partner), port,
                           (server.connected & 1u << port) != 0 ? "" : ", style=dashed");
        }
    }
    text += "}\n";
    return text;
}

// A graph of 65,536 cards takes some hundred milliseconds, too long for the HTTP thread.
static void show_topology(services &all, api_call &call)
{
    later(all, call, 0, [&all] {
        http_reply reply;
        reply.body = topology_json(read_graph(all));
        return reply;
    });
}

static void show_topology_dot(services &all, api_call &call)
{
    later(all, call, 0, [&all] {
        http_reply reply;
        reply.type = "text/vnd.graphviz";
        reply.body = topology_dot(read_graph(all));
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
