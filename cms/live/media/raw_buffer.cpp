#include "cms/live/media/raw_buffer.h"

#include <cstdlib>
#include <cstring>

#include "cms/live/media/input_padding.h"
#include "cms/live/media/internal/zeroed.h"

namespace {

constexpr long kReadableBehind = cms::kInputPadding;

}  // namespace

void CRawBuffer::Free::operator()(unsigned char* block) const {
  std::free(block);
}

CRawBuffer::CRawBuffer() = default;

CRawBuffer::CRawBuffer(long capacity, long maximum) {
  AllocateMemory(capacity, maximum);
}

CRawBuffer::~CRawBuffer() = default;

void CRawBuffer::InitialVariable(long capacity, long maximum) {
  ScopeLock lock(lock_);
  data_.reset();
  capacity_.store(capacity, std::memory_order_relaxed);
  maximum_.store(maximum, std::memory_order_relaxed);
  length_.store(0, std::memory_order_relaxed);
}

void CRawBuffer::ReleaseMemory() {
  ScopeLock lock(lock_);
  data_.reset();
  length_.store(0, std::memory_order_relaxed);
}

int CRawBuffer::AllocateMemory(long capacity, long maximum) {
  ScopeLock lock(lock_);
  InitialVariable(capacity, maximum);
  return Reserve(capacity) ? 1 : 0;
}

bool CRawBuffer::Fits(long len) const {
  return len >= 0 && len <= maximum_.load(std::memory_order_relaxed) - Length();
}

bool CRawBuffer::Reserve(long capacity) {
  cms::ZeroedBlock block = cms::AllocateZeroed(capacity + kReadableBehind);
  if (block == nullptr) {
    return false;
  }
  if (data_ != nullptr) {
    std::memcpy(block.get(), data_.get(), static_cast<std::size_t>(Length()));
  }
  data_.reset(block.release());
  capacity_.store(capacity, std::memory_order_relaxed);
  return true;
}

int CRawBuffer::Append(const void* data, long len) {
  if (!Fits(len)) {
    return 0;
  }
  ScopeLock lock(lock_);
  if (!Fits(len)) {
    return 0;  // another thread was faster
  }
  const bool enough = len <= Capacity() - Length();
  if ((!enough || data_ == nullptr) && !Reserve(enough ? Capacity() : Capacity() + len)) {
    return 0;
  }
  if (len > 0) {
    std::memcpy(data_.get() + Length(), data, static_cast<std::size_t>(len));
  }
  length_.store(Length() + len, std::memory_order_relaxed);
  return 1;
}

int CRawBuffer::Erase(long offset, long len) {
  if (offset < 0 || len < 0) {
    return 0;
  }
  lock_.Lock();
  if (len > Length() - offset) {
    return 0;
  }
  const long tail = Length() - offset - len;
  if (tail > 0) {
    std::memmove(data_.get() + offset, data_.get() + offset + len, static_cast<std::size_t>(tail));
  }
  length_.store(Length() - len, std::memory_order_relaxed);
  lock_.UnLock();
  return 1;
}

int CRawBuffer::Clear() {
  ScopeLock lock(lock_);
  length_.store(0, std::memory_order_relaxed);
  return 1;
}

int CRawBuffer::Insert(long, char*, long) {
  return 0;
}

unsigned char* CRawBuffer::Data() {
  ScopeLock lock(lock_);
  return data_.get();
}
