// Interleaved frames of RTSP 1.0 (RFC 2326, 10.12): RTP and RTCP packets on the control connection.
#pragma once

#include <array>
#include <cstddef>

#include "cms/runtime/api.h"

namespace cms {

// The four bytes in front of each packet: "$", the channel id, the packet's length (big-endian).
inline constexpr std::size_t kInterleavedPrefix = 4;

// What a channel carries, and the index of its id in the array below.
enum RTSPInterleaveType : int {
  kInterleaveVideoRTP = 0,
  kInterleaveVideoRTCP = 1,
  kInterleaveAudioRTP = 2,
  kInterleaveAudioRTCP = 3,
};

// The channel ids that SETUP negotiated, by type; -1 for a channel that was not set up.
using RTSPChannelIds = std::array<int, 4>;

}  // namespace cms

// The type (0 to 3) of the channel with that id, -1 for an id that was not negotiated. When two
// types share an id, the first is taken.
CMS_API int GetInterleaveType(int id, const cms::RTSPChannelIds& ids);
