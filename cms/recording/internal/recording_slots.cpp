#include "cms/recording/internal/recording_slots.h"

#include <algorithm>

namespace cms {

RecordingSlots& RecordingSlots::Instance() {
  static auto* const slots = new RecordingSlots;  // recorders may outlive static objects
  return *slots;
}

RecordingSlots::Slot RecordingSlots::Use(const std::wstring& path, std::int64_t now) {
  ScopeLock hold(lock_);
  if (!paths_.contains(path)) {
    ForgetOld(now);
  }
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
  slot.used = now;
  return slot;
}

// A clock that was set back does not keep them either.
void RecordingSlots::ForgetOld(std::int64_t now) {
  constexpr std::int64_t kDays = 2 * 86'400;
  std::erase_if(paths_, [&](const auto& each) CMS_REQUIRES(lock_) {
    const bool old = now - each.second.used > kDays || each.second.used - now > kDays;
    users_[each.second.number] -= old ? 1 : 0;
    return old;
  });
}

void RecordingSlots::SetStartTime(const std::wstring& path, std::int64_t time) {
  ScopeLock hold(lock_);
  if (const auto entry = paths_.find(path); entry != paths_.end()) {
    entry->second.startTime = time;
  }
}

}  // namespace cms
