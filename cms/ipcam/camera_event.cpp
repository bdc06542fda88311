#include "cms/ipcam/camera_event.h"

namespace cms {

const char* CameraEventKindName(CameraEventKind kind) {
  switch (kind) {
    case CameraEventKind::kMotion:
      return "motion";
    case CameraEventKind::kInput:
      return "input";
    case CameraEventKind::kLineCrossing:
      return "line";
    case CameraEventKind::kVideoLoss:
      return "video-loss";
    case CameraEventKind::kTampering:
      return "tampering";
    case CameraEventKind::kOther:
      break;
  }
  return "other";
}

}  // namespace cms
