// OnvifConnection: what all that is asked of one camera over ONVIF has in common.
#pragma once

#include <memory>
#include <string>

#include "cms/ipcam/onvif_access.h"
#include "cms/runtime/api.h"

namespace cms {

class OnvifClient;

// The base of OnvifMedia, OnvifPtz and OnvifDeviceJobs. UTF-8 texts.
//
// One thread at a time uses an object; Interrupt alone may come from any. Each operation waits for
// the camera, for 20 s at most each time that it asks; the first one asks for the camera's clock
// and services before. True when the camera did what was asked; otherwise LastError() tells why,
// in one line without a password.
class CMS_API OnvifConnection {
 public:
  OnvifConnection(const OnvifConnection&) = delete;
  OnvifConnection& operator=(const OnvifConnection&) = delete;

  const std::string& LastError() const;
  bool IsRefused() const;  // the last failure: the camera does not take the user or the password
  // Ends the wait of the operation in progress and fails it, and every later one, until
  // ResumeAfterInterrupt. Any thread, and a signal handler.
  void Interrupt();
  void ResumeAfterInterrupt();

 protected:
  explicit OnvifConnection(const OnvifAccess& access);
  ~OnvifConnection();
  OnvifClient& Client() { return *client_; }

 private:
  std::unique_ptr<OnvifClient> client_;
};

}  // namespace cms
