// RecordingSeries, the files of a recorder as the thread that brings its frames has them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "cms/recording/drv_format.h"
#include "cms/recording/internal/recording_buffer.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/internal/recording_target.h"
#include "cms/recording/internal/retry_pause.h"
#include "cms/recording/recording_status.h"

namespace cms {

// Which file is open, what of it waits in memory, when the next one is wanted, and how it fares
// after a failure. What CLFXDRVWriter promises of its files is kept here; it says when one is
// begun. Under the writer's lock; nothing waits for the disk, except for room.
class RecordingSeries {
 public:
  explicit RecordingSeries(RecordingStatus& status) : status_(status) {}

  RecordingTarget& Target() { return target_; }
  const RecordingTarget& Target() const { return target_; }
  const std::shared_ptr<RecordingDisk>& Disk() const { return disk_; }  // from the first start on
  const std::shared_ptr<RecordingFile>& File() const { return open_.file; }  // null: none is open

  void NeverWait() { neverWait_ = true; }
  bool NeverWaits() const { return neverWait_; }
  void RememberFinished();

  // Closes what is open and begins the target's file. False when it cannot be begun, unless nobody
  // waits for the disk: then it is tried again.
  bool Start(std::wstring path, int sizeMiB, int limit2);
  bool ConfirmStart(const std::shared_ptr<RecordingFile>& file);  // once its disk has answered
  void Stop();
  bool IsStarted() const { return started_; }

  // What has become of the open file since it was last looked at.
  void Notice();

  // --- Which file -----------------------------------------------------------------------------
  bool HasOpenFile() const { return open_.file != nullptr && !open_.probing; }
  bool HasFrame() const { return open_.file != nullptr && open_.file->accepted.frames > 0; }
  bool IsSilent() const;
  std::uint64_t Number() const { return number_; }  // counts the files
  std::wstring DrvPath() const;                     // of the open file; empty when none is

  void ForceChange() { forceChange_ = true; }
  void ChangePath(std::wstring path);
  bool MayBegin() const { return disk_ && target_.IsWhole(); }
  bool IsDue() const;  // another file although no frame came: to be looked for once a second
  bool Change();       // to the file of the target's start time

  // --- Frames ---------------------------------------------------------------------------------
  bool Begins(bool key);  // whether such a frame may begin a file
  // Whether the next file is to begin with a frame that may begin one.
  bool IsChangeWanted(std::uint64_t length) const;
  bool Takes(std::uint64_t length, bool begins);  // else it is dropped and counted
  std::uint64_t Offset() const;  // of the next byte; from the first frame until the disk answers
  void Add(std::span<const std::span<const std::uint8_t>> blocks, std::uint64_t length);
  void CountFrame(std::uint64_t length, bool key);
  void AddIndex(DrvIdx record);
  void Flush(std::uint32_t age);  // what has waited for so many milliseconds

  RecordingStatus Status() const;

 private:
  // Offsets are known once the disk has opened the file: until then they count from where its
  // frames begin.
  struct Open {
    std::shared_ptr<RecordingFile> file;
    RecordingSlots::Slot slot;
    bool known = false;            // what the disk said of it has been noticed
    bool probing = false;          // takes no frames before it is open
    std::uint64_t begin = 0;       // the offset of its first frame
    std::uint64_t handedOver = 0;  // of its frames' bytes
    std::uint64_t lastFrameTick = 0;
  };

  bool Prepare();
  bool BeginFile();
  void HandOverEnd();
  void CloseFiles(bool failed);
  void NoticeOpened();
  void RecordFailed(int error);
  void CountFailure(int error);
  int PendingError() const;
  bool MayTry() const;
  bool MustChange() const;
  bool Fits(std::uint64_t length) const;
  bool HasRoom(std::uint64_t length, bool begins);
  bool Drop();
  void MemoryRecordToFile(bool last);
  void MemoryIdxToFile(bool last);
  bool HandOver(RecordingPart part, RecordingBuffer& buffer, bool last);

  RecordingStatus& status_;
  RecordingTarget target_;
  std::shared_ptr<RecordingDisk> disk_;
  RecordingBuffer frames_;
  RecordingBuffer index_;
  Open open_;
  std::uint64_t number_ = 0;
  std::uint64_t lastKeyTick_ = 0;  // of a key frame or of the start
  RetryPause pause_;
  bool neverWait_ = false;
  bool rememberFinished_ = false;
  bool started_ = false;  // between Start and Stop
  bool forceChange_ = false;
  bool failing_ = false;  // no file has been opened since a failure
  bool stalled_ = false;  // there was no room for a frame
};

}  // namespace cms
