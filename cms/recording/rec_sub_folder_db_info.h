// FX_RecSubFolderDBInfo, the time span that a recording folder's files cover.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cms/runtime/api.h"

namespace FX {

// 16 bytes, the whole of a folder-span file. Times are seconds since 1970-01-01 UTC, 0 while not
// set. Not for concurrent use.
class CMS_API FX_RecSubFolderDBInfo {
 public:
  FX_RecSubFolderDBInfo() = default;

  // These only widen the span; 0 and negative times are ignored.
  void SetStartTime(std::int64_t time) {
    if (time > 0 && (startTime_ == 0 || time < startTime_)) {
      startTime_ = time;
    }
  }
  void SetEndTime(std::int64_t time) {
    if (time > 0 && (endTime_ == 0 || time > endTime_)) {
      endTime_ = time;
    }
  }
  // These overwrite.
  void ForceSetStartTime(std::int64_t time) { startTime_ = time; }
  void ForceSetEndTime(std::int64_t time) { endTime_ = time; }

  std::int64_t GetStartTime() const { return startTime_; }
  std::int64_t GetEndTime() const { return endTime_; }

 private:
  friend struct RecSubFolderDBInfoLayout;
  std::int64_t startTime_ = 0;
  std::int64_t endTime_ = 0;
};

struct RecSubFolderDBInfoLayout {
  static_assert(sizeof(FX_RecSubFolderDBInfo) == 16 &&
                offsetof(FX_RecSubFolderDBInfo, startTime_) == 0 &&
                offsetof(FX_RecSubFolderDBInfo, endTime_) == 8);
};

}  // namespace FX

using FX::FX_RecSubFolderDBInfo;
