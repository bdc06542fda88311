#include "cms/recording/internal/recording_pair.h"

#include <cerrno>
#include <cstdio>
#include <optional>

#include "cms/recording/drv_walker.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/error_of.h"
#include "cms/recording/internal/file_locks.h"
#include "cms/runtime/file.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr unsigned kRecording = kFileReadWrite | kFileCreate;

// Without sharing, where the file system knows how.
bool OpenForRecording(FileIo& io, const std::string& path, std::optional<ScopedFile>& file) {
  file.emplace(io, path, kRecording | kFileExclusive);
  if (!*file && CannotLock(errno)) {
    file.emplace(io, path, kRecording);
  }
  return static_cast<bool>(*file);
}

bool SeekToEnd(FileIo& io, int handle, std::uint64_t& size) {
  const std::int64_t end = io.Seek(handle, 0, SEEK_END);
  size = static_cast<std::uint64_t>(end);
  return end >= 0;
}

bool OpenIdx(FileIo& io, const std::string& path, RecordingPair& pair) {
  std::optional<ScopedFile> idx;
  std::uint64_t size = 0;
  if (!OpenForRecording(io, path, idx) || !SeekToEnd(io, idx->Handle(), size)) {
    return false;
  }
  const std::uint64_t whole = pair.drvSize == 0 ? 0 : size - size % sizeof(DrvIdx);
  if (size != whole &&
      (io.Truncate(idx->Handle(), whole) != 0 || !SeekToEnd(io, idx->Handle(), size))) {
    return false;
  }
  pair.idx = idx->Release();
  return true;
}

// The time of the last video frame, looked for from the last record of the index on.
std::int64_t LastSeconds(FileIo& io, const std::string& drvPath, const std::string& idxPath) {
  const ScopedFile drv(io, drvPath, kFileRead);
  const ScopedFile idx(io, idxPath, kFileRead);
  DrvIdx last{};
  const std::int64_t size = idx ? io.Size(idx.Handle()) : -1;
  if (!drv || size < std::int64_t{sizeof last} ||
      io.ReadAllAt(idx.Handle(), &last, sizeof last,
                   static_cast<std::uint64_t>(size) - sizeof last) < sizeof last) {
    return 0;
  }
  std::int64_t seconds = 0;
  DrvWalker walker(io, drv.Handle());
  walker.Seek(last.offset);
  while (const auto frame = walker.Next()) {
    seconds = frame->header.IsAudio() ? seconds : std::int64_t{frame->header.Seconds()};
  }
  return seconds;
}

// 0, or the errno of what failed.
int CountFrames(FileIo& io, const std::string& drvPath, std::uint64_t from, FrameCounts& counts) {
  const ScopedFile drv(io, drvPath, kFileRead);
  if (!drv) {
    return ErrorOf(errno);
  }
  DrvWalker walker(io, drv.Handle());
  walker.Seek(from);
  while (walker.Next()) {
  }
  const DrvWalkReport& report = walker.Report();
  counts = {report.frames, report.keyFrames, report.frameBytes};
  return report.error;
}

}  // namespace

int OpenRecordingPair(FileIo& io, const std::wstring& drvPath, const std::wstring& idxPath,
                      RecordingPair& pair) {
  pair = {};
  const std::string path = NativePath(drvPath);
  const bool fresh = !io.Exists(path);
  std::optional<ScopedFile> drv;
  if (!OpenForRecording(io, path, drv) && errno == ENOENT) {
    const auto split = SplitAtLastSeparator(drvPath);
    if (split.hasFolder && File(std::wstring(split.folder)).mkdirs()) {
      OpenForRecording(io, path, drv);
    } else {
      errno = ENOENT;
    }
  }
  if (!*drv) {
    return ErrorOf(errno);
  }
  const auto giveUp = [&](int error) {
    drv->Close();
    if (fresh) {
      io.Remove(path);
    }
    return error;
  };
  if (!SeekToEnd(io, drv->Handle(), pair.drvSize)) {
    return giveUp(ErrorOf(errno));
  }
  io.Status(path, pair.drvFile);
  if (!OpenIdx(io, NativePath(idxPath), pair)) {
    pair.idxError = ErrorOf(errno);
    if (pair.idxError == EWOULDBLOCK) {
      return giveUp(EWOULDBLOCK);  // another process is about to close both: its name
    }
  }
  pair.drv = drv->Release();
  return 0;
}

MendedPair MendRecordingPair(FileIo& io, const std::string& drvPath, const std::string& idxPath,
                             std::uint64_t counted) {
  MendedPair mended;
  FileStatus status;
  if (!io.Status(drvPath, status)) {
    mended.error = ErrorOf(errno);
    mended.done = mended.error == ENOENT || mended.error == ENOTDIR;  // somebody removed it
    mended.empty = mended.done;
    return mended;
  }
  if (status.size > 0) {
    const TailCut cut = CutTornTail(io, drvPath);
    if (cut.error != 0) {
      mended.error = cut.error;
      return mended;
    }
    if (!io.Status(drvPath, status)) {
      mended.error = ErrorOf(errno);
      return mended;
    }
  }
  if (status.size == 0) {
    mended.done = io.Remove(drvPath) == 0;
    mended.error = mended.done ? 0 : ErrorOf(errno);
    mended.empty = mended.done;
    io.Remove(idxPath);
    return mended;
  }
  const IdxRebuild rebuild = RebuildIdx(io, drvPath, idxPath);
  mended.error = rebuild.done ? CountFrames(io, drvPath, counted, mended.kept) : rebuild.error;
  mended.done = rebuild.done && mended.error == 0;
  mended.lastSeconds = mended.done ? LastSeconds(io, drvPath, idxPath) : 0;
  return mended;
}

}  // namespace cms
