// orvanta onvif: a camera's configuration over ONVIF.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/runtime/wide_text.h"
#include "tools/commands/command.h"
#include "tools/commands/onvif_device_commands.h"
#include "tools/commands/onvif_events_command.h"
#include "tools/commands/onvif_media_commands.h"
#include "tools/commands/onvif_ptz_command.h"
#include "tools/support/camera_site.h"
#include "tools/support/onvif_json.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct EncoderArguments {
  std::string token;
  std::optional<std::string> encoding;
  std::optional<std::string> size;
  std::optional<double> quality;
  std::optional<int> fps;
  std::optional<int> interval;
  std::optional<int> bitrate;
  std::optional<int> gop;
  std::optional<std::string> profile;
};

struct ImagingArguments {
  std::optional<double> brightness;
  std::optional<double> saturation;
  std::optional<double> contrast;
  std::optional<double> sharpness;
  std::optional<std::string> irCutFilter;
  std::optional<std::string> whiteBalance;
  double crGain = 0;
  double cbGain = 0;
  std::optional<std::string> backlight;
  std::optional<std::string> wideDynamicRange;
};

struct NetworkArguments {
  std::string interface;
  bool dhcp = false;
  std::string address;
  int prefix = 24;
  std::optional<std::string> gateway;
  std::optional<std::string> dns;
};

struct OnvifArguments {
  SiteArguments site;
  std::string profile;
  std::string configuration;
  EncoderArguments encoder;
  ImagingArguments imaging;
  NetworkArguments network;
  std::string name;
  std::string videoSource;
  std::string videoEncoder;
  std::string metadata;
  bool yes = false;
};

std::optional<std::wstring> Wide(const std::optional<std::string>& text) {
  return text ? std::optional(cms::WideFromUtf8(*text)) : std::nullopt;
}

Json Info(CameraSite& site, const OnvifArguments&) {
  site.Require(site->GetDeviceInformation());
  return ToJson(site->ONVIFConfiguration().device);
}

Json Profiles(CameraSite& site, const OnvifArguments&) {
  site.Require(site->GetVideoProfileONVIFConfig());
  return {{"Profiles", ListJson(site->ONVIFConfiguration().profiles)}};
}

Json Uri(CameraSite& site, const OnvifArguments& arguments) {
  std::wstring token = cms::WideFromUtf8(arguments.profile);
  if (token.empty()) {
    site.Require(site->GetVideoProfileONVIFConfig());
    if (site->ONVIFConfiguration().profiles.empty()) {
      throw std::runtime_error("the camera has no profile");
    }
    token = site->ONVIFConfiguration().profiles.front().token;
  }
  std::wstring uri;
  site.Require(site->GetONVIFURI(token, uri));
  return {{"ProfileToken", cms::Utf8FromWide(token)}, {"Uri", cms::Utf8FromWide(uri)}};
}

Json Encoders(CameraSite& site, const OnvifArguments&) {
  site.Require(site->GetVideoProfileONVIFConfig());
  return {{"Configurations", ListJson(site->ONVIFConfiguration().videoEncoders)}};
}

Json EncoderOptions(CameraSite& site, const OnvifArguments& arguments) {
  cms::stVideoEncoderOptions options;
  site.Require(site->ONVIF_GetVideoEncoderConfigurationOptions(
      cms::WideFromUtf8(arguments.configuration), cms::WideFromUtf8(arguments.profile), options));
  return {{"Options", ToJson(options)}};
}

cms::stVideoEncoderConfiguration FindEncoder(CameraSite& site, const std::string& token) {
  site.Require(site->GetVideoProfileONVIFConfig());
  const auto& encoders = site->ONVIFConfiguration().videoEncoders;
  const auto found = std::find_if(encoders.begin(), encoders.end(), [&](const auto& each) {
    return each.token == cms::WideFromUtf8(token);
  });
  if (found == encoders.end()) {
    throw std::runtime_error("the camera has no encoder configuration " + token);
  }
  return *found;
}

void ReadEncoderSize(const std::string& text, cms::stResolution* size) {
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5dx%5d%c", &size->width, &size->height, &rest) != 2 ||
      size->width <= 0 || size->height <= 0) {
    throw UsageError("--size", "\"" + text + "\" is not of the form 1280x720");
  }
}

// Prints what the camera has afterwards.
Json SetEncoder(CameraSite& site, const OnvifArguments& arguments) {
  const EncoderArguments& wanted = arguments.encoder;
  cms::stResolution size;
  if (wanted.size) {
    ReadEncoderSize(*wanted.size, &size);
  }
  cms::stVideoEncoderConfiguration encoder = FindEncoder(site, wanted.token);
  encoder.encoding = Wide(wanted.encoding).value_or(encoder.encoding);
  encoder.resolution = wanted.size ? size : encoder.resolution;
  encoder.quality = wanted.quality.value_or(encoder.quality);
  encoder.frameRateLimit = wanted.fps.value_or(encoder.frameRateLimit);
  encoder.encodingInterval = wanted.interval.value_or(encoder.encodingInterval);
  encoder.bitrateLimit = wanted.bitrate.value_or(encoder.bitrateLimit);
  encoder.govLength = wanted.gop.value_or(encoder.govLength);
  encoder.h264Profile = Wide(wanted.profile).value_or(encoder.h264Profile);
  site.Require(site->ONVIF_SetVideoEncoderConfiguration(encoder));
  return {{"Configuration", ToJson(FindEncoder(site, wanted.token))}};
}

Json ReadImaging(CameraSite& site, const OnvifArguments&) {
  site.Require(site->GetVideoPropertyONVIFConfig());
  const cms::stONVIFConfiguration& read = site->ONVIFConfiguration();
  return {{"VideoSourceToken", cms::Utf8FromWide(read.videoSourceToken)},
          {"ImagingSettings", ToJson(read.imaging)},
          {"ImagingOptions", ToJson(read.imagingOptions)}};
}

Json SetImaging(CameraSite& site, const OnvifArguments& arguments) {
  const ImagingArguments& wanted = arguments.imaging;
  cms::stImagingSettings settings;
  settings.brightness = wanted.brightness;
  settings.colorSaturation = wanted.saturation;
  settings.contrast = wanted.contrast;
  settings.sharpness = wanted.sharpness;
  settings.irCutFilter = Wide(wanted.irCutFilter);
  if (wanted.whiteBalance) {
    settings.whiteBalance =
        cms::stWhiteBalance{cms::WideFromUtf8(*wanted.whiteBalance), wanted.crGain, wanted.cbGain};
  }
  settings.backlightCompensation = Wide(wanted.backlight);
  settings.wideDynamicRange = Wide(wanted.wideDynamicRange);
  site.Require(site->SetVideoPropertyONVIFConfig(settings));
  return ReadImaging(site, arguments);
}

Json ReadNetwork(CameraSite& site, const OnvifArguments&) {
  site.Require(site->GetNetworkONVIFConfig());
  return ToJson(site->ONVIFConfiguration().network);
}

// The camera may be elsewhere afterwards, so nothing is read back.
Json SetNetwork(CameraSite& site, const OnvifArguments& arguments) {
  const NetworkArguments& wanted = arguments.network;
  if (wanted.dhcp == !wanted.address.empty()) {
    throw UsageError("set-network", "say either --dhcp or --address");
  }
  cms::stNetworkSettings settings;
  settings.interfaceToken = cms::WideFromUtf8(wanted.interface);
  if (wanted.interface.empty()) {
    site.Require(site->GetNetworkONVIFConfig());
    if (site->ONVIFConfiguration().network.interfaces.empty()) {
      throw std::runtime_error("the camera tells of no network interface");
    }
    settings.interfaceToken = site->ONVIFConfiguration().network.interfaces.front().token;
  }
  settings.dhcp = wanted.dhcp;
  settings.address = cms::WideFromUtf8(wanted.address);
  settings.prefixLength = wanted.prefix;
  settings.gateway = Wide(wanted.gateway);
  settings.dns = Wide(wanted.dns);
  if (settings.dns == L"dhcp") {
    settings.dns = L"";
  }
  site.Require(site->SetNetworkInterfaceONVIFConfig(settings));
  return {{"InterfaceToken", cms::Utf8FromWide(settings.interfaceToken)}};
}

Json CreateProfile(CameraSite& site, const OnvifArguments& arguments) {
  std::wstring token;
  site.Require(site->ONVIF_CreateProfile(cms::WideFromUtf8(arguments.name), token));
  const auto add = [&](bool (CIPCAM_Config_Utility::*put)(const std::wstring&, const std::wstring&),
                       const std::string& configuration) {
    if (!configuration.empty()) {
      site.Require(((*site.operator->()).*put)(token, cms::WideFromUtf8(configuration)));
    }
  };
  add(&CIPCAM_Config_Utility::ONVIF_AddVideoSourceConfiguration, arguments.videoSource);
  add(&CIPCAM_Config_Utility::ONVIF_AddVideoEncoderConfiguration, arguments.videoEncoder);
  add(&CIPCAM_Config_Utility::ONVIF_AddMetadataConfiguration, arguments.metadata);
  return {{"ProfileToken", cms::Utf8FromWide(token)}};
}

Json CameraClock(CameraSite& site, const OnvifArguments&) {
  site.Require(site->ONVIF_Device_GetSystemDateAndTime());
  const std::int64_t ahead = site->ClockOffset();
  return {{"UTCDateTime", UtcTime(std::time(nullptr) + ahead)}, {"SecondsAhead", ahead}};
}

Json FactoryDefault(CameraSite& site, const OnvifArguments& arguments) {
  if (!arguments.yes) {
    throw UsageError("factory-default", "forgets all settings, the network's too; say --yes");
  }
  site.Require(site->SetSystemFactoryDefault());
  return {{"FactoryDefault", "Hard"}};
}

}  // namespace

void AddOnvifCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<OnvifArguments>();
  const Command onvif = AddSiteCommand(
      app, "onvif", "Read and change a camera's settings over ONVIF, hear what it tells",
      arguments->site);
  const auto add = SiteSubcommands(onvif, arguments, result);
  add("info", "Maker, model, firmware, serial number", Info);
  add("profiles", "The media profiles", Profiles);
  add("uri", "Where a profile is streamed", Uri)
      .AddOption("--profile", arguments->profile, "Its token; the first one's when not given");
  add("encoders", "What the video encoders are set to", Encoders);
  const Command options = add("options", "What a video encoder can be set to", EncoderOptions);
  options.AddOption("--token", arguments->configuration, "The encoder configuration's token");
  options.AddOption("--profile", arguments->profile, "A profile's token");

  EncoderArguments& encoder = arguments->encoder;
  Command set = add("set-encoder", "Sets a video encoder and prints what it has then", SetEncoder);
  set.AddOption("--token", encoder.token, "The encoder configuration's token").Required();
  set.AddOption("--encoding", encoder.encoding).OneOf({"H264", "JPEG"});
  set.AddOption("--size", encoder.size).TypeName("WxH");
  set.AddOption("--quality", encoder.quality);
  set.AddOption("--fps", encoder.fps, "Pictures a second");
  set.AddOption("--interval", encoder.interval, "Of them every so many");
  set.AddOption("--bitrate", encoder.bitrate, "kbit/s");
  set.AddOption("--gop", encoder.gop, "Pictures from key frame to key frame");
  set.AddOption("--h264-profile", encoder.profile);

  add("imaging", "The picture's settings and what they can be", ReadImaging);
  ImagingArguments& imaging = arguments->imaging;
  set = add("set-imaging", "Sets them and prints what the camera has then", SetImaging);
  set.AddOption("--brightness", imaging.brightness);
  set.AddOption("--saturation", imaging.saturation);
  set.AddOption("--contrast", imaging.contrast);
  set.AddOption("--sharpness", imaging.sharpness);
  set.AddOption("--ir-cut-filter", imaging.irCutFilter, "ON, OFF or AUTO");
  set.AddOption("--white-balance", imaging.whiteBalance, "AUTO or MANUAL");
  set.AddOption("--cr-gain", imaging.crGain).Needs("--white-balance");
  set.AddOption("--cb-gain", imaging.cbGain).Needs("--white-balance");
  set.AddOption("--backlight", imaging.backlight, "ON or OFF");
  set.AddOption("--wide-dynamic-range", imaging.wideDynamicRange, "ON or OFF");

  add("network", "Interfaces, gateway and name servers", ReadNetwork);
  NetworkArguments& network = arguments->network;
  set = add("set-network", "Sets an interface; the camera may be elsewhere then", SetNetwork);
  set.AddOption("--interface", network.interface, "Its token; the first one's when not given");
  set.AddFlag("--dhcp", network.dhcp);
  set.AddOption("--address", network.address).IPv4();
  set.AddOption("--prefix", network.prefix, "Bits of the network's part")
      .ShowDefault()
      .InRange(1, 32);
  set.AddOption("--gateway", network.gateway).IPv4();
  set.AddOption("--dns", network.dns, "A name server's address, or dhcp").IPv4Or("dhcp");

  set = add("create-profile", "Makes a media profile", CreateProfile);
  set.AddOption("name", arguments->name).Required().TypeName("NAME");
  set.AddOption("--video-source", arguments->videoSource, "Token of a configuration to put in");
  set.AddOption("--video-encoder", arguments->videoEncoder, "The same of an encoder");
  set.AddOption("--metadata", arguments->metadata, "The same of metadata");
  add("clock", "The camera's clock", CameraClock);
  AddOnvifEventsCommand(onvif, arguments->site, result);
  AddOnvifPtzCommand(onvif, arguments->site, result);
  AddOnvifMediaCommands(onvif, arguments->site, result);
  AddOnvifDeviceCommands(onvif, arguments->site, result);
  add("factory-default", "Forgets all settings, the network's too", FactoryDefault)
      .AddFlag("--yes", arguments->yes, "Yes, do it");
}

}  // namespace tools
