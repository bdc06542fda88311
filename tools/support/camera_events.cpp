#include "tools/support/camera_events.h"

#include <algorithm>
#include <utility>

#include "cms/recording/recording_kind.h"
#include "cms/runtime/clock.h"

namespace tools {
namespace {

constexpr std::uint64_t kShortestMs = 1'000;
constexpr std::uint64_t kMomentMs = 2'000;
constexpr std::uint64_t kLostMs = 60'000;

struct RecordedKind {
  cms::CameraEventKind kind;
  cms::RecordKind recorded;
};
constexpr RecordedKind kRecordedKinds[] = {
    {cms::CameraEventKind::kMotion, cms::RecordKind::kDeviceEvent},
    {cms::CameraEventKind::kInput, cms::RecordKind::kAlarm},
    {cms::CameraEventKind::kLineCrossing, cms::RecordKind::kDeviceEvent},
    {cms::CameraEventKind::kVideoLoss, cms::RecordKind::kVideoLoss},
    {cms::CameraEventKind::kTampering, cms::RecordKind::kDeviceEvent},
};

cms::RecordKind RecordedAs(cms::CameraEventKind kind) {
  return std::ranges::find(kRecordedKinds, kind, &RecordedKind::kind)->recorded;
}

std::string PartOf(const cms::CameraEvent& event) {
  std::string part = event.topic;
  for (const auto* items : {&event.source, &event.key}) {
    for (const cms::CameraEventItem& item : *items) {
      part += '\n' + item.name + '=' + item.value;
    }
  }
  return part;
}

}  // namespace

const std::vector<std::string>& CameraEventWords() {
  static const std::vector<std::string> words = [] {
    std::vector<std::string> list;
    for (const RecordedKind& each : kRecordedKinds) {
      list.emplace_back(cms::CameraEventKindName(each.kind));
    }
    return list;
  }();
  return words;
}

CameraEvents::CameraEvents(cms::OnvifEvents& events, const cms::OnvifAccess& access,
                           const std::vector<std::string>& words)
    : events_(events), lost_(cms::TickMilliseconds()) {
  for (const RecordedKind& each : kRecordedKinds) {
    if (std::ranges::count(words, cms::CameraEventKindName(each.kind)) > 0) {
      kinds_.insert(each.kind);
      states_ |= cms::BitOf(each.recorded);
    }
  }
  number_ = events_.Subscribe(
      access, [this](const cms::CameraEvent& event) { Take(event); },
      [this](const cms::OnvifEventStatus& status) {
        const std::lock_guard lock(mutex_);
        lost_ = status.subscribed ? 0 : lost_ == 0 ? cms::TickMilliseconds() : lost_;
        status_ = status;
      });
}

CameraEvents::~CameraEvents() {
  events_.Unsubscribe(number_);
}

void CameraEvents::Take(const cms::CameraEvent& event) {
  if (!kinds_.contains(event.kind)) {
    return;
  }
  const std::uint64_t now = cms::TickMilliseconds();
  const std::lock_guard lock(mutex_);
  Running& running = running_[cms::IndexOf(RecordedAs(event.kind))];
  switch (event.state) {
    case cms::CameraEventState::kOn:
      running.on.insert(PartOf(event));
      running.shownTo = std::max(running.shownTo, now + kShortestMs);
      break;
    case cms::CameraEventState::kOff:
      running.on.erase(PartOf(event));
      break;
    case cms::CameraEventState::kNone:
      running.shownTo = std::max(running.shownTo, now + kMomentMs);
      break;
  }
}

unsigned CameraEvents::State() const {
  const std::uint64_t now = cms::TickMilliseconds();
  const std::lock_guard lock(mutex_);
  const bool lost = lost_ != 0 && now - lost_ >= kLostMs;
  unsigned state = 0;
  for (const cms::RecordKind kind : cms::kEventKinds) {
    const Running& running = running_[cms::IndexOf(kind)];
    if ((!running.on.empty() && !lost) || now < running.shownTo) {
      state |= cms::BitOf(kind);
    }
  }
  return state;
}

cms::OnvifEventStatus CameraEvents::Status() const {
  const std::lock_guard lock(mutex_);
  return status_;
}

}  // namespace tools
