// Subscriptions to the events of real test cameras, over connections and subscriptions that do not
// last.
#include "cms/ipcam/onvif_events.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"

namespace {

using cms::CameraEvent;
using cms::CameraEventState;
using nlohmann::json;
using test::WaitFor;
using testing::HasSubstr;

class EventCamera : public test::RtspCamera {
 public:
  explicit EventCamera(std::vector<std::string> options = {})
      : RtspCamera([&options] {
          options.insert(options.end(), {"--onvif", "0", "--no-discovery", "--user", "ad&min",
                                         "--password", "se<cret>"});
          return options;
        }()) {}

  std::string Host() const {
    const std::string url = HttpUrl();
    return url.substr(0, url.find('/', url.find("//") + 2));
  }
  cms::OnvifAccess Access(const std::string& password = "se<cret>") const {
    cms::OnvifAccess access;
    access.host = "127.0.0.1";
    access.port = std::atoi(Host().c_str() + Host().rfind(':') + 1);
    access.user = "ad&min";
    access.password = password;
    return access;
  }
  json Control(const std::string& what) const {
    return json::parse(test::RunShell("curl -sf '" + Host() + "/control/" + what + "'").output,
                       nullptr, false);
  }
};

// Hears one camera.
class Hearing {
 public:
  Hearing(cms::OnvifEvents& events, const cms::OnvifAccess& access)
      : events_(events),
        number_(events.Subscribe(
            access,
            [this](const CameraEvent& event) {
              const std::lock_guard lock(mutex_);
              heard_.push_back(event);
            },
            [this](const cms::OnvifEventStatus& status) {
              const std::lock_guard lock(mutex_);
              status_ = status;
            })) {
    EXPECT_NE(number_, 0U);
  }
  ~Hearing() { events_.Unsubscribe(number_); }
  Hearing(const Hearing&) = delete;
  Hearing& operator=(const Hearing&) = delete;

  cms::OnvifEventStatus Status() const {
    const std::lock_guard lock(mutex_);
    return status_;
  }
  bool IsSubscribed() const {
    return WaitFor([this] { return Status().subscribed; });
  }
  std::vector<CameraEvent> Heard(cms::CameraEventKind kind) const {
    const std::lock_guard lock(mutex_);
    std::vector<CameraEvent> events;
    for (const CameraEvent& each : heard_) {
      if (each.kind == kind) {
        events.push_back(each);
      }
    }
    return events;
  }
  bool HearsAs(cms::CameraEventKind kind, CameraEventState state, bool initial) const {
    return WaitFor([&] {
      const auto heard = Heard(kind);
      return !heard.empty() && heard.back().state == state && heard.back().initial == initial;
    });
  }

 private:
  cms::OnvifEvents& events_;
  mutable std::mutex mutex_;
  std::vector<CameraEvent> heard_;
  cms::OnvifEventStatus status_;
  const unsigned number_;
};

TEST(OnvifEvents, NoMotionIsLostOrToldTwiceWhateverBecomesOfTheSubscription) {
  constexpr std::size_t kMotions = 30;
  EventCamera camera({"--motion-every", "0.8", "--motion-length", "0.4", "--onvif-clock",
                      "-90000000", "--longest-pull", "3"});
  {
    cms::OnvifEvents events;
    Hearing hearing(events, camera.Access());
    ASSERT_TRUE(hearing.IsSubscribed());
    const auto motions = [&] { return camera.Control("state")["motions"].size(); };
    for (std::size_t done = motions(); done < kMotions; ++done) {
      ASSERT_TRUE(WaitFor([&] { return motions() > done; }));
      if (done % 4 == 3) {
        camera.Control(done % 8 == 3 ? "forget" : "break");
      }
    }
    ASSERT_TRUE(hearing.HearsAs(cms::CameraEventKind::kMotion, CameraEventState::kOff, false));
    const std::vector<CameraEvent> heard = hearing.Heard(cms::CameraEventKind::kMotion);
    ASSERT_FALSE(heard.empty());
    EXPECT_EQ(heard.front().state, CameraEventState::kOff);  // as it was at first
    std::size_t begun = 0;
    for (std::size_t i = 0; i < heard.size(); ++i) {
      EXPECT_EQ(heard[i].state == CameraEventState::kOn, i % 2 == 1) << "number " << i;
      begun += heard[i].state == CameraEventState::kOn ? 1 : 0;
      EXPECT_NEAR(static_cast<double>(heard[i].receivedMs - heard[i].cameraMs), 90'000'000'000,
                  2'000);
    }
    EXPECT_EQ(begun, motions());
    EXPECT_GT(hearing.Status().subscriptions, 1U);
  }
  const json state = camera.Control("state");
  EXPECT_EQ(state["subscriptions"], 0) << state;
  EXPECT_EQ(state["expired"], 0) << state;
}

TEST(OnvifEvents, EveryKindIsHeardInTheStylesOfSeveralFirmwares) {
  for (const char* style : {"prefixes,attributes", "pretty,sparse,addresses"}) {
    SCOPED_TRACE(style);
    EventCamera camera({"--onvif-style", style});
    camera.Control("tampering?on=1");
    cms::OnvifEvents events;
    Hearing hearing(events, camera.Access());
    EXPECT_TRUE(hearing.HearsAs(cms::CameraEventKind::kTampering, CameraEventState::kOn, true));
    camera.Control("line");
    camera.Control("line");
    camera.Control("input?on=1");
    camera.Control("video-loss?on=1");
    camera.Control("sound?on=1");
    EXPECT_TRUE(hearing.HearsAs(cms::CameraEventKind::kInput, CameraEventState::kOn, false));
    EXPECT_TRUE(hearing.HearsAs(cms::CameraEventKind::kVideoLoss, CameraEventState::kOn, false));
    EXPECT_TRUE(hearing.HearsAs(cms::CameraEventKind::kOther, CameraEventState::kOn, false));
    EXPECT_EQ(hearing.Heard(cms::CameraEventKind::kLineCrossing).size(), 2U);
    const CameraEvent sound = hearing.Heard(cms::CameraEventKind::kOther).back();
    EXPECT_THAT(sound.topic, HasSubstr(":AudioAnalytics/Audio/DetectedSound"));
    EXPECT_THAT(sound.source,
                testing::ElementsAre(cms::CameraEventItem{"AudioSource", "AudioSource0"}));
  }
}

TEST(OnvifEvents, WhyThereIsNoSubscriptionIsTold) {
  EventCamera full({"--max-subscriptions", "0"});
  cms::OnvifEvents events;
  Hearing none(events, full.Access());
  Hearing refused(events, full.Access("wrong"));
  cms::OnvifAccess nobody = full.Access();
  nobody.port = 1;
  Hearing away(events, nobody);
  EXPECT_TRUE(WaitFor([&] { return refused.Status().refused; }));
  EXPECT_THAT(refused.Status().error, HasSubstr("password is wrong"));
  EXPECT_THAT(refused.Status().error, testing::Not(HasSubstr("cret")));
  EXPECT_TRUE(WaitFor([&] { return !none.Status().error.empty(); }));
  EXPECT_THAT(none.Status().error, HasSubstr("holds no more pull points"));
  EXPECT_FALSE(none.Status().refused);
  EXPECT_TRUE(WaitFor([&] { return !away.Status().error.empty(); }));
  EXPECT_THAT(away.Status().error, HasSubstr("camera 127.0.0.1:1: GetSystemDateAndTime"));
}

}  // namespace
