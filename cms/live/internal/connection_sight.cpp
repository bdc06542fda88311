#include "cms/live/internal/connection_sight.h"

namespace cms {
namespace {

GapCause CauseOfFault(ConnectionFault fault) {
  switch (fault) {
    case ConnectionFault::kNone:
      return GapCause::kConnecting;
    case ConnectionFault::kPasswordRefused:
      return GapCause::kPasswordRefused;
    case ConnectionFault::kBadAnswer:
    case ConnectionFault::kCameraFull:
    case ConnectionFault::kNoSuchStream:
    case ConnectionFault::kTransportRefused:
    case ConnectionFault::kCertificateRefused:
    case ConnectionFault::kNoUsableVideo:
    case ConnectionFault::kRefused:
      return GapCause::kCameraRefuses;
    case ConnectionFault::kOutOfResources:
      return GapCause::kOutOfResources;
    case ConnectionFault::kCancelled:
      return GapCause::kStreamClosed;
    case ConnectionFault::kStreamDied:
    case ConnectionFault::kDatagramsLost:
    case ConnectionFault::kNoFrames:
      return GapCause::kNoPictures;
    case ConnectionFault::kBadAddress:
    case ConnectionFault::kUnreachable:
    case ConnectionFault::kNoAnswer:
    case ConnectionFault::kClosedByCamera:
      break;
  }
  return GapCause::kCameraGone;
}

GapCause CauseOf(ConnectionState state, ConnectionFault fault) {
  const bool isClosed = state == ConnectionState::kClosed && fault == ConnectionFault::kNone;
  return isClosed || state == ConnectionState::kOpen || state == ConnectionState::kPaused
             ? GapCause::kStreamClosed
             : CauseOfFault(fault);
}

}  // namespace

ConnectionSight SightOf(ConnectionState state, ConnectionFault fault, std::uint64_t lastVideoTick) {
  return {state == ConnectionState::kPlaying, CauseOf(state, fault), lastVideoTick};
}

}  // namespace cms
