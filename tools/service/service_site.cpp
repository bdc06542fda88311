#include "tools/service/service_site.h"

#include <poll.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "cms/recording/recording_kind.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"
#include "tools/support/camera_site.h"

namespace tools {
namespace {

using std::chrono::milliseconds;

constexpr unsigned kRecordedChannel = 0;
constexpr milliseconds kLookAround{1'000};
constexpr milliseconds kLookForEvents{250};
constexpr milliseconds kFirstDiskLook{50};
constexpr milliseconds kFirstRetry{2'000};
constexpr milliseconds kLongestRetry{60'000};
constexpr milliseconds kLongestWriteOut{30'000};  // for a slow disk

LiveOptions LiveOptionsOf(const SiteConfig& site) {
  LiveOptions options;
  options.url = site.url;
  options.onvif = site.onvif;
  options.user = site.user;
  options.password = site.password;
  options.transport = site.transport;
  options.security = site.security;
  options.decode = false;  // until somebody watches
  options.number = static_cast<int>(site.number) - 1;
  options.name = site.name;
  return options;
}

bool IsReadable(const cms::WakeUp& wake, milliseconds limit) {
  pollfd wait{wake.Descriptor(), POLLIN, 0};
  return poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(limit.count(), 0))) > 0;
}

}  // namespace

ServiceSite::ServiceSite(SiteConfig config, Timetable plan, std::shared_ptr<DiskPlace> place,
                         cms::OnvifEvents& events, std::shared_ptr<ServiceSite> before)
    : config_(std::move(config)),
      place_(std::move(place)),
      onvifEvents_(events),
      before_(std::move(before)),
      plan_(std::move(plan)) {
  figures_.number = config_.number;
  figures_.name = config_.name;
  figures_.url = config_.url;
  figures_.folder = place_->Path();
  thread_ = std::thread([this] { Run(); });
}

ServiceSite::~ServiceSite() {
  AskToEnd();
  thread_.join();
}

bool ServiceSite::Become(const SiteConfig& other, const Timetable& plan) {
  SiteConfig same = other;
  same.plan = config_.plan;
  same.timeZone = config_.timeZone;
  same.retention = config_.retention;
  if (!(same == config_)) {
    return false;
  }
  const ScopeLock lock(lock_);
  planChanged_ |= !(plan_ == plan);
  plan_ = plan;
  return true;
}

void ServiceSite::AskToEnd() {
  endAsked_.Signal();
}

bool ServiceSite::WaitEnded(Clock::time_point until) {
  return IsReadable(ended_, std::chrono::ceil<milliseconds>(until - Clock::now()));
}

SiteFigures ServiceSite::Figures() const {
  const ScopeLock lock(lock_);
  return figures_;
}

std::shared_ptr<ServeSite> ServiceSite::Page() const {
  const ScopeLock lock(lock_);
  return serve_;
}

bool ServiceSite::Pause(milliseconds time) {
  return !IsReadable(endAsked_, time);
}

void ServiceSite::TellProblem(const std::string& why) {
  cms::Log(cms::LogLevel::kError, "service",
           "site " + std::to_string(config_.number) + " (" + config_.name + "): " + why);
}

// While it is not opened no client looks for gaps.
void ServiceSite::TellMissing(const std::string& why, cms::GapCause cause) {
  const std::int64_t now = cms::WallSeconds();
  const ScopeLock lock(lock_);
  figures_.connection.detail = why;
  figures_.wanted = plan_.At(now) != PlanMode::kNever;
  if (!figures_.gap || figures_.gap->cause != cause) {
    figures_.gap = cms::OpenGap{cause, 0, now};
  }
}

void ServiceSite::Run() {
  pthread_setname_np(pthread_self(), "recorder-site");
  if (before_) {
    before_->WaitEnded(Clock::now() + kLongestWriteOut);
    before_.reset();
  }
  while (WaitForDisk() && OpenInTime()) {
    const std::shared_ptr<ServeSite> serve = Page();
    do {
      Look(*serve);
    } while (Pause(events_ ? kLookForEvents : kLookAround) && place_->IsReady());
    End();
  }
  ended_.Signal();
}

// False when it is to end.
bool ServiceSite::WaitForDisk() {
  for (milliseconds pause = kFirstDiskLook; Pause(milliseconds::zero());
       pause = std::min(pause * 2, kLookAround)) {
    if (place_->IsReady()) {
      return true;
    }
    if (place_->State() != PlaceState::kUnknown) {
      TellMissing(place_->Problem(), cms::GapCause::kWriteFailed);
    }
    Pause(pause);
  }
  return false;
}

// False when it is to end.
bool ServiceSite::OpenInTime() {
  for (milliseconds retry = kFirstRetry; !Open();) {
    if (!Pause(retry)) {
      return false;
    }
    retry = std::min(retry * 2, kLongestRetry);
  }
  return true;
}

// False when it has to be tried again: a camera that tells its address itself may be away, and so
// may the resolver.
bool ServiceSite::Open() {
  if (!Pause(milliseconds::zero())) {
    return false;
  }
  try {
    LiveOptions live = LiveOptionsOf(config_);
    FindStream(&live);
    auto serve = std::make_shared<ServeSite>(live, config_.fileSizeMiB, config_.secondUrl);
    CMSClientBase& client = serve->Client();
    client.SetDataRoot(place_->Path());
    client.SetRecDuration(config_.afterEvent);
    if (!config_.events.empty()) {
      events_ = std::make_unique<CameraEvents>(
          onvifEvents_, AccessOf(config_.onvif, config_.user, config_.password, live.security),
          config_.events);
    }
    if (!config_.moveTo.empty()) {
      client.StartMoveFileToNAS(cms::SystemPath(config_.moveTo).c_str());
    }
    FollowPlan(*serve, cms::WallSeconds());
    serve->Open();
    const ScopeLock lock(lock_);
    serve_ = std::move(serve);
    return true;
  } catch (const std::exception& error) {
    TellProblem(error.what());
    TellMissing(error.what(), cms::GapCause::kCameraGone);
    return false;
  }
}

void ServiceSite::Look(ServeSite& serve) {
  const std::int64_t now = cms::WallSeconds();
  FollowPlan(serve, now);
  serve.FollowDay();
  const unsigned events = events_ ? events_->State() : 0;
  serve.Client().SetEventState(kRecordedChannel, events);
  SiteFigures figures = FiguresOf(serve.Client());
  figures.number = config_.number;
  figures.name = config_.name;
  figures.url = config_.url;
  figures.folder = place_->Path();
  figures.wanted = mode_ != PlanMode::kNever;
  figures.event = events != 0 && figures.wanted;
  const ScopeLock lock(lock_);
  figures_ = std::move(figures);
}

// Looks at the plan when its next change has come, and when the clock was set back.
void ServiceSite::FollowPlan(ServeSite& serve, std::int64_t now) {
  PlanMode mode{};
  {
    const ScopeLock lock(lock_);
    const bool due =
        std::exchange(planChanged_, false) || now >= nextChange_ || now < lastLook_ || !mode_;
    lastLook_ = now;
    if (!due) {
      return;
    }
    mode = plan_.At(now);
    nextChange_ = plan_.NextChange(now);
  }
  if (mode != mode_) {
    Enter(serve.Client(), mode);
  }
}

// What is wanted begins before the rest ends, so that no frame falls between them.
void ServiceSite::Enter(CMSClientBase& client, PlanMode mode) {
  if (mode == PlanMode::kEvents && config_.preAlarm > 0 && !preAlarm_) {
    preAlarm_ = client.SetRecEventPreAlarm(kRecordedChannel, config_.preAlarm, 1) != 0;
    if (!preAlarm_) {
      TellProblem("no memory for a pre-alarm of " + std::to_string(config_.preAlarm) +
                  " s: events are recorded without it");
    }
  }
  if (mode == PlanMode::kAlways) {
    client.TurnOnRecordingState(kRecordedChannel, cms::kRecordSchedule);
  }
  for (const cms::RecordKind kind : cms::kEventKinds) {
    if (mode != PlanMode::kNever && events_ && (events_->States() & cms::BitOf(kind)) != 0) {
      client.TurnOnRecordingState(kRecordedChannel, cms::NumberOf(kind));
    } else {
      client.TurnOffRecordingState(kRecordedChannel, cms::NumberOf(kind));
    }
  }
  if (mode != PlanMode::kAlways) {
    client.TurnOffRecordingState(kRecordedChannel, cms::kRecordSchedule);
  }
  mode_ = mode;
}

void ServiceSite::End() {
  std::shared_ptr<ServeSite> serve;
  {
    const ScopeLock lock(lock_);
    serve = std::move(serve_);
    serve_ = nullptr;
  }
  events_.reset();
  mode_.reset();
  preAlarm_ = false;
  serve->Close();
  CMSClientBase& client = serve->Client();
  client.StopRecordAll();
  client.WaitRecorded(static_cast<int>(kLongestWriteOut.count()));
  client.StopMoveFileToNAS();
  SiteFigures figures = FiguresOf(client);
  const ScopeLock lock(lock_);
  figures_.recording = figures.recording;
  figures_.frames = figures.frames;
}

}  // namespace tools
