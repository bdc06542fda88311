// Which ONVIF operation a request is, and where it goes.
#pragma once

#include <string>
#include <string_view>

namespace cms {

struct SoapOperation {
  std::wstring_view name;
  std::wstring_view wsdl;  // the namespace that its action is formed in
  std::wstring_view path;

  std::wstring Action() const {
    return L"\"" + std::wstring(wsdl) + L"/" + std::wstring(name) + L"\"";
  }
};

inline constexpr std::wstring_view kDeviceWsdl = L"http://www.onvif.org/ver10/device/wsdl";
inline constexpr std::wstring_view kMediaWsdl = L"http://www.onvif.org/ver10/media/wsdl";
inline constexpr std::wstring_view kImagingWsdl = L"http://www.onvif.org/ver20/imaging/wsdl";
inline constexpr std::wstring_view kDevicePath = L"/onvif/device_service";
inline constexpr std::wstring_view kMediaPath = L"/onvif/media_service";

constexpr SoapOperation DeviceOperation(std::wstring_view name) {
  return {name, kDeviceWsdl, kDevicePath};
}
constexpr SoapOperation MediaOperation(std::wstring_view name) {
  return {name, kMediaWsdl, kMediaPath};
}
// Every ONVIF device has the device path; those without an imaging path of its own take it there.
constexpr SoapOperation ImagingOperation(std::wstring_view name) {
  return {name, kImagingWsdl, kDevicePath};
}
// Profiles are made with media elements under actions of the device namespace: the cameras served
// look at the body and expect no other action.
constexpr SoapOperation ProfileOperation(std::wstring_view name) {
  return {name, kDeviceWsdl, kMediaPath};
}

}  // namespace cms
