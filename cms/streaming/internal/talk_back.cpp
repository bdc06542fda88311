#include "cms/streaming/internal/talk_back.h"

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/runtime/clock.h"

namespace cms {
namespace {

constexpr std::uint64_t kPauseMs = 200;

// Where the section that begins at `from` ends: at the next "m=" line.
std::size_t SectionEnd(std::string_view text, std::size_t from) {
  const std::size_t next = text.find("\nm=", from);
  return next == std::string_view::npos ? text.size() : next + 1;
}

template <typename Visit>
void ForEachSection(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = SectionEnd(text, 0);
    visit(text.substr(0, end));
    text.remove_prefix(end);
  }
}

bool HasLine(std::string_view section, std::string_view line) {
  for (std::size_t at = section.find(line); at != std::string_view::npos;
       at = section.find(line, at + 1)) {
    const std::size_t end = at + line.size();
    const bool begins = at == 0 || section[at - 1] == '\n';
    if (begins && (end == section.size() || section[end] == '\r' || section[end] == '\n')) {
      return true;
    }
  }
  return false;
}

}  // namespace

TalkBackDescription SplitTalkBack(std::string_view description) {
  TalkBackDescription result;
  const std::size_t head = SectionEnd(description, 0);
  result.viewing = description.substr(0, head);
  int audioSections = 0;
  bool cameraSends = false;
  ForEachSection(description.substr(head), [&](std::string_view section) {
    audioSections += section.starts_with("m=audio") ? 1 : 0;
    cameraSends |= section.starts_with("m=video") && HasLine(section, "a=sendonly");
  });
  const bool onlyMicrophone = cameraSends && audioSections == 1;
  ForEachSection(description.substr(head), [&](std::string_view section) {
    if (onlyMicrophone || !section.starts_with("m=audio") || !HasLine(section, "a=sendonly")) {
      result.viewing += section;
    } else if (result.talk.payloadType == kNoPayloadType) {
      // The reader of descriptions wants some video.
      MediaSession reader;
      _RTSPSUBSESSION_CONFIG video;
      reader.ParseDescription("v=0\r\nm=video 0 RTP/AVP 96\r\n" + std::string(section), video,
                              result.talk);
    }
  });
  return result;
}

tCMSAudioPlayerConfig TalkBackFormat(const _RTSPSUBSESSION_CONFIG& talk) {
  tCMSAudioPlayerConfig format{.codecId = CMS_CODEC_NONE};
  if (talk.payloadType == kNoPayloadType || talk.clockRate == 0) {
    return format;
  }
  format.codecId = cms::CodecOfEncodingName(talk.encodingName);
  format.sampleRate = talk.clockRate;
  format.channels = talk.channels;
  return format;
}

void TalkBackSender::Start(const _RTSPSUBSESSION_CONFIG& talk, SendPacket send) {
  const tCMSAudioPlayerConfig format = TalkBackFormat(talk);
  std::random_device random;
  ScopeLock lock(lock_);
  send_ = std::move(send);
  payloadType_ = static_cast<std::uint8_t>(talk.payloadType);
  clockRate_ = format.sampleRate;
  frameBytes_ = std::max<std::size_t>(
      std::size_t{format.channels} * (format.codecId == CMS_CODEC_PCM_S16BE ? 2 : 1), 1);
  sequence_ = static_cast<std::uint16_t>(random());
  timestamp_ = random();
  source_ = random();
  lastTick_ = 0;
}

void TalkBackSender::Stop() {
  ScopeLock lock(lock_);
  send_ = nullptr;
}

int TalkBackSender::Send(const unsigned char* data, int length) {
  ScopeLock lock(lock_);
  if (!send_ || data == nullptr || length <= 0) {
    return 0;
  }
  const std::uint64_t now = TickMilliseconds();
  bool talkBegins = lastTick_ == 0;
  if (lastTick_ != 0 && now - lastTick_ > kPauseMs) {
    timestamp_ += static_cast<std::uint32_t>((now - lastTick_) * clockRate_ / 1000);
    talkBegins = true;
  }
  lastTick_ = now;
  std::array<std::uint8_t, kHeader + kPayload> packet;
  const std::size_t longest = std::max(kPayload / frameBytes_, std::size_t{1}) * frameBytes_;
  std::size_t rest = static_cast<std::size_t>(length) / frameBytes_ * frameBytes_;
  int taken = 0;
  while (rest > 0) {
    const std::size_t count = std::min({rest, longest, kPayload});
    const auto byte = [](std::uint32_t value, int shift) {
      return static_cast<std::uint8_t>(value >> shift);
    };
    packet[0] = 2u << 6u;  // version
    packet[1] = static_cast<std::uint8_t>(payloadType_ | (talkBegins ? 0x80u : 0u));
    packet[2] = byte(sequence_, 8);
    packet[3] = byte(sequence_, 0);
    for (int i = 0; i < 4; ++i) {
      packet[static_cast<std::size_t>(4 + i)] = byte(timestamp_, 24 - 8 * i);
      packet[static_cast<std::size_t>(8 + i)] = byte(source_, 24 - 8 * i);
    }
    std::copy_n(data + taken, count, packet.begin() + kHeader);
    if (!send_(std::span(packet).first(kHeader + count))) {
      break;
    }
    ++sequence_;
    timestamp_ += static_cast<std::uint32_t>(count / frameBytes_);
    talkBegins = false;
    taken += static_cast<int>(count);
    rest -= count;
  }
  return taken;
}

}  // namespace cms
