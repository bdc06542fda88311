// CLFXDRVWriter: frames into a rolling series of .drv and .idx files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/recording/drv_format.h"
#include "cms/recording/recording_status.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace cms {

class RecordingSeries;
struct RecordedDevice;

// A recording that is written, closed and listed.
struct FinishedRecording {
  std::wstring drvPath;
  std::wstring idxPath;
};

// What became of a task of the disk thread.
enum class DiskTaskResult {
  kDone,
  kBusy,    // another thread is in the way: to be tried again shortly
  kFailed,  // to be tried again later
};

inline constexpr int kBeginsFile = 0;  // a frame that may begin a file: a key frame
inline constexpr int kDependent = 1;
inline constexpr int kSoundAlone = 2;  // a block of sound that may begin a file

// How long frames may wait in memory when the owner's clock calls Flush every second, and the age
// that makes it so. The queue's own work is the rest of the five seconds that may ever be lost.
inline constexpr std::uint32_t kFlushAgeMilliseconds = 3000;

}  // namespace cms

namespace CLFX {

// One for each site. Frames gather in a buffer of 512 KiB, their index records in another; both are
// handed to the recorder's own disk thread when they are full, when Flush finds them old, and
// before the file is closed. The next file begins with the first key frame behind the size limit,
// behind SetForceChangeFile, ChangeRecordFile or ChangeRecordPath, so that every file begins with a
// key frame and every frame is in exactly one file. A stream that shows no key frame for ten
// seconds is recorded as it comes.
//
// Files are named path + local time + ".drv" and ".idx"; the path is a folder and the front of a
// name, "C:\recordings\20240229\Rec_Site1_". A file that exists is continued at its end, one that
// another recorder holds is passed over for the next second's name, and one that would be begun
// within the second of the file before it is that file, which stays open. A file that got no frame
// is removed when it is closed.
//
// The disk thread opens the files too: frames are accepted meanwhile. When a new file cannot be
// opened the one before it goes on. When there is none, or when a write fails, the file is closed
// behind its last written byte, and frames are dropped and counted. The thread then mends the
// file's end and its index; files are tried again after a pause that grows from one second to
// thirty, once there is space if the disk was full, and the next key frame begins one.
//
// Threads: Record and what goes with it on the receiving thread, everything else on any. The
// virtual operations are called with lock_ held or not; it is recursive, and nothing waits for the
// disk with it, except that Record waits for room while 80 MiB wait for a slow disk (see
// NeverWaitForDisk). Nothing is allocated for a frame. Destruction, and the end of the process,
// write what was accepted, but do not wait for a disk that does not answer.
class CMS_API CLFXDRVWriter {
 public:
  static constexpr std::uint32_t kBufferSize = 524'288;

  CLFXDRVWriter();
  virtual ~CLFXDRVWriter();
  CLFXDRVWriter(const CLFXDRVWriter&) = delete;
  CLFXDRVWriter& operator=(const CLFXDRVWriter&) = delete;

  // Closes what is open and opens the path's file: waits until that is done, but no longer than
  // three seconds, and it goes on behind them. Both limits have to be at least 1: the size in MiB
  // behind which a file ends, and a limit that is kept only; when that is 1, files have no stream
  // header blocks. The last two arguments are not used.
  virtual bool StartRecord(const wchar_t* path, int sizeMiB, int limit2, int value3,
                           const wchar_t* text5);

  // For the caller's clock: the next key frame begins a new file. A file that has no frame yet, or
  // whose stream is silent, is changed without waiting for one. False when nothing is open.
  virtual bool ChangeRecordFile();

  virtual void SetForceChangeFile();  // the next key frame begins a new file

  // Appends one frame: header, extension and payload. False when it was dropped.
  virtual bool Record(const void* data, std::uint32_t length, int frameKind);

  // Goes over to the path that ChangeRecordPath left and has the file of the path's start time
  // opened in the place of the one before; nothing happens when that file is open.
  virtual bool ChangeFile();

  virtual bool IsRecording();  // whether a .drv file is open

  // Hands over what has waited for at least `age` milliseconds, notices failed writes, has settled
  // what they left behind, and begins a file again when its time has come. For the owner's clock,
  // about once a second.
  virtual void Flush(std::uint32_t age = cms::kFlushAgeMilliseconds);

  void StopRecord();
  void SetRecordTime(std::int64_t time);  // widens the record of the open file

  // Where the next frame's header will stand in the open file; 0 when none is open.
  std::uint32_t GetDrvOffset() const;
  void SetDrvIdx(const DrvIdx& record);  // what WriteDrvIdx appends; Record moves its offset along
  void WriteDrvIdx();

  // Where relative paths count from (cms/recording/data_root.h). Before a path is given.
  void SetDataRoot(const std::string& folder);

  void ChangeRecordPath(const wchar_t* path);  // from the next file on; at once when none is open

  // What the records of files say; for files begun from now on. Null texts are empty ones.
  void SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port);

  // Blocks in front of every new file: the first if it is there, else the second, then the third.
  // Empty spans take them away.
  void SetStreamHeaders(std::span<const std::uint8_t> twelveBytes,
                        std::span<const std::uint8_t> hundredThirtySixBytes,
                        std::span<const std::uint8_t> codecConfiguration);

  // From now on nothing waits for the disk, and a recording that was started goes on until it is
  // stopped: StartRecord returns at once, a file that cannot be opened is tried again and again,
  // and frames for which there is no room are dropped and counted, up to the next key frame, with
  // ETIMEDOUT as the error. Before the first start.
  void NeverWaitForDisk();

  // Whether the file of a recording that was started can be written to: waits for it to be opened,
  // and asks for that once more when it failed. True also when the disk has not answered by then.
  bool WaitOpened(int milliseconds);

  // Hands over what there is and waits until it is written, closed files are mended and the records
  // of files and events are stored, or cannot be at the moment. False when the time has run out.
  bool WaitRecorded(int milliseconds);

  // From now on files that are finished are remembered for TakeFinished, in the order in which they
  // were begun: one whose end has to be mended first holds up those behind it. They are not
  // continued any more, nor is what an earlier recorder left.
  void RememberFinished();
  std::vector<cms::FinishedRecording> TakeFinished();  // those that Flush found since the last call
  // No file is open or being closed, and nothing waits to be mended or to be taken.
  bool IsSettled() const;

  cms::RecordingStatus GetRecordingStatus() const;
  // Of the open file, with the data root in front; empty when none is.
  std::wstring GetDrvPath() const;

 protected:
  // Record for a frame in pieces.
  bool AddData(std::span<const std::span<const std::uint8_t>> blocks, int frameKind)
      CMS_REQUIRES(lock_);
  std::uint64_t FileNumber() const CMS_REQUIRES(lock_);  // counts them
  const cms::RecordedDevice& Device() const CMS_REQUIRES(lock_);
  // In front of SetRecordTime, when the clock has been set: the open file gets one record more, for
  // the times from here on. False when the time goes on from the record that there is.
  bool BeginRecordSpan(std::int64_t time) CMS_REQUIRES(lock_);
  bool StartRecordAgain();  // with the path and the limits that are stored
  bool GoesOn() const;      // started, and nothing but StopRecord ends it
  void SetTarget(const wchar_t* path, int sizeMiB, int limit2);
  std::string DataRoot() const;
  std::wstring FrontOfPath() const;  // of the current file, up to the stamp

  // Has the disk thread do it behind what it was given before, again and again until it is done.
  void DoOnDisk(std::function<cms::DiskTaskResult()> task);

  // At the end of the process `stop` ends what is still recorded, up to NoExitStop.
  void AtExit(std::function<void()> stop);
  void NoExitStop();

  mutable CMSCritical lock_;
  cms::RecordingStatus status_ CMS_GUARDED_BY(lock_);

 private:
  bool RollOver() CMS_REQUIRES(lock_);
  std::wstring Located(const wchar_t* path) const CMS_REQUIRES(lock_);

  const std::unique_ptr<cms::RecordingSeries> series_ CMS_GUARDED_BY(lock_);
  DrvIdx record_ CMS_GUARDED_BY(lock_) = {};
};

}  // namespace CLFX

using CLFX::CLFXDRVWriter;
