// One camera of the running service.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "tools/serve/serve_site.h"
#include "tools/service/disk_place.h"
#include "tools/service/recorder_config.h"
#include "tools/service/recorder_figures.h"
#include "tools/service/timetable.h"
#include "tools/support/camera_events.h"

namespace tools {

// It is opened, follows its plan and ends on a thread of its own: a camera or a disk that does not
// answer holds up nobody else. While its disk is not there it waits for it. Members may be called
// by any thread and wait for nobody, unless they say so.
class ServiceSite {
 public:
  using Clock = std::chrono::steady_clock;

  // `place` is one of the disks'; `events` hears the cameras' events and outlives the site.
  // `before` is the same site as it was so far: this one begins when that has ended.
  ServiceSite(SiteConfig config, Timetable plan, std::shared_ptr<DiskPlace> place,
              cms::OnvifEvents& events, std::shared_ptr<ServiceSite> before);
  ~ServiceSite();  // waits for its end
  ServiceSite(const ServiceSite&) = delete;
  ServiceSite& operator=(const ServiceSite&) = delete;

  const std::shared_ptr<DiskPlace>& Place() const { return place_; }

  // Goes on by another plan, without a frame lost; false when the other configuration differs in
  // more than plan and retention: then another site has to take over.
  bool Become(const SiteConfig& other, const Timetable& plan);

  // Nothing that arrives from now on is recorded; what arrived is written.
  void AskToEnd();
  bool WaitEnded(Clock::time_point until);  // false when it has not

  SiteFigures Figures() const;  // at most some seconds old
  // What the page shows of it; null until its camera is known.
  std::shared_ptr<ServeSite> Page() const;

 private:
  void Run();
  bool WaitForDisk();
  bool OpenInTime();
  bool Open();
  void FollowPlan(ServeSite& serve, std::int64_t now);
  void Enter(CMSClientBase& client, PlanMode mode);
  void Look(ServeSite& serve);
  void End();
  bool Pause(std::chrono::milliseconds time);  // false when it is to end
  void TellProblem(const std::string& why);
  void TellMissing(const std::string& why, cms::GapCause cause);

  const SiteConfig config_;
  const std::shared_ptr<DiskPlace> place_;
  cms::OnvifEvents& onvifEvents_;
  std::shared_ptr<ServiceSite> before_;
  cms::WakeUp endAsked_;
  cms::WakeUp ended_;

  // Of its thread.
  std::unique_ptr<CameraEvents> events_;  // none: the camera is not asked for any
  bool preAlarm_ = false;
  std::optional<PlanMode> mode_;
  std::int64_t lastLook_ = 0;
  std::int64_t nextChange_ = 0;

  mutable CMSCritical lock_;
  Timetable plan_ CMS_GUARDED_BY(lock_);
  bool planChanged_ CMS_GUARDED_BY(lock_) = true;
  std::shared_ptr<ServeSite> serve_ CMS_GUARDED_BY(lock_);
  SiteFigures figures_ CMS_GUARDED_BY(lock_);

  std::thread thread_;
};

}  // namespace tools
