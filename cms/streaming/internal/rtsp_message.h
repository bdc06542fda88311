// Reading RTSP 1.0 messages (RFC 2326): a view over one message, and its structured header values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace cms {

// The length of the head at the front of `text`, the blank line included; npos while the blank line
// is not there. Bare line feeds end lines too. `from` skips what an earlier search has seen: bytes
// before it are known to hold no end.
std::size_t FindRTSPHeadEnd(std::string_view text, std::size_t from = 0);

// Has each header stand on one line: of the head's line ends, those in front of a blank, with which
// a header goes on in the next line (RFC 2616, 2.2), become blanks. Nothing moves.
void UnfoldHead(std::string& message);

// A view over one whole message, head and body, such as the demultiplexer delivers. It copies
// nothing: the text outlives the view and every view that it returns. Never fails; what is missing
// is empty.
class RTSPMessage {
 public:
  explicit RTSPMessage(std::string_view text);

  // Whether the message is an answer ("RTSP/...", or "HTTP/..." of a web server) and not the
  // server's own request.
  bool IsResponse() const;
  bool IsOfWebServer() const;

  // The number after the first word of the first line. 200 when there is no first line to read, 0
  // when there is one without a number.
  unsigned Status() const;

  // The method of a request, empty for an answer.
  std::string_view Method() const;

  // The value of the first header of that name, in any letter case, without white space around it
  // and without line ends; empty when it is absent or empty.
  std::string_view Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;

  std::optional<int> CSeq() const;

  // The body length that the head announces, 0 when it announces none or nothing that can be read.
  // Saturates at the largest 32-bit value.
  std::uint32_t ContentLength() const;

  // What follows the blank line, no more of it than Content-Length says when it is given.
  std::string_view Body() const;

  // The whole text that the view was made of.
  std::string_view Text() const { return text_; }

 private:
  std::optional<std::string_view> Find(std::string_view name) const;

  std::string_view text_;
  std::string_view firstLine_;
  std::string_view headers_;  // from the second line to before the blank line
  std::string_view rest_;     // behind the blank line
  bool hasFirstLine_ = false;
};

// The Session header's value.
struct RTSPSessionHeader {
  static constexpr std::size_t kMaxId = 64;
  static constexpr std::uint32_t kDefaultTimeout = 60;
  static constexpr std::uint32_t kMinTimeout = 2;
  static constexpr std::uint32_t kMaxTimeout = 86400;

  std::string id;  // 1 to kMaxId visible characters: safe to put into the next request
  std::uint32_t timeoutSeconds = kDefaultTimeout;  // within kMinTimeout..kMaxTimeout
};

// Reads "id" or "id;timeout=60". Nothing when the id is empty, longer than kMaxId or holds blanks
// or control characters. A timeout of 0 or without a number counts as the default, others are
// clamped.
std::optional<RTSPSessionHeader> ParseSessionHeader(std::string_view value);

// The Transport header's value of a SETUP answer.
struct RTSPTransportHeader {
  struct Pair {
    std::uint16_t rtp = 0;
    std::uint16_t rtcp = 0;
    bool operator==(const Pair&) const = default;
  };
  std::optional<Pair> serverPort;  // port 0: the server does not tell; nothing can be sent to it
  std::optional<Pair> clientPort;
  std::optional<Pair> interleaved;  // channel numbers, 0 to 255
  bool tcp = false;                 // the protocol is RTP/AVP/TCP
  bool multicast = false;
  std::optional<Pair> port;  // of the group
  std::string destination;   // the group, else empty
  std::uint32_t ttl = 0;     // of what is sent to it; 0: not said
  std::string source;        // the sender's host when it is not the RTSP server, else empty
};

// Reads the first transport of the value. Nothing when serverPort, port or interleaved is malformed
// or a number is out of range (ports 65535, channels 255): such an answer cannot be followed. A
// pair with one number means that number and the next (RFC 2326, 12.39). Unknown parameters, ssrc
// among them, and a malformed clientPort, which tells nothing that is needed, are ignored.
std::optional<RTSPTransportHeader> ParseTransport(std::string_view value);

// PLAY's Range line for a presentation from `start` to `end` seconds, line end included; empty when
// it has no start. A negative end is an open one. Times beyond a hundred years count as not given.
std::string RangeLine(double start, double end);

// Whether the Public header's comma-separated value lists the method, in any letter case.
bool ParsePublic(std::string_view value, std::string_view method);

}  // namespace cms
