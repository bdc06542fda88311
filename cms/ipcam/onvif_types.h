// What is read from a camera, and set, over ONVIF. Names follow the ONVIF schema; texts that the
// camera did not send are empty and numbers 0, except where std::optional tells.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cms {

struct stONVIFDeviceInformation {
  std::wstring manufacturer;
  std::wstring model;
  std::wstring firmwareVersion;
  std::wstring serialNumber;
  std::wstring hardwareId;
};

struct stResolution {
  int width = 0;  // pixels
  int height = 0;
  bool operator==(const stResolution&) const = default;
};

struct stRange {
  double min = 0;
  double max = 0;
};

struct stMulticastConfiguration {
  std::wstring address = L"0.0.0.0";  // IPv4
  int port = 0;
  int ttl = 1;
  bool autoStart = false;
};

struct stVideoEncoderConfiguration {
  std::wstring token;
  std::wstring name;
  int useCount = 0;
  std::wstring encoding;  // one of cms::CodecNames
  stResolution resolution;
  double quality = 0;
  int frameRateLimit = 0;    // pictures a second
  int encodingInterval = 1;  // every so many of them
  int bitrateLimit = 0;      // kbit/s
  int govLength = 0;         // pictures from key frame to key frame
  std::wstring h264Profile;  // "Baseline", "Main", "Extended", "High"
  stMulticastConfiguration multicast;
  std::wstring sessionTimeout = L"PT60S";  // an XML duration
};

// What one codec of an encoder configuration can be set to.
struct stCodecOptions {
  std::wstring encoding;
  std::vector<stResolution> resolutions;
  std::optional<stRange> frameRate;
  std::optional<stRange> encodingInterval;
  std::optional<stRange> bitrate;
  std::optional<stRange> govLength;
  std::vector<std::wstring> h264Profiles;
};

struct stVideoEncoderOptions {
  std::wstring configurationToken;  // empty: of any configuration
  std::optional<stRange> quality;
  std::vector<stCodecOptions> codecs;  // in the order of cms::CodecNames
};

struct stAudioEncoderConfiguration {
  std::wstring token;
  std::wstring name;
  std::wstring encoding;  // "G711", "G726", "AAC"
  int bitrate = 0;        // kbit/s
  int sampleRate = 0;     // kHz
};

struct stVideoProfile {
  std::wstring token;
  std::wstring name;
  std::wstring videoSourceConfigurationToken;
  std::wstring videoSourceToken;
  std::optional<stVideoEncoderConfiguration> videoEncoder;
  std::optional<stAudioEncoderConfiguration> audioEncoder;
  std::wstring metadataConfigurationToken;
  std::wstring uri;  // of its stream; empty until asked for
};

struct stWhiteBalance {
  std::wstring mode;  // "AUTO", "MANUAL"
  double crGain = 0;
  double cbGain = 0;
};

// As read: what the camera has. To set: what is to change; numbers are sent rounded to integers.
struct stImagingSettings {
  std::optional<double> brightness;
  std::optional<double> colorSaturation;
  std::optional<double> contrast;
  std::optional<double> sharpness;
  std::optional<std::wstring> irCutFilter;  // "ON", "OFF", "AUTO"
  std::optional<stWhiteBalance> whiteBalance;
  std::optional<std::wstring> backlightCompensation;  // "ON", "OFF"
  std::optional<std::wstring> wideDynamicRange;       // "ON", "OFF"
};

struct stImagingOptions {
  std::optional<stRange> brightness;
  std::optional<stRange> colorSaturation;
  std::optional<stRange> contrast;
  std::optional<stRange> sharpness;
  std::vector<std::wstring> irCutFilterModes;
  std::vector<std::wstring> whiteBalanceModes;
  std::optional<stRange> crGain;
  std::optional<stRange> cbGain;
  std::vector<std::wstring> backlightCompensationModes;
  std::vector<std::wstring> wideDynamicRangeModes;
};

struct stNetworkInterface {
  std::wstring token;
  std::wstring name;
  std::wstring hardwareAddress;
  bool enabled = false;
  bool dhcp = false;
  std::wstring address;  // IPv4, the one in use
  int prefixLength = 0;
};

struct stNetworkConfiguration {
  std::vector<stNetworkInterface> interfaces;
  std::wstring gateway;  // IPv4
  bool dnsFromDhcp = false;
  std::vector<std::wstring> dns;  // IPv4
};

// How a camera's network is to be set. With DHCP the address and its length do not count.
struct stNetworkSettings {
  std::wstring interfaceToken;
  bool dhcp = false;
  std::wstring address;                 // IPv4
  int prefixLength = 0;                 // 1 to 32
  std::optional<std::wstring> gateway;  // IPv4; left as it is when not given
  std::optional<std::wstring> dns;      // IPv4; empty: from DHCP; left as it is when not given
};

// A whole camera.
struct stONVIFConfiguration {
  stONVIFDeviceInformation device;
  std::vector<stVideoProfile> profiles;
  std::vector<stVideoEncoderConfiguration> videoEncoders;
  std::vector<stVideoEncoderOptions> videoEncoderOptions;  // one for each configuration asked
  std::wstring videoSourceToken;                           // what the imaging belongs to
  stImagingOptions imagingOptions;
  stImagingSettings imaging;
  stNetworkConfiguration network;
};

// What SetAllONVIFConfig is to change.
struct stONVIFChanges {
  std::vector<stVideoEncoderConfiguration> videoEncoders;
  std::vector<stAudioEncoderConfiguration> audioEncoders;
  std::optional<stImagingSettings> imaging;
  std::optional<stNetworkSettings> network;
};

// The stream that ONVIF_AutoStream is to set up.
struct stAutoStream {
  std::wstring encoding = L"H264";  // or "JPEG"
  stResolution resolution;  // the nearest that the camera offers; 0 x 0: any, the largest if new
};

}  // namespace cms
