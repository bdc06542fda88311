#include "cms/live/media/circular_buffer.h"

#include <cstring>

#include "cms/live/media/internal/slot_ring.h"

CCircularBuffer::CCircularBuffer() : CCircularBuffer(kDefaultSlotCount, CBuffer::kDefaultSize) {}

CCircularBuffer::CCircularBuffer(long count, long size) {
  AllocateBuffer(count, size);
}

int CCircularBuffer::AllocateBuffer(long count, long size) {
  slots_ = cms::MakeSlotRing(count, size);
  const bool made = !slots_.empty();
  slotSize_ = size;
  slotCount_ = made ? count : 0;
  readSlot_ = writeSlot_ = made ? &slots_.front() : nullptr;
  return made ? 1 : 0;
}

long CCircularBuffer::Write(const void* data, long len) {
  if (slotCount_ < 2) {
    return 0;
  }
  const auto* bytes = static_cast<const unsigned char*>(data);
  long copied = 0;
  while (copied < len) {
    if (!IsWriteReadSameBuf()) {
      copied += writeSlot_->WriteBuffer(bytes + copied, len - copied);
      if (copied == len) {
        break;
      }
    }
    writeSlot_ = cms::NextSlot(writeSlot_, readSlot_);
    writeSlot_->SetWriteRemnantSize(slotSize_);
    writeSlot_->ResetWriteInfo();
  }
  return copied;
}

long CCircularBuffer::Read(void* dest, long len) {
  if (slotCount_ < 2) {
    return 0;
  }
  auto* bytes = static_cast<unsigned char*>(dest);
  long copied = 0;
  // A round over every slot but the one being written that finds nothing ends where it began.
  for (long idle = 0; copied < len && idle < slotCount_;) {
    long got = 0;
    if (!IsWriteReadSameBuf()) {
      const void* const data = readSlot_->ReadBuffer(len - copied, got);
      std::memcpy(bytes + copied, data, static_cast<std::size_t>(got));
      copied += got;
    }
    if (got > 0) {
      idle = 0;
    } else if (++idle < slotCount_) {
      readSlot_ = cms::NextSlot(readSlot_, writeSlot_);
    }
  }
  return copied;
}
