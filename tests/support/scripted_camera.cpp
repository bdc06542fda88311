#include "tests/support/scripted_camera.h"

#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::string Hash(const EVP_MD* method, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, method, nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

std::string Base64(const std::string& text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                   reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  out.resize(static_cast<std::size_t>(size));
  return out;
}

// name="value" in a Digest line; the name must not be the tail of a longer one.
std::string Quoted(const std::string& line, const std::string& name) {
  const std::size_t at = line.find(" " + name + "=\"");
  if (at == std::string::npos) {
    return {};
  }
  const std::size_t start = at + name.size() + 3;
  return line.substr(start, line.find('"', start) - start);
}

// The same without quotation marks, up to the comma or the line's end.
std::string Bare(const std::string& line, const std::string& name) {
  const std::size_t at = line.find(" " + name + "=");
  if (at == std::string::npos) {
    return {};
  }
  const std::size_t start = at + name.size() + 2;
  return line.substr(start, line.find_first_of(",\r", start) - start);
}

// What the digest has between the two halves: the nonce, and what a qop adds to it.
std::string DigestMiddle(const std::string& given, const std::string& nonce) {
  const std::string qop = Bare(given, "qop");
  return ":" + nonce + ":" +
         (qop.empty() ? "" : Bare(given, "nc") + ":" + Quoted(given, "cnonce") + ":" + qop + ":");
}

}  // namespace

bool BindLoopback(int socket, std::uint16_t port) {
  const sockaddr_in address = Loopback(port);
  return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

std::uint16_t LocalPort(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

std::string DefaultSdp() {
  return "v=0\r\n"
         "o=- 1188340656180883 1 IN IP4 127.0.0.1\r\n"
         "s=Session streamed by a camera\r\n"
         "c=IN IP4 0.0.0.0\r\n"
         "t=0 0\r\n"
         "a=control:*\r\n"
         "a=range:npt=now-\r\n"
         "m=video 0 RTP/AVP 96\r\n"
         "a=rtpmap:96 H264/90000\r\n"
         "a=fmtp:96 packetization-mode=1;profile-level-id=42C01E;"
         "sprop-parameter-sets=Z0LAHtoCgL/lwFqDAwNSgAAAAwCAAAAZR4sXUA==,aM48gA==\r\n"
         "a=framerate:25\r\n"
         "a=control:trackID=0\r\n"
         "m=audio 0 RTP/AVP 0\r\n"
         "a=rtpmap:0 PCMU/8000\r\n"
         "a=control:trackID=1\r\n";
}

bool HasCredentials(const ScriptedCamera& camera, const std::string& nonce,
                    const RtspRequest& request) {
  if (camera.refuseAll) {
    return false;
  }
  const std::string given = request.Header("Authorization");
  switch (camera.auth) {
    case ScriptedCamera::Auth::kNone:
      return true;
    case ScriptedCamera::Auth::kBasic:
      return given == "Basic " + Base64(camera.user + ":" + camera.password);
    case ScriptedCamera::Auth::kDigest: {
      const std::string algorithm = Bare(given, "algorithm");
      const auto hash = [&](const std::string& text) {
        return Hash(algorithm.starts_with("SHA-256") ? EVP_sha256() : EVP_md5(), text);
      };
      std::string ha1 = hash(camera.user + ":" + camera.realm + ":" + camera.password);
      if (algorithm.ends_with("-sess")) {
        ha1 = hash(ha1 + ":" + nonce + ":" + Quoted(given, "cnonce"));
      }
      const std::string body = Bare(given, "qop") == "auth-int" ? ":" + hash("") : "";
      const std::string ha2 = hash(request.method + ":" + request.url + body);
      return given.compare(0, 7, "Digest ") == 0 && Quoted(given, "username") == camera.user &&
             Quoted(given, "realm") == camera.realm && Quoted(given, "nonce") == nonce &&
             Quoted(given, "uri") == request.url &&
             Quoted(given, "response") == hash(ha1 + DigestMiddle(given, nonce) + ha2);
    }
  }
  return false;
}

std::string Challenge(const ScriptedCamera& camera, const std::string& nonce) {
  const std::string realm = " realm=\"" + camera.realm + "\"";
  return camera.auth == ScriptedCamera::Auth::kDigest
             ? "Digest" + realm + ", nonce=\"" + nonce + "\""
             : "Basic" + realm;
}

RtspTrack::~RtspTrack() {
  close(rtpSocket);
  close(rtcpSocket);
}

// An even port and the next one.
void RtspTrack::OpenSockets() {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    rtpSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    rtcpSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (BindLoopback(rtpSocket, 0) && LocalPort(rtpSocket) % 2 == 0 &&
        BindLoopback(rtcpSocket, static_cast<std::uint16_t>(LocalPort(rtpSocket) + 1))) {
      return;
    }
    close(rtpSocket);
    close(rtcpSocket);
  }
  throw std::runtime_error("no pair of UDP ports");
}

std::string RtspTrack::Agree(const ScriptedCamera& camera, const std::string& transport) {
  unsigned first = 0;
  unsigned second = 0;
  const auto pair = [&](const char* name) {
    const auto at = transport.find(name);
    return at != std::string::npos &&
           std::sscanf(transport.c_str() + at + 1, "%*[^=]=%u-%u", &first, &second) == 2;
  };
  if (camera.tcp && pair(";interleaved=")) {
    interleaved = true;
    rtpChannel = static_cast<std::uint8_t>(first);
    rtcpChannel = static_cast<std::uint8_t>(second);
    return transport;
  }
  if (camera.udp && pair(";client_port=")) {
    clientRtp = static_cast<std::uint16_t>(first);
    clientRtcp = static_cast<std::uint16_t>(second);
    OpenSockets();
    return transport + ";server_port=" + std::to_string(LocalPort(rtpSocket)) + "-" +
           std::to_string(LocalPort(rtcpSocket));
  }
  return {};
}

void RtspTrack::SendDatagram(const std::string& packet, bool rtcp) const {
  const sockaddr_in to = Loopback(rtcp ? clientRtcp : clientRtp);
  // A refusal by the client's closed port is the network's matter, not the sender's.
  sendto(rtcp ? rtcpSocket : rtpSocket, packet.data(), packet.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

void RtspTrack::CountRtcp() {
  char byte = 0;
  while (!interleaved && recv(rtcpSocket, &byte, 1, MSG_DONTWAIT | MSG_TRUNC) > 0) {
    ++rtcpReceived;
  }
}

}  // namespace test
