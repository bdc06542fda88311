// RecordingFiles, a recorder's files as its disk thread has them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/file_record.h"
#include "cms/recording/internal/open_recording.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/recording_status.h"

namespace cms {

// Which file is open, and which of those before it are owed something: their end is to be mended,
// or their record to be stored.
//
// A file that cannot be opened does not end the one before it: that one goes on, and takes the
// frames that were meant for the new one. Files that got no frame are removed again.
//
// Of the disk thread alone, RememberFinished apart; what is asked of it waits for the disk.
class RecordingFiles {
 public:
  // What happened behind the recorder's back.
  struct Counts {
    std::uint64_t lostBytes = 0;
    FrameCounts lost;
    std::uint64_t failures = 0;
    int lastError = 0;
    std::uint64_t lateRecords = 0;
  };

  void Open(const std::shared_ptr<RecordingFile>& file);
  void Write(RecordingPart part, std::span<std::uint8_t> bytes);  // of the file opened last
  void Close(bool counted);  // `counted`: it failed, which the recorder knows
  void LookForFile();        // notices when it has vanished

  // Mends and stores; what failed shortly before is left alone unless it is the `last` time. True
  // when another thread was in the way.
  bool Settle(bool last);
  void FinishSettled();  // in the order in which they were begun, for TakeFinished

  // From now on files that are finished are remembered, and not continued any more. Any thread.
  void RememberFinished() { rememberFinished_.store(true, std::memory_order_relaxed); }
  bool IsRemembering() const { return rememberFinished_.load(std::memory_order_relaxed); }
  std::vector<FinishedRecording> TakeFinished();

  bool IsOpen() const { return current_.IsOpen() || current_.IsInUse(); }
  std::uint64_t Unsettled() const { return late_.size(); }
  const Counts& GetCounts() const { return counts_; }

 private:
  int OpenNew(const RecordingFile& file, OpenRecording& next);
  int OpenNamed(const RecordingFile& file, OpenRecording& next) const;
  bool IsLate(const std::wstring& drvPath, bool damaged) const;
  void NoteFailure(int error);
  void Finish(const FileRecord& record);
  void CountLost(std::uint64_t bytes, const FrameCounts& accepted, const FrameCounts& kept);

  std::atomic<bool> rememberFinished_{false};
  OpenRecording current_;
  std::vector<FileRecord> late_;
  std::wstring lastFinished_;  // its .drv file
  std::vector<FinishedRecording> finished_;
  bool wasFull_ = false;  // the last failure was for want of space
  std::uint64_t settleTick_ = 0;
  Counts counts_;
};

}  // namespace cms
