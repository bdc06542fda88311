// The databases' bytes as documented, put together and taken apart without the library's code.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "tests/support/faulty_file_io.h"

namespace test {

constexpr std::size_t kRecordBytes = 736;
constexpr std::size_t kEventBytes = 232;
constexpr std::size_t kFolderBytes = 520;

inline std::uint64_t NumberAt(std::string_view bytes, std::size_t offset, int width) {
  std::uint64_t number = 0;
  for (int i = width - 1; i >= 0; --i) {
    number =
        number << 8 | static_cast<std::uint8_t>(bytes.at(offset + static_cast<std::size_t>(i)));
  }
  return number;
}

inline std::int64_t TimeAt(std::string_view bytes, std::size_t offset) {
  return static_cast<std::int64_t>(NumberAt(bytes, offset, 8));
}

// A field of `width` characters: its text; "(not zero-filled)" when something stands behind it.
inline std::u16string TextAt(std::string_view bytes, std::size_t offset, std::size_t width) {
  std::u16string text;
  std::size_t i = 0;
  for (; i < width && NumberAt(bytes, offset + 2 * i, 2) != 0; ++i) {
    text += static_cast<char16_t>(NumberAt(bytes, offset + 2 * i, 2));
  }
  for (; i < width; ++i) {
    if (NumberAt(bytes, offset + 2 * i, 2) != 0) {
      return u"(not zero-filled)";
    }
  }
  return text;
}

inline void PutNumber(std::string& bytes, std::size_t offset, int width, std::uint64_t number) {
  for (int i = 0; i < width; ++i) {
    bytes.at(offset + static_cast<std::size_t>(i)) = static_cast<char>(number >> (8 * i) & 0xFF);
  }
}

inline void PutText(std::string& bytes, std::size_t offset, std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    PutNumber(bytes, offset + 2 * i, 2, text[i]);
  }
}

struct RecordFields {
  std::u16string file;
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::u16string address = u"10.0.0.1";
  std::u16string siteName = u"Site";
  std::uint16_t port = 554;
  std::uint8_t nibbles = 0;
  std::uint8_t flag = 0;
  std::uint32_t siteNumber = 1;
};

inline std::string RecordBytes(const RecordFields& fields) {
  std::string bytes(kRecordBytes, '\0');
  PutText(bytes, 0, fields.file);
  PutText(bytes, 520, fields.address);
  PutText(bytes, 648, fields.siteName);
  PutNumber(bytes, 712, 2, fields.port);
  PutNumber(bytes, 714, 1, fields.nibbles);
  PutNumber(bytes, 715, 1, fields.flag);
  PutNumber(bytes, 716, 4, fields.siteNumber);
  PutNumber(bytes, 720, 8, static_cast<std::uint64_t>(fields.start));
  PutNumber(bytes, 728, 8, static_cast<std::uint64_t>(fields.end));
  return bytes;
}

inline std::string SpanBytes(std::int64_t start, std::int64_t end) {
  std::string bytes(16, '\0');
  PutNumber(bytes, 0, 8, static_cast<std::uint64_t>(start));
  PutNumber(bytes, 8, 8, static_cast<std::uint64_t>(end));
  return bytes;
}

inline std::string FolderBytes(std::u16string_view folder) {
  std::string bytes(kFolderBytes, '\0');
  PutText(bytes, 0, folder);
  return bytes;
}

// The process works in <temporary>/data/work, so that "..\" is <temporary>/data, and a recording
// folder "rec" is there.
class WorkFolder {
 public:
  // `where` as for TemporaryFolder.
  explicit WorkFolder(const std::string& where = {})
      : before_(std::filesystem::current_path()), folder_(where) {
    std::filesystem::create_directories(folder_.File("data/work/rec"));
    std::filesystem::current_path(folder_.File("data/work"));
  }
  ~WorkFolder() { std::filesystem::current_path(before_); }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  std::string Beside(const std::string& name) const { return folder_.File("data/" + name); }

 private:
  const std::filesystem::path before_;
  TemporaryFolder folder_;
};

// Puts a faulty file edge in force for a scope.
class FaultScope {
 public:
  FaultScope() { cms::ReplaceFileIo(&io); }
  ~FaultScope() { cms::ReplaceFileIo(nullptr); }
  FaultScope(const FaultScope&) = delete;
  FaultScope& operator=(const FaultScope&) = delete;
  FaultyFileIo io;
};

}  // namespace test
