#include "cms/streaming/h264_rtp_processer.h"

namespace {

using Payload = std::span<const unsigned char>;

enum NalType : unsigned int {
  kSlice = 1,
  kIdrSlice = 5,
  kSei = 6,
  kSps = 7,
  kPps = 8,
  kDelimiter = 9,
  kFiller = 12,
  kStapA = 24,
  kFuA = 28,
};

constexpr unsigned char kStartCode[4] = {0, 0, 0, 1};
// The FU header (RFC 6184, 5.8).
constexpr unsigned char kFuStart = 0x80;
constexpr unsigned char kFuEnd = 0x40;

unsigned int TypeOf(unsigned char nalHeader) {
  return nalHeader & 0x1Fu;
}

bool IsDelimiter(unsigned int type) {
  return type == kDelimiter || type == kFiller;
}

Payload PayloadOf(const void* packet, int length, unsigned int headerSize) {
  if (length <= 0 || headerSize >= static_cast<unsigned int>(length)) {
    return {};
  }
  return Payload(static_cast<const unsigned char*>(packet), static_cast<std::size_t>(length))
      .subspan(headerSize);
}

// Calls visit(unit) for each unit of a STAP-A (RFC 6184, 5.7.1) until it answers false. False when
// it did, or when a size reaches beyond the packet.
template <typename Visit>
bool ForEachUnit(Payload payload, Visit visit) {
  Payload rest = payload.subspan(1);
  while (!rest.empty()) {
    if (rest.size() < 2) {
      return false;
    }
    const auto size = static_cast<std::size_t>(rest[0] << 8 | rest[1]);
    rest = rest.subspan(2);
    if (size > rest.size() || !visit(rest.first(size))) {
      return false;
    }
    rest = rest.subspan(size);
  }
  return true;
}

}  // namespace

H264RTPProcesser::H264RTPProcesser() : RTPProcesserBase(true) {}

H264RTPProcesser::~H264RTPProcesser() = default;

void H264RTPProcesser::GetFrameData(void* frame, int* /*length*/, int* frameType) {
  const unsigned int type = TypeOf(static_cast<const unsigned char*>(frame)[sizeof(kStartCode)]);
  *frameType = type == kIdrSlice || type == kSps ? cms::kKeyFrame : cms::kOtherFrame;
}

bool H264RTPProcesser::HasNothingButDelimiters(Payload payload) const {
  if (!ignoreDelimiters_.load(std::memory_order_relaxed) || payload.empty()) {
    return false;
  }
  const unsigned int type = TypeOf(payload[0]);
  if (type == kFuA) {
    return payload.size() >= 2 && IsDelimiter(TypeOf(payload[1]));
  }
  if (type == kStapA) {
    return payload.size() > 1 && ForEachUnit(payload, [](Payload unit) {
             return !unit.empty() && IsDelimiter(TypeOf(unit[0]));
           });
  }
  return IsDelimiter(type);
}

int H264RTPProcesser::AppendNalUnit(Payload nalUnit) {
  return AppendDataToFrameBuff(kStartCode, sizeof(kStartCode)) != 0 &&
         AppendDataToFrameBuff(nalUnit.data(), static_cast<int>(nalUnit.size())) != 0;
}

int H264RTPProcesser::AppendAggregate(Payload payload) {
  const bool ignore = ignoreDelimiters_.load(std::memory_order_relaxed);
  return ForEachUnit(payload, [&](Payload unit) {
    if (ignore && !unit.empty() && IsDelimiter(TypeOf(unit[0]))) {
      return true;
    }
    return AppendNalUnit(unit) != 0;
  });
}

int H264RTPProcesser::AppendFragment(Payload payload) {
  if (payload.size() < 2) {
    return 0;
  }
  const unsigned char fuHeader = payload[1];
  const Payload data = payload.subspan(2);
  if (IsDelimiter(TypeOf(fuHeader)) && ignoreDelimiters_.load(std::memory_order_relaxed)) {
    return 1;
  }
  if ((fuHeader & kFuStart) == 0) [[likely]] {
    return AppendDataToFrameBuff(data.data(), static_cast<int>(data.size()));
  }
  const auto nalHeader = static_cast<unsigned char>((payload[0] & 0xE0) | (fuHeader & 0x1F));
  if (TypeOf(nalHeader) == kIdrSlice && FrameLength() == 0) {
    if ((!sps_.empty() && AppendNalUnit(sps_) == 0) ||
        (!pps_.empty() && AppendNalUnit(pps_) == 0)) {
      return 0;
    }
  }
  return AppendNalUnit({&nalHeader, 1}) != 0 &&
         AppendDataToFrameBuff(data.data(), static_cast<int>(data.size())) != 0;
}

int H264RTPProcesser::AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) {
  const Payload payload = PayloadOf(packet, length, headerSize);
  if (payload.empty()) {
    return 0;
  }
  const unsigned int type = TypeOf(payload[0]);
  switch (type) {
    case kFuA:
      return AppendFragment(payload);
    case kSei:
      // One that is too long is not kept; the frame has it anyway.
      SetMetadada(const_cast<unsigned char*>(payload.data()),
                  static_cast<unsigned int>(payload.size()));
      return AppendNalUnit(payload);
    case kSlice:
    case kIdrSlice:
    case kSps:
    case kPps:
      return AppendNalUnit(payload);
    case kStapA:
      return AppendAggregate(payload);
    default:
      return HasNothingButDelimiters(payload) ? 1 : 0;
  }
}

int H264RTPProcesser::FindIFrame(void* packet, int length, unsigned int headerSize) {
  const Payload payload = PayloadOf(packet, length, headerSize);
  if (payload.empty()) {
    return 0;
  }
  switch (TypeOf(payload[0])) {
    case kIdrSlice:
    case kSps:
      return 1;
    case kFuA:
      if (payload.size() >= 2 && (payload[1] & kFuStart) != 0 && TypeOf(payload[1]) == kIdrSlice &&
          !sps_.empty() && !pps_.empty()) {
        return 1;
      }
      break;
    case kStapA: {
      bool hasSps = false;
      ForEachUnit(payload, [&](Payload unit) {
        hasSps = !unit.empty() && TypeOf(unit[0]) == kSps;
        return !hasSps;
      });
      if (hasSps) {
        return 1;
      }
      break;
    }
    default:
      break;
  }
  return HasNothingButDelimiters(payload) ? kAskNextPacket : 0;
}

int H264RTPProcesser::IsEndOfFrame(void* packet, int length, unsigned int headerSize) {
  const Payload payload = PayloadOf(packet, length, headerSize);
  if (payload.empty()) {
    return 0;
  }
  switch (TypeOf(payload[0])) {
    case kFuA:
      if (payload.size() < 2) {
        return 0;
      }
      if (IsDelimiter(TypeOf(payload[1])) && HasNothingButDelimiters(payload)) {
        return HasMarker(packet);
      }
      return (payload[1] & kFuEnd) != 0;
    case kStapA:
      return HasMarker(packet) && HasNothingButDelimiters(payload);
    case kSei:
    case kSps:
    case kPps:
      return 0;
    default:
      return HasMarker(packet);
  }
}

void H264RTPProcesser::SetSPSSet(unsigned char* data, unsigned int length) {
  sps_.assign(data, data + length);
}

void H264RTPProcesser::SetPPSSet(unsigned char* data, unsigned int length) {
  pps_.assign(data, data + length);
}

void H264RTPProcesser::GetSPSSet(unsigned char** data, unsigned int& length) {
  *data = sps_.empty() ? nullptr : sps_.data();
  length = static_cast<unsigned int>(sps_.size());
}

void H264RTPProcesser::GetPPSSet(unsigned char** data, unsigned int& length) {
  *data = pps_.empty() ? nullptr : pps_.data();
  length = static_cast<unsigned int>(pps_.size());
}
