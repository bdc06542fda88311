#include "cms/runtime/file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

namespace cms {
namespace {

constexpr mode_t kNewFileMode = 0666;  // less what the umask takes away
constexpr mode_t kNewFolderMode = 0777;

template <typename Call>
auto Repeat(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) {
      return result;
    }
  }
}

std::uint64_t Nanoseconds(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

class SystemIo final : public FileIo {
 public:
  int Open(const std::string& path, unsigned flags) override {
    int native = O_CLOEXEC;
    native |= (flags & kFileReadWrite) == kFileReadWrite ? O_RDWR
              : (flags & kFileWrite) != 0                ? O_WRONLY
                                                         : O_RDONLY;
    native |= (flags & kFileCreateNew) != 0 ? O_CREAT | O_EXCL : 0;
    native |= (flags & kFileCreate) != 0 ? O_CREAT : 0;
    int handle = Repeat([&] { return open(path.c_str(), native, kNewFileMode); });
    while (handle >= 0 && (flags & kFileExclusive) != 0) {
      if (Repeat([&] { return flock(handle, LOCK_EX | LOCK_NB); }) != 0) {
        return Abandon(handle);
      }
      if (IsNamed(handle, path)) {
        break;
      }
      // Replaced or removed before the lock was ours: what we hold is nobody's file any more.
      close(handle);
      handle = Repeat([&] { return open(path.c_str(), native, kNewFileMode); });
    }
    if (handle < 0) {
      return -1;
    }
    // An empty file is left alone: some file systems take its truncation for the wish to have what
    // is written next on the disk by the close, which then takes long.
    if ((flags & kFileTruncate) != 0 && Size(handle) != 0 && Truncate(handle, 0) != 0) {
      return Abandon(handle);
    }
    return handle;
  }

  // Linux has closed the descriptor even when close was interrupted: never repeated.
  int Close(int handle) override { return close(handle) == 0 || errno == EINTR ? 0 : -1; }

  ssize_t Read(int handle, void* data, std::size_t size) override {
    return Repeat([&] { return read(handle, data, size); });
  }
  ssize_t ReadAt(int handle, void* data, std::size_t size, std::uint64_t offset) override {
    return Repeat([&] { return pread(handle, data, size, static_cast<off_t>(offset)); });
  }
  ssize_t Write(int handle, const void* data, std::size_t size) override {
    return Repeat([&] { return write(handle, data, size); });
  }

  std::int64_t Seek(int handle, std::int64_t offset, int whence) override {
    return lseek(handle, offset, whence);
  }
  std::int64_t Size(int handle) override {
    struct stat status {};
    return fstat(handle, &status) == 0 ? std::int64_t{status.st_size} : -1;
  }
  int Sync(int handle) override {
    return Repeat([&] { return fdatasync(handle); });
  }
  int Truncate(int handle, std::uint64_t size) override {
    return Repeat([&] { return ftruncate(handle, static_cast<off_t>(size)); });
  }

  int Rename(const std::string& from, const std::string& to) override {
    return rename(from.c_str(), to.c_str());
  }
  int Remove(const std::string& path) override { return unlink(path.c_str()); }
  int MakeDirectory(const std::string& path) override {
    return mkdir(path.c_str(), kNewFolderMode);
  }
  int RemoveDirectory(const std::string& path) override { return rmdir(path.c_str()); }
  int SyncFolder(const std::string& path) override {
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
      return -1;
    }
    const bool synced = fsync(folder) == 0;
    const int error = errno;
    close(folder);
    errno = error;
    // Some network file systems cannot, and make it durable by themselves.
    return synced || error == EINVAL ? 0 : -1;
  }

  bool Status(const std::string& path, FileStatus& status) override {
    struct stat native {};
    if (stat(path.c_str(), &native) != 0) {
      return false;
    }
    status.isDirectory = S_ISDIR(native.st_mode);
    status.isRegular = S_ISREG(native.st_mode);
    status.size = static_cast<std::uint64_t>(native.st_size);
    status.modifiedNanoseconds = Nanoseconds(native.st_mtim);
    status.changedNanoseconds = Nanoseconds(native.st_ctim);
    status.device = native.st_dev;
    status.inode = native.st_ino;
    return true;
  }
  bool List(const std::string& path, const EachEntry& each) override {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
    if (!folder) {
      return false;
    }
    for (;;) {
      errno = 0;
      const dirent* entry = readdir(folder.get());
      if (entry == nullptr) {
        return errno == 0;
      }
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") {
        each(name, entry->d_type == DT_DIR                                  ? EntryKind::kFolder
                   : entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN ? EntryKind::kAsk
                                                                            : EntryKind::kFile);
      }
    }
  }
  bool Space(const std::string& path, FreeSpace& space) override {
    struct statvfs native {};
    if (Repeat([&] { return statvfs(path.c_str(), &native); }) != 0) {
      return false;
    }
    space.freeToCaller = std::uint64_t{native.f_bavail} * native.f_frsize;
    space.total = std::uint64_t{native.f_blocks} * native.f_frsize;
    space.free = std::uint64_t{native.f_bfree} * native.f_frsize;
    return true;
  }
  bool MayChangeFolder(const std::string& path) override {
    return faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  }

 private:
  static bool IsNamed(int handle, const std::string& path) {
    struct stat own {};
    struct stat named {};
    return fstat(handle, &own) == 0 && stat(path.c_str(), &named) == 0 &&
           own.st_dev == named.st_dev && own.st_ino == named.st_ino;
  }

  static int Abandon(int handle) {
    const int error = errno;
    close(handle);
    errno = error;
    return -1;
  }
};

std::atomic<FileIo*> replacementIo{nullptr};

template <typename Step>
std::size_t Whole(std::size_t size, int nothingMeans, Step step) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = step(done);
    if (count <= 0) {
      errno = count == 0 ? nothingMeans : errno;
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return done;
}

}  // namespace

std::size_t FileIo::ReadAll(int handle, void* data, std::size_t size) {
  return Whole(size, 0, [&](std::size_t done) {
    return Read(handle, static_cast<char*>(data) + done, size - done);
  });
}

std::size_t FileIo::ReadAllAt(int handle, void* data, std::size_t size, std::uint64_t offset) {
  return Whole(size, 0, [&](std::size_t done) {
    return ReadAt(handle, static_cast<char*>(data) + done, size - done, offset + done);
  });
}

std::size_t FileIo::WriteAll(int handle, const void* data, std::size_t size) {
  return Whole(size, ENOSPC, [&](std::size_t done) {
    return Write(handle, static_cast<const char*>(data) + done, size - done);
  });
}

bool FileIo::Exists(const std::string& path) {
  FileStatus status;
  return Status(path, status);
}

FileIo& SystemFileIo() {
  static auto* const system = new SystemIo;  // threads may still ask while the process ends
  return *system;
}

FileIo& CurrentFileIo() {
  FileIo* const given = replacementIo.load(std::memory_order_acquire);
  return given != nullptr ? *given : SystemFileIo();
}

void ReplaceFileIo(FileIo* io) {
  replacementIo.store(io, std::memory_order_release);
}

int ScopedFile::Release() {
  return std::exchange(handle_, -1);
}

bool ScopedFile::Close() {
  const int handle = Release();
  return handle < 0 || io_->Close(handle) == 0;
}

std::string NativeFolderOf(std::string_view path) {
  const std::size_t at = path.rfind('/');
  if (at == std::string_view::npos) {
    return ".";
  }
  return at == 0 ? "/" : std::string(path.substr(0, at));
}

}  // namespace cms
