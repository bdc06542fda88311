// The test camera, `orvanta camera`, as a child process: a real RTSP server for tests.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Runs from construction to destruction. A process of its own keeps the camera's libraries out of
// the test program and its sanitizers. For one thread.
class RtspCamera {
 public:
  // The options of `orvanta camera`, such as {"--codec", "mjpeg", "--audio", "pcmu"}; the port is
  // any free one. Throws std::runtime_error when the camera does not come up; what it says about
  // that goes to the test's standard error.
  explicit RtspCamera(std::vector<std::string> options = {});
  ~RtspCamera();
  RtspCamera(const RtspCamera&) = delete;
  RtspCamera& operator=(const RtspCamera&) = delete;

  // Of the camera with that number, where --count asked for several.
  const std::string& Url(std::size_t camera = 0) const { return urls_.at(camera); }
  const std::string& HttpUrl(std::size_t camera = 0) const { return httpUrls_.at(camera); }
  std::size_t Count() const { return urls_.size(); }
  // Of its certificate, "AB:CD:..."; empty without --tls.
  const std::string& Fingerprint() const { return fingerprint_; }
  std::uint16_t Port(std::size_t camera = 0) const;

  // Switches the camera off and on again; its ports stay the same (of several cameras
  // those of RTSP). Stop gives the exit status, -1
  // when the camera crashed.
  int Stop();
  // Off without a word to anybody, as in a power cut.
  void Kill();
  void Start();

  pid_t Pid() const { return pid_; }

 private:
  std::string TryStart(unsigned port, std::size_t count);
  int Wait(int signal);

  std::vector<std::string> options_;
  std::vector<std::string> urls_;
  std::vector<std::string> httpUrls_;
  std::string fingerprint_;
  pid_t pid_ = -1;
};

// The URL with a user and a password in it.
std::string WithCredentials(const std::string& url, std::string_view user,
                            std::string_view password);

}  // namespace test
