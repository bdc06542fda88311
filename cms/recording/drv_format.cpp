#include "cms/recording/drv_format.h"

#include <algorithm>

#include "cms/live/media/frame_header.h"

namespace cms {
namespace {

constexpr std::size_t kHalf = kDrvHeaderSize / 2;
constexpr std::uint32_t kCountedWithVideo = 32;

bool HalfHolds(std::span<const std::uint8_t> half) {
  return XorCheck(half.first(kHalf - 1)) == half[kHalf - 1];
}

}  // namespace

DrvHeader::DrvHeader(std::span<const std::uint8_t, kDrvHeaderSize> bytes) {
  std::copy(bytes.begin(), bytes.end(), bytes_.begin());
}

bool DrvHeader::FirstCheckHolds() const {
  return HalfHolds(Bytes().first<kHalf>());
}

bool DrvHeader::SecondCheckHolds() const {
  return HalfHolds(Bytes().last<kHalf>());
}

std::uint32_t DrvHeader::AreaLength() const {
  return IsAudio() ? kDrvHeaderSize : std::max<std::uint32_t>(kDrvHeaderSize, Number16(18));
}

std::uint32_t DrvHeader::PayloadLength() const {
  const std::uint32_t size = Number32(4);
  return IsAudio() ? size : size - std::min(size, kCountedWithVideo);
}

std::uint16_t DrvHeader::Number16(std::size_t offset) const {
  const unsigned a = bytes_[offset];
  const unsigned b = bytes_[offset + 1];
  return static_cast<std::uint16_t>(IsLittleEndianKind(Kind()) ? a | b << 8 : a << 8 | b);
}

std::uint32_t DrvHeader::Number32(std::size_t offset) const {
  const std::uint32_t first = Number16(offset);
  const std::uint32_t second = Number16(offset + 2);
  return IsLittleEndianKind(Kind()) ? first | second << 16 : first << 16 | second;
}

std::size_t FirstDrvHeader(std::span<const std::uint8_t> head) {
  if (head.size() < kDrvScanSize) {
    return 0;
  }
  for (std::size_t p = 0; p <= kDrvLastScanned; ++p) {
    if (head[p] == kDrvSync && IsDrvKind(head[p + 1]) && HalfHolds(head.subspan(p, kHalf))) {
      return p;
    }
  }
  return 0;
}

}  // namespace cms
