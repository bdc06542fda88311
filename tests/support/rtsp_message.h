// RTSP messages as a test's server sees and builds them, with every way to get them wrong.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

// A request as it came, not repaired in any way: a stray CR in a value is still in it.
struct RtspRequest {
  std::string text;  // the whole request, body included
  std::string method;
  std::string url;
  std::string body;
  std::size_t connection = 0;  // which accepted connection it came on, counted from 0
  std::chrono::steady_clock::time_point time;

  // The value of a header (names without regard to case), without blanks around it; "" when absent.
  std::string Header(std::string_view name) const;
};

// Takes one whole request off the front of the bytes; false when more bytes are needed.
bool TakeRtspRequest(std::string* bytes, RtspRequest* request);

using RtspHeaders = std::vector<std::pair<std::string, std::string>>;

// An answer with the request's CSeq; Content-Length is added when there is a body.
std::string RtspResponse(const RtspRequest& request, int status, std::string_view reason,
                         const RtspHeaders& headers = {}, std::string_view body = {});

// The message with that header set to the value, or removed, wherever it stood.
std::string WithHeader(std::string message, std::string_view name, std::string_view value);
std::string WithoutHeader(std::string message, std::string_view name);

// "$", channel, length, packet: one block of RFC 2326's interleaving.
std::string InterleavedBlock(std::uint8_t channel, std::string_view packet);

// What a server does on one request: a list of actions, done in order. Made of a plain text it
// sends that text. Made of nothing it keeps silent.
class RtspAnswer {
 public:
  RtspAnswer() = default;
  RtspAnswer(std::string text) { Then(std::move(text)); }  // NOLINT(google-explicit-constructor)
  RtspAnswer(const char* text) { Then(text); }             // NOLINT(google-explicit-constructor)
  // The text in pieces of `size` bytes, each its own segment, with pauses between them.
  static RtspAnswer InSegments(std::string_view text, std::size_t size,
                               std::chrono::milliseconds pause = std::chrono::milliseconds(5));

  RtspAnswer& Then(std::string bytes);
  RtspAnswer& Pause(std::chrono::milliseconds time);
  RtspAnswer& Interleaved(std::uint8_t channel, std::string_view packet);
  RtspAnswer& Endless(std::string bytes);  // again and again until the client or the test ends it
  RtspAnswer& Do(std::function<void()> action);
  RtspAnswer& Close();  // an orderly end of the connection
  RtspAnswer& Reset();  // RST

  struct Action {
    enum class Kind { kSend, kPause, kEndless, kDo, kClose, kReset } kind;
    std::string bytes;
    std::chrono::milliseconds time{0};
    std::function<void()> call;
  };
  const std::vector<Action>& Actions() const { return actions_; }

 private:
  std::vector<Action> actions_;
};

// An RTP packet (RFC 3550) without CSRCs or extension.
struct RtpFields {
  std::uint8_t payloadType = 96;
  bool marker = false;
  std::uint16_t sequence = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0x0ca3e8a0;
};
std::string RtpText(const RtpFields& fields, std::string_view payload);

}  // namespace test
