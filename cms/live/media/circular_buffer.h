// CCircularBuffer, a byte stream carried across the slots of a ring.
#pragma once

#include <vector>

#include "cms/live/media/buffer.h"
#include "cms/runtime/api.h"

// A ring of slots that never refuses bytes: when the reader is behind, unread slots other than the
// one being read are overwritten. What is in the slot being written is read only after the writer
// has moved on. Takes no lock; its users serialise access.
class CMS_API CCircularBuffer {
 public:
  static constexpr long kDefaultSlotCount = 128;

  CCircularBuffer();
  CCircularBuffer(long count, long size);
  CCircularBuffer(const CCircularBuffer&) = delete;
  CCircularBuffer& operator=(const CCircularBuffer&) = delete;

  // A new, empty ring in place of any earlier one. 1, or 0 when the memory does not suffice; then,
  // as with fewer than two slots, nothing can be written or read.
  int AllocateBuffer(long count, long size);

  long Write(const void* data, long len);  // returns the bytes placed
  long Read(void* dest, long len);         // returns the bytes copied

  bool IsWriteReadSameBuf() const { return writeSlot_ == readSlot_; }
  long GetWriteIdx() const { return writeSlot_ != nullptr ? writeSlot_->GetIdx() : 0; }
  long GetReadIdx() const { return readSlot_ != nullptr ? readSlot_->GetIdx() : 0; }

 private:
  long slotSize_ = CBuffer::kDefaultSize;
  long slotCount_ = 0;
  std::vector<CBuffer> slots_;
  CBuffer* readSlot_ = nullptr;
  CBuffer* writeSlot_ = nullptr;
};
