#include "cms/live/media/drv_header.h"

#include <algorithm>
#include <iterator>

#include "cms/live/media/frame_header.h"
#include "cms/live/media/frame_moment.h"

namespace cms {
namespace {

constexpr std::size_t kCheckedHalf =
    kDrvHeaderSize / 2;  // a check byte makes its half's exclusive-or 0
constexpr std::uint32_t kCountedWithVideo = 32;

}  // namespace

DrvHeader::DrvHeader(std::span<const std::uint8_t, kDrvHeaderSize> bytes) {
  std::copy(bytes.begin(), bytes.end(), bytes_.begin());
}

bool DrvHeader::FirstCheckHolds() const {
  return XorCheck(Bytes().first<kCheckedHalf>()) == 0;
}

bool DrvHeader::SecondCheckHolds() const {
  return XorCheck(Bytes().last<kCheckedHalf>()) == 0;
}

std::uint32_t DrvHeader::AreaLength() const {
  return IsAudio() ? kDrvHeaderSize : std::max<std::uint32_t>(kDrvHeaderSize, Number16(18));
}

std::uint32_t DrvHeader::PayloadLength() const {
  const std::uint32_t size = Number32(4);
  return IsAudio() ? size : size - std::min(size, kCountedWithVideo);
}

std::optional<std::int64_t> DrvHeader::TimeUs() const {
  constexpr std::size_t kVideoPlaces[] = {16, 17, 30};
  constexpr std::size_t kAudioPlaces[] = {28, 29, 30};
  std::uint32_t told = 0;
  for (std::size_t i = 0; i < std::size(kVideoPlaces); ++i) {
    told |= std::uint32_t{bytes_[IsAudio() ? kAudioPlaces[i] : kVideoPlaces[i]]} << 8 * i;
  }
  // Only kind '2' is written with it.
  return told != kFrameTimeUntold && told <= kMicro && Kind() == '2'
             ? std::optional(std::int64_t{Seconds()} * kMicro + told - 1)
             : std::nullopt;
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

}  // namespace cms
