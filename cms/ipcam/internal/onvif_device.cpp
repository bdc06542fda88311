#include "cms/ipcam/internal/onvif_device.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <utility>

#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/digest.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

// GetCapabilities names services by elements.
struct CapabilityElement {
  std::wstring_view element;
  std::wstring_view wsdl;
};
constexpr CapabilityElement kCapabilityElements[] = {
    {L"tt:Device", kDeviceWsdl}, {L"tt:Events", kEventsWsdl}, {L"tt:Imaging", kImagingWsdl},
    {L"tt:Media", kMediaWsdl},   {L"tt:PTZ", kPtzWsdl},
};

using RandomBytes = std::array<unsigned char, 16>;

RandomBytes Randomness() {
  RandomBytes bytes{};
  static_cast<void>(getrandom(bytes.data(), bytes.size(), 0));
  return bytes;
}

std::string UrlPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) {
    return {};
  }
  std::string copy = text;
  curl_free(text);
  return copy;
}

std::string OriginOf(const OnvifAccess& access) {
  return HttpOrigin(access.tls ? "https" : "http", access.host, PortOf(access));
}

}  // namespace

int PortOf(const OnvifAccess& access) {
  constexpr int kHttpPort = 80;
  constexpr int kHttpsPort = 443;
  return access.port != 0 ? access.port : access.tls ? kHttpsPort : kHttpPort;
}

std::wstring RandomUuid() {
  RandomBytes bytes = Randomness();
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4 (RFC 9562)
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  std::wstring text = L"urn:uuid:";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    constexpr wchar_t kDigits[] = L"0123456789abcdef";
    text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
    if (i == 3 || i == 5 || i == 7 || i == 9) {
      text += L'-';
    }
  }
  return text;
}

OnvifDevice::OnvifDevice(const OnvifAccess& access) : access_(access), origin_(OriginOf(access)) {}

std::string OnvifDevice::Named(std::string_view what) const {
  const std::string port = access_.port == 0 ? "" : ":" + std::to_string(access_.port);
  return Utf8FromWide(
      Plain(WideFromUtf8("camera " + access_.host + port + ": " + std::string(what))));
}

std::string OnvifDevice::UrlOf(std::wstring_view address) const {
  std::string given = Utf8FromWide(address);
  const CurlUrl url(curl_url());
  if (given.starts_with('/')) {
    return origin_ + given;
  }
  if (url == nullptr || curl_url_set(url.get(), CURLUPART_URL, given.c_str(), 0) != CURLUE_OK) {
    return origin_ + Utf8FromWide(kDevicePath);
  }
  std::string host = UrlPart(url.get(), CURLUPART_HOST);
  if (host.starts_with('[')) {
    host = host.substr(1, host.size() - 2);
  }
  const bool secured = UrlPart(url.get(), CURLUPART_SCHEME) == "https";
  if (host == access_.host && secured == access_.tls) {
    return given;
  }
  const std::string query = UrlPart(url.get(), CURLUPART_QUERY);
  return origin_ + UrlPart(url.get(), CURLUPART_PATH) + (query.empty() ? "" : "?" + query);
}

std::string OnvifDevice::StreamUrlOf(std::wstring_view address) const {
  std::string given = Utf8FromWide(address);
  const std::size_t scheme = given.find("://");
  if (scheme == std::string::npos) {
    return given;
  }
  std::size_t begin = scheme + 3;
  const std::size_t end = std::min(given.find_first_of("/?#", begin), given.size());
  const std::size_t user = given.substr(0, end).rfind('@');
  begin = user != std::string::npos && user >= begin ? user + 1 : begin;
  // A port is behind the last colon, which in brackets is one of the address. Cameras forget those.
  const std::string place = given.substr(begin, end - begin);
  const std::size_t colon = place.rfind(':');
  const bool isPort =
      place != access_.host && (!place.starts_with('[') || place.rfind(']') + 1 == colon);
  const std::size_t port = isPort ? colon : std::string::npos;
  const std::string host = place.substr(0, port);
  const bool ipv6 = access_.host.find(':') != std::string::npos;
  return given.replace(begin, host.size(), ipv6 ? "[" + access_.host + "]" : access_.host);
}

SoapRequestText OnvifDevice::ClockRequest() const {
  return {.url = UrlOf(kDevicePath),
          .action = Utf8FromWide(kDeviceWsdl) + "/GetSystemDateAndTime",
          .envelope = Utf8FromWide(ClockEnvelope())};
}

void OnvifDevice::TakeClock(const SoapReply& reply) {
  const std::optional<std::int64_t> clock = ParseSystemDateAndTime(reply.text);
  clockOffset_ = clock ? *clock - WallSeconds() : 0;
}

SoapRequestText OnvifDevice::ServicesRequest() {
  return Signed(kDevicePath, L"http://www.onvif.org/ver10/device/wsdl/GetServices",
                L"<tds:GetServices><tds:IncludeCapability>false</tds:IncludeCapability>"
                L"</tds:GetServices>");
}

SoapRequestText OnvifDevice::CapabilitiesRequest() {
  return Signed(kDevicePath, L"http://www.onvif.org/ver10/device/wsdl/GetCapabilities",
                L"<tds:GetCapabilities><tds:Category>All</tds:Category></tds:GetCapabilities>");
}

bool OnvifDevice::TakeServices(const SoapReply& reply) {
  std::vector<Service> found;
  const auto add = [&found](std::wstring wsdl, std::wstring address) {
    if (!wsdl.empty() && !address.empty()) {
      found.push_back({std::move(wsdl), std::move(address)});
    }
  };
  std::wstring_view rest = reply.text;
  for (std::wstring_view one; TakeElement(rest, L"tds:Service", one);) {
    add(TextOf(one, L"tds:Namespace"), TextOf(one, L"tds:XAddr"));
  }
  if (const std::wstring_view capabilities = ElementContent(reply.text, L"tds:Capabilities");
      !capabilities.empty()) {
    for (const CapabilityElement& each : kCapabilityElements) {
      add(std::wstring(each.wsdl), TextOf(ElementContent(capabilities, each.element), L"tt:XAddr"));
    }
  }
  if (found.empty()) {
    return false;
  }
  services_ = std::move(found);
  return true;
}

std::wstring OnvifDevice::ServiceAddress(std::wstring_view wsdl) const {
  for (const Service& service : services_) {
    if (service.wsdl == wsdl) {
      return service.address;
    }
  }
  return {};
}

void OnvifDevice::Dismiss(std::wstring_view wsdl) {
  std::erase_if(services_, [wsdl](const Service& each) { return each.wsdl == wsdl; });
}

SoapRequestText OnvifDevice::Signed(std::wstring_view address, std::wstring_view action,
                                    std::wstring_view body, std::wstring_view headers) const {
  const RandomBytes random = Randomness();
  const std::string nonce(random.begin(), random.end());
  const std::wstring created = UtcText(WallSeconds() + clockOffset_.value_or(0));
  const UsernameToken token{
      .userName = WideFromUtf8(access_.user),
      .digest = WideFromUtf8(PasswordDigest(nonce, Utf8FromWide(created), access_.password)),
      .nonce = WideFromUtf8(Base64(nonce)),
      .created = created};
  return {.url = UrlOf(address),
          .action = Utf8FromWide(action),
          .envelope = Utf8FromWide(SignedEnvelope(token, body, headers))};
}

}  // namespace cms
