#include "tools/support/onvif_json.h"

#include <optional>

#include "cms/runtime/wide_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

Json Value(const std::wstring& text) {
  return cms::Utf8FromWide(text);
}

Json Value(const cms::stRange& range) {
  return {{"Min", range.min}, {"Max", range.max}};
}

Json Value(double number) {
  return number;
}

Json Value(const cms::stResolution& size) {
  return {{"Width", size.width}, {"Height", size.height}};
}

template <typename T>
Json Values(const std::vector<T>& list) {
  Json array = Json::array();
  for (const T& each : list) {
    array.push_back(Value(each));
  }
  return array;
}

// What the camera did not send is left out.
template <typename T>
void Add(Json* object, const char* name, const std::optional<T>& value) {
  if (value) {
    (*object)[name] = Value(*value);
  }
}

void Add(Json* object, const char* name, const std::wstring& text) {
  if (!text.empty()) {
    (*object)[name] = Value(text);
  }
}

template <typename T>
void AddList(Json* object, const char* name, const std::vector<T>& list) {
  if (!list.empty()) {
    (*object)[name] = Values(list);
  }
}

}  // namespace

Json ToJson(const cms::stONVIFDeviceInformation& device) {
  return {{"Manufacturer", Value(device.manufacturer)},
          {"Model", Value(device.model)},
          {"FirmwareVersion", Value(device.firmwareVersion)},
          {"SerialNumber", Value(device.serialNumber)},
          {"HardwareId", Value(device.hardwareId)}};
}

Json ToJson(const cms::stVideoEncoderConfiguration& encoder) {
  Json json = {{"token", Value(encoder.token)},
               {"Name", Value(encoder.name)},
               {"UseCount", encoder.useCount},
               {"Encoding", Value(encoder.encoding)},
               {"Resolution", Value(encoder.resolution)},
               {"Quality", encoder.quality},
               {"RateControl",
                {{"FrameRateLimit", encoder.frameRateLimit},
                 {"EncodingInterval", encoder.encodingInterval},
                 {"BitrateLimit", encoder.bitrateLimit}}}};
  if (encoder.encoding == L"H264") {
    json["H264"] = {{"GovLength", encoder.govLength}, {"H264Profile", Value(encoder.h264Profile)}};
  } else if (encoder.encoding == L"MPEG4") {
    json["MPEG4"] = {{"GovLength", encoder.govLength}};
  }
  json["Multicast"] = {{"Address", {{"IPv4Address", Value(encoder.multicast.address)}}},
                       {"Port", encoder.multicast.port},
                       {"TTL", encoder.multicast.ttl},
                       {"AutoStart", encoder.multicast.autoStart}};
  json["SessionTimeout"] = Value(encoder.sessionTimeout);
  return json;
}

Json ToJson(const cms::stVideoEncoderOptions& options) {
  Json json = Json::object();
  Add(&json, "ConfigurationToken", options.configurationToken);
  Add(&json, "QualityRange", options.quality);
  for (const cms::stCodecOptions& codec : options.codecs) {
    Json each = {{"ResolutionsAvailable", Values(codec.resolutions)}};
    Add(&each, "GovLengthRange", codec.govLength);
    Add(&each, "FrameRateRange", codec.frameRate);
    Add(&each, "EncodingIntervalRange", codec.encodingInterval);
    Add(&each, "BitrateRange", codec.bitrate);
    AddList(&each, "H264ProfilesSupported", codec.h264Profiles);
    json[cms::Utf8FromWide(codec.encoding)] = each;
  }
  return json;
}

Json ToJson(const cms::stVideoProfile& profile) {
  Json json = {{"token", Value(profile.token)}, {"Name", Value(profile.name)}};
  if (!profile.videoSourceConfigurationToken.empty()) {
    json["VideoSourceConfiguration"] = {{"token", Value(profile.videoSourceConfigurationToken)},
                                        {"SourceToken", Value(profile.videoSourceToken)}};
  }
  if (profile.videoEncoder) {
    json["VideoEncoderConfiguration"] = ToJson(*profile.videoEncoder);
  }
  if (profile.audioEncoder) {
    json["AudioEncoderConfiguration"] = {{"token", Value(profile.audioEncoder->token)},
                                         {"Name", Value(profile.audioEncoder->name)},
                                         {"Encoding", Value(profile.audioEncoder->encoding)},
                                         {"Bitrate", profile.audioEncoder->bitrate},
                                         {"SampleRate", profile.audioEncoder->sampleRate}};
  }
  if (!profile.metadataConfigurationToken.empty()) {
    json["MetadataConfiguration"] = {{"token", Value(profile.metadataConfigurationToken)}};
  }
  return json;
}

Json ToJson(const cms::stImagingSettings& imaging) {
  Json json = Json::object();
  Add(&json, "Brightness", imaging.brightness);
  Add(&json, "ColorSaturation", imaging.colorSaturation);
  Add(&json, "Contrast", imaging.contrast);
  Add(&json, "Sharpness", imaging.sharpness);
  Add(&json, "IrCutFilter", imaging.irCutFilter);
  if (imaging.whiteBalance) {
    json["WhiteBalance"] = {{"Mode", Value(imaging.whiteBalance->mode)},
                            {"CrGain", imaging.whiteBalance->crGain},
                            {"CbGain", imaging.whiteBalance->cbGain}};
  }
  if (imaging.backlightCompensation) {
    json["BacklightCompensation"] = {{"Mode", Value(*imaging.backlightCompensation)}};
  }
  if (imaging.wideDynamicRange) {
    json["WideDynamicRange"] = {{"Mode", Value(*imaging.wideDynamicRange)}};
  }
  return json;
}

Json ToJson(const cms::stImagingOptions& options) {
  Json json = Json::object();
  Add(&json, "Brightness", options.brightness);
  Add(&json, "ColorSaturation", options.colorSaturation);
  Add(&json, "Contrast", options.contrast);
  Add(&json, "Sharpness", options.sharpness);
  AddList(&json, "IrCutFilterModes", options.irCutFilterModes);
  Json balance = Json::object();
  AddList(&balance, "Mode", options.whiteBalanceModes);
  Add(&balance, "YrGain", options.crGain);
  Add(&balance, "YbGain", options.cbGain);
  if (!balance.empty()) {
    json["WhiteBalance"] = balance;
  }
  if (!options.backlightCompensationModes.empty()) {
    json["BacklightCompensation"] = {{"Mode", Values(options.backlightCompensationModes)}};
  }
  if (!options.wideDynamicRangeModes.empty()) {
    json["WideDynamicRange"] = {{"Mode", Values(options.wideDynamicRangeModes)}};
  }
  return json;
}

Json ToJson(const cms::stNetworkConfiguration& network) {
  Json interfaces = Json::array();
  for (const cms::stNetworkInterface& each : network.interfaces) {
    interfaces.push_back(
        {{"token", Value(each.token)},
         {"Enabled", each.enabled},
         {"Info", {{"Name", Value(each.name)}, {"HwAddress", Value(each.hardwareAddress)}}},
         {"IPv4",
          {{"Address", Value(each.address)},
           {"PrefixLength", each.prefixLength},
           {"DHCP", each.dhcp}}}});
  }
  return {{"NetworkInterfaces", interfaces},
          {"NetworkGateway", {{"IPv4Address", Value(network.gateway)}}},
          {"DNSInformation",
           {{"FromDHCP", network.dnsFromDhcp}, {"IPv4Address", Values(network.dns)}}}};
}

}  // namespace tools
