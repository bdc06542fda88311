// ControlWriteFile, the process-wide queue that keeps disk writes off the threads that produce the
// data. The recorders have disk threads of their own, so that one disk does not hold up another;
// this one is for client applications.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"
#include "cms/runtime/file_io.h"

namespace cms {

class NamedThread;

// What became of the buffers that were queued with it; one for each open file, shared by the queue
// and the file's owner, who reads it at any time from any thread.
struct WriteStatus {
  std::atomic<int> error{0};                   // errno of the first failure, 0 while all is well
  std::atomic<std::uint64_t> writtenBytes{0};  // on disk as far as the platform is concerned
  std::atomic<std::uint64_t> lostBytes{0};     // failed or refused
  std::atomic<bool> closed{false};  // the queue closed the file; nothing changes any more
};

}  // namespace cms

// A ring of 200 slots and one thread that writes them in order. Whoever queues a buffer keeps it:
// it is copied. A close travels through the ring like data, so that a file is closed behind its
// last buffer. From a file's first buffer on the file belongs to the queue until its close: nobody
// else writes it or closes it.
//
// Producers never wait for the disk, unless all slots are taken. Nothing is allocated for a write;
// the 100 MiB of slots are reserved at once, but a slot's memory costs nothing before it is used,
// and the memory used last is used first.
//
// A write that fails is retried where that helps (interrupted, "try again", partly done). When it
// does not help, what was written stays, and everything behind it for that file is refused and
// counted as lost until the file is closed: no later buffer ever stands behind a hole.
//
// Any thread may call any member.
class CMS_API ControlWriteFile {
 public:
  static constexpr std::uint32_t kSlots = 200;
  static constexpr std::uint32_t kSlotSize = 524'288;

  // The queue of the process, made on first use. At the end of the process it is drained.
  static ControlWriteFile* GetInstance();

  // A queue of its own over a file edge of its own, for tests; nullptr is the edge in force.
  explicit ControlWriteFile(cms::FileIo* io = nullptr);
  ~ControlWriteFile();
  ControlWriteFile(const ControlWriteFile&) = delete;
  ControlWriteFile& operator=(const ControlWriteFile&) = delete;

  // Queues one write of at most kSlotSize bytes (none at all is fine), then the close if asked for.
  // Blocks while all slots are taken. False, with nothing queued and nothing closed, after stop,
  // for an invalid handle (-1) and for a length that does not fit.
  bool AddToQueue(int handle, const void* data, std::uint32_t length, bool closeAfter,
                  std::shared_ptr<cms::WriteStatus> status = nullptr);

  // Takes no more, writes what is queued, and waits for the thread to end.
  void stop();

  // Waits until what is queued at this moment has been written, at most the given milliseconds
  // (negative: without limit); false on time-out.
  bool WaitWritten(int milliseconds);

  std::uint32_t QueuedSlots() const { return queued_.load(std::memory_order_relaxed); }
  std::uint64_t LostBytes() const { return lostBytes_.load(std::memory_order_relaxed); }

 private:
  struct Slot {
    cms::Event filled;
    int handle = -1;
    bool closeAfter = false;
    std::uint8_t* buffer = nullptr;  // nullptr when length is 0
    std::uint32_t length = 0;
    std::shared_ptr<cms::WriteStatus> status;
  };

  void WriteQueueThrd();
  void WriteQueueFn();
  void WriteSlot(Slot& slot);
  void CloseSlot(Slot& slot);
  cms::FileIo& Io() const { return io_ != nullptr ? *io_ : cms::CurrentFileIo(); }
  std::uint8_t* TakeBuffer();
  void GiveBuffer(std::uint8_t* buffer);

  cms::FileIo* const io_;
  std::unique_ptr<std::uint8_t[]> memory_;
  std::array<Slot, kSlots> slots_;

  CMSCritical buffersLock_;
  std::vector<std::uint8_t*> freeBuffers_ CMS_GUARDED_BY(buffersLock_);

  CMSCritical fillLock_;  // held while a producer waits for room: the others queue up behind it
  std::uint32_t fill_ CMS_GUARDED_BY(fillLock_) = kSlots - 1;
  cms::Event room_;
  std::atomic<std::uint64_t> claimed_{0};  // slots ever taken; written under fillLock_
  std::atomic<std::uint32_t> queued_{0};
  std::atomic<bool> running_{false};  // written under fillLock_

  // The thread's own.
  std::uint32_t drain_ = kSlots - 1;
  std::vector<int> failedHandles_;

  cms::Event work_;
  std::atomic<std::uint64_t> done_{0};
  cms::Event progress_;
  CMSCritical waiterLock_;  // one WaitWritten at a time: it resets the event
  std::atomic<std::uint64_t> lostBytes_{0};

  CMSCritical threadLock_;
  std::unique_ptr<cms::NamedThread> thread_ CMS_GUARDED_BY(threadLock_);
};
