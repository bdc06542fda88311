#include "cms/streaming/internal/rtsp_tunnel.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

constexpr char kTunnelType[] = "application/x-rtsp-tunnelled\r\n";
constexpr char kNotCached[] = "Pragma: no-cache\r\nCache-Control: no-cache\r\n";

std::string TunnelLines(const char* method, const TunnelRequest& request) {
  return std::string(method)
      .append(" ")
      .append(request.path)
      .append(" HTTP/1.0\r\nHost: ")
      .append(request.host)
      .append("\r\nx-sessioncookie: ")
      .append(request.cookie)
      .append("\r\n")
      .append(kNotCached)
      .append(request.authorization);
}

}  // namespace

std::string NewTunnelCookie() {
  std::random_device random;
  char text[25] = "";
  std::snprintf(text, sizeof text, "%08x%08x%08x", random(), random(), random());
  return std::string(text, 22);
}

std::string TunnelRequest::Get() const {
  return TunnelLines("GET", *this) + "Accept: " + kTunnelType + "\r\n";
}

// The length is what servers expect of a body that has no end.
std::string TunnelRequest::Post() const {
  return TunnelLines("POST", *this) + "Content-Type: " + kTunnelType +
         "Content-Length: 32767\r\nExpires: Sun, 9 Jan 1972 00:00:00 GMT\r\n\r\n";
}

std::span<const std::uint8_t> TunnelAnswer::Take(std::span<const std::uint8_t> bytes) {
  if (ended_) {
    return bytes;
  }
  const std::size_t before = head_.size();
  const std::size_t taken = std::min(bytes.size(), kMaxHead - before);
  head_.append(reinterpret_cast<const char*>(bytes.data()), taken);
  // An end that was cut in half is looked for again.
  const std::size_t end = FindRTSPHeadEnd(head_, before > 3 ? before - 3 : 0);
  if (end != std::string::npos) {
    ended_ = true;
    head_.resize(end);
    return bytes.subspan(end - before);
  }
  if (head_.size() == kMaxHead) {
    ended_ = true;
    head_.clear();
  }
  return bytes.subspan(taken);
}

unsigned TunnelAnswer::Status() const {
  const RTSPMessage answer(head_);
  return ended_ && answer.IsOfWebServer() ? answer.Status() : 0;
}

}  // namespace cms
