#include "cms/recording/internal/file_move.h"

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <vector>

namespace cms {
namespace {

constexpr std::string_view kMovingSuffix = ".moving";
constexpr std::size_t kChunk = 1024 * 1024;

int LastError() {
  return errno != 0 ? errno : EIO;
}

// The whole of `source` into a new file at `path`, safe on its disk; 0 or errno.
int CopyTo(FileIo& io, int source, const std::string& path) {
  ScopedFile target(io, path, kFileReadWrite | kFileCreate | kFileExclusive | kFileTruncate);
  const std::int64_t size = target ? io.Size(source) : -1;
  if (size < 0) {
    return LastError();
  }
  std::vector<std::uint8_t> chunk(kChunk);
  for (std::uint64_t at = 0; at < static_cast<std::uint64_t>(size);) {
    const std::size_t count = io.ReadAllAt(source, chunk.data(), chunk.size(), at);
    if (count == 0 || io.WriteAll(target.Handle(), chunk.data(), count) < count) {
      return LastError();
    }
    at += count;
  }
  return io.Sync(target.Handle()) == 0 && target.Close() ? 0 : LastError();
}

int MoveAcross(FileIo& io, const std::string& from, const std::string& to) {
  // Known beforehand, a refused removal does not cost a copy at every attempt.
  if (!io.MayChangeFolder(NativeFolderOf(from))) {
    return LastError();
  }
  const ScopedFile source(io, from, kFileRead | kFileExclusive);
  if (!source) {
    return LastError();
  }
  const std::string moving = to + std::string(kMovingSuffix);
  FileStatus before;
  const bool replaces = io.Status(to, before) || errno != ENOENT;
  int error = CopyTo(io, source.Handle(), moving);
  if (error == EWOULDBLOCK) {
    return error;  // another process moves to the same place: its copy is not ours to remove
  }
  if (error == 0 && io.Rename(moving, to) != 0) {
    error = LastError();
  }
  if (error != 0) {
    io.Remove(moving);
    return error;
  }
  // The source stays until the target's name is safe.
  if (io.SyncFolder(NativeFolderOf(to)) != 0 || io.Remove(from) != 0) {
    error = LastError();
    if (!replaces) {  // what it replaced is gone: the copy is the best there is under that name
      io.Remove(to);
    }
    return error;
  }
  io.SyncFolder(NativeFolderOf(from));
  return 0;
}

}  // namespace

int MoveFile(FileIo& io, const std::string& from, const std::string& to) {
  FileStatus source;
  if (!io.Status(from, source)) {
    return LastError();
  }
  FileStatus target;
  if (io.Status(to, target) && target.device == source.device && target.inode == source.inode) {
    return 0;  // one file under two names, by a link or a mount: a copy would end with none
  }
  if (io.Rename(from, to) == 0) {
    // It has moved, whatever these answer; the old name may go for good once the new one is safe.
    if (io.SyncFolder(NativeFolderOf(to)) == 0) {
      io.SyncFolder(NativeFolderOf(from));
    }
    return 0;
  }
  return errno == EXDEV ? MoveAcross(io, from, to) : LastError();
}

bool IsMovingFile(const std::string& path) {
  return path.ends_with(".drv" + std::string(kMovingSuffix)) ||
         path.ends_with(".idx" + std::string(kMovingSuffix));
}

void RemoveLeftover(FileIo& io, const std::string& path) {
  if (const ScopedFile left(io, path, kFileReadWrite | kFileExclusive); left) {
    io.Remove(path);
  }
}

void RemoveMovingFiles(FileIo& io, const std::string& folder) {
  std::vector<std::string> left;
  io.List(folder, [&](std::string_view name, EntryKind) {
    if (IsMovingFile(std::string(name))) {
      left.push_back(folder + "/" + std::string(name));
    }
  });
  for (const std::string& path : left) {
    RemoveLeftover(io, path);
  }
}

}  // namespace cms
