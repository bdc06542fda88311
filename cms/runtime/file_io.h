// FileIo, the library's one edge to the file system, so that tests can let any operation fail.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// How a file is opened; flags are combined with "|".
enum FileOpenFlag : unsigned {
  kFileRead = 1u << 0,
  kFileWrite = 1u << 1,
  kFileReadWrite = kFileRead | kFileWrite,
  kFileCreate = 1u << 2,     // created when it is missing
  kFileCreateNew = 1u << 3,  // created; EEXIST when it is there already
  kFileTruncate = 1u << 4,   // emptied, once the lock is held
  // "Without sharing": an exclusive advisory lock, held until the handle is closed. EWOULDBLOCK
  // when another handle, of this process or another, holds one. The file is the one of that name,
  // also when it was replaced or removed while the lock was being taken.
  kFileExclusive = 1u << 5,
};

struct FileStatus {
  bool isDirectory = false;
  bool isRegular = false;
  std::uint64_t size = 0;
  std::uint64_t modifiedNanoseconds = 0;  // since 1970-01-01 UTC
  std::uint64_t changedNanoseconds = 0;   // likewise; no program can set it back
  std::uint64_t device = 0;               // device and inode together name one file
  std::uint64_t inode = 0;
};

enum class EntryKind {
  kFile,  // anything but what follows
  kFolder,
  kAsk,  // a link, or a file system that does not say: Status knows
};

struct FreeSpace {
  std::uint64_t freeToCaller = 0;  // bytes
  std::uint64_t total = 0;
  std::uint64_t free = 0;  // with what only the superuser may use
};

// The operations of files, by native path (UTF-8) or by handle: a descriptor, -1 when invalid. An
// operation that fails returns -1 (or false) and leaves the reason in errno. Interrupted calls are
// repeated. Files are opened close-on-exec. Any thread may call any operation.
class CMS_API FileIo {
 public:
  virtual ~FileIo() = default;

  virtual int Open(const std::string& path, unsigned flags) = 0;
  virtual int Close(int handle) = 0;  // the handle is gone even when it fails

  // One read or write: may transfer less than asked for; 0 from a read is the end of the file.
  virtual ssize_t Read(int handle, void* data, std::size_t size) = 0;
  virtual ssize_t ReadAt(int handle, void* data, std::size_t size, std::uint64_t offset) = 0;
  virtual ssize_t Write(int handle, const void* data, std::size_t size) = 0;

  virtual std::int64_t Seek(int handle, std::int64_t offset, int whence) = 0;  // SEEK_SET ...
  virtual std::int64_t Size(int handle) = 0;
  virtual int Sync(int handle) = 0;
  virtual int Truncate(int handle, std::uint64_t size) = 0;

  virtual int Rename(const std::string& from, const std::string& to) = 0;  // replaces `to`
  virtual int Remove(const std::string& path) = 0;                         // a file
  virtual int MakeDirectory(const std::string& path) = 0;
  virtual int RemoveDirectory(const std::string& path) = 0;
  // Makes what was created, renamed and removed in a folder survive a power cut.
  virtual int SyncFolder(const std::string& path) = 0;

  virtual bool Status(const std::string& path, FileStatus& status) = 0;
  // Calls `each` for what lies in a folder, without "." and "..", in no order. False when the
  // folder cannot be read to its end.
  using EachEntry = std::function<void(std::string_view name, EntryKind kind)>;
  virtual bool List(const std::string& path, const EachEntry& each) = 0;
  virtual bool Space(const std::string& path, FreeSpace& space) = 0;
  virtual bool MayChangeFolder(const std::string& path) = 0;  // create and remove files in it

  // The whole of `size` bytes in as many calls as it takes. Results: what was transferred; less
  // than `size` means the end of the file for a read (errno is 0), or a failure (errno says which;
  // a write that transfers nothing is ENOSPC).
  std::size_t ReadAll(int handle, void* data, std::size_t size);
  std::size_t ReadAllAt(int handle, void* data, std::size_t size, std::uint64_t offset);
  std::size_t WriteAll(int handle, const void* data, std::size_t size);

  bool Exists(const std::string& path);
};

// The file system of the platform.
CMS_API FileIo& SystemFileIo();

// The file edge in force: the platform's unless a test replaced it.
CMS_API FileIo& CurrentFileIo();

// Replaces the file edge of the whole process; nullptr gives the platform's back. The caller keeps
// ownership and calls this while no thread of the library runs.
CMS_API void ReplaceFileIo(FileIo* io);

// A handle that closes itself. Not for two threads at once.
class CMS_API ScopedFile {
 public:
  ScopedFile() = default;
  ScopedFile(FileIo& io, const std::string& path, unsigned flags)
      : io_(&io), handle_(io.Open(path, flags)) {}
  ~ScopedFile() { Close(); }
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;

  explicit operator bool() const { return handle_ >= 0; }
  int Handle() const { return handle_; }
  int Release();  // the caller closes it from now on
  bool Close();   // true when nothing was lost; errno is kept when there was nothing to close

 private:
  FileIo* io_ = nullptr;
  int handle_ = -1;
};

// The folder of a native path, for SyncFolder: "." or "/" where the path names none.
CMS_API std::string NativeFolderOf(std::string_view path);

}  // namespace cms
