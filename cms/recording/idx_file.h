// The index beside a recording: reading it, rebuilding it, and cutting a recording's torn end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/recording/drv_format.h"
#include "cms/recording/drv_walker.h"
#include "cms/runtime/api.h"
#include "cms/runtime/file_io.h"

namespace cms {

// Reads an index from its first record to its last, through a buffer allocated once. One thread at
// a time. The handle is not owned.
class CMS_API IdxReader {
 public:
  IdxReader(FileIo& io, int handle);

  std::optional<DrvIdx> Next();  // nothing at the end and after a failure

  std::uint64_t Records() const { return size_ / sizeof(DrvIdx); }
  std::uint64_t TornBytes() const { return size_ % sizeof(DrvIdx); }  // behind the last record
  int Error() const { return error_; }                                // errno, 0 while all is well

 private:
  FileIo& io_;
  const int handle_;
  std::uint64_t size_ = 0;
  std::uint64_t offset_ = 0;  // of the next record to read into the buffer
  std::vector<DrvIdx> buffer_;
  std::size_t taken_ = 0;
  std::size_t filled_ = 0;
  int error_ = 0;
};

struct IdxRebuild {
  bool done = false;  // the index fits the recording now
  int error = 0;      // errno when not; the index is as it was then
  bool changed = false;
  std::uint64_t records = 0;    // in the index now
  std::uint64_t added = 0;      // for frames that had none
  std::uint64_t dropped = 0;    // that pointed at no frame, or were out of order
  std::uint64_t beyond = 0;     // frames past 4 GiB, which no record can point at
  std::uint64_t behind = 0;     // of those added: behind the last record that was kept
  std::uint64_t tornBytes = 0;  // behind the last record of the old index
  bool keyFramesOnly = false;
  DrvWalkReport walk;
};

// Makes the index of a recording fit its data file, native paths. Records that point at a frame of
// their type and second are kept as they are; frames without one get one; others go. The data file
// is only read. EWOULDBLOCK while it is being recorded. The method stands in idx_file.cpp.
CMS_API IdxRebuild RebuildIdx(FileIo& io, const std::string& drvPath, const std::string& idxPath);

// What RebuildIdx would do: `changed` when anything. Nothing is written or locked, so that the
// recording may run; frames behind the last record may then be on their way into the index.
CMS_API IdxRebuild CompareIdx(FileIo& io, const std::string& drvPath, const std::string& idxPath);

struct TailCut {
  bool done = false;        // nothing torn is at the end now
  int error = 0;            // errno when not
  std::uint64_t bytes = 0;  // cut off
  DrvTail tail = DrvTail::kNone;
};

// Cuts what a crash leaves behind the last whole frame of a recording: a torn frame, part of a
// header, or zeros. Whatever else is there stays (`done` is false then, with no error). EWOULDBLOCK
// while it is being recorded.
CMS_API TailCut CutTornTail(FileIo& io, const std::string& drvPath);

}  // namespace cms
