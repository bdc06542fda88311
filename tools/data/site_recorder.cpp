#include "tools/data/site_recorder.h"

namespace tools {
namespace {

constexpr unsigned kChannel = 0;
constexpr int kWriteOutMs = 30'000;  // for a slow disk

}  // namespace

void SiteRecorder::Start() {
  day_.Follow();
  if (!on_ && client_.StartRecord(kChannel, cms::kRecordInstant) == 0) {
    day_.Refuse();
  }
  on_ = true;
}

void SiteRecorder::End() {
  if (on_) {
    client_.StopRecord(kChannel, cms::kRecordInstant);
    on_ = false;
    unwritten_ = true;
  }
}

void SiteRecorder::Stop() {
  End();
  if (unwritten_) {
    client_.WaitRecorded(kWriteOutMs);
    unwritten_ = false;
  }
}

}  // namespace tools
