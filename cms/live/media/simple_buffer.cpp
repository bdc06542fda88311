#include "cms/live/media/simple_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

CSimpleBuffer::CSimpleBuffer() = default;

CSimpleBuffer::CSimpleBuffer(int size) {
  AllocateBuffer(1, size);
}

int CSimpleBuffer::AllocateBuffer(int count, int size) {
  data_.reset();
  size_ = 0;
  const std::int64_t total = std::int64_t{count} * size;
  if (count <= 0 || size <= 0 || total > std::numeric_limits<int>::max()) {
    return 0;
  }
  data_.reset(new (std::nothrow) unsigned char[static_cast<std::size_t>(total)]);
  if (data_ == nullptr) {
    return 0;
  }
  size_ = static_cast<int>(total);
  if (readIndex_ >= size_ || writeIndex_ >= size_) {
    readIndex_ = writeIndex_ = 0;
  }
  return 1;
}

bool CSimpleBuffer::IsBufFull() const {
  const std::int64_t room = std::int64_t{readIndex_} - writeIndex_ + size_;
  return data_ != nullptr && room % size_ == 1;
}

int CSimpleBuffer::Write(const void* data, int len) {
  if (data_ == nullptr || len <= 0) {
    return 0;
  }
  const auto* bytes = static_cast<const unsigned char*>(data);
  const auto put = [&](int from, int count) {
    std::memcpy(&data_[static_cast<std::size_t>(writeIndex_)], bytes + from,
                static_cast<std::size_t>(count));
  };
  if (writeIndex_ < readIndex_) {
    const int copied = std::min(readIndex_ - writeIndex_ - 1, len);
    put(0, copied);
    writeIndex_ += copied;
    return copied;
  }
  const int first = std::min(size_ - writeIndex_, len);
  put(0, first);
  writeIndex_ = (writeIndex_ + first) % size_;
  if (first == len || readIndex_ < 1) {
    return first;
  }
  const int second = std::min(readIndex_ - 1, len - first);
  put(first, second);
  writeIndex_ += second;
  return first + second;
}

int CSimpleBuffer::Read(void* dest, int len) {
  if (data_ == nullptr || len <= 0 || IsBufEmpty()) {
    return 0;
  }
  auto* bytes = static_cast<unsigned char*>(dest);
  const auto take = [&](int to, int count) {
    std::memcpy(bytes + to, &data_[static_cast<std::size_t>(readIndex_)],
                static_cast<std::size_t>(count));
  };
  if (writeIndex_ > readIndex_) {
    const int copied = std::min(len, writeIndex_ - readIndex_);
    take(0, copied);
    readIndex_ += copied;
    return copied;
  }
  const int first = std::min(len, size_ - readIndex_);
  take(0, first);
  readIndex_ = (readIndex_ + first) % size_;
  if (first == len) {
    return first;
  }
  const int second = std::min(len - first, writeIndex_);
  take(first, second);
  readIndex_ += second;
  return first + second;
}
