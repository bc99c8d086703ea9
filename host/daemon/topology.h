// The fabric as a graph: FXSV cards, the partners that their down ports name, and FXIO cards that nobody names.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/facts.h"

namespace fxm
{

struct fabric_graph {
    struct server {
        facts card;
        std::vector<std::pair<unsigned, uint64_t>> ports; // that name a partner
        uint32_t connected = 0;                           // bit N: port N is
    };
    struct device {
        facts card;
        int multi_root = -1; // -1: not multi-root
    };
    std::map<uint64_t, server> servers;
    std::map<uint64_t, device> devices;
};

// With what stands in front of its ids: nothing, or "north/".
using fabric_graphs = std::vector<std::pair<std::string, fabric_graph>>;

// The same graphs as a document of the API, and for Graphviz.
std::string topology_json(const fabric_graphs &graphs);
std::string topology_dot(const fabric_graphs &graphs);

} // namespace fxm
