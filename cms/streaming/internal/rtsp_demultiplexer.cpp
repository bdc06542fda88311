#include "cms/streaming/internal/rtsp_demultiplexer.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::string_view kAnswer = "RTSP/1.";

// An answer, and the requests that a server sends.
constexpr std::array<std::string_view, 7> kMessageStarts = {
    kAnswer, "OPTIONS ", "ANNOUNCE ", "SET_PARAMETER ", "GET_PARAMETER ", "REDIRECT ", "TEARDOWN "};

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

bool IsValidHeader(Bytes header, const RTSPChannelIds& ids) {
  if (header[0] == '$') return GetInterleaveType(header[1], ids) >= 0;
  return MatchAnyStart(AsText(header.first(kInterleavedPrefix))) != Match::kNo;
}

// Control bytes, which no head holds but every frame header does.
bool IsBinary(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < ' ' && byte != '\r' && byte != '\n' && byte != '\t';
}

void Count(std::atomic<std::uint64_t>& counter, std::size_t by) {
  counter.fetch_add(by, std::memory_order_relaxed);
}

std::uint64_t Pack(const RTSPChannelIds& ids) {
  std::uint64_t packed = 0;
  for (const int id : ids) {
    packed = packed << 16 | static_cast<std::uint16_t>(id >= 0 && id <= 255 ? id : -1);
  }
  return packed;
}

}  // namespace

RTSPDemultiplexer::RTSPDemultiplexer(Sink& sink)
    : sink_(sink), channels_(Pack({-1, -1, -1, -1})), tail_(new std::uint8_t[kTailSize]) {}

void RTSPDemultiplexer::SetChannels(const RTSPChannelIds& ids) {
  channels_.store(Pack(ids), std::memory_order_relaxed);
}

RTSPChannelIds RTSPDemultiplexer::Channels() const {
  const std::uint64_t packed = channels_.load(std::memory_order_relaxed);
  RTSPChannelIds ids;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    ids[i] = static_cast<std::int16_t>(packed >> (48 - 16 * i));
  }
  return ids;
}

void RTSPDemultiplexer::Reset() {
  SetChannels({-1, -1, -1, -1});
  tail_size_ = 0;
  wanted_ = {};
  in_step_ = true;
  head_searched_ = 0;
  no_message_ = 0;
}

void RTSPDemultiplexer::Add(Bytes data) {
  while (!data.empty()) {
    if (tail_size_ == 0) {
      Append(data.subspan(Parse(data)));
      return;
    }
    const std::size_t added = std::min(data.size(), wanted_.most - tail_size_);
    Append(data.first(added));
    if (tail_size_ < wanted_.least) return;

    const std::size_t left = tail_size_ - Parse({tail_.get(), tail_size_});
    if (left <= added) {
      // Everything kept is finished: what is left came just now and is parsed where it lies.
      tail_size_ = 0;
      data = data.subspan(added - left);
    } else {
      std::memmove(tail_.get(), tail_.get() + (tail_size_ - left), left);
      tail_size_ = left;
      data = data.subspan(added);
    }
  }
}

void RTSPDemultiplexer::Append(Bytes data) {
  if (data.empty()) return;
  std::memcpy(tail_.get() + tail_size_, data.data(), data.size());
  tail_size_ += data.size();
}

// Delivers what is whole; returns the bytes done with. When some are left, wanted_ tells what they
// need.
std::size_t RTSPDemultiplexer::Parse(Bytes data) {
  std::size_t at = 0;
  while (at < data.size()) {
    const Bytes rest = data.subspan(at);
    const RTSPChannelIds ids = Channels();
    const bool interleaved = ids != RTSPChannelIds{-1, -1, -1, -1};
    const Step step =
        interleaved && rest[0] == '$' ? ParseFrame(rest, ids) : ParseMessage(rest, interleaved);
    if (step.consumed == 0) {
      wanted_ = step;
      break;
    }
    head_searched_ = 0;
    no_message_ -= std::min(no_message_, step.consumed);
    at += step.consumed;
  }
  return at;
}

RTSPDemultiplexer::Step RTSPDemultiplexer::ParseFrame(Bytes rest, const RTSPChannelIds& ids) {
  if (rest.size() < 2) return {0, 2, kInterleavedPrefix};
  const int type = GetInterleaveType(rest[1], ids);
  if (type < 0) return Skip(rest, true);
  if (rest.size() < kInterleavedPrefix) return {0, kInterleavedPrefix, kInterleavedPrefix};
  const std::size_t size = kInterleavedPrefix + (static_cast<std::size_t>(rest[2]) << 8) + rest[3];
  const std::size_t with_next = size + kInterleavedPrefix;
  if (rest.size() < with_next) return {0, with_next, with_next};
  if (!IsValidHeader(rest.subspan(size), ids)) return Skip(rest, true);
  sink_.OnInterleavedPacket(type, rest.first(size));
  in_step_ = true;
  no_message_ = 0;
  return {size, 0, 0};
}

RTSPDemultiplexer::Step RTSPDemultiplexer::ParseMessage(Bytes rest, bool interleaved) {
  const std::string_view text = AsText(rest);
  if (in_step_ && (text[0] == '\r' || text[0] == '\n')) return {1, 0, 0};
  if (no_message_ > 0) return Skip(rest, interleaved);
  const Match match = in_step_ ? MatchAnyStart(text) : MatchStart(text, kAnswer);
  if (match == Match::kNo) return Skip(rest, interleaved);
  if (match == Match::kTooShort) return {0, text.size() + 1, kMaxHead};

  const std::string_view limited = text.substr(0, kMaxHead);
  const std::size_t head = FindRTSPHeadEnd(limited, head_searched_);
  const std::string_view fresh = limited.substr(0, head).substr(head_searched_);
  if (interleaved) {
    // A head that runs into a frame lost its end: what comes after is not searched again for each
    // start in it.
    const auto binary = std::find_if(fresh.begin(), fresh.end(), IsBinary);
    if (binary != fresh.end()) {
      no_message_ = head_searched_ + static_cast<std::size_t>(binary - fresh.begin()) + 1;
      return Skip(rest, interleaved);
    }
  }
  if (head == std::string_view::npos) {
    if (limited.size() == kMaxHead) {
      Count(oversize_, 1);
      no_message_ = kMaxHead;
      return Skip(rest, interleaved);
    }
    head_searched_ = limited.size() - std::min<std::size_t>(limited.size(), 2);  // of "\n\r\n"
    return {0, text.size() + 1, kMaxHead};
  }

  const std::size_t body = RTSPMessage(text.substr(0, head)).ContentLength();
  if (body > kMaxBody) {
    Count(oversize_, 1);
    Count(skipped_, head);
    in_step_ = false;
    return {head, 0, 0};
  }
  const std::size_t size = head + body;
  if (text.size() < size) {
    head_searched_ = head - 3;
    return {0, size, size};
  }
  sink_.OnMessage(text.substr(0, size));
  in_step_ = true;
  return {size, 0, 0};
}

// Steps to the next byte that can start something.
RTSPDemultiplexer::Step RTSPDemultiplexer::Skip(Bytes rest, bool interleaved) {
  const auto starts = [interleaved](std::uint8_t byte) {
    return byte == kAnswer[0] || (interleaved && byte == '$');
  };
  const auto next = std::find_if(rest.begin() + 1, rest.end(), starts);
  const auto size = static_cast<std::size_t>(next - rest.begin());
  in_step_ = false;
  Count(skipped_, size);
  return {size, 0, 0};
}

}  // namespace cms
