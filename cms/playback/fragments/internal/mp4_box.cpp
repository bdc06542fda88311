#include "cms/playback/fragments/internal/mp4_box.h"

namespace cms {

void PutNumber(Mp4Bytes& out, std::uint64_t number, std::size_t size) {
  while (size-- > 0) {
    out.push_back(static_cast<std::uint8_t>(number >> 8 * size));
  }
}

void ReplaceNumber(Mp4Bytes& out, std::size_t at, std::uint32_t number) {
  for (std::size_t i = 0; i < 4; ++i) {
    out[at + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
  }
}

Mp4Box::Mp4Box(Mp4Bytes& out, const char* type) : out_(out), begin_(out.size()) {
  PutNumber(out, 0, 4);
  out.insert(out.end(), type, type + 4);
}

Mp4Box::Mp4Box(Mp4Bytes& out, const char* type, unsigned version, std::uint32_t flags)
    : Mp4Box(out, type) {
  PutNumber(out, std::uint64_t{version} << 24 | flags, 4);
}

Mp4Box::~Mp4Box() {
  ReplaceNumber(out_, begin_, static_cast<std::uint32_t>(out_.size() - begin_));
}

Mp4Descriptor::Mp4Descriptor(Mp4Bytes& out, std::uint8_t tag) : out_(out), begin_(out.size() + 2) {
  out.insert(out.end(), {tag, 0});
}

Mp4Descriptor::~Mp4Descriptor() {
  out_[begin_ - 1] = static_cast<std::uint8_t>(out_.size() - begin_);
}

}  // namespace cms
