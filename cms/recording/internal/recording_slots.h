// What the recorders of the process share: the slot of each recording path, which spreads their
// disk writes and their new files over time.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "cms/runtime/critical.h"

namespace cms {

// Any thread may call any member.
class RecordingSlots {
 public:
  static constexpr unsigned kSlots = 64;

  struct Slot {
    std::int64_t startTime = 0;  // of the path's current file, seconds since 1970-01-01 UTC
    unsigned number = 0;         // 0 to 63
    std::int64_t used = 0;       // last, likewise

    // Added to the size limit, so that paths with one limit do not all begin new files at once.
    std::uint64_t SizeStagger() const { return std::uint64_t{number} * 524'288; }
    // As many bytes may wait in memory.
    std::uint32_t FlushThreshold() const { return (449 + number) * 1024; }
  };

  // Those of the process.
  static RecordingSlots& Instance();

  // The path's slot. A path that is new gets the lowest free one and keeps it; when none is free it
  // shares the one with the fewest paths. A path without a start time starts at `now`. Paths that
  // were not used for two days are forgotten when a new one comes: each day may have paths of its
  // own.
  Slot Use(const std::wstring& path, std::int64_t now);

  // The time in the name of the path's next file. A path without a slot is left alone.
  void SetStartTime(const std::wstring& path, std::int64_t time);

 private:
  void ForgetOld(std::int64_t now) CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::map<std::wstring, Slot> paths_ CMS_GUARDED_BY(lock_);
  std::array<unsigned, kSlots> users_ CMS_GUARDED_BY(lock_) = {};
};

}  // namespace cms
