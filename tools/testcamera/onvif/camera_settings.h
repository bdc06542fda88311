// What a client can set in the camera, with its defaults.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

inline constexpr char kVideoSource[] = "VideoSource0";
inline constexpr char kVideoSourceConfiguration[] = "VideoSourceConfiguration0";
inline constexpr char kAudioSource[] = "AudioSource0";
inline constexpr char kAudioSourceConfiguration[] = "AudioSourceConfiguration0";
inline constexpr char kAudioEncoder[] = "AudioEncoder0";
inline constexpr char kMetadata[] = "Metadata0";

// One video encoder, which is one stream of the RTSP server's.
struct Encoder {
  std::string token;
  std::string name;
  bool enabled = true;   // off when the parameter CGI disables the stream
  std::string encoding;  // H264, JPEG or MPEG4
  int width = 0;
  int height = 0;
  double quality = 50;
  int fps = 25;
  int interval = 1;  // encoding interval
  int bitrate = 0;   // kbit/s
  int gop = 25;
  std::string profile = "Baseline";
  std::string multicastAddress = "224.1.0.1";
  int multicastPort = 40000;
  int ttl = 5;
  bool autoStart = false;
  std::string sessionTimeout = "PT60S";

  bool operator==(const Encoder&) const = default;
};

struct MediaProfile {
  std::string token;
  std::string name;
  bool fixed = false;
  std::string videoSource;  // tokens of configurations; "" when there is none
  std::string encoder;
  std::string audioSource;
  std::string audioEncoder;
  std::string metadata;
};

struct AudioEncoder {
  std::string encoding = "G711";
  int bitrate = 64;    // kbit/s
  int sampleRate = 8;  // kHz
};

struct Imaging {
  double brightness = 50;
  double saturation = 50;
  double contrast = 50;
  double sharpness = 50;
  std::string irCutFilter = "AUTO";
  std::string whiteBalance = "AUTO";
  double crGain = 10;
  double cbGain = 10;
  std::string backlight = "OFF";
  std::string wideDynamicRange = "OFF";
};

struct Network {
  bool dhcp = false;
  std::string address = "192.168.1.108";
  int prefix = 24;
  std::string gateway = "192.168.1.1";
  bool dnsDhcp = false;
  std::string dns = "192.168.1.1";
  bool ntpDhcp = false;
  std::string ntp = "pool.ntp.org";
  std::string hostname = "camera";
};

struct CameraSettings {
  std::vector<Encoder> encoders;
  std::vector<MediaProfile> profiles;
  AudioEncoder audio;
  Imaging imaging;
  Network network;
  int tvSystem = 2;                           // index in the video-system CGI's list; odd: 50 Hz
  std::map<std::string, std::string> others;  // parameters of the CGI that nothing else holds

  Encoder* FindEncoder(const std::string& token);
  MediaProfile* FindProfile(const std::string& token);
  int EncoderUses(const std::string& token) const;
  bool Is50Hz() const { return tvSystem % 2 == 1; }
};

// The settings of a camera that was just unpacked.
CameraSettings FactorySettings(const CameraOptions& options, int streams);

// The sizes that an encoder takes, each with the keyword that the parameter CGI has for it; cif and
// d1 have more lines at 50 Hz.
struct FrameSize {
  std::string keyword;
  int width;
  int height;
};
std::vector<FrameSize> FrameSizes(bool at50Hz);

// What the encoder makes of the camera's RTSP stream.
CameraOptions StreamOptions(const CameraOptions& camera, const Encoder& encoder, int number);

}  // namespace testcamera
