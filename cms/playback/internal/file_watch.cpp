#include "cms/playback/internal/file_watch.h"

#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace cms {

namespace {

// A watch that is spent takes no more messages: a list that grows all day fills no queue.
constexpr std::uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF |
                                   IN_ONESHOT | IN_DONT_FOLLOW | IN_MASK_CREATE;
constexpr std::size_t kBufferBytes = 4096;

}  // namespace

// Network and cluster file systems are changed by others, and a layered one changes files below
// the names that it shows.
bool FileWatch::SeesAll(const std::string& folder) {
  static constexpr std::array<std::int64_t, 5> kLocal{
      EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC, TMPFS_MAGIC};
  struct statfs status {};
  return statfs(folder.c_str(), &status) == 0 &&
         std::ranges::find(kLocal, std::int64_t{status.f_type}) != kLocal.end();
}

bool FileWatch::Open() {
  if (handle_ >= 0) {
    return true;
  }
  handle_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  owner_ = getpid();
  return handle_ >= 0;
}

void FileWatch::Close() {
  if (handle_ >= 0) {
    close(std::exchange(handle_, -1));
  }
}

int FileWatch::Add(const std::string& path) {
  if (exhausted_) {
    return kNone;
  }
  errno = 0;
  const int watch = Open() ? inotify_add_watch(handle_, path.c_str(), kChanges) : kNone;
  if (watch < 0) {
    exhausted_ = handle_ < 0 || errno == ENOSPC || errno == ENOMEM;
    return kNone;
  }
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    Remove(watch);
    return kNone;
  }
  return watch;
}

void FileWatch::Remove(int watch) {
  inotify_rm_watch(handle_, watch);  // fails when it has ended by itself
}

bool FileWatch::Collect(std::vector<int>& ended) {
  ended.clear();
  exhausted_ = false;
  if (handle_ < 0) {
    return true;
  }
  if (owner_ != getpid()) {
    Close();  // the queue is the parent's
    return false;
  }
  alignas(inotify_event) std::array<char, kBufferBytes> buffer;
  for (;;) {
    const ssize_t count = read(handle_, buffer.data(), buffer.size());
    if (count < 0 && errno == EAGAIN) {
      return true;
    }
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      Close();
      return false;
    }
    for (std::size_t at = 0; at + sizeof(inotify_event) <= static_cast<std::size_t>(count);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof(event));
      at += sizeof(event) + event.len;
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        Close();
        return false;
      }
      ended.push_back(event.wd);
    }
  }
}

}  // namespace cms
