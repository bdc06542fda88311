// FaultyFileIo, the platform's files with faults: operation N fails, writes fall short, the disk is
// full or hangs, the power is cut.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cms/runtime/file_io.h"

namespace test {

// Passes every operation on to the platform, unless its fault is due. Thread-safe. Install it with
// cms::ReplaceFileIo, or pass it to what takes a file edge.
class FaultyFileIo final : public cms::FileIo {
 public:
  static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

  // Operations are counted from 0; the one with this number fails with `error`, and so do those
  // behind it when `forGood` is set. Closing a file fails, but closes it, as on the platform.
  void FailOperation(std::uint64_t number, int error, bool forGood = false);
  std::uint64_t Operations() const { return operations_; }

  void LimitWrite(std::size_t bytes) { writeLimit_ = bytes; }  // at most so many for each call
  void LimitSpace(std::uint64_t bytes) { space_ = bytes; }     // left on the disk; then ENOSPC
  // The next so many writes fail with `error`.
  void FailWrites(int count, int error) {
    writeError_ = error;
    failingWrites_ = count;
  }
  void AwayFrom(const std::string& prefix);  // paths that begin so: EHOSTUNREACH; "" ends it
  // Operations on paths that begin so, and on handles of theirs, do not come back until the next
  // call of this; "" lets them all go on.
  void HangAt(const std::string& prefix);
  int Hanging() const { return hanging_; }  // operations that wait at this moment
  void WithoutLocks(bool without) { withoutLocks_ = without; }  // exclusive opens: ENOLCK
  // Renames between paths of which only one begins so are refused with EXDEV.
  void OtherVolume(const std::string& prefix);

  // What the platform did not promise to keep is lost: files shrink to what was synced, files of
  // folders that were not synced are gone, renames there are undone. Open handles stay open.
  void CutPower();

  int OpenHandles() const { return openHandles_; }

  int Open(const std::string& path, unsigned flags) override;
  int Close(int handle) override;
  ssize_t Read(int handle, void* data, std::size_t size) override;
  ssize_t ReadAt(int handle, void* data, std::size_t size, std::uint64_t offset) override;
  ssize_t Write(int handle, const void* data, std::size_t size) override;
  std::int64_t Seek(int handle, std::int64_t offset, int whence) override;
  std::int64_t Size(int handle) override;
  int Sync(int handle) override;
  int Truncate(int handle, std::uint64_t size) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Remove(const std::string& path) override;
  int MakeDirectory(const std::string& path) override;
  int RemoveDirectory(const std::string& path) override;
  int SyncFolder(const std::string& path) override;
  bool Status(const std::string& path, cms::FileStatus& status) override;
  bool List(const std::string& path, const EachEntry& each) override;
  bool Space(const std::string& path, cms::FreeSpace& space) override;
  bool MayChangeFolder(const std::string& path) override;

 private:
  bool Fails(const std::string& path = {});
  bool Fails(int handle);
  void Hang(const std::string& path);
  void Remember(const std::string& path);  // before a name of a folder changes; locked

  cms::FileIo& real_ = cms::SystemFileIo();
  std::atomic<std::uint64_t> operations_{0};
  std::atomic<std::uint64_t> failing_{kNever};
  std::atomic<bool> forGood_{false};
  std::atomic<int> error_{0};
  std::atomic<std::size_t> writeLimit_{std::numeric_limits<std::size_t>::max()};
  std::atomic<std::uint64_t> space_{kNever};
  std::atomic<int> failingWrites_{0};
  std::atomic<int> writeError_{0};
  std::atomic<int> openHandles_{0};
  std::atomic<int> hanging_{0};
  std::atomic<bool> withoutLocks_{false};

  std::mutex mutex_;
  std::string away_;
  std::string hangs_;
  std::uint64_t released_ = 0;
  std::condition_variable release_;
  std::string volume_;
  std::map<int, std::string> paths_;               // of the open handles
  std::map<std::string, std::uint64_t> unsynced_;  // path -> the size that is safe
  // Path -> what is safe under that name while its folder is not synced; nothing: no such file.
  std::map<std::string, std::optional<std::string>> names_;
};

// A folder of its own for a test, removed with all that is in it.
class TemporaryFolder {
 public:
  // `where` is on the volume that the test wants; "/dev/shm" is another one than the default.
  explicit TemporaryFolder(const std::string& where = {});
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  std::wstring SystemFile(const std::string& name) const;  // as the system writes it
  std::vector<std::string> Names() const;                  // what lies in it, sorted

 private:
  std::string path_;
};

std::string ReadWholeFile(const std::string& path);  // "" when it is missing
void WriteWholeFile(const std::string& path, const std::string& content);

}  // namespace test
