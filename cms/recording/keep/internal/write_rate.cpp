#include "cms/recording/keep/internal/write_rate.h"

#include <algorithm>

namespace cms {
namespace {

constexpr std::int64_t kDaySeconds = 86'400;

}  // namespace

void WriteRate::Add(const StoredRecording& recording) {
  const std::int64_t from = std::max(recording.start, now_ - kDaySeconds);
  const std::int64_t to = std::min(recording.end, now_);
  if (from > to) {
    return;
  }
  first_ = std::min(first_, from);
  const auto length =
      static_cast<double>(std::max<std::int64_t>(recording.end - recording.start, 1));
  const auto part = static_cast<double>(std::max<std::int64_t>(to - from, 1));
  bytes_ += static_cast<double>(recording.bytes) * std::min(part / length, 1.0);
}

double WriteRate::BytesPerSecond() const {
  return bytes_ / static_cast<double>(std::max<std::int64_t>(now_ - first_, 1));
}

}  // namespace cms
