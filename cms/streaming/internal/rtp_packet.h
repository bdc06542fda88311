// RtpPacket reads the header of an RTP packet (RFC 3550, section 5.1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace cms {

// A packet as it lies in memory. The numbers are the packet's own; whether its lengths lie shows in
// the payload, which is empty then.
class RtpPacket {
 public:
  static constexpr std::size_t kFixedHeader = 12;
  static constexpr unsigned kVersion = 2;

  explicit RtpPacket(std::span<const std::uint8_t> bytes)
      : bytes_(bytes) {}  // kFixedHeader or more

  unsigned Version() const { return bytes_[0] >> 6u; }
  bool Marker() const { return (bytes_[1] & 0x80) != 0; }
  unsigned PayloadType() const { return bytes_[1] & 0x7Fu; }
  std::uint16_t Sequence() const { return Number16(2); }
  std::uint32_t Timestamp() const { return Number32(4); }
  std::uint32_t Source() const { return Number32(8); }

  // With contributing sources and extension; beyond the packet's end when they do not lie in it.
  std::size_t HeaderSize() const {
    std::size_t size = kFixedHeader + std::size_t{4} * (bytes_[0] & 0x0Fu);
    if ((bytes_[0] & 0x10) != 0) {  // extension: 16 bits of profile, 16 bits of length in words
      const bool lies = size + 4 > bytes_.size();
      size += 4 + (lies ? 0 : std::size_t{4} * Number16(size + 2));
    }
    return size;
  }

  // Behind the header and in front of the padding, whose last byte counts it, itself included.
  std::span<const std::uint8_t> Payload() const {
    const std::size_t header = HeaderSize();
    const std::size_t padding = (bytes_[0] & 0x20) != 0 ? bytes_.back() : 0;
    return header + padding < bytes_.size()
               ? bytes_.subspan(header, bytes_.size() - header - padding)
               : std::span<const std::uint8_t>();
  }

 private:
  std::uint16_t Number16(std::size_t at) const {
    return static_cast<std::uint16_t>(bytes_[at] << 8 | bytes_[at + 1]);
  }
  std::uint32_t Number32(std::size_t at) const {
    return std::uint32_t{Number16(at)} << 16 | Number16(at + 2);
  }

  std::span<const std::uint8_t> bytes_;
};

}  // namespace cms
