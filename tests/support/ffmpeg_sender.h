// FFmpeg's RTP muxer: a sender that knows nothing of ours.
#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "tests/support/rtp_packetizer.h"

namespace test {

// The frames as the muxer sends them, 25 a second and 1472 bytes at most a packet, from the
// sequence number 65500 on. `flags`: its option rtpflags.
RtpPackets MuxRtp(AVCodecID codec, const std::vector<std::vector<std::uint8_t>>& frames,
                  const char* flags = nullptr);

}  // namespace test
