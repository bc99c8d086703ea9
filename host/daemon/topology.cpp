#include "daemon/topology.h"

#include <fmt/format.h>

#include <iterator>
#include <set>
#include <utility>

#include "common/card_id.h"

namespace fxm
{

// A down port may name the odd address of a 40G card.
static const fabric_graph::device *device_at(const fabric_graph &graph, uint64_t partner)
{
    for (const uint64_t id : {partner, partner & ~uint64_t{1}}) {
        const auto found = graph.devices.find(id);
        if (found != graph.devices.end())
            return &found->second;
    }
    return nullptr;
}

static std::string partner_of(const std::string &prefix, const fabric_graph::device *device, uint64_t named)
{
    return prefix + format_id(device != nullptr ? device->card.id : named);
}

static void put_server(std::string *text, const std::string &prefix, const fabric_graph &graph,
                       const fabric_graph::server &server)
{
    const auto out = std::back_inserter(*text);
    fmt::format_to(out, R"({{"id":"{}{}","vlan":{},"health":"{}","generation":"{}","ports":[)", prefix,
                   format_id(server.card.id), server.card.vlan, word(server.card.state),
                   server.card.is_40g ? "40G" : "1/10G");
    const char *comma = "";
    for (const auto &[port, partner] : server.ports) {
        const fabric_graph::device *device = device_at(graph, partner);
        fmt::format_to(out, R"({}{{"port":{},"id":"{}","connected":{})", comma, port,
                       partner_of(prefix, device, partner), (server.connected & 1u << port) != 0);
        comma = ",";
        if (device == nullptr) {
            *text += R"(,"health":null,"vendor":null,"device":null,"multi_root":null})";
            continue;
        }
        fmt::format_to(out, R"(,"health":"{}","vendor":"{:04x}","device":"{:04x}","multi_root":{}}})",
                       word(device->card.state), device->card.vendor, device->card.device,
                       device->multi_root < 0 ? "null" : std::to_string(device->multi_root));
    }
    *text += "]}";
}

static std::set<const fabric_graph::device *> attached_in(const fabric_graph &graph)
{
    std::set<const fabric_graph::device *> found;
    for (const auto &[id, server] : graph.servers) {
        for (const auto &[port, partner] : server.ports)
            found.insert(device_at(graph, partner));
    }
    return found;
}

std::string topology_json(const fabric_graphs &graphs)
{
    std::string text = R"({"schema":"fxm/1","servers":[)";
    const char *comma = "";
    for (const auto &[prefix, graph] : graphs) {
        for (const auto &[id, server] : graph.servers) {
            text += std::exchange(comma, ",");
            put_server(&text, prefix, graph, server);
        }
    }
    text += R"(],"unattached":[)";
    comma = "";
    for (const auto &[prefix, graph] : graphs) {
        const auto attached = attached_in(graph);
        for (const auto &[id, device] : graph.devices) {
            if (!attached.contains(&device))
                text += fmt::format("{}\"{}{}\"", std::exchange(comma, ","), prefix, format_id(id));
        }
    }
    return text + "]}\n";
}

std::string topology_dot(const fabric_graphs &graphs)
{
    constexpr const char *colours[] = {"palegreen", "khaki", "salmon", "grey80", "white", "grey95"}; // by health
    std::string text = "graph fabric {\n  rankdir=LR;\n  node [style=filled];\n";
    const auto out = std::back_inserter(text);
    for (const auto &[prefix, graph] : graphs) {
        for (const auto &[id, server] : graph.servers)
            fmt::format_to(out, "  \"{0}{1}\" [shape=box, fillcolor={2}, label=\"{0}{1}\\nFXSV vlan {3}\"];\n", prefix,
                           format_id(id), colours[static_cast<size_t>(server.card.state)], server.card.vlan);
        for (const auto &[id, device] : graph.devices)
            fmt::format_to(out, "  \"{0}{1}\" [fillcolor={2}, label=\"{0}{1}\\nFXIO {3:04x}:{4:04x}\"];\n", prefix,
                           format_id(id), colours[static_cast<size_t>(device.card.state)], device.card.vendor,
                           device.card.device);
        for (const auto &[id, server] : graph.servers) {
            for (const auto &[port, partner] : server.ports)
                fmt::format_to(out, "  \"{}{}\" -- \"{}\" [label=\"{}\"{}];\n", prefix, format_id(id),
                               partner_of(prefix, device_at(graph, partner), partner), port,
                               (server.connected & 1u << port) != 0 ? "" : ", style=dashed");
        }
    }
    return text + "}\n";
}

} // namespace fxm
