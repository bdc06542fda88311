// MMapFile, a file mapped into memory, or a block of shared memory.
#pragma once

#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

// Holds one mapping at a time. One thread opens and closes it; the bytes are anybody's. The mapping
// is read and written; what is written reaches the file. Failures are thrown as std::runtime_error
// with the texts given below ("%u" is the platform's error number) and leave nothing open.
class CMS_API MMapFile {
 public:
  static constexpr std::uint64_t kMaximumFileSize = 1'073'741'824;

  MMapFile() = default;
  ~MMapFile() { Close(); }
  MMapFile(const MMapFile&) = delete;
  MMapFile& operator=(const MMapFile&) = delete;

  // Maps `size` bytes of an existing file, all of it when `size` is 0; a file shorter than `size`
  // grows to it, with its space reserved on the disk (holes that it had are not filled: writing
  // into one while the disk is full ends the process). The file is held without sharing (an
  // advisory lock) until Close. nullptr, with everything as it was, when something is open already.
  // Throws "CreateFile:%u", "file size too large" (beyond kMaximumFileSize), "CreateFileMapping:%u"
  // (an empty file or a full disk among the causes), "MapViewOfFile:%u".
  void* FileOpen(const std::wstring& path, std::uint64_t size);

  // Maps a block of `size` zero bytes that no file backs. The name only shows in /proc; blocks of
  // one name are different blocks. nullptr when something is open already.
  // Throws "CreateFile:%u", "MapViewOfFile:%u".
  void* MemOpen(const std::wstring& name, std::uint64_t size);

  void Close();

  void* View() const { return view_; }  // nullptr when nothing is open
  std::uint64_t FileSize() const { return fileSize_; }
  std::uint64_t MappedSize() const { return mappedSize_; }
  const std::wstring& Path() const { return path_; }

 private:
  [[noreturn]] void Fail(const char* what, int error);

  int handle_ = -1;
  void* view_ = nullptr;
  std::uint64_t fileSize_ = 0;
  std::uint64_t mappedSize_ = 0;
  std::wstring path_;
};
