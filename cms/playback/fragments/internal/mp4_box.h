// Boxes of MP4 files (ISO/IEC 14496-12), written into memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace cms {

using Mp4Bytes = std::vector<std::uint8_t>;

// Appends the lowest `size` bytes of the number, the highest of them first.
void PutNumber(Mp4Bytes& out, std::uint64_t number, std::size_t size);
// Puts 32 bits in the place of those that stand there.
void ReplaceNumber(Mp4Bytes& out, std::size_t at, std::uint32_t number);
inline void PutBytes(Mp4Bytes& out, std::span<const std::uint8_t> bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

// A box that is open while this lives: what is appended meanwhile stands in it.
class Mp4Box {
 public:
  // `type`: four characters.
  Mp4Box(Mp4Bytes& out, const char* type);
  // A full box.
  Mp4Box(Mp4Bytes& out, const char* type, unsigned version, std::uint32_t flags);
  ~Mp4Box();
  Mp4Box(const Mp4Box&) = delete;
  Mp4Box& operator=(const Mp4Box&) = delete;

 private:
  Mp4Bytes& out_;
  const std::size_t begin_;
};

// A descriptor of ISO/IEC 14496-1 with a payload of less than 128 bytes.
class Mp4Descriptor {
 public:
  Mp4Descriptor(Mp4Bytes& out, std::uint8_t tag);
  ~Mp4Descriptor();
  Mp4Descriptor(const Mp4Descriptor&) = delete;
  Mp4Descriptor& operator=(const Mp4Descriptor&) = delete;

 private:
  Mp4Bytes& out_;
  const std::size_t begin_;  // of the payload
};

}  // namespace cms
