// CFrameBuffer, the bounded queue of frames between two threads, and its non-waiting variant.
#pragma once

#include <atomic>
#include <vector>

#include "cms/live/media/buffer.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"

// A ring of slots, one frame or packet each, between one writing and one reading thread; several
// writers, or several readers, take turns. The ring holds at most slot count - 1 frames, and what
// does not fit is refused: the newest is dropped. Storage is allocated once with the ring; a frame
// is copied once in and once out. A writer never waits for a reader's copy, nor the other way
// round.
//
// The write slot starts one ahead of the read slot, so the first slot counts as an empty frame: the
// first Read that finds a frame returns 0, the next one the frame.
//
// Locks: the write lock spans Write, the read lock Read, the count lock (Lock/UnLock) only the move
// of the slots and the frame count. Order: a write lock, then a read lock, then the count lock.
class CMS_API CFrameBuffer {
 public:
  CFrameBuffer();  // no storage: everything is refused until AllocateBuffer
  CFrameBuffer(long count, long size);
  CFrameBuffer(const CFrameBuffer&) = delete;
  CFrameBuffer& operator=(const CFrameBuffer&) = delete;
  virtual ~CFrameBuffer();

  // A new ring of `count` slots of `size` bytes in place of any earlier one. 1, or 0 when the
  // memory does not suffice; then everything is refused. Neither this nor ReleaseBuffer may run
  // while another thread uses anything but Read and Write.
  int AllocateBuffer(long count, long size);
  void ReleaseBuffer();

  // Appends `len` bytes to the frame being written and, with `commit`, queues it. Returns the bytes
  // copied: 0 when the ring is full or `len` is not within 1 and the slot size; of a frame longer
  // than a slot the end is cut off.
  long Write(const void* data, long len, int commit);

  // Takes the oldest frame. Waits up to 15 ms for one, not at all once stopped. `dest` must offer a
  // whole slot (else 0). Returns the bytes copied, 0 also for the empty first frame.
  long Read(void* dest, long destSize);

  bool IsBufEmpty() const;
  bool IsBufFull() const;  // also without storage
  long GetWriteIdx() const;
  long GetReadIdx() const;

  // The place behind what is already in the write slot, for the writing thread to fill in place;
  // nullptr without storage.
  unsigned char* GetWriteBufPos();

  // Moves the oldest frame into `other`, where it becomes readable. Returns its bytes, 0 when there
  // was none or it does not fit `other`'s slots (then it is lost). In a full `other` the frames
  // behind the one being read are overwritten.
  long BufferCopy(CFrameBuffer* other);

  // Hold the count lock across several operations.
  void Lock() CMS_ACQUIRE(countLock_) { countLock_.Lock(); }
  void UnLock() CMS_RELEASE(countLock_) { countLock_.UnLock(); }

  // Releases a waiting reader and lets none wait any more.
  void StopBuffer();

  // Waits until a frame is queued or the buffer is stopped (true), at most the given milliseconds
  // (negative: without limit).
  bool WaitForFrame(int milliseconds) { return dataEvent_.Wait(milliseconds); }

 protected:
  unsigned char* ChangeWriteBufPos();
  long GetReadRemnantSize() const;
  long GetWriteRemnantSize() const;
  void AddData();
  void RemoveData(int empty);
  bool WaitForData() { return dataEvent_.Wait(readWait_); }
  void SignalData() { dataEvent_.Set(); }

 private:
  CBuffer* WriteSlot() const { return writeSlot_.load(std::memory_order_acquire); }
  CBuffer* ReadSlot() const { return readSlot_.load(std::memory_order_acquire); }
  bool Full(const CBuffer* write) const;
  void TakeMovedFrame(CBuffer* slot, long len);

  bool running_ CMS_GUARDED_BY(countLock_) = false;
  int readWait_ = 15;  // milliseconds
  // These three change only with all locks held, so any lock allows to read them.
  long slotSize_ = 0;
  long slotCount_ = 0;
  std::vector<CBuffer> slots_;
  long frameCount_ CMS_GUARDED_BY(countLock_) = 0;
  cms::Event dataEvent_;
  // Moved under the count lock; the slot itself belongs to the writing or the reading side.
  std::atomic<CBuffer*> readSlot_{nullptr};
  std::atomic<CBuffer*> writeSlot_{nullptr};
  CMSCritical countLock_;
  CMSCritical writeLock_;
  CMSCritical readLock_;
};

// The same ring for a reader that never waits.
class CMS_API CFrameBufferNW : public CFrameBuffer {
 public:
  using CFrameBuffer::CFrameBuffer;
  long Read(void* dest, long destSize);
  long Write(const void* data, long len, int commit);
};
