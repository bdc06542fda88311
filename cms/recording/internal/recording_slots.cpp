#include "cms/recording/internal/recording_slots.h"

#include <algorithm>

namespace cms {

RecordingSlots& RecordingSlots::Instance() {
  static auto* const slots = new RecordingSlots;  // recorders may outlive static objects
  return *slots;
}

RecordingSlots::Slot RecordingSlots::Use(const std::wstring& path, std::int64_t now) {
  ScopeLock hold(lock_);
  const auto [entry, fresh] = paths_.try_emplace(path);
  Slot& slot = entry->second;
  if (fresh) {
    const auto least = std::min_element(users_.begin(), users_.end());
    ++*least;
    slot.number = static_cast<unsigned>(least - users_.begin());
  }
  if (slot.startTime == 0) {
    slot.startTime = now;
  }
  return slot;
}

void RecordingSlots::SetStartTime(const std::wstring& path, std::int64_t time) {
  ScopeLock hold(lock_);
  if (const auto entry = paths_.find(path); entry != paths_.end()) {
    entry->second.startTime = time;
  }
}

}  // namespace cms
