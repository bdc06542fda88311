// What CIPCAM_Config_Utility reads over ONVIF.
#include <algorithm>
#include <utility>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/media_answers.h"
#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace {

constexpr cms::SoapOperation kGetDeviceInformation = cms::DeviceOperation(L"GetDeviceInformation");
constexpr cms::SoapOperation kGetNetworkInterfaces = cms::DeviceOperation(L"GetNetworkInterfaces");
constexpr cms::SoapOperation kGetGateway = cms::DeviceOperation(L"GetNetworkDefaultGateway");
constexpr cms::SoapOperation kGetDns = cms::DeviceOperation(L"GetDNS");
constexpr cms::SoapOperation kGetProfiles = cms::MediaOperation(L"GetProfiles");
constexpr cms::SoapOperation kGetStreamUri = cms::MediaOperation(L"GetStreamUri");
constexpr cms::SoapOperation kGetEncoders = cms::MediaOperation(L"GetVideoEncoderConfigurations");
constexpr cms::SoapOperation kGetCompatibleEncoders =
    cms::MediaOperation(L"GetCompatibleVideoEncoderConfigurations");
constexpr cms::SoapOperation kGetEncoderOptions =
    cms::MediaOperation(L"GetVideoEncoderConfigurationOptions");
constexpr cms::SoapOperation kGetImagingOptions = cms::ImagingOperation(L"GetOptions");
constexpr cms::SoapOperation kGetImagingSettings = cms::ImagingOperation(L"GetImagingSettings");

constexpr std::wstring_view kGetProfilesBody = L"<trt:GetProfiles></trt:GetProfiles>";
constexpr std::wstring_view kGetEncodersBody =
    L"<trt:GetVideoEncoderConfigurations></trt:GetVideoEncoderConfigurations>";
constexpr std::wstring_view kGetNetworkInterfacesBody =
    L"<tds:GetNetworkInterfaces></tds:GetNetworkInterfaces>";
constexpr std::wstring_view kGetGatewayBody =
    L"<tds:GetNetworkDefaultGateway></tds:GetNetworkDefaultGateway>";
constexpr std::wstring_view kGetDnsBody = L"<tds:GetDNS></tds:GetDNS>";

std::string Unreadable(const cms::SoapOperation& operation) {
  return cms::Utf8FromWide(operation.name) + ": the answer does not hold what was asked for";
}

// The name of the profile that is number `index` among those with video.
std::wstring VideoProfileName(const std::vector<cms::stVideoProfile>& profiles, int index) {
  for (const cms::stVideoProfile& profile : profiles) {
    if (profile.videoEncoder && index-- == 0) {
      return profile.name;
    }
  }
  return {};
}

}  // namespace

bool CIPCAM_Config_Utility::Read(const cms::SoapOperation& operation, std::wstring_view body) {
  std::wstring answer;
  return Call(operation, body, answer) &&
         (Take(operation.name, answer) || Fail(Unreadable(operation)));
}

bool CIPCAM_Config_Utility::ParserAllONVIFData(std::wstring_view operation,
                                               const std::wstring& answer) {
  return Take(operation, cms::Normalized(answer));
}

bool CIPCAM_Config_Utility::Take(std::wstring_view operation, std::wstring_view answer) {
  if (operation == kGetDeviceInformation.name) {
    return cms::ParseDeviceInformation(answer, onvif_.device);
  }
  if (operation == kGetProfiles.name) {
    return cms::ParseProfiles(answer, onvif_.profiles);
  }
  if (operation == kGetEncoders.name) {
    return cms::ParseVideoEncoderConfigurations(answer, onvif_.videoEncoders);
  }
  if (operation == kGetEncoderOptions.name) {
    cms::stVideoEncoderOptions options;
    if (!cms::ParseVideoEncoderOptions(answer, options)) {
      return false;
    }
    onvif_.videoEncoderOptions = {std::move(options)};
    return true;
  }
  if (operation == kGetImagingOptions.name) {
    return cms::ParseImagingOptions(answer, onvif_.imagingOptions);
  }
  if (operation == kGetImagingSettings.name) {
    return cms::ParseImagingSettings(answer, onvif_.imaging);
  }
  if (operation == kGetNetworkInterfaces.name) {
    return cms::ParseNetworkInterfaces(answer, onvif_.network.interfaces);
  }
  if (operation == kGetGateway.name) {
    return cms::ParseGateway(answer, onvif_.network.gateway);
  }
  return operation == kGetDns.name && cms::ParseNameServers(answer, onvif_.network);
}

bool CIPCAM_Config_Utility::GetDeviceInformation() {
  return Read(kGetDeviceInformation,
              L"<GetDeviceInformation xmlns=\"http://www.onvif.org/ver10/device/wsdl\"/>");
}

bool CIPCAM_Config_Utility::GetVideoProfileONVIFConfig() {
  return Read(kGetProfiles, kGetProfilesBody) && Read(kGetEncoders, kGetEncodersBody);
}

bool CIPCAM_Config_Utility::GetONVIFURI(const std::wstring& profileToken, std::wstring& uri) {
  std::wstring answer;
  if (!Call(kGetStreamUri, cms::StreamUriBody(profileToken), answer)) {
    return false;
  }
  if (!cms::ParseStreamUri(answer, uri)) {
    return Fail(Unreadable(kGetStreamUri));
  }
  const auto profile =
      std::ranges::find(onvif_.profiles, profileToken, &cms::stVideoProfile::token);
  if (profile != onvif_.profiles.end()) {
    profile->uri = uri;
  }
  return true;
}

bool CIPCAM_Config_Utility::ONVIF_GetVideoEncoderConfigurationOptions(
    const std::wstring& configurationToken, const std::wstring& profileToken,
    cms::stVideoEncoderOptions& options) {
  std::wstring answer;
  if (!Call(kGetEncoderOptions, cms::VideoEncoderOptionsBody(configurationToken, profileToken),
            answer)) {
    return false;
  }
  if (!cms::ParseVideoEncoderOptions(answer, options)) {
    return Fail(Unreadable(kGetEncoderOptions));
  }
  options.configurationToken = configurationToken;
  return true;
}

bool CIPCAM_Config_Utility::ONVIF_GetUsableVideoEncoderConfiguration(
    const std::wstring& profileToken,
    std::vector<cms::stVideoEncoderConfiguration>& configurations) {
  std::wstring answer;
  const std::wstring body = L"<trt:GetCompatibleVideoEncoderConfigurations>" +
                            cms::Element(L"ProfileToken", profileToken) +
                            L"</trt:GetCompatibleVideoEncoderConfigurations>";
  return Call(kGetCompatibleEncoders, body, answer) &&
         (cms::ParseVideoEncoderConfigurations(answer, configurations) ||
          Fail(Unreadable(kGetCompatibleEncoders)));
}

bool CIPCAM_Config_Utility::GetVideoPropertyONVIFConfig() {
  if (!FindVideoSource()) {
    return false;
  }
  const std::wstring& token = onvif_.videoSourceToken;
  return Read(kGetImagingOptions, cms::GetImagingBody(kGetImagingOptions.name, token)) &&
         Read(kGetImagingSettings, cms::GetImagingBody(kGetImagingSettings.name, token));
}

// Imaging belongs to a video source, which the profiles tell; they are read when they were not yet.
bool CIPCAM_Config_Utility::FindVideoSource() {
  if (onvif_.profiles.empty() && !Read(kGetProfiles, kGetProfilesBody)) {
    return false;
  }
  for (const cms::stVideoProfile& profile : onvif_.profiles) {
    if (!profile.videoSourceToken.empty()) {
      onvif_.videoSourceToken = profile.videoSourceToken;
      return true;
    }
  }
  return Fail("none of its profiles has a video source");
}

bool CIPCAM_Config_Utility::GetNetworkONVIFConfig() {
  return Read(kGetNetworkInterfaces, kGetNetworkInterfacesBody) &&
         Read(kGetGateway, kGetGatewayBody) && Read(kGetDns, kGetDnsBody);
}

bool CIPCAM_Config_Utility::GetAllONVIFConfig() {
  onvif_ = {};
  if (!GetDeviceInformation() || !Read(kGetProfiles, kGetProfilesBody)) {
    return false;
  }
  // From here on a camera may do without what it does not offer, but not without answering, and it
  // must not refuse the user.
  std::string refused;
  const auto passable = [this, &refused](bool done) {
    if (!done && refused.empty()) {
      refused = error_;
    }
    return done || (answered_ && result_ != cms::kHttpCommandUnauthorized);
  };
  if (!passable(Read(kGetEncoders, kGetEncodersBody))) {
    return false;
  }
  std::vector<cms::stVideoEncoderOptions> all;
  for (const cms::stVideoProfile& profile : std::vector<cms::stVideoProfile>(onvif_.profiles)) {
    std::wstring uri;
    if (!passable(GetONVIFURI(profile.token, uri))) {
      return false;
    }
    if (!profile.videoEncoder ||
        std::ranges::find(all, profile.videoEncoder->token,
                          &cms::stVideoEncoderOptions::configurationToken) != all.end()) {
      continue;
    }
    cms::stVideoEncoderOptions options;
    options.configurationToken = profile.videoEncoder->token;
    if (!passable(ONVIF_GetVideoEncoderConfigurationOptions(profile.videoEncoder->token,
                                                            profile.token, options))) {
      return false;
    }
    all.push_back(std::move(options));
  }
  onvif_.videoEncoderOptions = std::move(all);
  if (FindVideoSource()) {
    const std::wstring& token = onvif_.videoSourceToken;
    if (!passable(Read(kGetImagingOptions, cms::GetImagingBody(kGetImagingOptions.name, token))) ||
        !passable(
            Read(kGetImagingSettings, cms::GetImagingBody(kGetImagingSettings.name, token)))) {
      return false;
    }
  }
  const bool done = passable(Read(kGetNetworkInterfaces, kGetNetworkInterfacesBody)) &&
                    passable(Read(kGetGateway, kGetGatewayBody)) &&
                    passable(Read(kGetDns, kGetDnsBody)) && Succeed();
  error_ = done ? refused : error_;
  return done;
}

std::wstring CIPCAM_Config_Utility::GetMainStreamProfileName() const {
  return VideoProfileName(onvif_.profiles, 0);
}

std::wstring CIPCAM_Config_Utility::GetSubStreamProfileName() const {
  return VideoProfileName(onvif_.profiles, 1);
}
