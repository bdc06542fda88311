// BorrowedPacket gives a codec of the codec library somebody's memory without a copy.
#pragma once

#include <cstdint>
#include <span>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace cms {

// The codec copies a packet that has no reference-counted buffer. The caller's memory outlives the
// packet, because everything is taken out of the codec before the call that decodes ends: a
// standing reference saves the copy. One thread at a time.
class BorrowedPacket {
 public:
  BorrowedPacket() = default;
  ~BorrowedPacket() { Free(); }
  BorrowedPacket(const BorrowedPacket&) = delete;
  BorrowedPacket& operator=(const BorrowedPacket&) = delete;

  bool Allocate();  // false without memory
  void Free();

  // What avcodec_send_packet says. AV_INPUT_BUFFER_PADDING_SIZE bytes behind the data are readable.
  int Send(AVCodecContext* context, std::span<const std::uint8_t> data, std::int64_t pts);

 private:
  AVPacket* packet_ = nullptr;
  AVBufferRef* borrowed_ = nullptr;
};

}  // namespace cms
