// What a recording is told of its stream.
#pragma once

#include <cstdint>

#include "cms/live/connection_status.h"
#include "cms/recording/site/internal/site_gaps.h"

namespace cms {

ConnectionSight SightOf(ConnectionState state, ConnectionFault fault, std::uint64_t lastVideoTick);

}  // namespace cms
