#include "tools/testcamera/onvif/camera_settings.h"

#include <algorithm>

namespace testcamera {
namespace {

const char* EncodingName(VideoCodec codec) {
  switch (codec) {
    case VideoCodec::kMjpeg:
      return "JPEG";
    case VideoCodec::kMpeg4:
      return "MPEG4";
    case VideoCodec::kH265:
      return "H265";
    default:
      return "H264";
  }
}

// The first is what the command line says; the others are small streams beside it.
Encoder MakeEncoder(const CameraOptions& options, int number) {
  constexpr struct {
    VideoCodec codec;
    int width, height;
  } kOthers[] = {{VideoCodec::kH264, 352, 240},
                 {VideoCodec::kMjpeg, 320, 240},
                 {VideoCodec::kH264, 176, 144},
                 {VideoCodec::kMpeg4, 176, 144}};
  Encoder encoder;
  encoder.token = "VideoEncoder" + std::to_string(number);
  encoder.name = encoder.token;
  encoder.multicastPort += number * 2;
  encoder.fps = options.fps;
  encoder.gop = options.gop;
  if (number == 1) {
    encoder.encoding = EncodingName(options.codec);
    encoder.width = options.width;
    encoder.height = options.height;
    encoder.bitrate = options.bitrate > 0 ? options.bitrate : 2048;
    encoder.profile = options.profile == H264Profile::kHigh ? "High" : "Baseline";
  } else {
    const auto& other = kOthers[number - 2];
    encoder.encoding = EncodingName(other.codec);
    encoder.width = other.width;
    encoder.height = other.height;
    encoder.bitrate = 256;
  }
  return encoder;
}

}  // namespace

CameraSettings FactorySettings(const CameraOptions& options, int streams) {
  CameraSettings settings;
  for (int number = 1; number <= streams; ++number) {
    settings.encoders.push_back(MakeEncoder(options, number));
  }
  // The last encoder is in no profile: free for one that a client makes.
  for (int number = 1; number < streams; ++number) {
    MediaProfile profile{"Profile" + std::to_string(number),
                         number == 1 ? "MainStream" : "SubStream" + std::to_string(number - 1),
                         true,
                         kVideoSourceConfiguration,
                         "VideoEncoder" + std::to_string(number),
                         "",
                         "",
                         ""};
    if (options.audio != AudioCodec::kNone) {
      profile.audioSource = kAudioSourceConfiguration;
      profile.audioEncoder = kAudioEncoder;
    }
    settings.profiles.push_back(profile);
  }
  settings.others = {
      {"AudioSource.A0.BitRate", "ulaw"},
      {"Brand.Brand", "Orvanta"},
      {"Brand.ProdShortName", "Orvanta test camera"},
      {"Framerate.H264_2", "25"},
      {"Framerate.Mjpeg", "25"},
      {"Frameskip.H264", "0"},
      {"Frameskip.H264_2", "0"},
      {"Image.I0.Appearance.H264_2Bitrate", "256"},
      {"Image.I0.Appearance.H264_2VideoKeyFrameInterval", "25"},
      {"Image.I0.Appearance.MjpegQfactor", "50"},
      {"Image.I0.Appearance.Mpeg4Bitrate", "256"},
      {"Image.I0.Appearance.Mpeg4VideoKeyFrameInterval", "25"},
      {"Image.I0.Appearance.Rotation", "0"},
      {"Image.I0.RateControl.H264Mode", "cbr"},
      {"Image.I0.RateControl.H264_2Mode", "cbr"},
      {"Image.I0.RateControl.MaxFPS", "30"},
      {"Image.I0.RateControl.Mpeg4Mode", "cbr"},
      {"ImageSource.I0.Sensor.3DNR", "low"},
      {"ImageSource.I0.Sensor.Exposure", "auto"},
      {"Properties.Firmware.Version", "1.0"},
  };
  return settings;
}

Encoder* CameraSettings::FindEncoder(const std::string& token) {
  const auto found = std::find_if(encoders.begin(), encoders.end(),
                                  [&](const Encoder& each) { return each.token == token; });
  return found == encoders.end() ? nullptr : &*found;
}

MediaProfile* CameraSettings::FindProfile(const std::string& token) {
  const auto found = std::find_if(profiles.begin(), profiles.end(),
                                  [&](const MediaProfile& each) { return each.token == token; });
  return found == profiles.end() ? nullptr : &*found;
}

int CameraSettings::EncoderUses(const std::string& token) const {
  return static_cast<int>(
      std::count_if(profiles.begin(), profiles.end(),
                    [&](const MediaProfile& each) { return each.encoder == token; }));
}

std::vector<FrameSize> FrameSizes(bool at50Hz) {
  return {{"qcif", 176, 144},
          {"qvga", 320, 240},
          {"cif", 352, at50Hz ? 288 : 240},
          {"vga", 640, 480},
          {"d1", 720, at50Hz ? 576 : 480},
          {"svga", 800, 600},
          {"xga", 1024, 768},
          {"720p", 1280, 720},
          {"sxga", 1280, 1024},
          {"1080p", 1920, 1080}};
}

CameraOptions StreamOptions(const CameraOptions& camera, const Encoder& encoder, int number) {
  CameraOptions stream = camera;
  if (number > 1) {
    stream.path += std::to_string(number);
    stream.file.clear();
  }
  stream.codec = encoder.encoding == "JPEG"    ? VideoCodec::kMjpeg
                 : encoder.encoding == "MPEG4" ? VideoCodec::kMpeg4
                 : encoder.encoding == "H265"  ? VideoCodec::kH265
                                               : VideoCodec::kH264;
  stream.profile = encoder.profile == "High" ? H264Profile::kHigh : H264Profile::kBaseline;
  stream.width = encoder.width;
  stream.height = encoder.height;
  stream.fps = std::max(1, encoder.fps / encoder.interval);
  stream.gop = encoder.gop;
  stream.bitrate = encoder.bitrate;
  stream.jpegQuality = static_cast<int>(encoder.quality);
  return stream;
}

}  // namespace testcamera
