#include "cms/ipcam/internal/onvif_client.h"

#include <utility>

#include "cms/ipcam/internal/soap_operation.h"
#include "cms/runtime/wide_text.h"

namespace cms {

bool OnvifClient::Fail(std::string_view what) {
  error_ = device_.Named(what);
  return false;
}

bool OnvifClient::Unreadable(std::string_view operation) {
  return Fail(std::string(operation) + ": the answer does not hold what was asked for");
}

bool OnvifClient::FailBoth(const std::string& earlier) {
  error_ = earlier + "; the first version of the service: " + error_;
  return false;
}

SoapReply OnvifClient::Ask(const SoapRequestText& request) {
  SoapReply reply = transfer_.Run(request, interrupt_.Descriptor());
  refused_ = reply.unauthorized;
  return reply;
}

bool OnvifClient::LearnClock() {
  const SoapReply reply = Ask(device_.ClockRequest());
  if (!reply.answered) {
    return Fail("GetSystemDateAndTime: " + reply.error);
  }
  device_.TakeClock(reply);
  return true;
}

bool OnvifClient::Learn() {
  if (!device_.IsClockKnown() && !LearnClock()) {
    return false;
  }
  if (servicesKnown_) {
    return true;
  }
  SoapReply reply = Ask(device_.ServicesRequest());
  servicesKnown_ = device_.TakeServices(reply);
  if (!servicesKnown_ && reply.answered && !reply.unauthorized) {
    reply = Ask(device_.CapabilitiesRequest());
    servicesKnown_ = device_.TakeServices(reply);
  }
  whyNoServices_ = servicesKnown_ ? "" : reply.error;
  // The device's own service is where it always is.
  return (reply.answered && !reply.unauthorized) || Fail("GetServices: " + reply.error);
}

bool OnvifClient::Offers(std::wstring_view wsdl) {
  return Learn() && !device_.ServiceAddress(wsdl).empty();
}

bool OnvifClient::Call(std::wstring_view wsdl, std::wstring_view operation, std::wstring_view body,
                       std::wstring& answer) {
  const bool clockWasKnown = device_.IsClockKnown();
  if (!Learn()) {
    return false;
  }
  const std::wstring address =
      wsdl == kDeviceWsdl ? std::wstring(kDevicePath) : device_.ServiceAddress(wsdl);
  const std::string name = Utf8FromWide(operation);
  if (address.empty()) {
    return Fail(name + ": the camera offers no such service" +
                (whyNoServices_.empty() ? "" : " (GetCapabilities: " + whyNoServices_ + ")"));
  }
  const std::wstring action = std::wstring(wsdl) + L"/" + std::wstring(operation);
  SoapReply reply = Ask(device_.Signed(address, action, body));
  if (reply.unauthorized && clockWasKnown) {  // its clock may have been set meanwhile
    if (!LearnClock()) {
      return false;
    }
    reply = Ask(device_.Signed(address, action, body));
  }
  if (!reply.error.empty()) {
    return Fail(name + ": " + reply.error);
  }
  answer = std::move(reply.text);
  error_.clear();
  return true;
}

bool OnvifClient::Fetch(const std::string& url, std::string& content) {
  SoapReply reply = Ask({.url = url, .action = {}, .envelope = {}});
  if (!reply.error.empty() || reply.content.empty()) {
    return Fail(url + ": " + (reply.error.empty() ? "nothing comes from there" : reply.error));
  }
  content = std::move(reply.content);
  error_.clear();
  return true;
}

}  // namespace cms
