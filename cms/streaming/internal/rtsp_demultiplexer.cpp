#include "cms/streaming/internal/rtsp_demultiplexer.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::string_view kAnswer = "RTSP/1.";  // the only start that is looked for out of step

// An answer (of a web server too: then it is one at the wrong port), and the requests that a server
// sends.
constexpr std::array<std::string_view, 8> kMessageStarts = {
    "RTSP/",          "HTTP/",          "OPTIONS ",  "ANNOUNCE ",
    "SET_PARAMETER ", "GET_PARAMETER ", "REDIRECT ", "TEARDOWN "};

std::string_view AsText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

enum class Match { kNo, kTooShort, kYes };

Match MatchStart(std::string_view text, std::string_view start) {
  const std::size_t size = std::min(text.size(), start.size());
  if (text.substr(0, size) != start.substr(0, size)) return Match::kNo;
  return size == start.size() ? Match::kYes : Match::kTooShort;
}

Match MatchAnyStart(std::string_view text) {
  for (const std::string_view start : kMessageStarts) {
    if (const Match match = MatchStart(text, start); match != Match::kNo) return match;
  }
  return Match::kNo;
}

int TypeOf(int id, const RTSPStreamChannels& ids) {
  const auto found = std::find(ids.begin(), ids.end(), id);
  return found != ids.end() ? static_cast<int>(found - ids.begin()) : -1;
}

bool IsLineEnd(std::uint8_t byte) {
  return byte == '\r' || byte == '\n';
}

// `header`: the four bytes behind a frame.
bool IsValidHeader(Bytes header, const RTSPStreamChannels& ids, bool inStep) {
  while (inStep && !header.empty() && IsLineEnd(header[0])) header = header.subspan(1);
  if (header.empty()) return true;
  if (header[0] != '$') return MatchAnyStart(AsText(header)) != Match::kNo;
  return header.size() < 2 || TypeOf(header[1], ids) >= 0 ||
         (inStep && header[1] < RTSPDemultiplexer::kStrayChannels);
}

// Where a line begins, at or behind `from`, that is the start of a message or may become one; npos
// when there is none.
std::size_t FindMessageLine(std::string_view text, std::size_t from) {
  for (std::size_t at = text.find('\n', from - 1); at != std::string_view::npos;
       at = text.find('\n', at + 1)) {
    const std::string_view line = text.substr(at + 1);
    if (!line.empty() && MatchAnyStart(line) != Match::kNo) return at + 1;
  }
  return std::string_view::npos;
}

// Control bytes, which no head holds but every frame header does.
bool IsBinary(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < ' ' && byte != '\r' && byte != '\n' && byte != '\t';
}

void Count(std::atomic<std::uint64_t>& counter, std::size_t by) {
  counter.fetch_add(by, std::memory_order_relaxed);
}

constexpr unsigned kIdBits = 10;
constexpr std::uint64_t kNoId = (1u << kIdBits) - 1;

constexpr std::uint64_t Pack(const RTSPStreamChannels& ids) {
  std::uint64_t packed = 0;
  for (const int id : ids) {
    packed = packed << kIdBits | (id >= 0 && id <= 255 ? static_cast<std::uint64_t>(id) : kNoId);
  }
  return packed;
}

RTSPStreamChannels Unpacked(std::uint64_t packed) {
  RTSPStreamChannels ids;
  for (auto id = ids.rbegin(); id != ids.rend(); ++id, packed >>= kIdBits) {
    *id = (packed & kNoId) == kNoId ? -1 : static_cast<int>(packed & kNoId);
  }
  return ids;
}

}  // namespace

RTSPDemultiplexer::RTSPDemultiplexer(Sink& sink)
    : sink_(sink), channels_(Pack(kNoChannels)), tail_(new std::uint8_t[kTailSize]) {}

void RTSPDemultiplexer::SetChannels(const RTSPStreamChannels& ids) {
  channels_.store(Pack(ids), std::memory_order_release);
}

RTSPStreamChannels RTSPDemultiplexer::Channels() const {
  return Unpacked(channels_.load(std::memory_order_acquire));
}

void RTSPDemultiplexer::Reset() {
  SetChannels(kNoChannels);
  tailSize_ = 0;
  wanted_ = {};
  inStep_ = true;
  headSearched_ = 0;
  noMessage_ = 0;
  unended_ = 0;
  ExpectDescription(false);
}

void RTSPDemultiplexer::Add(Bytes data) {
  while (!data.empty()) {
    if (tailSize_ == 0) {
      Append(data.subspan(Parse(data)));
      return;
    }
    const std::size_t added = std::min(data.size(), wanted_.most - tailSize_);
    Append(data.first(added));
    if (tailSize_ < wanted_.least) return;

    const std::size_t left = tailSize_ - Parse({tail_.get(), tailSize_});
    if (left <= added) {
      // Everything kept is finished: what is left came just now and is parsed where it lies.
      tailSize_ = 0;
      data = data.subspan(added - left);
    } else {
      std::memmove(tail_.get(), tail_.get() + (tailSize_ - left), left);
      tailSize_ = left;
      data = data.subspan(added);
    }
  }
}

void RTSPDemultiplexer::Append(Bytes data) {
  if (data.empty()) return;
  std::memcpy(tail_.get() + tailSize_, data.data(), data.size());
  tailSize_ += data.size();
}

// Delivers what is whole; returns the bytes done with. When some are left, wanted_ tells what they
// need.
std::size_t RTSPDemultiplexer::Parse(Bytes data) {
  constexpr std::uint64_t kNone = Pack(kNoChannels);
  std::uint64_t packed = channels_.load(std::memory_order_acquire);
  RTSPStreamChannels ids = Unpacked(packed);
  std::size_t at = 0;
  while (at < data.size()) {
    const Bytes rest = data.subspan(at);
    // Only where a message has changed them: unpacking stalls the processor for each packet.
    if (const std::uint64_t now = channels_.load(std::memory_order_acquire); now != packed)
        [[unlikely]] {
      packed = now;
      ids = Unpacked(packed);
    }
    const bool interleaved = packed != kNone;
    const Step step =
        interleaved && rest[0] == '$' ? ParseFrame(rest, ids) : ParseMessage(rest, interleaved);
    if (step.consumed == 0) {
      wanted_ = step;
      break;
    }
    headSearched_ = 0;
    unended_ = 0;
    noMessage_ -= std::min(noMessage_, step.consumed);
    at += step.consumed;
  }
  return at;
}

RTSPDemultiplexer::Step RTSPDemultiplexer::ParseFrame(Bytes rest, const RTSPStreamChannels& ids) {
  if (rest.size() < 2) return {0, 2, kInterleavedPrefix};
  const int type = TypeOf(rest[1], ids);
  if (type < 0 && !(inStep_ && rest[1] < kStrayChannels)) return Skip(rest, true);
  if (rest.size() < kInterleavedPrefix) return {0, kInterleavedPrefix, kInterleavedPrefix};
  const std::size_t size = kInterleavedPrefix + (static_cast<std::size_t>(rest[2]) << 8) + rest[3];
  const std::size_t withNext = size + kInterleavedPrefix;
  const bool prompt = prompt_ && inStep_;
  if (prompt && rest.size() < size) return {0, size, withNext};
  if (rest.size() < withNext) {
    if (!prompt || rest.size() != size) return {0, withNext, withNext};
  } else if (!IsValidHeader(rest.subspan(size, kInterleavedPrefix), ids, inStep_)) {
    return Skip(rest, true);
  }
  if (type >= 0) {
    sink_.OnInterleavedPacket(type, rest.first(size));
  } else {
    Count(stray_, 1);
  }
  inStep_ = true;
  noMessage_ = 0;
  return {size, 0, 0};
}

RTSPDemultiplexer::Step RTSPDemultiplexer::ParseMessage(Bytes rest, bool interleaved) {
  const std::string_view text = AsText(rest);
  if (inStep_ && (text[0] == '\r' || text[0] == '\n')) return {1, 0, 0};
  if (noMessage_ > 0) return Skip(rest, interleaved);
  const Match match = inStep_ ? MatchAnyStart(text) : MatchStart(text, kAnswer);
  if (match == Match::kNo) return Skip(rest, interleaved);
  if (match == Match::kTooShort) return {0, text.size() + 1, kMaxHead};

  const std::string_view limited = text.substr(0, kMaxHead);
  const std::size_t head = FindRTSPHeadEnd(limited, headSearched_);
  const std::string_view fresh = limited.substr(0, head).substr(headSearched_);
  if (interleaved) {
    // A head that runs into a frame lost its end: what comes after is not searched again for each
    // start in it.
    const auto binary = std::find_if(fresh.begin(), fresh.end(), IsBinary);
    if (binary != fresh.end()) {
      noMessage_ = headSearched_ + static_cast<std::size_t>(binary - fresh.begin()) + 1;
      return Skip(rest, interleaved);
    }
  }
  if (head == std::string_view::npos) {
    if (limited.size() == kMaxHead) {
      Count(oversize_, 1);
      noMessage_ = kMaxHead;
      return Skip(rest, interleaved);
    }
    headSearched_ = limited.size() - std::min<std::size_t>(limited.size(), 2);  // of "\n\r\n"
    return {0, text.size() + 1, kMaxHead};
  }

  const RTSPMessage message(text.substr(0, head));
  if (unended_ > 0 ||
      (descriptionExpected_.load(std::memory_order_relaxed) && !interleaved &&
       message.IsResponse() && message.Status() == 200 && !message.HasHeader("Content-Length"))) {
    return ParseUnended(text, head);
  }
  const std::size_t body = message.ContentLength();
  if (body > kMaxBody) {
    Count(oversize_, 1);
    Count(skipped_, head);
    inStep_ = false;
    return {head, 0, 0};
  }
  const std::size_t size = head + body;
  if (text.size() < size) {
    headSearched_ = head - 3;
    return {0, size, size};
  }
  sink_.OnMessage(text.substr(0, size));
  inStep_ = true;
  return {size, 0, 0};
}

RTSPDemultiplexer::Step RTSPDemultiplexer::ParseUnended(std::string_view text, std::size_t head) {
  constexpr std::size_t kLongestStart = 16;
  const std::size_t most = head + kMaxBody;
  const std::size_t next =
      FindMessageLine(text, std::max(head + kLongestStart, unended_) - kLongestStart);
  const bool ended =
      next != std::string_view::npos && MatchAnyStart(text.substr(next)) == Match::kYes;
  const std::string_view message = text.substr(0, std::min(next, most));
  if (message.size() > unended_) sink_.OnUnendedMessage(message, unended_ > 0);
  unended_ = message.size();
  if (ended || text.size() >= most) {
    inStep_ = true;
    return {message.size(), 0, 0};
  }
  headSearched_ = head - 3;
  return {0, text.size() + 1, most};
}

// Steps to the next byte that can start something.
RTSPDemultiplexer::Step RTSPDemultiplexer::Skip(Bytes rest, bool interleaved) {
  const auto starts = [interleaved](std::uint8_t byte) {
    return byte == kAnswer[0] || (interleaved && byte == '$');
  };
  const auto next = std::find_if(rest.begin() + 1, rest.end(), starts);
  const auto size = static_cast<std::size_t>(next - rest.begin());
  inStep_ = false;
  Count(skipped_, size);
  return {size, 0, 0};
}

}  // namespace cms
