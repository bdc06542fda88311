// CLFXDRVWriter: frames into a rolling series of .drv and .idx files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/recording/control_write_file.h"
#include "cms/recording/drv_format.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/recording/recording_status.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/file_io.h"

namespace cms {

struct LateRecord;

// A recording that is written, closed and listed.
struct FinishedRecording {
  std::wstring drvPath;
  std::wstring idxPath;
};

inline constexpr int kBeginsFile = 0;  // a frame that may begin a file: a key frame
inline constexpr int kDependent = 1;

// How long frames may wait in memory when the owner's clock calls Flush every second, and the age
// that makes it so. The queue's own work is the rest of the five seconds that may ever be lost.
inline constexpr std::uint32_t kFlushAgeMilliseconds = 3000;

}  // namespace cms

namespace CLFX {

// One for each site. Frames gather in a buffer of 512 KiB, their index records in another; both are
// handed to the process's write queue when they are full, when Flush finds them old, and before the
// file is closed. The next file begins with the first key frame behind the size limit, behind
// SetForceChangeFile, ChangeRecordFile or ChangeRecordPath, so that every file begins with a key
// frame and every frame is in exactly one file.
//
// Files are named path + local time + ".drv" and ".idx"; the path is a folder and the front of a
// name, "C:\recordings\20240229\Rec_Site1_". A file that exists is continued at its end, one that
// another recorder holds is passed over for the next second's name, and one that would be begun
// within the second of the file before it is that file, which stays open.
//
// When a write fails the file is closed behind its last written byte, and frames are dropped and
// counted. Flush then mends the file's end and its index, waits for space if the disk was full, and
// lets the next key frame begin a new file.
//
// Threads: Record and what goes with it on the receiving thread, everything else on any. The
// virtual operations are called with lock_ held or not; it is recursive. Nothing is allocated for a
// frame. Files are closed and records stored by whoever causes it; a full queue blocks the caller.
class CMS_API CLFXDRVWriter {
 public:
  static constexpr std::uint32_t kBufferSize = 524'288;

  CLFXDRVWriter();
  virtual ~CLFXDRVWriter();
  CLFXDRVWriter(const CLFXDRVWriter&) = delete;
  CLFXDRVWriter& operator=(const CLFXDRVWriter&) = delete;

  // Closes what is open and opens the path's file. Both limits have to be at least 1: the size in
  // MiB behind which a file ends, and a limit that is kept only; when that is 1, files have no
  // stream header blocks. The last two arguments are not used.
  virtual bool StartRecord(const wchar_t* path, int sizeMiB, int limit2, int value3,
                           const wchar_t* text5);

  // For the caller's clock: the next key frame begins a new file. A file that has no frame yet, or
  // whose stream is silent, is changed without waiting for one. False when nothing is open and
  // nothing could be opened.
  virtual bool ChangeRecordFile();

  virtual void SetForceChangeFile();  // the next key frame begins a new file

  // Appends one frame: header, extension and payload. False when it was dropped.
  virtual bool Record(const void* data, std::uint32_t length, int frameKind);

  // Closes the file, goes over to the path that ChangeRecordPath left, and opens the file of the
  // path's start time; nothing happens when that file is open.
  virtual bool ChangeFile();

  virtual bool IsRecording();  // whether a .drv file is open

  // Hands over what has waited for at least `age` milliseconds, notices failed writes, and settles
  // what they left behind. For the owner's clock, about once a second, not on the receiving thread:
  // after a failure it waits for the disk.
  virtual void Flush(std::uint32_t age = cms::kFlushAgeMilliseconds);

  void StopRecord();
  void SetRecordTime(std::int64_t time);  // widens the record of the open file

  // Where the next frame's header will stand in the open file; 0 when none is open.
  std::uint32_t GetDrvOffset() const;
  void SetDrvIdx(const DrvIdx& record);  // what WriteDrvIdx appends; Record moves its offset along
  void WriteDrvIdx();

  void ChangeRecordPath(const wchar_t* path);  // from the next file on; at once when none is open

  // What the records of files say; for files begun from now on. Null texts are empty ones.
  void SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port);

  // Blocks in front of every new file: the first if it is there, else the second, then the third.
  // Empty spans take them away.
  void SetStreamHeaders(std::span<const std::uint8_t> twelveBytes,
                        std::span<const std::uint8_t> hundredThirtySixBytes,
                        std::span<const std::uint8_t> codecConfiguration);

  // From now on files that are finished are remembered for TakeFinished, in the order in which they
  // were begun: one whose end has to be mended first holds up those behind it. They are not
  // continued any more.
  void RememberFinished();
  std::vector<cms::FinishedRecording> TakeFinished();  // those that Flush found since the last call
  bool IsSettled() const;  // no file is open or being closed, and nothing waits to be mended

  cms::RecordingStatus GetRecordingStatus() const;
  std::wstring GetDrvPath() const;  // of the open file; empty when none is

 protected:
  // Record for a frame in pieces.
  bool RecordBlocks(std::span<const std::span<const std::uint8_t>> blocks, int frameKind)
      CMS_REQUIRES(lock_);
  bool HasOpenFile() const CMS_REQUIRES(lock_) { return drv_ >= 0; }
  bool StartRecordAgain();  // with the path and the limits that are stored
  void SetTarget(const wchar_t* path, int sizeMiB, int limit2);

  mutable CMSCritical lock_;
  cms::RecordingStatus status_ CMS_GUARDED_BY(lock_);
  std::wstring address_ CMS_GUARDED_BY(lock_);
  std::wstring siteName_ CMS_GUARDED_BY(lock_);
  std::uint16_t port_ CMS_GUARDED_BY(lock_) = 0;

 private:
  bool HasTarget() const CMS_REQUIRES(lock_);
  bool Fits(std::uint64_t length) const CMS_REQUIRES(lock_);
  bool MustChange() const CMS_REQUIRES(lock_);
  bool IsSilent() const CMS_REQUIRES(lock_);
  bool MayOpen() CMS_REQUIRES(lock_);
  bool Drop() CMS_REQUIRES(lock_);

  // drv_writer_files.cpp
  bool RollOver() CMS_REQUIRES(lock_);
  bool OpenFiles() CMS_REQUIRES(lock_);
  int OpenNamed(std::int64_t startTime) CMS_REQUIRES(lock_);
  void AppendStreamHeaders() CMS_REQUIRES(lock_);
  void CloseFiles(bool failed) CMS_REQUIRES(lock_);
  bool IsDamaged(const std::wstring& drvPath) const CMS_REQUIRES(lock_);
  void NoticeFailure() CMS_REQUIRES(lock_);
  void NoticeVanishedFile() CMS_REQUIRES(lock_);
  void RecordFailed(int error) CMS_REQUIRES(lock_);
  void CountFailure(int error) CMS_REQUIRES(lock_);
  void SettleLateRecords();
  void ForgetSettled() CMS_REQUIRES(lock_);
  void Finish(const cms::LateRecord& late) CMS_REQUIRES(lock_);

  void AddData(std::span<const std::span<const std::uint8_t>> blocks, std::uint64_t length)
      CMS_REQUIRES(lock_);
  void MemoryRecordToFile(bool close) CMS_REQUIRES(lock_);
  void MemoryIdxToFile(bool close) CMS_REQUIRES(lock_);
  void CloseWriteDrvFile() CMS_REQUIRES(lock_);
  void CloseWriteIdxFile() CMS_REQUIRES(lock_);

  std::unique_ptr<std::uint8_t[]> data_ CMS_GUARDED_BY(lock_);
  std::unique_ptr<std::uint8_t[]> idxData_ CMS_GUARDED_BY(lock_);
  std::uint32_t buffered_ CMS_GUARDED_BY(lock_) = 0;
  std::uint32_t idxBuffered_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t bufferedSince_ CMS_GUARDED_BY(lock_) = 0;     // tick of the oldest byte
  std::uint64_t idxBufferedSince_ CMS_GUARDED_BY(lock_) = 0;  // "

  // The open file.
  int drv_ CMS_GUARDED_BY(lock_) = -1;
  int idx_ CMS_GUARDED_BY(lock_) = -1;
  std::shared_ptr<cms::WriteStatus> drvStatus_ CMS_GUARDED_BY(lock_);  // kept behind the close
  std::shared_ptr<cms::WriteStatus> idxStatus_ CMS_GUARDED_BY(lock_);
  std::wstring drvPath_ CMS_GUARDED_BY(lock_);
  std::wstring idxPath_ CMS_GUARDED_BY(lock_);
  cms::FileStatus drvFile_ CMS_GUARDED_BY(lock_);
  std::uint64_t handedOver_ CMS_GUARDED_BY(lock_) = 0;  // in the file or on its way there
  std::uint64_t fileBegin_ CMS_GUARDED_BY(lock_) = 0;   // what was in it when it was opened
  cms::FrameCounts fileCounts_ CMS_GUARDED_BY(lock_);   // accepted since
  bool hasFrame_ CMS_GUARDED_BY(lock_) = false;         // since it was opened
  bool idxIncomplete_ CMS_GUARDED_BY(lock_) = false;
  std::uint64_t lastFrameTick_ CMS_GUARDED_BY(lock_) = 0;
  std::int64_t startTime_ CMS_GUARDED_BY(lock_) = 0;  // of its frames
  std::int64_t endTime_ CMS_GUARDED_BY(lock_) = 0;
  DrvIdx record_ CMS_GUARDED_BY(lock_) = {};
  std::unique_ptr<FX::FX_RecordDBListWriter> recordList_ CMS_GUARDED_BY(lock_);

  // What files are to be.
  std::wstring path_ CMS_GUARDED_BY(lock_);
  std::wstring newPath_ CMS_GUARDED_BY(lock_);
  bool hasNewPath_ CMS_GUARDED_BY(lock_) = false;
  bool forceChange_ CMS_GUARDED_BY(lock_) = false;
  int sizeMiB_ CMS_GUARDED_BY(lock_) = 0;
  int limit2_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t sizeStagger_ CMS_GUARDED_BY(lock_) = 0;
  std::uint32_t flushThreshold_ CMS_GUARDED_BY(lock_) = kBufferSize;
  std::array<std::vector<std::uint8_t>, 3> streamHeaders_ CMS_GUARDED_BY(lock_);

  // After a failure.
  bool started_ CMS_GUARDED_BY(lock_) = false;  // between StartRecord and StopRecord
  std::uint64_t retryTick_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t failureTick_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t retryDelay_ CMS_GUARDED_BY(lock_) = 0;       // milliseconds
  std::vector<cms::LateRecord> late_ CMS_GUARDED_BY(lock_);  // of closed files, until settled
  std::uint64_t settleTick_ CMS_GUARDED_BY(lock_) = 0;
  bool rememberFinished_ CMS_GUARDED_BY(lock_) = false;
  std::vector<cms::FinishedRecording> finished_ CMS_GUARDED_BY(lock_);
  std::wstring lastFinished_ CMS_GUARDED_BY(lock_);  // its .drv file
  CMSCritical settling_;                             // taken before lock_, never inside it
};

}  // namespace CLFX

using CLFX::CLFXDRVWriter;
