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
  readRemnant_ = dataSize_;
  readPosition_ = 0;
}

void CBuffer::ResetWriteInfo() {
  writeRemnant_ = capacity_;
  dataSize_ = 0;
  readRemnant_ = 0;
  readPosition_ = 0;
}

long CBuffer::WriteBuffer(const void* data, long len) {
  // The remnant can be set from outside; the storage cannot.
  const long copied = std::min({writeRemnant_, capacity_ - dataSize_, len});
  if (copied > 0) {
    std::memcpy(GetWriteBufPos(), data, static_cast<std::size_t>(copied));
  }
  CommitInPlace(copied);
  return std::max(copied, 0L);
}

void CBuffer::CommitInPlace(long len) {
  dataSize_ += std::clamp(len, 0L, capacity_ - dataSize_);
  writeRemnant_ = capacity_ - dataSize_;
  ResetReadInfo();
}

void* CBuffer::ReadBuffer(long len, long& got) {
  unsigned char* const position = data_.get() + readPosition_;
  const long remaining = dataSize_ - readPosition_;
  if (remaining < 0) {
    readRemnant_ = 0;
    got = 0;
    return position;
  }
  got = len == 0 ? remaining : std::clamp(len, 0L, remaining);
  readPosition_ += got;
  readRemnant_ = remaining - got;
  return position;
}
