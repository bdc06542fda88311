#include "tools/serve/site_recorder.h"

namespace tools {
namespace {

constexpr unsigned kChannel = 0;
constexpr int kWriteOutMs = 30'000;  // for a slow disk

}  // namespace

void SiteRecorder::Start() {
  day_.Follow();
  if (!on_ && client_.StartRecord(kChannel, kRecordInstant) == 0) {
    day_.Refuse();
  }
  on_ = true;
}

void SiteRecorder::Stop() {
  if (on_) {
    client_.StopRecord(kChannel, kRecordInstant);
    client_.WaitRecorded(kWriteOutMs);
    on_ = false;
  }
}

}  // namespace tools
