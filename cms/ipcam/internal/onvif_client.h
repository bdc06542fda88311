// OnvifClient: questions to one camera, each of which waits for its answer.
#pragma once

#include <string>
#include <string_view>

#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/soap_transfer.h"
#include "cms/runtime/wake_up.h"

namespace cms {

// One thread at a time uses it; Interrupt alone may come from any. The camera's clock and services
// are asked for with the first question.
class OnvifClient {
 public:
  explicit OnvifClient(const OnvifAccess& access) : device_(access), transfer_(access) {}

  // Asks the service of that namespace; `body` is XML in the prefixes of SignedEnvelope, the action
  // is formed in the namespace. False with Error() when the camera did not do it.
  bool Call(std::wstring_view wsdl, std::wstring_view operation, std::wstring_view body,
            std::wstring& answer);
  // The content of a URL that the camera gave, with the login that it asks for.
  bool Fetch(const std::string& url, std::string& content);
  bool Fail(std::string_view what);
  bool Unreadable(std::string_view operation);  // fails with an answer that lacks what it is about
  // Fails with an earlier failure in front of the last one: both versions of a service were asked.
  bool FailBoth(const std::string& earlier);

  // Whether the camera offers that service; asks it when that is not known yet.
  bool Offers(std::wstring_view wsdl);
  // From now on it does not: the camera does not do what it offers.
  void Dismiss(std::wstring_view wsdl) { device_.Dismiss(wsdl); }

  const OnvifDevice& Device() const { return device_; }
  const std::string& Error() const { return error_; }
  bool IsRefused() const { return refused_; }
  WakeUp& InterruptSignal() { return interrupt_; }

 private:
  SoapReply Ask(const SoapRequestText& request);
  bool Learn();
  bool LearnClock();

  OnvifDevice device_;
  SoapTransfer transfer_;
  WakeUp interrupt_;
  bool servicesKnown_ = false;
  std::string whyNoServices_;  // the camera tells none; empty: it has not said why
  bool refused_ = false;
  std::string error_;
};

}  // namespace cms
