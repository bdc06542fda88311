// OnvifDevice: what is known of a camera in order to ask it something, and the requests made of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/internal/soap_transfer.h"
#include "cms/ipcam/onvif_access.h"

namespace cms {

inline constexpr std::wstring_view kEventsWsdl = L"http://www.onvif.org/ver10/events/wsdl";
inline constexpr std::wstring_view kPtzWsdl = L"http://www.onvif.org/ver20/ptz/wsdl";
inline constexpr std::wstring_view kMedia2Wsdl = L"http://www.onvif.org/ver20/media/wsdl";

// One thread at a time uses it. It sends nothing itself.
class OnvifDevice {
 public:
  explicit OnvifDevice(const OnvifAccess& access);

  const OnvifAccess& Access() const { return access_; }
  // "camera HOST:PORT: what", one line.
  std::string Named(std::string_view what) const;

  // The URL of a service that the camera gives by `address`: as it is when it names the host that
  // was asked, else at that host; a camera behind a router tells an address of its own network.
  // Never without TLS where TLS was asked for.
  std::string UrlOf(std::wstring_view address) const;
  // The same of a stream, of another scheme and port, which stay. What is no URL stays too.
  std::string StreamUrlOf(std::wstring_view address) const;

  // What asks for the clock, unsigned, and taking the answer. Without a time in it the camera is
  // taken to have our clock.
  SoapRequestText ClockRequest() const;
  void TakeClock(const SoapReply& reply);
  bool IsClockKnown() const { return clockOffset_.has_value(); }
  void ForgetClock() { clockOffset_.reset(); }

  // The services, by GetServices, or by GetCapabilities of cameras without that.
  SoapRequestText ServicesRequest();
  SoapRequestText CapabilitiesRequest();
  bool TakeServices(const SoapReply& reply);  // of either; false when it tells none
  // What the camera gave for the namespace; empty when it offers no such service.
  std::wstring ServiceAddress(std::wstring_view wsdl) const;
  void Dismiss(std::wstring_view wsdl);  // it offers no such service

  // A request signed with the camera's time, at this moment. `address` as the camera gave it; the
  // texts are XML in the prefixes of SignedEnvelope.
  SoapRequestText Signed(std::wstring_view address, std::wstring_view action,
                         std::wstring_view body, std::wstring_view headers = {}) const;

 private:
  struct Service {
    std::wstring wsdl;
    std::wstring address;
  };

  const OnvifAccess access_;
  const std::string origin_;                 // empty for a host or a port that is none
  std::optional<std::int64_t> clockOffset_;  // seconds that the camera is ahead
  std::vector<Service> services_;
};

// Of HTTP or HTTPS, where none is given.
int PortOf(const OnvifAccess& access);

// "urn:uuid:...", another one each time.
std::wstring RandomUuid();

}  // namespace cms
