// When a site client tries again.
#pragma once

#include <cstdint>

#include "cms/live/connection_status.h"
#include "cms/runtime/api.h"

namespace cms {

// How a site client keeps its stream. Times are milliseconds. The pauses double from their first to
// their longest value with every failure in a row, and each is cut by up to half at random, so that
// cameras that fail together do not come back together.
struct ReconnectPolicy {
  bool enabled = true;  // false: a lost stream stays lost until the client application opens it

  std::uint32_t deadStreamMs = 10'000;  // no video packet for so long: the stream is dead
  std::uint32_t noFramesMs = 5'000;  // packets, and no whole picture for so long: the status tells
  std::uint32_t framelessMs = 30'000;  // and for so long: the stream is opened anew
  std::uint32_t settledMs = 30'000;    // a stream that held so long starts the pauses anew

  std::uint32_t firstPauseMs = 1'000;
  std::uint32_t longestPauseMs = 60'000;

  // A camera that cannot be reached, or that ended the connection, is back in seconds more often
  // than not, and asking costs nobody anything: no pause is longer than the first of these for
  // kBriefFailures failures, some minutes, then than the second. 0: as longestPauseMs has it.
  static constexpr std::uint32_t kBriefFailures = 40;
  std::uint32_t longestBriefPauseMs = 5'000;
  std::uint32_t longestAwayPauseMs = 15'000;

  // A full camera frees a session when somebody leaves, a missing stream appears when somebody
  // configures it: neither is helped by asking every second.
  std::uint32_t firstFullPauseMs = 15'000;
  std::uint32_t longestFullPauseMs = 300'000;

  // Cameras lock an account after a handful of wrong passwords within minutes.
  std::uint32_t firstRefusedPauseMs = 600'000;
  std::uint32_t longestRefusedPauseMs = 3'600'000;
};

// The pause before the next attempt. `failures` counts the failures in a row, this one included;
// `random` is any uniformly drawn value.
CMS_API std::uint32_t ReconnectPause(const ReconnectPolicy& policy, ConnectionFault fault,
                                     std::uint32_t failures, std::uint32_t random);

}  // namespace cms
