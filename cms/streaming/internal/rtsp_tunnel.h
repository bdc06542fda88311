// RTSP inside HTTP, for firewalls that let nothing else pass: the camera's bytes are the endless
// answer to a GET, the client's are, as Base64, the endless body of a POST.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace cms {

// By which the camera knows that two connections belong together: 22 characters that nobody
// guesses.
std::string NewTunnelCookie();

struct TunnelRequest {
  std::string_view path;
  std::string_view host;  // with its port, as the Host line wants it
  std::string_view cookie;
  std::string_view authorization = {};  // a whole line, or empty

  std::string Get() const;
  std::string Post() const;
};

// Takes the head of the answer to the GET off the front of the connection's bytes.
class TunnelAnswer {
 public:
  static constexpr std::size_t kMaxHead = 16 * 1024;

  // Keeps the head's part of the next bytes; what is behind the head is returned.
  std::span<const std::uint8_t> Take(std::span<const std::uint8_t> bytes);
  bool IsEnded() const { return ended_; }  // also when it is longer than kMaxHead: then it is empty
  const std::string& Head() const { return head_; }
  unsigned Status() const;  // 0 unless it is the answer of an HTTP server

 private:
  std::string head_;
  bool ended_ = false;
};

}  // namespace cms
