// CSimpleBuffer, a byte ring.
#pragma once

#include <memory>

#include "cms/runtime/api.h"

// A ring of `size` bytes that holds at most size - 1. Takes no lock; its users serialise access.
//
// While the read index is 0, a write that runs to the end of the storage wraps the write index to 0
// as well, and the ring reads as empty: what it held is lost.
class CMS_API CSimpleBuffer {
 public:
  CSimpleBuffer();  // no storage: everything is refused until AllocateBuffer
  explicit CSimpleBuffer(int size);
  CSimpleBuffer(const CSimpleBuffer&) = delete;
  CSimpleBuffer& operator=(const CSimpleBuffer&) = delete;

  // New storage of count * size bytes in place of the old. The indices stay as they were, as long
  // as they lie within it. 1, or 0 when the memory does not suffice.
  int AllocateBuffer(int count, int size);

  bool IsBufEmpty() const { return readIndex_ == writeIndex_; }
  bool IsBufFull() const;

  int Read(void* dest, int len);         // returns the bytes copied
  int Write(const void* data, int len);  // returns the bytes that found room

 private:
  std::unique_ptr<unsigned char[]> data_;
  int size_ = 0;
  int readIndex_ = 0;
  int writeIndex_ = 0;
};
