#include "tests/support/rtsp_message.h"

#include <strings.h>

#include <cstdlib>

namespace test {
namespace {

// Where the header's line starts, npos when there is none; the request line is no header.
std::size_t FindHeader(std::string_view message, std::string_view name) {
  const std::size_t end = message.find("\r\n\r\n");
  std::size_t line = message.find("\r\n");
  while (line != std::string_view::npos && line < end) {
    line += 2;
    const std::string_view rest = message.substr(line);
    if (rest.size() > name.size() && rest[name.size()] == ':' &&
        strncasecmp(rest.data(), name.data(), name.size()) == 0) {
      return line;
    }
    line = message.find("\r\n", line);
  }
  return std::string_view::npos;
}

std::string_view HeaderValue(std::string_view message, std::string_view name) {
  const std::size_t line = FindHeader(message, name);
  if (line == std::string_view::npos) {
    return {};
  }
  std::string_view value = message.substr(line + name.size() + 1);
  value = value.substr(0, value.find("\r\n"));
  const std::size_t first = value.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  return value.substr(first, value.find_last_not_of(" \t") - first + 1);
}

void PutBigEndian(std::string* out, std::uint32_t value, int bytes) {
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
    out->push_back(static_cast<char>((value >> shift) & 0xff));
  }
}

}  // namespace

std::string RtspRequest::Header(std::string_view name) const {
  return std::string(HeaderValue(text, name));
}

bool TakeRtspRequest(std::string* bytes, RtspRequest* request) {
  const std::size_t blank = bytes->find("\r\n\r\n");
  if (blank == std::string::npos) {
    return false;
  }
  const std::string lengthText(HeaderValue(*bytes, "Content-Length"));
  const std::size_t length = std::strtoul(lengthText.c_str(), nullptr, 10);
  const std::size_t head = blank + 4;
  if (bytes->size() - head < length) {
    return false;
  }
  request->text = bytes->substr(0, head + length);
  request->body = bytes->substr(head, length);
  bytes->erase(0, head + length);
  const std::string line = request->text.substr(0, request->text.find("\r\n"));
  const std::size_t first = line.find(' ');
  const std::size_t second = line.rfind(' ');
  request->method = line.substr(0, first);
  request->url = first == second ? "" : line.substr(first + 1, second - first - 1);
  return true;
}

std::string RtspResponse(const RtspRequest& request, int status, std::string_view reason,
                         const RtspHeaders& headers, std::string_view body) {
  std::string answer = "RTSP/1.0 " + std::to_string(status) + " " + std::string(reason) + "\r\n";
  if (const std::string cseq = request.Header("CSeq"); !cseq.empty()) {
    answer += "CSeq: " + cseq + "\r\n";
  }
  for (const auto& [name, value] : headers) {
    answer += name + ": " + value + "\r\n";
  }
  if (!body.empty()) {
    answer += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return answer + "\r\n" + std::string(body);
}

std::string WithHeader(std::string message, std::string_view name, std::string_view value) {
  message = WithoutHeader(std::move(message), name);
  const std::string line = std::string(name) + ": " + std::string(value) + "\r\n";
  return message.insert(message.find("\r\n\r\n") + 2, line);
}

std::string WithoutHeader(std::string message, std::string_view name) {
  const std::size_t line = FindHeader(message, name);
  if (line != std::string::npos) {
    message.erase(line, message.find("\r\n", line) + 2 - line);
  }
  return message;
}

std::string InterleavedBlock(std::uint8_t channel, std::string_view packet) {
  std::string block = "$";
  block.push_back(static_cast<char>(channel));
  PutBigEndian(&block, static_cast<std::uint32_t>(packet.size()), 2);
  return block.append(packet);
}

RtspAnswer RtspAnswer::InSegments(std::string_view text, std::size_t size,
                                  std::chrono::milliseconds pause) {
  RtspAnswer answer;
  for (std::size_t at = 0; at < text.size(); at += size) {
    if (at != 0) {
      answer.Pause(pause);
    }
    answer.Then(std::string(text.substr(at, size)));
  }
  return answer;
}

RtspAnswer& RtspAnswer::Then(std::string bytes) {
  actions_.push_back({Action::Kind::kSend, std::move(bytes), {}, {}});
  return *this;
}

RtspAnswer& RtspAnswer::Pause(std::chrono::milliseconds time) {
  actions_.push_back({Action::Kind::kPause, {}, time, {}});
  return *this;
}

RtspAnswer& RtspAnswer::Interleaved(std::uint8_t channel, std::string_view packet) {
  return Then(InterleavedBlock(channel, packet));
}

RtspAnswer& RtspAnswer::Endless(std::string bytes) {
  actions_.push_back({Action::Kind::kEndless, std::move(bytes), {}, {}});
  return *this;
}

RtspAnswer& RtspAnswer::Do(std::function<void()> action) {
  actions_.push_back({Action::Kind::kDo, {}, {}, std::move(action)});
  return *this;
}

RtspAnswer& RtspAnswer::Close() {
  actions_.push_back({Action::Kind::kClose, {}, {}, {}});
  return *this;
}

RtspAnswer& RtspAnswer::Reset() {
  actions_.push_back({Action::Kind::kReset, {}, {}, {}});
  return *this;
}

std::string RtpText(const RtpFields& fields, std::string_view payload) {
  std::string packet;
  packet.reserve(12 + payload.size());
  packet.push_back(static_cast<char>(0x80));
  packet.push_back(static_cast<char>((fields.marker ? 0x80 : 0) | (fields.payloadType & 0x7f)));
  PutBigEndian(&packet, fields.sequence, 2);
  PutBigEndian(&packet, fields.timestamp, 4);
  PutBigEndian(&packet, fields.ssrc, 4);
  return packet.append(payload);
}

}  // namespace test
