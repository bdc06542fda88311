#include "cms/runtime/file.h"

#include <cerrno>
#include <chrono>
#include <ratio>
#include <string_view>

#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"

namespace {

using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
constexpr std::chrono::seconds kFrom1601To1970{11'644'473'600};

bool StatusOf(const std::wstring& path, cms::FileStatus& status) {
  return cms::CurrentFileIo().Status(cms::NativePath(path), status);
}

bool IsDirectory(cms::FileIo& io, const std::string& path) {
  cms::FileStatus status;
  return io.Status(path, status) && status.isDirectory;
}

// From the first missing folder down: a long path needs no deep recursion.
bool MakeDirectories(cms::FileIo& io, const std::string& path) {
  if (path.empty()) {
    return false;
  }
  cms::FileStatus status;
  if (io.Status(path, status)) {
    return status.isDirectory;
  }
  for (std::size_t end = path.find('/', 1); end != std::string::npos;
       end = path.find('/', end + 1)) {
    const std::string parent = path.substr(0, end);
    if (!IsDirectory(io, parent) && io.MakeDirectory(parent) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return io.MakeDirectory(path) == 0 || IsDirectory(io, path);
}

}  // namespace

bool File::exists() const {
  cms::FileStatus status;
  return StatusOf(path_, status);
}

bool File::isDirectory() const {
  cms::FileStatus status;
  return StatusOf(path_, status) && status.isDirectory;
}

bool File::isFile() const {
  cms::FileStatus status;
  return StatusOf(path_, status) && !status.isDirectory;
}

bool File::isHidden() const {
  std::wstring_view path = path_;
  while (path.size() > 1 && (path.ends_with(L'\\') || path.ends_with(L'/'))) {
    path.remove_suffix(1);
  }
  const std::wstring_view name = cms::SplitAtLastSeparator(path).name;
  return name.starts_with(L'.') && name != L"." && name != L".." && exists();
}

std::uint64_t File::lastModified() const {
  cms::FileStatus status;
  if (!StatusOf(path_, status)) {
    return 0;
  }
  // A time before 1970 is a negative number there, in an unsigned one.
  const std::chrono::nanoseconds since1970(static_cast<std::int64_t>(status.modifiedNanoseconds));
  return static_cast<std::uint64_t>(
      (std::chrono::floor<Ticks>(since1970) + kFrom1601To1970).count());
}

std::uint64_t File::length() const {
  cms::FileStatus status;
  return StatusOf(path_, status) && !status.isDirectory ? status.size : 0;
}

bool File::createNewFile() const {
  if (exists()) {
    return false;
  }
  cms::FileIo& io = cms::CurrentFileIo();
  const auto split = cms::SplitAtLastSeparator(path_);
  if (!split.folder.empty()) {
    MakeDirectories(io, cms::NativePath(split.folder));
  }
  return bool{
      cms::ScopedFile(io, cms::NativePath(path_), cms::kFileReadWrite | cms::kFileCreateNew)};
}

bool File::deleteFile() const {
  cms::FileIo& io = cms::CurrentFileIo();
  const std::string native = cms::NativePath(path_);
  // The removal of a file refuses folders, and takes links for what they are.
  return io.Remove(native) == 0 || (IsDirectory(io, native) && io.RemoveDirectory(native) == 0);
}

bool File::mkdir() const {
  return cms::CurrentFileIo().MakeDirectory(cms::NativePath(path_)) == 0;
}

bool File::mkdirs() const {
  return MakeDirectories(cms::CurrentFileIo(), cms::NativePath(path_));
}
