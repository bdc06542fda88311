// RecordingDisk, the thread that does all disk work of one recorder.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/late_record.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_pair.h"
#include "cms/recording/recording_status.h"

namespace cms {

// Opens, writes and closes a recorder's files in the order in which it was asked to, mends what
// failed writes leave behind, and stores the records of files and events. Each recorder has one, so
// that a disk that does not answer holds up nobody else: it waits for no database that another
// thread holds, but looks again a little later.
//
// Buffers are copied and wait in a bounded memory: kOwnBuffers for each recorder, as many more as
// the process has to spare, kMostBuffers at most (a long pre-alarm comes at once); the last
// kReserved are for the ends of files. Nothing is allocated while kOwnBuffers do.
//
// A file that cannot be opened does not end the one before it: that one goes on, and takes the
// frames that were meant for the new one. Files that got no frame are removed again.
//
// Open, Write and Close are called by one thread at a time, everything else by any. Members whose
// name does not begin with "Wait" never wait for the disk, unless they are told to wait for room.
class RecordingDisk : public std::enable_shared_from_this<RecordingDisk> {
 public:
  static constexpr std::uint32_t kBufferSize = 524'288;
  static constexpr unsigned kOwnBuffers = 8;
  static constexpr unsigned kMostBuffers = 160;
  static constexpr unsigned kReserved = 2;
  static constexpr unsigned kSpareBuffers = 400;  // of the process

  enum class Part { kDrv, kIdx };
  using Task = std::function<DiskTaskResult()>;

  // What happened behind the recorder's back.
  struct Counts {
    std::uint64_t lostBytes = 0;
    FrameCounts lost;
    std::uint64_t failures = 0;
    int lastError = 0;
    std::uint64_t lateRecords = 0;
    std::uint64_t tasks = 0;  // that are not done
  };

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

  // Ends the file before it; `wait` as for Write.
  bool Open(const std::shared_ptr<RecordingFile>& file, bool wait);
  // Of the file that was opened last; at most kBufferSize. The offsets of index records count from
  // where its frames begin. `last` may use what is reserved. False when there is no room.
  bool Write(Part part, const std::uint8_t* data, std::uint32_t length, bool last, bool wait);
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

  Counts GetCounts() const;
  bool IsSettled() const;  // no file is open, waits, is owed anything, or is left for TakeFinished
  void RememberFinished();
  std::vector<FinishedRecording> TakeFinished();

 private:
  enum class Kind { kOpen, kWrite, kClose };
  struct Job {
    Kind kind = Kind::kClose;
    Part part = Part::kDrv;
    bool counted = false;
    std::uint32_t length = 0;
    std::uint8_t* buffer = nullptr;
    std::shared_ptr<RecordingFile> file;
  };
  static constexpr unsigned kMostJobs = 256;
  static constexpr unsigned kReservedJobs = kReserved + 2;  // the end of a file, and its close

  // The files that are open, and whose frames go into them: of the last one asked for, and of those
  // before it that it had to take over.
  struct Current {
    RecordingPair pair;
    std::wstring drvPath;
    std::wstring idxPath;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    bool fresh = false;  // made for them
    int error = 0;
    std::vector<std::shared_ptr<RecordingFile>> parts;
    bool IsOpen() const { return pair.drv >= 0; }
  };

  using Lock = std::unique_lock<std::mutex>;
  std::uint8_t* TakeBuffer(unsigned reserved, bool wait);
  void GiveBuffer(std::uint8_t* buffer);
  unsigned FreeBuffers() const;
  bool HasJobs(unsigned jobs) const;
  void Push(Job job);
  bool IsIdle() const;
  bool Await(Lock& lock, int milliseconds, bool giveUp, const std::function<bool()>& done) const;

  // The thread's.
  void Work();
  void Do(Job& job);
  void OpenFile(const std::shared_ptr<RecordingFile>& file);
  int OpenNew(const RecordingFile& file, Current& next);
  int OpenNamed(const RecordingFile& file, std::int64_t time, Current& next);
  bool MayTake(const RecordingPair& pair, const std::wstring& drvPath) const;
  int BeginNew(const RecordingFile& file, Current& next) const;
  void WriteBuffer(Job& job);
  void Fail(int error);
  void CloseFile(bool counted);
  void LookForFile();
  bool Settle();
  bool SettleFiles();
  bool DoTasks();
  void ForgetSettled();
  void Finish(const LateRecord& late);
  void CountLost(std::uint64_t bytes, const FrameCounts& accepted, const FrameCounts& kept);

  Current current_;
  std::vector<LateRecord> late_;
  std::wstring lastFinished_;  // its .drv file
  bool wasFull_ = false;       // the last failure was for want of space
  std::uint64_t settleTick_ = 0;

  mutable std::mutex mutex_;  // guards all below; nothing waits for the disk with it
  mutable std::condition_variable changed_;
  std::unique_ptr<std::uint8_t[]> memory_;
  std::vector<std::uint8_t*> free_;  // parts of it
  unsigned spareUsed_ = 0;
  std::array<Job, kMostJobs> jobs_;
  unsigned first_ = 0;
  unsigned count_ = 0;
  std::deque<Task> tasks_;
  bool look_ = false;
  bool settle_ = false;
  bool again_ = false;  // somebody holds a database
  bool ending_ = false;
  bool ended_ = false;
  std::uint64_t busySince_ = 0;  // milliseconds of the steady clock; 0: it waits for work
  bool isOpen_ = false;
  bool rememberFinished_ = false;
  std::uint64_t unsettled_ = 0;  // files
  std::vector<FinishedRecording> finished_;
  Counts counts_;
};

}  // namespace cms
