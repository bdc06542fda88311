// Records as the bytes that lie on disk, and back.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace cms {

template <typename Record>
std::span<const std::uint8_t> BytesOf(const Record& record) {
  static_assert(std::is_trivially_copyable_v<Record> &&
                std::has_unique_object_representations_v<Record>);
  return {reinterpret_cast<const std::uint8_t*>(&record), sizeof(Record)};
}

// For reading a record in place.
template <typename Record>
std::span<std::uint8_t> WritableBytesOf(Record& record) {
  static_assert(std::is_trivially_copyable_v<Record>);
  return {reinterpret_cast<std::uint8_t*>(&record), sizeof(Record)};
}

// `bytes` holds at least one whole record.
template <typename Record>
Record RecordFrom(std::span<const std::uint8_t> bytes) {
  static_assert(std::is_trivially_copyable_v<Record>);
  Record record;
  std::memcpy(static_cast<void*>(&record), bytes.data(), sizeof(Record));
  return record;
}

}  // namespace cms
