// The streams of a fleet, which whoever comes first makes, if the servers let it.
#pragma once

#include <cstddef>

#include "daemon/log.h"
#include "fleet/nats.h"

namespace fxm::fleet
{

// With three copies where there are three servers. Throws nats_error.
void make_streams(nats_connection *connection, size_t servers, int timeout_ms, logger *log);

} // namespace fxm::fleet
