#include "cms/recording/internal/database_file.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "cms/recording/data_root.h"
#include "cms/recording/internal/file_locks.h"

namespace cms {

namespace {

constexpr std::size_t kBlockBytes = 256 * 1024;  // stays in the processor's cache
constexpr int kLockAttempts = 250;
constexpr std::chrono::milliseconds kShortPause{1};  // another recorder is done in no time
constexpr std::chrono::milliseconds kLongPause{10};
constexpr int kShortPauses = 50;

bool IsHeld(int error) {
  return error == EWOULDBLOCK || error == EAGAIN;
}

}  // namespace

DatabaseFile::DatabaseFile(std::wstring_view systemPath, std::size_t recordSize,
                           DatabaseAccess access, const std::string& dataRoot)
    : io_(CurrentFileIo()), path_(PathInData(systemPath, dataRoot)), recordSize_(recordSize) {
  Open(access);
}

void DatabaseFile::Open(DatabaseAccess access) {
  if (access == DatabaseAccess::kRead) {
    TryOpen(kFileRead);
    return;
  }
  const unsigned flags =
      kFileReadWrite | (access == DatabaseAccess::kCreate ? kFileCreate : kFileRead);
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (TryOpen(flags | kFileExclusive)) {
      locked_ = true;
      return;
    }
    if (CannotLock(errno)) {
      break;
    }
    if (!IsHeld(errno)) {
      return;
    }
    std::this_thread::sleep_for(attempt < kShortPauses ? kShortPause : kLongPause);
  }
  TryOpen(flags);
}

bool DatabaseFile::TryOpen(unsigned flags) {
  file_.emplace(io_, path_, flags);
  missing_ = !*file_ && (errno == ENOENT || errno == ENOTDIR);
  return static_cast<bool>(*file_);
}

void DatabaseFile::Rewind(std::uint64_t record) {
  // A short file gets a short buffer; one that grows while it is read is read in several goes.
  const std::int64_t size = io_.Size(file_->Handle());
  const std::size_t bytes =
      size < 0 ? kBlockBytes : static_cast<std::size_t>(std::min<std::int64_t>(size, kBlockBytes));
  buffer_.resize(std::max<std::size_t>(bytes / recordSize_, 1) * recordSize_);
  position_ = record * recordSize_;
  tornBytes_ = 0;
  readFailed_ = false;
}

std::span<const std::uint8_t> DatabaseFile::NextBlock() {
  if (tornBytes_ != 0 || readFailed_) {
    return {};
  }
  errno = 0;
  const std::size_t count =
      io_.ReadAllAt(file_->Handle(), buffer_.data(), buffer_.size(), position_);
  readFailed_ = count < buffer_.size() && errno != 0;
  tornBytes_ = count % recordSize_;
  const std::size_t whole = count - tornBytes_;
  position_ += whole;
  return std::span(buffer_).first(whole);
}

bool DatabaseFile::ReadAt(std::uint64_t offset, std::span<std::uint8_t> record) {
  return io_.ReadAllAt(file_->Handle(), record.data(), record.size(), offset) == record.size();
}

std::uint64_t DatabaseFile::WholeSize() {
  const std::int64_t size = io_.Size(file_->Handle());
  return size < 0 ? 0 : static_cast<std::uint64_t>(size) / recordSize_ * recordSize_;
}

bool DatabaseFile::WriteAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  const auto position = static_cast<std::int64_t>(offset);
  return io_.Seek(file_->Handle(), position, SEEK_SET) == position &&
         io_.WriteAll(file_->Handle(), bytes.data(), bytes.size()) == bytes.size();
}

bool DatabaseFile::Append(std::span<const std::uint8_t> record) {
  const std::int64_t size = io_.Size(file_->Handle());
  if (size < 0) {
    return false;
  }
  const std::uint64_t end = static_cast<std::uint64_t>(size) / recordSize_ * recordSize_;
  if (WriteAt(end, record)) {
    return true;
  }
  io_.Truncate(file_->Handle(), end);  // if this fails too, a torn tail stays, which is ignored
  return false;
}

bool DatabaseFile::Overwrite(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  return WriteAt(offset, bytes);
}

bool DatabaseFile::CutTo(std::uint64_t size) {
  const std::int64_t present = io_.Size(file_->Handle());
  return present >= 0 &&
         (static_cast<std::uint64_t>(present) <= size || io_.Truncate(file_->Handle(), size) == 0);
}

bool DatabaseFile::CutTornTail() {
  const std::int64_t size = io_.Size(file_->Handle());
  return size >= 0 && CutTo(static_cast<std::uint64_t>(size) / recordSize_ * recordSize_);
}

DatabaseFile::Replacement::Replacement(DatabaseFile& old)
    : old_(old),
      path_(old.path_ + ".tmp"),
      file_(old.io_, old.locked_ ? path_ : std::string(),
            kFileWrite | kFileCreate | kFileTruncate | kFileExclusive) {}

DatabaseFile::Replacement::~Replacement() {
  if (file_ && !installed_) {
    old_.io_.Remove(path_);
  }
}

bool DatabaseFile::Replacement::Add(std::span<const std::uint8_t> record) {
  buffer_.insert(buffer_.end(), record.begin(), record.end());
  return buffer_.size() < kBlockBytes || Flush();
}

bool DatabaseFile::Replacement::Flush() {
  const bool written =
      file_ && old_.io_.WriteAll(file_.Handle(), buffer_.data(), buffer_.size()) == buffer_.size();
  buffer_.clear();
  return written;
}

bool DatabaseFile::Replacement::Install() {
  installed_ =
      Flush() && old_.io_.Sync(file_.Handle()) == 0 && old_.io_.Rename(path_, old_.path_) == 0;
  if (installed_) {
    old_.io_.SyncFolder(NativeFolderOf(path_));
    old_.file_.reset();
  }
  return installed_;
}

}  // namespace cms
