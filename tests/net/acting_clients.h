// Clients of an I/O group whose steps do what a test wants.
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "cms/net/rtcp_step.h"
#include "tests/net/loopback.h"

namespace test {

// A UDP client that runs a function for each datagram.
class ActingClient : public UdpClient {
 public:
  explicit ActingClient(std::function<void()> action) : action_(std::move(action)) {
    _UDPCLIENT_CONFIG config;
    config.recvContext = this;
    config.recvCallback = [](void* self, char*, int) {
      auto* const client = static_cast<ActingClient*>(self);
      ++client->calls;
      client->action_();
    };
    SetConfig(config);
  }
  ~ActingClient() override { OnStopUDPClient(); }
  std::atomic<int> calls{0};

 private:
  std::function<void()> action_;
};

class ActingStep : public cms::RTCPStep {
 public:
  explicit ActingStep(std::function<int()> action) : action_(std::move(action)) {}
  int RTCPProcessNB() override {
    ++calls;
    return action_();
  }
  std::atomic<int> calls{0};

 private:
  std::function<int()> action_;
};

}  // namespace test
