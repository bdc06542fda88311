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
  if (read_index_ >= size_ || write_index_ >= size_) {
    read_index_ = write_index_ = 0;
  }
  return 1;
}

bool CSimpleBuffer::IsBufFull() const {
  const std::int64_t room = std::int64_t{read_index_} - write_index_ + size_;
  return data_ != nullptr && room % size_ == 1;
}

int CSimpleBuffer::Write(const void* data, int len) {
  if (data_ == nullptr || len <= 0) {
    return 0;
  }
  const auto* bytes = static_cast<const unsigned char*>(data);
  const auto put = [&](int from, int count) {
    std::memcpy(&data_[static_cast<std::size_t>(write_index_)], bytes + from,
                static_cast<std::size_t>(count));
  };
  if (write_index_ < read_index_) {
    const int copied = std::min(read_index_ - write_index_ - 1, len);
    put(0, copied);
    write_index_ += copied;
    return copied;
  }
  const int first = std::min(size_ - write_index_, len);
  put(0, first);
  write_index_ = (write_index_ + first) % size_;
  if (first == len || read_index_ < 1) {
    return first;
  }
  const int second = std::min(read_index_ - 1, len - first);
  put(first, second);
  write_index_ += second;
  return first + second;
}

int CSimpleBuffer::Read(void* dest, int len) {
  if (data_ == nullptr || len <= 0 || IsBufEmpty()) {
    return 0;
  }
  auto* bytes = static_cast<unsigned char*>(dest);
  const auto take = [&](int to, int count) {
    std::memcpy(bytes + to, &data_[static_cast<std::size_t>(read_index_)],
                static_cast<std::size_t>(count));
  };
  if (write_index_ > read_index_) {
    const int copied = std::min(len, write_index_ - read_index_);
    take(0, copied);
    read_index_ += copied;
    return copied;
  }
  const int first = std::min(len, size_ - read_index_);
  take(0, first);
  read_index_ = (read_index_ + first) % size_;
  if (first == len) {
    return first;
  }
  const int second = std::min(len - first, write_index_);
  take(first, second);
  read_index_ += second;
  return first + second;
}
