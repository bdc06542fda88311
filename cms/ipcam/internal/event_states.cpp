#include "cms/ipcam/internal/event_states.h"

#include <cstddef>

namespace cms {
namespace {

constexpr std::uint64_t kDoubtMs = 30'000;
constexpr std::size_t kMostStates = 10'000;  // no camera has so many: names that never come back

std::string NameOf(const CameraEvent& event) {
  std::string name = event.topic;
  for (const auto* items : {&event.source, &event.key}) {
    name += '\n';
    for (const auto& [item, value] : *items) {
      name += item + '=' + value + '\t';
    }
  }
  return name;
}

}  // namespace

void EventStates::Ask(std::uint64_t nowTick) {
  for (auto& [name, state] : states_) {
    state.doubtful = state.last.state == CameraEventState::kOn;
  }
  asked_ = nowTick;
}

bool EventStates::Note(PulledEvent& pulled) {
  CameraEvent& event = pulled.event;
  event.initial = pulled.operation == PropertyOperation::kInitialized;
  if (pulled.operation == PropertyOperation::kDeleted) {
    event.state = CameraEventState::kOff;
  }
  const std::string name = NameOf(event);
  const auto known = states_.find(name);
  if (event.state == CameraEventState::kNone) {
    // Told again because it was asked for again.
    const bool same =
        event.initial && known != states_.end() && known->second.last.data == event.data;
    if (event.initial && (known != states_.end() || states_.size() < kMostStates)) {
      states_[name] = {event, false};
    }
    return !same;
  }
  if (known == states_.end()) {
    if (states_.size() < kMostStates) {
      states_[name] = {event, false};
    }
    return pulled.operation != PropertyOperation::kDeleted;
  }
  const bool same = known->second.last.state == event.state;
  known->second = {event, false};
  if (pulled.operation == PropertyOperation::kDeleted) {
    states_.erase(known);
  }
  return !same;
}

std::vector<CameraEvent> EventStates::TakeDoubtful(std::uint64_t nowTick, std::int64_t nowMs) {
  std::vector<CameraEvent> ended;
  if (asked_ == 0 || nowTick - asked_ < kDoubtMs) {
    return ended;
  }
  asked_ = 0;
  for (auto& [name, state] : states_) {
    if (state.doubtful) {
      state.doubtful = false;
      state.last.state = CameraEventState::kOff;
      state.last.initial = true;
      state.last.data.clear();
      state.last.cameraMs = 0;
      state.last.receivedMs = nowMs;
      ended.push_back(state.last);
    }
  }
  return ended;
}

}  // namespace cms
