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
  bool refuse_all = false;          // 401 whatever the credentials are
  bool knows_get_parameter = true;  // else 405, and OPTIONS does not name it
  bool udp = true;                  // else SETUP over UDP gets 461
  bool tcp = true;                  // else SETUP over TCP gets 461
  std::uint16_t port = 0;           // 0: any
};

// H.264 640x360 with payload type 96 as trackID=0 and PCMU as trackID=1.
std::string DefaultSdp();

// Whether the request's Authorization is good for its method and URL (RFC 2617, with the
// qop that it names, if any).
bool HasCredentials(const ScriptedCamera& camera, const std::string& nonce,
                    const RtspRequest& request);
// The WWW-Authenticate value that asks for them.
std::string Challenge(const ScriptedCamera& camera, const std::string& nonce);

// Where one track's packets go, as SETUP agreed.
struct RtspTrack {
  bool interleaved = false;
  std::uint8_t rtp_channel = 0;
  std::uint8_t rtcp_channel = 0;
  std::uint16_t client_rtp = 0;
  std::uint16_t client_rtcp = 0;
  int rtp_socket = -1;
  int rtcp_socket = -1;
  std::size_t rtcp_received = 0;

  RtspTrack() = default;
  RtspTrack(const RtspTrack&) = delete;
  RtspTrack& operator=(const RtspTrack&) = delete;
  ~RtspTrack();

  // Takes what a SETUP's Transport header asks for and makes the answer's; "" when the camera does
  // not offer it.
  std::string Agree(const ScriptedCamera& camera, const std::string& transport);
  void SendDatagram(const std::string& packet, bool rtcp) const;
  void CountRtcp();  // adds what has arrived since to rtcp_received

 private:
  void OpenSockets();
};

// A socket on 127.0.0.1 and its port.
bool BindLoopback(int socket, std::uint16_t port);
std::uint16_t LocalPort(int socket);

}  // namespace test
