// CAutoBuffer, an owned block that can be re-sized.
#pragma once

#include <memory>
#include <new>

#include "cms/runtime/api.h"

// Contents are neither kept nor cleared when the size changes. One thread at a time.
class CMS_API CAutoBuffer {
 public:
  explicit CAutoBuffer(int size) { SetBufferSize(size); }
  CAutoBuffer(const CAutoBuffer&) = delete;
  CAutoBuffer& operator=(const CAutoBuffer&) = delete;

  // Without memory, or for a negative size, there is no block and the size is 0.
  void SetBufferSize(int size) {
    data_.reset();
    if (size >= 0) {
      data_.reset(new (std::nothrow) unsigned char[static_cast<std::size_t>(size)]);
    }
    size_ = data_ != nullptr ? size : 0;
  }

  unsigned char* GetBuffer() const { return data_.get(); }
  int GetBufferSize() const { return size_; }

 private:
  std::unique_ptr<unsigned char[]> data_;
  int size_ = 0;
};
