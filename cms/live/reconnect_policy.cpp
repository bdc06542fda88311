#include "cms/live/reconnect_policy.h"

#include <algorithm>

namespace cms {
const char* ConnectionStateName(ConnectionState state) {
  switch (state) {
    case ConnectionState::kClosed:
      return "closed";
    case ConnectionState::kOpening:
      return "opening";
    case ConnectionState::kPlaying:
      return "playing";
    case ConnectionState::kWaiting:
      return "waiting";
    case ConnectionState::kOpen:
      return "open";
    case ConnectionState::kPaused:
      return "paused";
  }
  return "unknown";
}

const char* ConnectionFaultName(ConnectionFault fault) {
  switch (fault) {
    case ConnectionFault::kNone:
      return "none";
    case ConnectionFault::kBadAddress:
      return "bad address";
    case ConnectionFault::kUnreachable:
      return "unreachable";
    case ConnectionFault::kNoAnswer:
      return "no answer";
    case ConnectionFault::kBadAnswer:
      return "bad answer";
    case ConnectionFault::kPasswordRefused:
      return "password refused";
    case ConnectionFault::kCameraFull:
      return "camera full";
    case ConnectionFault::kNoSuchStream:
      return "no such stream";
    case ConnectionFault::kTransportRefused:
      return "transport refused";
    case ConnectionFault::kNoUsableVideo:
      return "no usable video";
    case ConnectionFault::kRefused:
      return "refused";
    case ConnectionFault::kClosedByCamera:
      return "closed by camera";
    case ConnectionFault::kStreamDied:
      return "stream died";
    case ConnectionFault::kOutOfResources:
      return "out of resources";
    case ConnectionFault::kDatagramsLost:
      return "datagrams lost";
    case ConnectionFault::kCertificateRefused:
      return "certificate refused";
    case ConnectionFault::kNoFrames:
      return "no whole picture";
    case ConnectionFault::kCancelled:
      return "cancelled";
  }
  return "unknown";
}

std::uint32_t ReconnectPause(const ReconnectPolicy& policy, ConnectionFault fault,
                             std::uint32_t failures, std::uint32_t random) {
  // The next attempt goes another way: there is nothing to wait for.
  if (fault == ConnectionFault::kDatagramsLost && failures <= 1) {
    return 0;
  }
  std::uint64_t first = policy.firstPauseMs;
  std::uint64_t longest = policy.longestPauseMs;
  if (fault == ConnectionFault::kPasswordRefused) {
    first = policy.firstRefusedPauseMs;
    longest = policy.longestRefusedPauseMs;
  } else if (fault == ConnectionFault::kCameraFull || fault == ConnectionFault::kNoSuchStream ||
             fault == ConnectionFault::kTransportRefused ||
             fault == ConnectionFault::kCertificateRefused ||
             fault == ConnectionFault::kNoUsableVideo) {
    first = policy.firstFullPauseMs;
    longest = policy.longestFullPauseMs;
  } else if (fault == ConnectionFault::kUnreachable || fault == ConnectionFault::kClosedByCamera) {
    const std::uint32_t limit = failures <= ReconnectPolicy::kBriefFailures
                                    ? policy.longestBriefPauseMs
                                    : policy.longestAwayPauseMs;
    longest = limit == 0 ? longest : std::min<std::uint64_t>(longest, limit);
  }
  const std::uint32_t doublings = std::min<std::uint32_t>(failures > 0 ? failures - 1 : 0, 31);
  const std::uint64_t pause = std::min(first << doublings, longest);
  const std::uint64_t half = pause / 2;
  return static_cast<std::uint32_t>(pause - (half > 0 ? random % (half + 1) : 0));
}

}  // namespace cms
