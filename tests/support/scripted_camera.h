// The well-behaved camera behind the scripted server: its settings, its password check, its tracks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/rtsp_message.h"

namespace test {

// How the well-behaved camera is set up. Tracks are "trackID=0" (video) and "trackID=1" (audio).
struct ScriptedCamera {
  enum class Auth { kNone, kBasic, kDigest };

  std::string path = "/live";
  std::string sdp{};  // "" for H.264 and PCMU (DefaultSdp())
  std::string session = "3BA1C0DE;timeout=60";
  Auth auth = Auth::kNone;
  std::string user = "admin";
  std::string password = "secret";
  std::string realm = "camera";
  bool refuseAll = false;         // 401 whatever the credentials are
  bool knowsGetParameter = true;  // else 405, and OPTIONS does not name it
  bool udp = true;                // else SETUP over UDP gets 461
  bool tcp = true;                // else SETUP over TCP gets 461
  std::uint16_t port = 0;         // 0: any
};

// H.264 640x360 with payload type 96 as trackID=0 and PCMU as trackID=1.
std::string DefaultSdp();

// Whether the request's Authorization is good for its method and URL (RFC 7616, with the
// algorithm and the qop that it names, if any).
bool HasCredentials(const ScriptedCamera& camera, const std::string& nonce,
                    const RtspRequest& request);
// The WWW-Authenticate value that asks for them.
std::string Challenge(const ScriptedCamera& camera, const std::string& nonce);

// Where one track's packets go, as SETUP agreed.
struct RtspTrack {
  bool interleaved = false;
  std::uint8_t rtpChannel = 0;
  std::uint8_t rtcpChannel = 0;
  std::uint16_t clientRtp = 0;
  std::uint16_t clientRtcp = 0;
  int rtpSocket = -1;
  int rtcpSocket = -1;
  std::size_t rtcpReceived = 0;

  RtspTrack() = default;
  RtspTrack(const RtspTrack&) = delete;
  RtspTrack& operator=(const RtspTrack&) = delete;
  ~RtspTrack();

  // Takes what a SETUP's Transport header asks for and makes the answer's; "" when the camera does
  // not offer it.
  std::string Agree(const ScriptedCamera& camera, const std::string& transport);
  void SendDatagram(const std::string& packet, bool rtcp) const;
  void CountRtcp();  // adds what has arrived since to rtcpReceived

 private:
  void OpenSockets();
};

// A socket on 127.0.0.1 and its port.
bool BindLoopback(int socket, std::uint16_t port);
std::uint16_t LocalPort(int socket);

}  // namespace test
