// The media service's video encoders: what they are set to, what they can be set to.
#include <algorithm>

#include "tools/testcamera/onvif/encoder_elements.h"
#include "tools/testcamera/onvif/operations.h"

namespace testcamera {
namespace {

struct Range {
  int lowest;
  int highest;
};
constexpr Range kQuality{1, 100};
constexpr Range kFps{1, 60};
constexpr Range kInterval{1, 1};
constexpr Range kBitrate{16, 20000};  // kbit/s
constexpr Range kGop{1, 300};
constexpr int kJpegSide = 2040;  // RFC 2435
const std::vector<std::string> kEncodings = {"H264", "JPEG", "MPEG4"};
const std::vector<std::string> kH264Profiles = {"Baseline", "High"};
const std::vector<std::string> kMpeg4Profiles = {"SP"};

// What the command line asked for is a size as well.
std::vector<FrameSize> Sizes(const Call& call) {
  std::vector<FrameSize> sizes = FrameSizes(call.camera.settings.Is50Hz());
  const CameraOptions& first = call.camera.camera;
  const bool listed = std::any_of(sizes.begin(), sizes.end(), [&](const FrameSize& each) {
    return each.width == first.width && each.height == first.height;
  });
  if (!listed) {
    sizes.push_back({"", first.width, first.height});
  }
  return sizes;
}

Encoder& EncoderOf(const Call& call, const std::string& token) {
  Encoder* encoder = call.camera.settings.FindEncoder(token);
  if (encoder == nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoConfig", "There is no such configuration"};
  }
  return *encoder;
}

void AddConfigurations(Call& call) {
  for (const Encoder& encoder : call.camera.settings.encoders) {
    AddEncoder(call.answer, "trt:Configurations", encoder, call.camera.settings);
  }
}

void GetVideoEncoderConfiguration(Call& call) {
  AddEncoder(call.answer, "trt:Configuration",
             EncoderOf(call, TextAt(call.request, "ConfigurationToken").value_or("")),
             call.camera.settings);
}

void GetCompatibleVideoEncoderConfigurations(Call& call) {
  if (call.camera.settings.FindProfile(TextAt(call.request, "ProfileToken").value_or("")) ==
      nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoProfile", "There is no such profile"};
  }
  AddConfigurations(call);
}

// Parts that a client leaves out stay as they are.
void SetVideoEncoderConfiguration(Call& call) {
  const xmlNode* given = Child(call.request, "Configuration");
  Encoder& kept = EncoderOf(call, Attribute(given, "token"));
  Encoder encoder = kept;
  Read(given, "Name", &encoder.name);
  ReadWord(given, "Encoding", kEncodings, &encoder.encoding);
  ReadNumber(given, "Resolution/Width", 0, 1 << 16, &encoder.width);
  ReadNumber(given, "Resolution/Height", 0, 1 << 16, &encoder.height);
  ReadNumber(given, "Quality", kQuality.lowest, kQuality.highest, &encoder.quality);
  ReadNumber(given, "RateControl/FrameRateLimit", kFps.lowest, kFps.highest, &encoder.fps);
  ReadNumber(given, "RateControl/EncodingInterval", kInterval.lowest, kInterval.highest,
             &encoder.interval);
  ReadNumber(given, "RateControl/BitrateLimit", kBitrate.lowest, kBitrate.highest,
             &encoder.bitrate);
  ReadNumber(given, "MPEG4/GovLength", kGop.lowest, kGop.highest, &encoder.gop);
  ReadNumber(given, "H264/GovLength", kGop.lowest, kGop.highest, &encoder.gop);
  ReadWord(given, "H264/H264Profile", kH264Profiles, &encoder.profile);
  const xmlNode* multicast = Child(given, "Multicast");
  ReadAddress(multicast, "Address/IPv4Address", &encoder.multicastAddress);
  ReadNumber(multicast, "Port", 0, 65535, &encoder.multicastPort);
  ReadNumber(multicast, "TTL", 0, 255, &encoder.ttl);
  Read(multicast, "AutoStart", &encoder.autoStart);
  Read(given, "SessionTimeout", &encoder.sessionTimeout);
  const std::vector<FrameSize> sizes = Sizes(call);
  const bool possible = std::any_of(sizes.begin(), sizes.end(), [&](const FrameSize& each) {
    return each.width == encoder.width && each.height == encoder.height;
  });
  if (!possible || (encoder.encoding == "JPEG" && encoder.width > kJpegSide)) {
    InvalidValue("Resolution " + std::to_string(encoder.width) + "x" +
                 std::to_string(encoder.height));
  }
  kept = encoder;
}

void AddRange(Element parent, const char* name, const Range& range) {
  Element element = parent.Add(name);
  element.Add("tt:Min", range.lowest);
  element.Add("tt:Max", range.highest);
}

void AddCodecOptions(Element codec, const std::string& name, const Call& call) {
  for (const FrameSize& size : Sizes(call)) {
    AddResolution(codec, "tt:ResolutionsAvailable", size.width, size.height);
  }
  if (name != "tt:JPEG") {
    AddRange(codec, "tt:GovLengthRange", kGop);
  }
  AddRange(codec, "tt:FrameRateRange", kFps);
  AddRange(codec, "tt:EncodingIntervalRange", kInterval);
  if (name != "tt:JPEG") {
    const bool h264 = name == "tt:H264";
    for (const std::string& profile : h264 ? kH264Profiles : kMpeg4Profiles) {
      codec.Add(h264 ? "tt:H264ProfilesSupported" : "tt:Mpeg4ProfilesSupported", profile);
    }
  }
}

// The bit rates' range came later and stands in the extension, beside all that stands before it.
void GetVideoEncoderConfigurationOptions(Call& call) {
  const auto token = TextAt(call.request, "ConfigurationToken");
  if (token && !token->empty()) {
    EncoderOf(call, *token);
  }
  Element options = call.answer.Add("trt:Options");
  AddRange(options, "tt:QualityRange", kQuality);
  for (const char* name : {"tt:JPEG", "tt:MPEG4", "tt:H264"}) {
    AddCodecOptions(options.Add(name), name, call);
  }
  Element extension = options.Add("tt:Extension");
  for (const char* name : {"tt:JPEG", "tt:MPEG4", "tt:H264"}) {
    Element codec = extension.Add(name);
    AddCodecOptions(codec, name, call);
    AddRange(codec, "tt:BitrateRange", kBitrate);
  }
}

void GetGuaranteedNumber(Call& call) {
  const auto count = static_cast<int>(call.camera.settings.encoders.size());
  call.answer.Add("trt:TotalNumber", count);
}

}  // namespace

void AddEncoder(Element parent, const char* name, const Encoder& encoder,
                const CameraSettings& settings) {
  Element element = parent.Add(name).Attribute("token", encoder.token);
  element.Add("tt:Name", encoder.name);
  element.Add("tt:UseCount", settings.EncoderUses(encoder.token));
  element.Add("tt:Encoding", encoder.encoding);
  AddResolution(element, "tt:Resolution", encoder.width, encoder.height);
  element.Add("tt:Quality", encoder.quality);
  Element rate = element.Add("tt:RateControl");
  rate.Add("tt:FrameRateLimit", encoder.fps);
  rate.Add("tt:EncodingInterval", encoder.interval);
  rate.Add("tt:BitrateLimit", encoder.bitrate);
  if (encoder.encoding == "MPEG4") {
    Element mpeg4 = element.Add("tt:MPEG4");
    mpeg4.Add("tt:GovLength", encoder.gop);
    mpeg4.Add("tt:Mpeg4Profile", kMpeg4Profiles.front());
  } else if (encoder.encoding == "H264") {
    Element h264 = element.Add("tt:H264");
    h264.Add("tt:GovLength", encoder.gop);
    h264.Add("tt:H264Profile", encoder.profile);
  }
  AddMulticast(element, encoder.multicastAddress, encoder.multicastPort, encoder.ttl,
               encoder.autoStart);
  element.Add("tt:SessionTimeout", encoder.sessionTimeout);
}

void AddMulticast(Element parent, const std::string& address, int port, int ttl, bool autoStart) {
  Element multicast = parent.Add("tt:Multicast");
  Element at = multicast.Add("tt:Address");
  at.Add("tt:Type", "IPv4");
  at.Add("tt:IPv4Address", address);
  multicast.Add("tt:Port", port);
  multicast.Add("tt:TTL", ttl);
  multicast.Add("tt:AutoStart", autoStart);
}

void AddResolution(Element parent, const char* name, int width, int height) {
  Element resolution = parent.Add(name);
  resolution.Add("tt:Width", width);
  resolution.Add("tt:Height", height);
}

void AddEncoderOperations(Operations* operations) {
  const auto add = [operations](const char* name, void (*run)(Call&)) {
    (*operations)[{kMediaSpace, name}] = {false, run};
  };
  add("GetVideoEncoderConfigurations", AddConfigurations);
  add("GetVideoEncoderConfiguration", GetVideoEncoderConfiguration);
  add("GetCompatibleVideoEncoderConfigurations", GetCompatibleVideoEncoderConfigurations);
  add("SetVideoEncoderConfiguration", SetVideoEncoderConfiguration);
  add("GetVideoEncoderConfigurationOptions", GetVideoEncoderConfigurationOptions);
  add("GetGuaranteedNumberOfVideoEncoderInstances", GetGuaranteedNumber);
}

}  // namespace testcamera
