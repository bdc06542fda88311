// The UDP ports that one stream of an RTSP session is received on.
#pragma once

#include "cms/streaming/internal/stream_failure.h"
#include "cms/streaming/media_session.h"

namespace cms {

// Binds two sockets to an even port for RTP and the next one for RTCP (RFC 3550, section 11), on
// any local address of that version, and puts both into the configuration, whose owner closes them.
StreamFailure BindPortPair(_RTSPSUBSESSION_CONFIG& config, bool ipv6);

}  // namespace cms
