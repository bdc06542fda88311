// RecordingDisk, the thread that does all disk work of one recorder.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/disk_buffers.h"
#include "cms/recording/internal/open_recording.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_files.h"
#include "cms/runtime/critical.h"

namespace cms {

// Opens, writes and closes a recorder's files in the order in which it was asked to, mends what
// failed writes leave behind, and stores the records of files and events. Each recorder has one, so
// that a disk that does not answer holds up nobody else: it waits for no database that another
// thread holds, but looks again a little later.
//
// Buffers are copied and wait in a bounded memory (DiskBuffers), whose last kReserved are for the
// ends of files.
//
// Open, Write and Close are called by one thread at a time, everything else by any. Members whose
// name does not begin with "Wait" never wait for the disk, unless they are told to wait for room.
class RecordingDisk {
 public:
  static constexpr unsigned kReserved = 2;

  using Task = std::function<DiskTaskResult()>;

  // Null when the system has no thread or no memory for it.
  static std::shared_ptr<RecordingDisk> Start();
  RecordingDisk();
  ~RecordingDisk();
  RecordingDisk(const RecordingDisk&) = delete;
  RecordingDisk& operator=(const RecordingDisk&) = delete;

  // Whether so many buffers, or another file, would be taken at once.
  bool HasRoom(unsigned buffers) const;
  bool MayOpen() const;
  unsigned Waiting() const;  // jobs that are not done
  // For how many milliseconds the oldest of them has waited, the one in work included.
  std::uint64_t OldestMilliseconds() const;

  // Ends the file before it; `wait` as for Write.
  bool Open(const std::shared_ptr<RecordingFile>& file, bool wait);
  // Of the file that was opened last; at most DiskBuffers::kSize. The offsets of index records
  // count from where its frames begin. `last` may use what is reserved. False when there is no
  // room.
  bool Write(RecordingPart part, std::span<const std::uint8_t> bytes, bool last, bool wait);
  // `counted`: the recorder knows that it failed, and its end has to be mended.
  void Close(bool counted);

  void Look();            // notice a file that vanished, settle what is late, tell what is finished
  void Store(Task task);  // done behind those before it, again and again until it is kDone

  bool WaitOpened(const RecordingFile& file, int milliseconds) const;
  // Until nothing is left to be done that can be done now; negative: without limit. With `giveUp`
  // also no longer than it takes to see that the disk does not answer.
  bool WaitIdle(int milliseconds, bool giveUp = false) const;
  static bool WaitAll(int milliseconds, bool giveUp = false);  // for those of the process

  // Does what is left and ends the thread: waits for it, but not for a disk that does not answer;
  // the thread then goes on alone.
  void End();

  RecordingFiles::Counts GetCounts() const;
  std::size_t Tasks() const;  // that are not done
  bool IsSettled() const;  // no file is open, waits, is owed anything, or is left for TakeFinished
  void RememberFinished();
  std::vector<FinishedRecording> TakeFinished();

 private:
  enum class Kind { kOpen, kWrite, kClose };
  struct Job {
    Kind kind = Kind::kClose;
    RecordingPart part = RecordingPart::kDrv;
    bool counted = false;
    std::uint32_t length = 0;
    std::uint64_t since = 0;  // milliseconds of the steady clock
    std::uint8_t* buffer = nullptr;
    std::shared_ptr<RecordingFile> file;
  };
  static constexpr unsigned kMostJobs = 256;
  static constexpr unsigned kReservedJobs = kReserved + 2;  // the end of a file, and its close

  std::uint8_t* TakeBuffer(unsigned reserved, bool wait);
  bool HasBuffer(unsigned reserved) const CMS_REQUIRES(lock_);
  bool HasJobs(unsigned jobs) const CMS_REQUIRES(lock_) { return count_ + jobs <= kMostJobs; }
  void Push(Job job);
  bool IsIdle() const CMS_REQUIRES(lock_);
  bool Await(int milliseconds, bool giveUp, const std::function<bool()>& done) const
      CMS_REQUIRES(lock_);

  // The thread's.
  void Work();
  void Do(Job& job);
  bool Settle(bool look, bool last);
  bool DoTasks();
  void Publish() CMS_REQUIRES(lock_);

  RecordingFiles files_;  // the thread's

  mutable CMSCritical lock_;  // nothing waits for the disk with it
  mutable std::condition_variable_any changed_;
  DiskBuffers buffers_ CMS_GUARDED_BY(lock_);
  std::array<Job, kMostJobs> jobs_ CMS_GUARDED_BY(lock_);
  unsigned first_ CMS_GUARDED_BY(lock_) = 0;
  unsigned count_ CMS_GUARDED_BY(lock_) = 0;
  std::deque<Task> tasks_ CMS_GUARDED_BY(lock_);
  bool look_ CMS_GUARDED_BY(lock_) = false;
  bool settle_ CMS_GUARDED_BY(lock_) = false;
  bool again_ CMS_GUARDED_BY(lock_) = false;  // somebody holds a database
  bool ending_ CMS_GUARDED_BY(lock_) = false;
  bool ended_ CMS_GUARDED_BY(lock_) = false;
  // Milliseconds of the steady clock; 0: it waits for work.
  std::uint64_t busySince_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t workSince_ CMS_GUARDED_BY(lock_) = 0;  // since when the job in work was asked for

  // Of the files, as the thread last published them.
  bool isOpen_ CMS_GUARDED_BY(lock_) = false;
  std::uint64_t unsettled_ CMS_GUARDED_BY(lock_) = 0;
  std::vector<FinishedRecording> finished_ CMS_GUARDED_BY(lock_);
  RecordingFiles::Counts counts_ CMS_GUARDED_BY(lock_);
};

}  // namespace cms
