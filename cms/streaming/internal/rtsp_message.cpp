#include "cms/streaming/internal/rtsp_message.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

constexpr std::uint32_t kMostHops = 255;

// Cuts what lies before the next separator off `text`.
std::string_view TakeItem(std::string_view& text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view item = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return Trim(item);
}

std::optional<std::uint32_t> ParseNumber(std::string_view text) {
  text = Trim(text);
  if (text.empty() || !std::all_of(text.begin(), text.end(), IsDigit)) return std::nullopt;
  std::uint32_t value = 0;
  TextScanner(text).Unsigned(value);
  return value;
}

std::optional<RTSPTransportHeader::Pair> ParsePair(std::string_view text, std::uint32_t max) {
  const bool single = text.find('-') == std::string_view::npos;
  const auto first = ParseNumber(TakeItem(text, '-'));
  if (!first || *first > max) return std::nullopt;
  const auto second = single ? std::optional(*first + 1) : ParseNumber(text);
  if (!second || *second > max) return std::nullopt;
  return RTSPTransportHeader::Pair{static_cast<std::uint16_t>(*first),
                                   static_cast<std::uint16_t>(*second)};
}

}  // namespace

std::size_t FindRTSPHeadEnd(std::string_view text, std::size_t from) {
  for (std::size_t at = text.find('\n', from); at != std::string_view::npos;
       at = text.find('\n', at + 1)) {
    std::size_t next = at + 1;
    if (next < text.size() && text[next] == '\r') ++next;
    if (next < text.size() && text[next] == '\n') return next + 1;
  }
  return std::string_view::npos;
}

void UnfoldHead(std::string& message) {
  const std::size_t end = std::min(FindRTSPHeadEnd(message), message.size());
  for (std::size_t at = message.find('\n'); at < end && at + 1 < end;
       at = message.find('\n', at + 1)) {
    if (message[at + 1] == ' ' || message[at + 1] == '\t') {
      message[at] = ' ';
      if (at > 0 && message[at - 1] == '\r') message[at - 1] = ' ';
    }
  }
}

RTSPMessage::RTSPMessage(std::string_view text) : text_(text) {
  const std::size_t headEnd = FindRTSPHeadEnd(text);
  std::string_view head = text.substr(0, headEnd);
  if (headEnd != std::string_view::npos) rest_ = text.substr(headEnd);
  hasFirstLine_ = head.find_first_of("\r\n") != std::string_view::npos;
  TakeLine(head, firstLine_);
  headers_ = head;
}

bool RTSPMessage::IsResponse() const {
  return text_.starts_with("RTSP/") || IsOfWebServer();
}

bool RTSPMessage::IsOfWebServer() const {
  return text_.starts_with("HTTP/");
}

unsigned RTSPMessage::Status() const {
  if (!hasFirstLine_) return 200;
  std::string_view protocol;
  std::uint32_t status = 0;
  const auto scan = TextScanner(firstLine_).Word(protocol, firstLine_.size()).Unsigned(status);
  return scan.Matched() ? status : 0;
}

std::string_view RTSPMessage::Method() const {
  if (IsResponse()) return {};
  std::string_view method;
  TextScanner(firstLine_).Word(method, firstLine_.size());
  return method;
}

std::optional<std::string_view> RTSPMessage::Find(std::string_view name) const {
  std::string_view lines = headers_;
  std::string_view line;
  while (TakeLine(lines, line)) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !EqualAnyCase(Trim(line.substr(0, colon)), name))
      continue;
    return Trim(line.substr(colon + 1));
  }
  return std::nullopt;
}

std::string_view RTSPMessage::Header(std::string_view name) const {
  return Find(name).value_or(std::string_view());
}

bool RTSPMessage::HasHeader(std::string_view name) const {
  return Find(name).has_value();
}

std::optional<int> RTSPMessage::CSeq() const {
  const auto number = ParseNumber(Header("CSeq"));
  if (!number || *number > 0x7fffffffu) return std::nullopt;
  return static_cast<int>(*number);
}

std::uint32_t RTSPMessage::ContentLength() const {
  return ParseNumber(Header("Content-Length")).value_or(0);
}

std::string_view RTSPMessage::Body() const {
  return HasHeader("Content-Length") ? rest_.substr(0, ContentLength()) : rest_;
}

std::optional<RTSPSessionHeader> ParseSessionHeader(std::string_view value) {
  const std::string_view id = TakeItem(value, ';');
  if (id.empty() || id.size() > RTSPSessionHeader::kMaxId) return std::nullopt;
  for (const char c : id) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) return std::nullopt;
  }
  RTSPSessionHeader session;
  session.id = id;
  while (!value.empty()) {
    std::string_view parameter = TakeItem(value, ';');
    if (!EqualAnyCase(TakeItem(parameter, '='), "timeout")) continue;
    const auto seconds = ParseNumber(parameter);
    if (!seconds || *seconds == 0) continue;
    session.timeoutSeconds =
        std::clamp(*seconds, RTSPSessionHeader::kMinTimeout, RTSPSessionHeader::kMaxTimeout);
  }
  return session;
}

std::optional<RTSPTransportHeader> ParseTransport(std::string_view value) {
  RTSPTransportHeader transport;
  value = TakeItem(value, ',');
  transport.tcp = EqualAnyCase(Trim(value.substr(0, value.find(';'))), "RTP/AVP/TCP");
  while (!value.empty()) {
    std::string_view parameter = TakeItem(value, ';');
    const std::string_view name = TakeItem(parameter, '=');
    const bool interleaved = EqualAnyCase(name, "interleaved");
    std::optional<RTSPTransportHeader::Pair>* pair = nullptr;
    if (interleaved) pair = &transport.interleaved;
    if (EqualAnyCase(name, "server_port")) pair = &transport.serverPort;
    if (EqualAnyCase(name, "client_port")) pair = &transport.clientPort;
    if (EqualAnyCase(name, "port")) pair = &transport.port;
    if (pair) {
      *pair = ParsePair(parameter, interleaved ? 255 : 65535);
      if (!*pair && pair != &transport.clientPort) return std::nullopt;
    } else if (EqualAnyCase(name, "source")) {
      transport.source = Trim(parameter);
    } else if (EqualAnyCase(name, "destination")) {
      transport.destination = Trim(parameter);
    } else if (EqualAnyCase(name, "ttl")) {
      transport.ttl = std::min(ParseNumber(parameter).value_or(0), kMostHops);
    } else if (EqualAnyCase(name, "multicast")) {
      transport.multicast = true;
    }
  }
  return transport;
}

std::string RangeLine(double start, double end) {
  constexpr double kLongest = 100.0 * 366 * 86400;
  if (!(start >= 0 && start <= kLongest)) return {};
  const auto text = [](double seconds) {
    std::array<char, 32> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), seconds,
                                      std::chars_format::fixed, 3);
    return std::string(digits.data(), result.ptr);
  };
  const bool closed = end >= 0 && end <= kLongest;
  return "Range: npt=" + text(start) + "-" + (closed ? text(end) : "") + "\r\n";
}

bool ParsePublic(std::string_view value, std::string_view method) {
  while (!value.empty()) {
    if (EqualAnyCase(TakeItem(value, ','), method)) return true;
  }
  return false;
}

}  // namespace cms
