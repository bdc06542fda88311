#include "cms/runtime/mmap_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace {

constexpr std::size_t kMessageSize = 256;
constexpr std::size_t kLongestName = 249;  // of an anonymous file

void* Map(int handle, std::uint64_t size) {
  void* view = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0);
  return view == MAP_FAILED ? nullptr : view;
}

// Has the file grow, with blocks of its own. 0 or an error number.
int Reserve(int handle, std::uint64_t from, std::uint64_t to) {
  int error = 0;
  do {
    error = posix_fallocate(handle, static_cast<off_t>(from), static_cast<off_t>(to - from));
  } while (error == EINTR);
  return error;
}

}  // namespace

void MMapFile::Fail(const char* what, int error) {
  Close();
  char message[kMessageSize];
  std::snprintf(message, sizeof message, "%s:%u", what, static_cast<unsigned>(error));
  throw std::runtime_error(message);
}

void* MMapFile::FileOpen(const std::wstring& path, std::uint64_t size) {
  if (view_ != nullptr) {
    return nullptr;
  }
  cms::FileIo& io = cms::CurrentFileIo();
  handle_ = io.Open(cms::NativePath(path), cms::kFileReadWrite | cms::kFileExclusive);
  const std::int64_t measured = handle_ >= 0 ? io.Size(handle_) : -1;
  if (measured < 0) {
    Fail("CreateFile", errno);
  }
  fileSize_ = static_cast<std::uint64_t>(measured);
  if (fileSize_ > kMaximumFileSize) {
    Close();
    throw std::runtime_error("file size too large");
  }
  path_ = path;
  mappedSize_ = size != 0 ? size : fileSize_;
  if (mappedSize_ == 0) {
    Fail("CreateFileMapping", EINVAL);
  }
  if (mappedSize_ > fileSize_) {
    // Reserved now: a page that has no place on the disk would end the process when it is written.
    const int error = Reserve(handle_, fileSize_, mappedSize_);
    if (error != 0) {
      io.Truncate(handle_, fileSize_);
      Fail("CreateFileMapping", error);
    }
    fileSize_ = mappedSize_;
  }
  view_ = Map(handle_, mappedSize_);
  if (view_ == nullptr) {
    Fail("MapViewOfFile", errno);
  }
  return view_;
}

void* MMapFile::MemOpen(const std::wstring& name, std::uint64_t size) {
  if (view_ != nullptr) {
    return nullptr;
  }
  const std::string shown = cms::Utf8FromWide(name).substr(0, kLongestName);
  const int block = size != 0 ? memfd_create(shown.c_str(), MFD_CLOEXEC) : (errno = EINVAL, -1);
  if (block < 0 || ftruncate(block, static_cast<off_t>(size)) != 0) {
    const int error = errno;
    if (block >= 0) {
      close(block);
    }
    Fail("CreateFile", error);
  }
  view_ = Map(block, size);
  const int error = errno;
  close(block);  // the mapping holds the block
  if (view_ == nullptr) {
    Fail("MapViewOfFile", error);
  }
  path_ = name;
  mappedSize_ = size;
  return view_;
}

void MMapFile::Close() {
  if (view_ != nullptr) {
    munmap(view_, mappedSize_);
  }
  if (handle_ >= 0) {
    cms::CurrentFileIo().Close(handle_);
  }
  view_ = nullptr;
  handle_ = -1;
  fileSize_ = 0;
  mappedSize_ = 0;
  path_.clear();
}
