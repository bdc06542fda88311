#include "tests/support/faulty_file_io.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cms/runtime/native_path.h"

namespace test {

void FaultyFileIo::FailOperation(std::uint64_t number, int error, bool forGood) {
  operations_ = 0;
  error_ = error;
  forGood_ = forGood;
  failing_ = number;
}

void FaultyFileIo::AwayFrom(const std::string& prefix) {
  const std::lock_guard lock(mutex_);
  away_ = prefix;
}

void FaultyFileIo::OtherVolume(const std::string& prefix) {
  const std::lock_guard lock(mutex_);
  volume_ = prefix;
}

void FaultyFileIo::HangAt(const std::string& prefix) {
  {
    const std::lock_guard lock(mutex_);
    hangs_ = prefix;
    ++released_;
  }
  release_.notify_all();
}

void FaultyFileIo::Hang(const std::string& path) {
  std::unique_lock lock(mutex_);
  if (hangs_.empty() || !path.starts_with(hangs_)) {
    return;
  }
  ++hanging_;
  release_.wait(lock, [this, since = released_] { return released_ != since; });
  --hanging_;
}

bool FaultyFileIo::Fails(int handle) {
  std::string path;
  {
    const std::lock_guard lock(mutex_);
    if (const auto entry = paths_.find(handle); !hangs_.empty() && entry != paths_.end()) {
      path = entry->second;
    }
  }
  Hang(path);
  return Fails();
}

bool FaultyFileIo::Fails(const std::string& path) {
  Hang(path);
  {
    const std::lock_guard lock(mutex_);
    if (!away_.empty() && path.starts_with(away_)) {
      errno = EHOSTUNREACH;
      return true;
    }
  }
  const std::uint64_t number = operations_++;
  if (number == failing_ || (forGood_ && number > failing_)) {
    errno = error_;
    return true;
  }
  return false;
}

void FaultyFileIo::Remember(const std::string& path) {
  if (names_.contains(path)) {
    return;
  }
  if (!real_.Exists(path)) {
    names_[path] = std::nullopt;
    return;
  }
  std::string content = ReadWholeFile(path);
  if (const auto safe = unsynced_.find(path); safe != unsynced_.end()) {
    content.resize(std::min<std::size_t>(content.size(), safe->second));
  }
  names_[path] = std::move(content);
}

void FaultyFileIo::CutPower() {
  const std::lock_guard lock(mutex_);
  for (const auto& [path, size] : unsynced_) {
    std::error_code missing;
    std::filesystem::resize_file(path, size, missing);
  }
  for (const auto& [path, content] : names_) {
    if (content) {
      WriteWholeFile(path, *content);
    } else {
      unlink(path.c_str());
    }
  }
  unsynced_.clear();
  names_.clear();
}

int FaultyFileIo::Open(const std::string& path, unsigned flags) {
  if (Fails(path)) {
    return -1;
  }
  if (withoutLocks_ && (flags & cms::kFileExclusive) != 0) {
    errno = ENOLCK;
    return -1;
  }
  const std::lock_guard lock(mutex_);
  const bool creates =
      (flags & (cms::kFileCreate | cms::kFileCreateNew)) != 0 && !real_.Exists(path);
  if (creates) {
    Remember(path);
  }
  const int handle = real_.Open(path, flags);
  if (handle < 0) {
    return -1;
  }
  if (creates || (flags & cms::kFileTruncate) != 0) {
    unsynced_[path] = 0;
  }
  paths_[handle] = path;
  ++openHandles_;
  return handle;
}

int FaultyFileIo::Close(int handle) {
  const bool fails = Fails(handle);
  const int error = errno;
  {
    const std::lock_guard lock(mutex_);
    paths_.erase(handle);
  }
  --openHandles_;
  const int result = real_.Close(handle);
  if (fails) {
    errno = error;
    return -1;
  }
  return result;
}

ssize_t FaultyFileIo::Read(int handle, void* data, std::size_t size) {
  return Fails(handle) ? -1 : real_.Read(handle, data, size);
}

ssize_t FaultyFileIo::ReadAt(int handle, void* data, std::size_t size, std::uint64_t offset) {
  return Fails(handle) ? -1 : real_.ReadAt(handle, data, size, offset);
}

ssize_t FaultyFileIo::Write(int handle, const void* data, std::size_t size) {
  if (Fails(handle)) {
    return -1;
  }
  if (failingWrites_ > 0) {
    --failingWrites_;
    errno = writeError_;
    return -1;
  }
  size = std::min<std::size_t>(size, writeLimit_);
  const std::lock_guard lock(mutex_);
  if (space_ != kNever) {
    size = std::min<std::size_t>(size, space_);
    if (size == 0) {
      errno = ENOSPC;
      return -1;
    }
    space_ -= size;
  }
  if (const auto path = paths_.find(handle); path != paths_.end()) {
    unsynced_.try_emplace(path->second, static_cast<std::uint64_t>(real_.Size(handle)));
  }
  return real_.Write(handle, data, size);
}

std::int64_t FaultyFileIo::Seek(int handle, std::int64_t offset, int whence) {
  return Fails(handle) ? -1 : real_.Seek(handle, offset, whence);
}

std::int64_t FaultyFileIo::Size(int handle) {
  return Fails(handle) ? -1 : real_.Size(handle);
}

int FaultyFileIo::Sync(int handle) {
  if (Fails(handle)) {
    return -1;
  }
  const std::lock_guard lock(mutex_);
  if (const auto path = paths_.find(handle); path != paths_.end()) {
    unsynced_.erase(path->second);
  }
  return 0;
}

int FaultyFileIo::Truncate(int handle, std::uint64_t size) {
  return Fails(handle) ? -1 : real_.Truncate(handle, size);
}

int FaultyFileIo::Rename(const std::string& from, const std::string& to) {
  if (Fails(from) || Fails(to)) {
    return -1;
  }
  const std::lock_guard lock(mutex_);
  if (!volume_.empty() && from.starts_with(volume_) != to.starts_with(volume_)) {
    errno = EXDEV;
    return -1;
  }
  Remember(from);
  Remember(to);
  if (real_.Rename(from, to) != 0) {
    return -1;
  }
  unsynced_.erase(to);
  if (auto size = unsynced_.extract(from); !size.empty()) {
    size.key() = to;
    unsynced_.insert(std::move(size));
  }
  for (auto& [handle, path] : paths_) {
    path = path == from ? to : path;
  }
  return 0;
}

int FaultyFileIo::Remove(const std::string& path) {
  if (Fails(path)) {
    return -1;
  }
  const std::lock_guard lock(mutex_);
  Remember(path);
  unsynced_.erase(path);
  return real_.Remove(path);
}

int FaultyFileIo::MakeDirectory(const std::string& path) {
  return Fails(path) ? -1 : real_.MakeDirectory(path);
}

int FaultyFileIo::RemoveDirectory(const std::string& path) {
  return Fails(path) ? -1 : real_.RemoveDirectory(path);
}

int FaultyFileIo::SyncFolder(const std::string& path) {
  if (Fails(path)) {
    return -1;
  }
  const std::lock_guard lock(mutex_);
  std::erase_if(names_, [&](const auto& name) { return cms::NativeFolderOf(name.first) == path; });
  return 0;
}

bool FaultyFileIo::Status(const std::string& path, cms::FileStatus& status) {
  return !Fails(path) && real_.Status(path, status);
}

bool FaultyFileIo::List(const std::string& path, const EachEntry& each) {
  return !Fails(path) && real_.List(path, each);
}

bool FaultyFileIo::Space(const std::string& path, cms::FreeSpace& space) {
  if (Fails(path) || !real_.Space(path, space)) {
    return false;
  }
  space.freeToCaller = std::min<std::uint64_t>(space.freeToCaller, space_);
  return true;
}

bool FaultyFileIo::MayChangeFolder(const std::string& path) {
  return !Fails(path) && real_.MayChangeFolder(path);
}

TemporaryFolder::TemporaryFolder(const std::string& where) {
  const auto parent = where.empty() ? std::filesystem::temp_directory_path().string() : where;
  path_ = parent + "/orvanta_test_XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::filesystem::filesystem_error("no folder for a test", parent,
                                            std::error_code(errno, std::generic_category()));
  }
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::wstring TemporaryFolder::SystemFile(const std::string& name) const {
  return cms::SystemPath(File(name));
}

std::vector<std::string> TemporaryFolder::Names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;  // in blocks: recordings are many megabytes
  content << file.rdbuf();
  return content.str();
}

void WriteWholeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace test
