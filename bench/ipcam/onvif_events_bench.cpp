// What the event subscriptions of 64 cameras cost: real test cameras, each of which sees a motion
// every ten seconds. Prints this process's share of one core; below 1 % is the aim.
//   onvif_events_bench [SECONDS [CAMERAS]]
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "cms/ipcam/onvif_events.h"
#include "tests/support/rtsp_camera.h"

namespace {

constexpr std::chrono::seconds kLongestStart{60};

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  const int count = argc > 2 ? std::atoi(argv[2]) : 64;
  const test::RtspCamera cameras({"--count", std::to_string(count), "--onvif", "0",
                                  "--no-discovery", "--user", "admin", "--password", "secret",
                                  "--motion-every", "10", "--motion-length", "2"});
  std::atomic<int> subscribed = 0;
  std::atomic<int> told = 0;
  cms::OnvifEvents events;
  for (int i = 0; i < count; ++i) {
    const std::string& url = cameras.HttpUrl(static_cast<std::size_t>(i));
    cms::OnvifAccess access;
    access.host = "127.0.0.1";
    access.port = std::atoi(url.c_str() + url.find(':', url.find("//")) + 1);
    access.user = "admin";
    access.password = "secret";
    events.Subscribe(
        access, [&told](const cms::CameraEvent&) { ++told; },
        [&subscribed](const cms::OnvifEventStatus& status) {
          subscribed += status.subscribed ? 1 : -1;
        });
  }
  const auto end = std::chrono::steady_clock::now() + kLongestStart;
  while (subscribed < count && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (subscribed < count) {
    std::fprintf(stderr, "%d of %d cameras are subscribed to\n", subscribed.load(), count);
    return 1;
  }
  // Of this process's own threads: the cameras are a child.
  const auto spent = [] {
    std::timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  const int before = told;
  const double spentBefore = spent();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double percent = (spent() - spentBefore) * 100 / seconds;
  std::printf("subscriptions: %d cameras, %d events: %.3f %% of one core over %d s\n", count,
              told - before, percent, seconds);
  return percent < 1.0 && told > before ? 0 : 1;
}
