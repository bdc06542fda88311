// What a test camera is told to be.
#pragma once

#include <cstdint>
#include <string>

namespace testcamera {

enum class VideoCodec { kH264, kMjpeg, kMpeg4 };
enum class H264Profile { kBaseline, kHigh };
enum class AudioCodec { kNone, kPcmu, kPcma, kL16 };
enum class AuthScheme { kNone, kBasic, kDigest };
enum class ParameterSets { kBoth, kSdp, kInband };
enum class PacketStyle { kFu, kStap };

struct CameraOptions {
  std::string bind = "127.0.0.1";
  std::uint16_t port = 8554;  // 0: any
  std::string path = "/live";

  std::string file;  // played instead of the pattern when not empty
  std::string pattern = "smpte";
  VideoCodec codec = VideoCodec::kH264;  // of the pattern; a file is sent as it is
  H264Profile profile = H264Profile::kBaseline;
  int width = 640;
  int height = 360;
  int fps = 25;
  int gop = 25;           // pictures from key frame to key frame
  int bitrate = 0;        // kbit/s; 0: by size and rate
  int jpeg_quality = 75;  // percent
  AudioCodec audio = AudioCodec::kNone;

  std::string talk;  // where the sound that clients send is written, as raw mu-law; empty: nowhere

  AuthScheme auth = AuthScheme::kNone;
  std::string user = "admin";
  std::string password = "admin";

  unsigned max_sessions = 0;      // 0: no limit
  unsigned session_timeout = 60;  // seconds
  bool udp = true;
  bool tcp = true;

  bool delimiters = false;  // an H.264 access-unit delimiter before each picture
  ParameterSets parameter_sets = ParameterSets::kBoth;
  PacketStyle packets = PacketStyle::kFu;
  unsigned mtu = 1400;
  double drop_percent = 0;  // of the RTP packets, lost on their way

  std::uint16_t http_port = 0;  // for pictures over HTTP; 0: any

  bool operator==(const CameraOptions&) const = default;
};

inline constexpr char kRealm[] = "Orvanta test camera";
inline constexpr char kHttpPath[] = "/video.mjpg";

// Where a client on this machine finds a camera that listens on every address.
inline std::string HostForUrl(const CameraOptions& options) {
  return options.bind == "0.0.0.0" ? "127.0.0.1" : options.bind;
}

}  // namespace testcamera
