// Streams that a camera sends once for all who watch: what names their group, and joining it.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "cms/runtime/ip_address.h"
#include "cms/streaming/internal/stream_failure.h"
#include "cms/streaming/media_session.h"

namespace cms {

struct MulticastGroup {
  IpAddress address;  // none: there is no group
  std::uint16_t rtpPort = 0;
  std::uint16_t rtcpPort = 0;
  int hops = 0;  // how far what is sent to it goes; 0: as the system has it
};

// The group of the description's first connection line ("c=", RFC 4566, 5.7) that names one; none
// when the camera sends to each client alone.
IpAddress MulticastOf(std::string_view description);

// Joins the group for RTP and RTCP on the interface of `local`, this end's address of the
// connection to the camera, for what these senders send. Puts both sockets and the ports into the
// configuration, whose owner closes them.
StreamFailure JoinMulticast(const MulticastGroup& group, const IpAddress& local,
                            std::span<const IpAddress> senders, _RTSPSUBSESSION_CONFIG& config);

}  // namespace cms
