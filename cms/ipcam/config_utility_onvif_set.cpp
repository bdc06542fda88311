// What CIPCAM_Config_Utility changes over ONVIF.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <utility>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/media_answers.h"
#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/runtime/wide_text.h"

namespace {

constexpr cms::SoapOperation kSetVideoEncoder =
    cms::MediaOperation(L"SetVideoEncoderConfiguration");
constexpr cms::SoapOperation kSetAudioEncoder =
    cms::MediaOperation(L"SetAudioEncoderConfiguration");
constexpr cms::SoapOperation kCreateProfile = cms::ProfileOperation(L"CreateProfile");
constexpr cms::SoapOperation kAddVideoSource =
    cms::ProfileOperation(L"AddVideoSourceConfiguration");
constexpr cms::SoapOperation kAddVideoEncoder =
    cms::ProfileOperation(L"AddVideoEncoderConfiguration");
constexpr cms::SoapOperation kAddMetadata = cms::ProfileOperation(L"AddMetadataConfiguration");
constexpr cms::SoapOperation kSetImaging = cms::ImagingOperation(L"SetImagingSettings");
constexpr cms::SoapOperation kSetInterfaces = cms::DeviceOperation(L"SetNetworkInterfaces");
constexpr cms::SoapOperation kSetGateway = cms::DeviceOperation(L"SetNetworkDefaultGateway");
constexpr cms::SoapOperation kSetDns = cms::DeviceOperation(L"SetDNS");
constexpr cms::SoapOperation kFactoryDefault = cms::DeviceOperation(L"SetSystemFactoryDefault");

void Clamp(int& value, const std::optional<cms::stRange>& range) {
  if (range && range->min <= range->max) {
    value = static_cast<int>(std::clamp<double>(value, range->min, range->max));
  }
}

// The nearest in both directions; the largest when nothing is wished.
cms::stResolution Nearest(const std::vector<cms::stResolution>& offered,
                          const cms::stResolution& wish) {
  const auto area = [](const cms::stResolution& one) {
    return std::int64_t{one.width} * one.height;
  };
  if (wish == cms::stResolution{}) {
    return *std::ranges::max_element(offered, {}, area);
  }
  return *std::ranges::min_element(offered, {}, [&wish](const cms::stResolution& one) {
    return std::abs(std::int64_t{one.width} - wish.width) +
           std::abs(std::int64_t{one.height} - wish.height);
  });
}

// `configuration` as the wish says, within what the camera offers; false when it cannot be so.
bool Adapt(const cms::stAutoStream& wish, const cms::stVideoEncoderOptions& options,
           cms::stVideoEncoderConfiguration& configuration) {
  const auto codec =
      std::ranges::find(options.codecs, wish.encoding, &cms::stCodecOptions::encoding);
  if (codec == options.codecs.end() || codec->resolutions.empty()) {
    return false;
  }
  configuration.encoding = wish.encoding;
  configuration.resolution = Nearest(codec->resolutions, wish.resolution);
  if (options.quality && options.quality->min <= options.quality->max) {
    configuration.quality =
        std::clamp(configuration.quality, options.quality->min, options.quality->max);
  }
  Clamp(configuration.frameRateLimit, codec->frameRate);
  Clamp(configuration.encodingInterval, codec->encodingInterval);
  Clamp(configuration.bitrateLimit, codec->bitrate);
  Clamp(configuration.govLength, codec->govLength);
  const auto& profiles = codec->h264Profiles;
  if (std::ranges::find(profiles, configuration.h264Profile) == profiles.end()) {
    configuration.h264Profile = profiles.empty() ? L"Main" : profiles.front();
  }
  return true;
}

bool Fulfills(const cms::stVideoProfile& profile, const cms::stAutoStream& wish) {
  return profile.videoEncoder && profile.videoEncoder->encoding == wish.encoding &&
         (wish.resolution == cms::stResolution{} ||
          profile.videoEncoder->resolution == wish.resolution);
}

}  // namespace

bool CIPCAM_Config_Utility::Set(const cms::SoapOperation& operation, std::wstring_view body) {
  std::wstring answer;
  return Call(operation, body, answer);
}

bool CIPCAM_Config_Utility::ONVIF_SetVideoEncoderConfiguration(
    const cms::stVideoEncoderConfiguration& configuration) {
  if (configuration.encoding == L"H264") {
    return Set(kSetVideoEncoder, cms::H264EncoderBody(configuration));
  }
  if (configuration.encoding == L"JPEG") {
    return Set(kSetVideoEncoder, cms::JpegEncoderBody(configuration));
  }
  return Fail("a video encoder is set to H264 or JPEG, not to \"" +
              cms::Utf8FromWide(configuration.encoding) + "\"");
}

bool CIPCAM_Config_Utility::ONVIF_SetVideoEncoderConfiguration(const std::wstring& encoding,
                                                               double quality) {
  return Set(kSetVideoEncoder, cms::Profile1EncoderBody(encoding, quality));
}

bool CIPCAM_Config_Utility::ONVIF_SetAudioEncoderConfiguration(
    const cms::stAudioEncoderConfiguration& configuration) {
  return Set(kSetAudioEncoder, cms::AudioEncoderBody(configuration));
}

bool CIPCAM_Config_Utility::ONVIF_CreateProfile(const std::wstring& name, std::wstring& token) {
  std::wstring answer;
  const std::wstring body =
      L"<trt:CreateProfile>" + cms::Element(L"Name", name) + L"</trt:CreateProfile>";
  return Call(kCreateProfile, body, answer) &&
         (cms::ParseCreatedProfile(answer, token) ||
          Fail("CreateProfile: the answer does not tell the profile's token"));
}

bool CIPCAM_Config_Utility::ONVIF_AddVideoSourceConfiguration(
    const std::wstring& profileToken, const std::wstring& configurationToken) {
  return Set(kAddVideoSource,
             cms::AddConfigurationBody(kAddVideoSource.name, profileToken, configurationToken));
}

bool CIPCAM_Config_Utility::ONVIF_AddVideoEncoderConfiguration(
    const std::wstring& profileToken, const std::wstring& configurationToken) {
  return Set(kAddVideoEncoder,
             cms::AddConfigurationBody(kAddVideoEncoder.name, profileToken, configurationToken));
}

bool CIPCAM_Config_Utility::ONVIF_AddMetadataConfiguration(const std::wstring& profileToken,
                                                           const std::wstring& configurationToken) {
  return Set(kAddMetadata,
             cms::AddConfigurationBody(kAddMetadata.name, profileToken, configurationToken));
}

bool CIPCAM_Config_Utility::ONVIF_AutoStream(const cms::stAutoStream& wish, std::wstring& uri) {
  if (!GetVideoProfileONVIFConfig()) {
    return false;
  }
  const std::vector<cms::stVideoProfile> profiles = onvif_.profiles;
  for (const cms::stVideoProfile& profile : profiles) {
    if (Fulfills(profile, wish)) {
      return GetONVIFURI(profile.token, uri);
    }
  }
  for (const cms::stVideoProfile& profile : profiles) {
    if (profile.videoEncoder && SetUpEncoder(wish, *profile.videoEncoder, profile.token)) {
      return GetONVIFURI(profile.token, uri);
    }
    if (profile.videoEncoder && !answered_) {
      return false;
    }
  }
  std::wstring token;
  return AddProfile(wish, token) && GetONVIFURI(token, uri);
}

bool CIPCAM_Config_Utility::SetUpEncoder(const cms::stAutoStream& wish,
                                         cms::stVideoEncoderConfiguration configuration,
                                         const std::wstring& profileToken) {
  cms::stVideoEncoderOptions options;
  if (!ONVIF_GetVideoEncoderConfigurationOptions(configuration.token, profileToken, options)) {
    return false;
  }
  if (!Adapt(wish, options, configuration)) {
    return Fail("video encoder " + cms::Utf8FromWide(configuration.token) + " offers no " +
                cms::Utf8FromWide(wish.encoding));
  }
  return ONVIF_SetVideoEncoderConfiguration(configuration);
}

// A profile of the first video source with an encoder that is not one of the profiles'.
bool CIPCAM_Config_Utility::AddProfile(const cms::stAutoStream& wish, std::wstring& profileToken) {
  std::wstring source;
  std::wstring metadata;
  for (const cms::stVideoProfile& profile : onvif_.profiles) {
    source = source.empty() ? profile.videoSourceConfigurationToken : source;
    metadata = metadata.empty() ? profile.metadataConfigurationToken : metadata;
  }
  if (source.empty()) {
    return Fail("none of its profiles has a video source");
  }
  std::vector<cms::stVideoEncoderConfiguration> encoders;
  if (!ONVIF_CreateProfile(L"AutoStream", profileToken) ||
      !ONVIF_AddVideoSourceConfiguration(profileToken, source) ||
      !ONVIF_GetUsableVideoEncoderConfiguration(profileToken, encoders)) {
    return false;
  }
  for (const cms::stVideoEncoderConfiguration& encoder : encoders) {
    if (SetUpEncoder(wish, encoder, profileToken)) {
      return ONVIF_AddVideoEncoderConfiguration(profileToken, encoder.token) &&
             (metadata.empty() || ONVIF_AddMetadataConfiguration(profileToken, metadata));
    }
    if (!answered_) {
      return false;
    }
  }
  return Fail("no video encoder can be set to " + cms::Utf8FromWide(wish.encoding));
}

std::wstring CIPCAM_Config_Utility::GenerateVideoPropertyONVIFBody(
    const cms::stImagingSettings& settings) {
  return cms::ImagingItems(settings);
}

bool CIPCAM_Config_Utility::SetVideoPropertyONVIFConfig(const cms::stImagingSettings& settings) {
  if (onvif_.videoSourceToken.empty() && !FindVideoSource()) {
    return false;
  }
  return Set(kSetImaging, cms::SetImagingBody(onvif_.videoSourceToken, settings));
}

bool CIPCAM_Config_Utility::SetNetworkInterfaceONVIFConfig(const cms::stNetworkSettings& settings) {
  if (settings.interfaceToken.empty()) {
    return Fail("which network interface is to be set?");
  }
  if (!settings.dhcp &&
      (settings.address.empty() || settings.prefixLength < 1 || settings.prefixLength > 32)) {
    return Fail("without DHCP an address and a prefix length of 1 to 32 are needed");
  }
  if (settings.gateway) {
    const std::wstring body = L"<tds:SetNetworkDefaultGateway>" +
                              cms::Element(L"tds:IPv4Address", *settings.gateway) +
                              L"</tds:SetNetworkDefaultGateway>";
    if (!Set(kSetGateway, body)) {
      return false;
    }
  }
  if (settings.dns && !Set(kSetDns, cms::NameServerBody(*settings.dns))) {
    return false;
  }
  return Set(kSetInterfaces, cms::NetworkInterfaceBody(settings));
}

bool CIPCAM_Config_Utility::SetAllONVIFConfig(const cms::stONVIFChanges& changes) {
  for (const cms::stVideoEncoderConfiguration& encoder : changes.videoEncoders) {
    if (!ONVIF_SetVideoEncoderConfiguration(encoder)) {
      return false;
    }
  }
  for (const cms::stAudioEncoderConfiguration& encoder : changes.audioEncoders) {
    if (!ONVIF_SetAudioEncoderConfiguration(encoder)) {
      return false;
    }
  }
  return (!changes.imaging || SetVideoPropertyONVIFConfig(*changes.imaging)) &&
         (!changes.network || SetNetworkInterfaceONVIFConfig(*changes.network));
}

bool CIPCAM_Config_Utility::SetSystemFactoryDefault() {
  return Set(kFactoryDefault,
             L"<tds:SetSystemFactoryDefault><tds:FactoryDefault>Hard</tds:FactoryDefault>"
             L"</tds:SetSystemFactoryDefault>");
}
