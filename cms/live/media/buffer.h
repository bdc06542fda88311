// CBuffer, one fixed-capacity slot of the media rings.
#pragma once

#include <memory>

#include "cms/runtime/api.h"

// A slot: bytes are appended at its end and read from its read position. Sizes are bytes. One
// thread at a time; the rings see to that. Copies share the storage, which lives as long as the
// last of them. Storage is zero-filled without being touched, so an unused slot costs no memory.
class CMS_API CBuffer {
 public:
  static constexpr long kDefaultSize = 2048;

  CBuffer();
  explicit CBuffer(long size);
  CBuffer(const CBuffer&) = default;
  CBuffer& operator=(const CBuffer&) = default;
  virtual ~CBuffer();

  void SetIdx(long idx) { idx_ = idx; }
  long GetIdx() const { return idx_; }
  void SetNextBuf(CBuffer* next) { next_ = next; }
  CBuffer* GetNextBuf() const { return next_; }

  void SetWriteRemnantSize(long size) { writeRemnant_ = size; }
  long GetWriteRemnantSize() const { return writeRemnant_; }
  void SetReadRemnantSize(long size) { readRemnant_ = size; }
  long GetReadRemnantSize() const { return readRemnant_; }
  long GetDataSize() const { return dataSize_; }
  bool HasStorage() const { return data_ != nullptr; }

  // Where the next byte would be written, for writing in place; CommitInPlace then counts the bytes
  // so written.
  unsigned char* GetWriteBufPos() const { return data_.get() + dataSize_; }
  void CommitInPlace(long len);

  void ResetReadInfo();   // everything held is unread again
  void ResetWriteInfo();  // empty

  // Appends and returns what fits, dropping the rest without notice; everything held counts as
  // unread afterwards.
  long WriteBuffer(const void* data, long len);

  // Advances over at most `len` unread bytes (0: over all of them) and returns where they begin in
  // the slot, their number in `got`. The pointer holds until the slot is written again.
  void* ReadBuffer(long len, long& got);

 protected:
  // Resets every field and takes new storage; without memory HasStorage() is false and the capacity
  // 0. Storage that a copy shares stays with the copy.
  void AllocateBuffer(long size);
  void ReleaseBuffer();

 private:
  long idx_ = 0;
  std::shared_ptr<unsigned char[]> data_;
  CBuffer* next_ = nullptr;
  long writeRemnant_ = 0;
  long dataSize_ = 0;
  long capacity_ = 0;
  long readRemnant_ = 0;
  long readPosition_ = 0;
};
