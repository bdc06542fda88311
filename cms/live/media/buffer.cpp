#include "cms/live/media/buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "cms/live/media/internal/zeroed.h"

CBuffer::CBuffer() : CBuffer(kDefaultSize) {}

CBuffer::CBuffer(long size) {
  AllocateBuffer(size);
}

CBuffer::~CBuffer() = default;

void CBuffer::AllocateBuffer(long size) {
  idx_ = 0;
  next_ = nullptr;
  try {
    data_ = cms::AllocateZeroed(size);
  } catch (const std::bad_alloc&) {
    data_ = nullptr;
  }
  capacity_ = data_ != nullptr ? size : 0;
  ResetWriteInfo();
}

void CBuffer::ReleaseBuffer() {
  data_ = nullptr;
  capacity_ = 0;
  ResetWriteInfo();
}

void CBuffer::ResetReadInfo() {
  read_remnant_ = data_size_;
  read_position_ = 0;
}

void CBuffer::ResetWriteInfo() {
  write_remnant_ = capacity_;
  data_size_ = 0;
  read_remnant_ = 0;
  read_position_ = 0;
}

long CBuffer::WriteBuffer(const void* data, long len) {
  // The remnant can be set from outside; the storage cannot.
  const long copied = std::min({write_remnant_, capacity_ - data_size_, len});
  if (copied > 0) {
    std::memcpy(GetWriteBufPos(), data, static_cast<std::size_t>(copied));
  }
  CommitInPlace(copied);
  return std::max(copied, 0L);
}

void CBuffer::CommitInPlace(long len) {
  data_size_ += std::clamp(len, 0L, capacity_ - data_size_);
  write_remnant_ = capacity_ - data_size_;
  ResetReadInfo();
}

void* CBuffer::ReadBuffer(long len, long& got) {
  unsigned char* const position = data_.get() + read_position_;
  const long remaining = data_size_ - read_position_;
  if (remaining < 0) {
    read_remnant_ = 0;
    got = 0;
    return position;
  }
  got = len == 0 ? remaining : std::clamp(len, 0L, remaining);
  read_position_ += got;
  read_remnant_ = remaining - got;
  return position;
}
