// Answers WS-Discovery probes (2005/04) for the cameras of this process.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/testcamera/onvif/onvif_camera.h"

namespace testcamera {

// Listens on UDP port 3702, which it shares with other processes, for the multicast group
// 239.255.255.250 on the cameras' interfaces and for probes to this machine's addresses. Works on
// the thread that runs the context, which is to be running no more when it is destroyed.
class DiscoveryResponder {
 public:
  using Cameras = std::vector<std::unique_ptr<OnvifCamera>>;

  // `bind` is the address that the cameras listen on. They are to live longer. Throws
  // std::runtime_error when the port cannot be had.
  DiscoveryResponder(const std::string& bind, const Cameras& cameras, GMainContext* context);
  ~DiscoveryResponder();
  DiscoveryResponder(const DiscoveryResponder&) = delete;
  DiscoveryResponder& operator=(const DiscoveryResponder&) = delete;

 private:
  static gboolean OnReadable(GSocket* socket, GIOCondition condition, gpointer responder);
  void JoinGroup();
  void Answer(const std::string& probe, GSocketAddress* sender);
  std::string LocalHost(GSocketAddress* sender) const;

  const std::string bind_;
  const Cameras& cameras_;
  ObjectPtr<GSocket> socket_;
  GSource* source_ = nullptr;
  int messages_ = 0;
};

}  // namespace testcamera
