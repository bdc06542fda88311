#include "cms/streaming/internal/jpeg_assembler.h"

#include <algorithm>
#include <array>

namespace cms {
namespace {

using JpegHeader = CMJPEGMainHeader;

constexpr std::array<std::uint8_t, 2> kStartOfImage = {0xFF, 0xD8};
constexpr std::array<std::uint8_t, 2> kEndOfImage = {0xFF, 0xD9};

// RFC 2435, 4.1: the types 0 and 1, and with restart markers 64 and 65.
constexpr unsigned kRestarts = 64;

// The side that a payload header tells, unless the description's is one that it cannot tell: there
// are senders that write 0 then, and senders that write what is left of it.
int SideOf(unsigned char told, int described) {
  constexpr int kLargestTold = 255 * 8;
  const bool cut = described > kLargestTold && ((described + 7) / 8 & 0xFF) == told;
  return told == 0 || cut ? described : told * 8;
}

}  // namespace

JpegAssembler::JpegAssembler(AccessUnitSink& sink, PictureSize described, std::size_t mostBytes)
    : sink_(sink), described_(described), buffer_(mostBytes) {}

void JpegAssembler::Take(const MediaPacket& packet) {
  const bool changed = open_ && packet.timestamp != timestamp_;
  if (packet.gap && open_) {
    damaged_ = true;
  }
  if (packet.payload.empty()) {
    return;
  }
  if (changed) {
    End();
  }
  if (packet.payload.size() < JpegHeader::kMainHeader) {
    damaged_ = true;
    return;
  }
  if (!open_) {
    open_ = true;
    damaged_ = false;
    timestamp_ = packet.timestamp;
    damaged_ = !Begin(packet.payload);
  }
  if (!damaged_) {
    Add(packet.payload);
  }
  if (packet.marker) {
    End();
  }
}

PictureSize JpegAssembler::SizeOf(Bytes payload) const {
  return {SideOf(JpegHeader::Width(payload), described_.width),
          SideOf(JpegHeader::Height(payload), described_.height)};
}

// False when the picture cannot be put together from here.
bool JpegAssembler::Begin(Bytes payload) {
  const std::size_t dataOffset = JpegHeader::GetDataOffset(payload);
  const unsigned type = JpegHeader::Type(payload) & ~kRestarts;
  if (JpegHeader::FragmentOffset(payload) != 0 || dataOffset == 0 || type > 1) {
    return false;
  }
  const Bytes scan = payload.subspan(dataOffset);
  hasHeader_ = scan.size() >= kStartOfImage.size() &&
               std::equal(kStartOfImage.begin(), kStartOfImage.end(), scan.begin());
  if (hasHeader_) {
    return true;
  }
  // Tables that a sender leaves out are those that came with the same Q before.
  constexpr std::size_t kOneTable = tMJPEGJFIFHeaderParam::kTableLength;
  const bool restarts = JpegHeader::HaveMJPEGRSTHeader(payload);
  const std::size_t tablesAt = JpegHeader::kMainHeader +
                               (restarts ? JpegHeader::kRestartHeader : 0) +
                               JpegHeader::kQuantHeader;
  const bool inBand = JpegHeader::HaveMJPEGQsHeader(payload);
  const std::size_t tables = inBand ? dataOffset - tablesAt : 0;
  const bool known = header_.headerLength != 0 && header_.q == JpegHeader::Q(payload);
  const bool has16Bits = inBand && payload[tablesAt - 3] != 0;
  if (inBand && ((tables < kOneTable && !known) || has16Bits)) {
    return false;
  }
  const int length = JpegHeader::GenerateJPEGHeader(payload, header_);
  size_ = SizeOf(payload);
  if (length == 0 || size_.width <= 0 || size_.height <= 0 ||
      std::max(size_.width, size_.height) > 0xFFFF) {
    return false;
  }
  constexpr std::size_t kTableHeader = 5;
  if (tables == kOneTable) {  // for luma and chroma
    std::copy_n(header_.lumaTable, kOneTable, header_.header + 2 + kOneTable + 2 * kTableHeader);
  }
  // The frame header stands behind both tables: sizes over 2,040 pixels and 4:2:2 with restart
  // markers are not what the generator writes.
  constexpr std::size_t kTables = 2 + 2 * (kTableHeader + kOneTable);
  constexpr std::size_t kRestartSegment = 6;
  const bool interval = restarts && (payload[JpegHeader::kMainHeader] != 0 ||
                                     payload[JpegHeader::kMainHeader + 1] != 0);
  std::uint8_t* const frame = header_.header + kTables + (interval ? kRestartSegment : 0);
  frame[5] = static_cast<std::uint8_t>(size_.height >> 8);
  frame[6] = static_cast<std::uint8_t>(size_.height);
  frame[7] = static_cast<std::uint8_t>(size_.width >> 8);
  frame[8] = static_cast<std::uint8_t>(size_.width);
  frame[11] = type == 0 ? 0x21 : 0x22;
  return true;
}

void JpegAssembler::Add(Bytes payload) {
  const std::size_t dataOffset = JpegHeader::GetDataOffset(payload);
  if (dataOffset == 0 || JpegHeader::FragmentOffset(payload) != buffer_.Size()) {
    damaged_ = true;
  } else if (!buffer_.Append(payload.subspan(dataOffset))) {
    damaged_ = true;
    oversize_.fetch_add(1, std::memory_order_relaxed);
  }
}

void JpegAssembler::End() {
  open_ = false;
  const bool whole = !damaged_ && buffer_.Size() > kEndOfImage.size();
  const Bytes scan = buffer_.Content();
  if (whole && (std::equal(kEndOfImage.begin(), kEndOfImage.end(), scan.end() - 2) ||
                buffer_.Append(kEndOfImage))) {
    if (hasHeader_) {
      size_ = MjpegSize(buffer_.Content());
    } else {
      const auto length = static_cast<std::size_t>(header_.headerLength);
      std::copy_n(header_.header, length, buffer_.Insert(0, length).begin());
    }
    buffer_.ZeroTail();
    AccessUnit unit;
    unit.data = buffer_.Content();
    unit.timestamp = timestamp_;
    unit.key = true;
    unit.decodable = true;
    if (size_ != toldSize_) {
      toldSize_ = size_;
      unit.newSize = size_;
    }
    sink_.OnAccessUnit(unit);
  } else {
    dropped_.fetch_add(1, std::memory_order_relaxed);
  }
  buffer_.Clear();
}

}  // namespace cms
