// A request to a room, and who answers it. Each group has a file.
#pragma once

#include <string>

#include "daemon/api.h"
#include "fleet/room.h"

namespace fxm::fleet
{

// The site that it concerns is taken out of the request.
struct room_call {
    services &all;
    room &asked;
    std::string site; // empty: all
    api_call &call;
};

void list_room_cards(const room_call &of);
void show_room_card(const room_call &of);
void show_room_topology(const room_call &of);
void show_room_topology_dot(const room_call &of);
void stream_room_events(const room_call &of);

} // namespace fxm::fleet
