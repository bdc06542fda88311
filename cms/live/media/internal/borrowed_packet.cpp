#include "cms/live/media/internal/borrowed_packet.h"

namespace cms {
namespace {

void KeepMemory(void*, std::uint8_t*) {}

}  // namespace

bool BorrowedPacket::Allocate() {
  static std::uint8_t nothing[1];
  Free();
  packet_ = av_packet_alloc();
  borrowed_ =
      av_buffer_create(nothing, sizeof nothing, KeepMemory, nullptr, AV_BUFFER_FLAG_READONLY);
  return packet_ != nullptr && borrowed_ != nullptr;
}

void BorrowedPacket::Free() {
  av_packet_free(&packet_);
  av_buffer_unref(&borrowed_);
}

int BorrowedPacket::Send(AVCodecContext* context, std::span<const std::uint8_t> data,
                         std::int64_t pts) {
  packet_->buf = borrowed_;
  packet_->data = const_cast<std::uint8_t*>(data.data());
  packet_->size = static_cast<int>(data.size());
  packet_->pts = pts;
  const int sent = avcodec_send_packet(context, packet_);
  packet_->buf = nullptr;
  packet_->data = nullptr;
  packet_->size = 0;
  return sent;
}

}  // namespace cms
