// What is recorded in a time, by the recordings of the last day.
#pragma once

#include <cstdint>

#include "cms/recording/keep/internal/recording_inventory.h"

namespace cms {

// The bytes of the last 24 hours, over those seconds of them since the first recording began. Not
// for two threads at once.
class WriteRate {
 public:
  explicit WriteRate(std::int64_t now) : now_(now), first_(now) {}
  void Add(const StoredRecording& recording);
  double BytesPerSecond() const;

 private:
  const std::int64_t now_;
  std::int64_t first_;
  double bytes_ = 0;
};

}  // namespace cms
