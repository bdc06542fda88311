#include "cms/exports/stream_probe_exports.h"

#include <optional>

namespace {

cms::Bytes BytesOf(const void* data, std::size_t length) {
  return {static_cast<const unsigned char*>(data), length};
}

const void* At(const void* data, int pos) {
  return static_cast<const unsigned char*>(data) + pos;
}

void Store(int* out, int value) {
  if (out != nullptr) {
    *out = value;
  }
}

int StoreSize(const std::optional<cms::PictureSize>& size, int* width, int* height) {
  if (!size) {
    return 0;
  }
  Store(width, size->width);
  Store(height, size->height);
  return 1;
}

// The head of an SEI message holds no more FF bytes than this.
constexpr std::size_t kMaxSeiHead = 512 * 1024;

}  // namespace

int CMSGetVideoType(const void* data) {
  return cms::VideoTypeOf(BytesOf(data, 4));
}

int CMSGetMPEG4VopDataPos(const void* data, unsigned int length) {
  return cms::Mpeg4VopDataPos(BytesOf(data, length));
}

int CMSGetMPEG4VOLDataPos(const void* data, unsigned int length) {
  return cms::Mpeg4VolDataPos(BytesOf(data, length));
}

int CMSGetMPEG4FrameType(const void* data, int pos) {
  return cms::Mpeg4FrameType(BytesOf(At(data, pos), 1));
}

int CMSGetMPEG4WidthAndHeight(const void* data, int pos, int* width, int* height,
                              int halveInterlaced) {
  const auto vol = BytesOf(At(data, pos), cms::kMaxVolBytes);
  return StoreSize(cms::Mpeg4Size(vol, halveInterlaced != 0), width, height);
}

int CMSGetH264SPSDataPos(const void* data, unsigned int length) {
  return cms::H264SpsDataPos(BytesOf(data, length));
}

int CMSGetH264SEIData(const void* data, unsigned int length) {
  return cms::H264SeiDataPos(BytesOf(data, length));
}

int CMSGetH264SEIMessageData(const void* message, unsigned int* payloadType,
                             unsigned int* payloadSize) {
  const auto head = cms::ParseSeiMessage(BytesOf(message, kMaxSeiHead)).value_or(cms::SeiMessage{});
  if (payloadType != nullptr) {
    *payloadType = head.type;
  }
  if (payloadSize != nullptr) {
    *payloadSize = head.size;
  }
  return head.payloadPos;
}

int CMSGetH264WidthAndHeight(const void* sps, int* width, int* height) {
  return StoreSize(cms::H264Size(BytesOf(sps, cms::kMaxSpsBytes)), width, height);
}

void CMSGetMJPEGWidthAndHeight(const void* data, int length, int* width, int* height) {
  const auto size =
      cms::MjpegSize(BytesOf(data, length > 0 ? static_cast<std::size_t>(length) : 0));
  Store(width, size.width);
  Store(height, size.height);
}

std::int64_t SystemTimeTotime_t(const cms::CMSSystemTime* time, std::int64_t* seconds) {
  const std::int64_t result = cms::SystemTimeToSeconds(*time);
  if (seconds != nullptr) {
    *seconds = result;
  }
  return result;
}
