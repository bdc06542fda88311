// What a test camera is told to be.
#pragma once

#include <cstdint>
#include <string>

namespace testcamera {

enum class VideoCodec { kH264, kH265, kMjpeg, kMpeg4 };
enum class H264Profile { kBaseline, kHigh };
enum class AudioCodec { kNone, kPcmu, kPcma, kL16, kAac, kLatm, kG726 };
// kDigest is that of old, without qop; kAll offers Basic and both of today's.
enum class AuthScheme { kNone, kBasic, kDigest, kDigestQop, kDigestSha256, kAll };
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
  int gop = 25;          // pictures from key frame to key frame
  int slices = 1;        // of each H.264 or H.265 picture
  int bitrate = 0;       // kbit/s; 0: by size and rate
  int jpegQuality = 75;  // percent
  AudioCodec audio = AudioCodec::kNone;

  std::string talk;  // where the sound that clients send is written, as raw mu-law; empty: nowhere

  bool tls = false;         // RTSPS
  std::string certificate;  // file of the certificate and its key; empty: one made for this run

  AuthScheme auth = AuthScheme::kNone;
  std::string user = "admin";
  std::string password = "admin";

  unsigned maxSessions = 0;      // 0: no limit
  unsigned sessionTimeout = 60;  // seconds
  bool udp = true;
  bool tcp = true;
  bool multicast = false;
  std::string multicastAddress = "239.255.77.1";
  std::uint16_t multicastPort = 40000;

  bool delimiters = false;      // an access-unit delimiter before each H.264 or H.265 picture
  bool messages = false;        // an SEI message likewise
  unsigned keyPictureSize = 0;  // bytes that filler data brings a key picture to; 0: as it is
  ParameterSets parameterSets = ParameterSets::kBoth;
  PacketStyle packets = PacketStyle::kFu;
  unsigned mtu = 1400;
  double dropPercent = 0;  // of the RTP packets, lost on their way

  bool ptz = false;            // the pattern is larger than the picture, which looks around in it
  std::uint16_t httpPort = 0;  // for pictures over HTTP; 0: any

  bool operator==(const CameraOptions&) const = default;
};

inline constexpr char kRealm[] = "Orvanta test camera";
inline constexpr char kHttpPath[] = "/video.mjpg";

// Where a client on this machine finds a camera that listens on every address.
inline std::string HostForUrl(const CameraOptions& options) {
  const std::string host = options.bind == "0.0.0.0" ? "127.0.0.1"
                           : options.bind == "::"    ? "::1"
                                                     : options.bind;
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

}  // namespace testcamera
