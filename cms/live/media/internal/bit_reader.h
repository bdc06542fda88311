// Readers of the bit fields in the headers of MPEG-4 video and AAC, H.264 and H.265.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace cms {

// Bits, most significant first. Behind the end come zeros, and Ok() is false from then on.
class BitReader {
 public:
  explicit BitReader(std::span<const std::uint8_t> data) : BitReader(data, false) {}

  std::uint32_t Read(unsigned int count) {
    std::uint32_t value = 0;
    while (count-- > 0) {
      value = (value << 1) | Bit();
    }
    return value;
  }
  bool Flag() { return Bit() != 0; }
  void Skip(unsigned int count) {
    while (count-- > 0) {
      Bit();
    }
  }
  bool Ok() const { return ok_; }
  // Bits that were taken, up to the end.
  std::size_t Position() const { return at_ * 8 - bitsLeft_; }

 protected:
  BitReader(std::span<const std::uint8_t> data, bool escaped) : data_(data), escaped_(escaped) {}

  std::uint32_t Bit() {
    if (bitsLeft_ == 0 && !NextByte()) {
      ok_ = false;
      return 0;
    }
    --bitsLeft_;
    return (static_cast<std::uint32_t>(current_) >> bitsLeft_) & 1u;
  }
  void Fail() { ok_ = false; }

 private:
  bool NextByte() {
    if (escaped_ && zeros_ >= 2 && at_ < data_.size() && data_[at_] == 3) {
      ++at_;
      zeros_ = 0;
    }
    if (at_ >= data_.size()) {
      return false;
    }
    current_ = data_[at_++];
    zeros_ = current_ == 0 ? zeros_ + 1 : 0;
    bitsLeft_ = 8;
    return true;
  }

  std::span<const std::uint8_t> data_;
  const bool escaped_;  // emulation-prevention bytes are dropped
  std::size_t at_ = 0;
  unsigned int zeros_ = 0;
  unsigned int bitsLeft_ = 0;
  unsigned char current_ = 0;
  bool ok_ = true;
};

// The same with Exp-Golomb codes (ITU-T H.264, 9.1), of a NAL unit without its emulation-prevention
// bytes.
class GolombReader : public BitReader {
 public:
  explicit GolombReader(std::span<const std::uint8_t> data) : BitReader(data, true) {}

  // Codes of more than 31 leading zeros stand for no number; Ok() is false after one.
  std::uint32_t Unsigned() {
    unsigned int zeros = 0;
    while (Ok() && Bit() == 0) {
      if (++zeros > 31) {
        Fail();
      }
    }
    return Ok() ? static_cast<std::uint32_t>((std::uint64_t{1} << zeros | Read(zeros)) - 1) : 0;
  }

  std::int64_t Signed() {
    const std::int64_t code = Unsigned();
    return code % 2 != 0 ? (code + 1) / 2 : -(code / 2);
  }
};

// Skips pic_order_cnt_type of a sequence parameter set and what belongs to it (7.3.2.1.1). False
// when a limit is broken.
inline bool SkipOrderCount(GolombReader& bits) {
  const std::uint32_t type = bits.Unsigned();
  if (type == 0) {
    constexpr std::uint32_t kMaxLog2OrderCountMinus4 = 12;
    return bits.Unsigned() <= kMaxLog2OrderCountMinus4;
  }
  if (type == 1) {
    bits.Skip(1);
    bits.Signed();  // offset_for_non_ref_pic
    bits.Signed();  // offset_for_top_to_bottom_field
    constexpr std::uint32_t kMaxCycle = 255;
    const std::uint32_t cycle = bits.Unsigned();
    for (std::uint32_t i = 0; i < cycle && cycle <= kMaxCycle; ++i) {
      bits.Signed();
    }
    return cycle <= kMaxCycle;
  }
  return true;
}

}  // namespace cms
