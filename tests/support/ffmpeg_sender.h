// FFmpeg's RTP muxer: a sender that knows nothing of ours.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "tests/support/rtp_packetizer.h"

namespace test {

// The frames as the muxer sends them, 25 a second and 1472 bytes at most a packet, from the
// sequence number 65500 on. `flags`: its option rtpflags. `extradata`: the codec's, of which the
// muxer makes the `description`, when that is asked for.
RtpPackets MuxRtp(AVCodecID codec, const std::vector<std::vector<std::uint8_t>>& frames,
                  const char* flags = nullptr, const std::vector<std::uint8_t>& extradata = {},
                  std::string* description = nullptr);

}  // namespace test
