#include "cms/live/media/frame_buffer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "cms/live/media/internal/slot_ring.h"

CFrameBuffer::CFrameBuffer() = default;

CFrameBuffer::CFrameBuffer(long count, long size) {
  AllocateBuffer(count, size);
}

CFrameBuffer::~CFrameBuffer() = default;

int CFrameBuffer::AllocateBuffer(long count, long size) {
  std::vector<CBuffer> slots = cms::MakeSlotRing(count, size);
  ScopeLock write(writeLock_);
  ScopeLock read(readLock_);
  ScopeLock lock(countLock_);
  slots_ = std::move(slots);
  const bool made = !slots_.empty();
  slotSize_ = made ? size : 0;
  slotCount_ = made ? count : 0;
  frameCount_ = 0;
  running_ = true;
  dataEvent_.Reset();
  CBuffer* const head = made ? &slots_.front() : nullptr;
  readSlot_.store(head, std::memory_order_release);
  writeSlot_.store(made ? head->GetNextBuf() : nullptr, std::memory_order_release);
  return made ? 1 : 0;
}

void CFrameBuffer::ReleaseBuffer() {
  ScopeLock write(writeLock_);
  ScopeLock read(readLock_);
  ScopeLock lock(countLock_);
  readSlot_.store(nullptr, std::memory_order_release);
  writeSlot_.store(nullptr, std::memory_order_release);
  slots_.clear();
  slotSize_ = 0;
  slotCount_ = 0;
  frameCount_ = 0;
}

bool CFrameBuffer::Full(const CBuffer* write) const {
  return write->GetNextBuf() == ReadSlot();
}

long CFrameBuffer::Write(const void* data, long len, int commit) {
  ScopeLock lock(writeLock_);
  if (slotSize_ == 0 || len < 1 || len > slotSize_) {
    return 0;
  }
  CBuffer* const slot = WriteSlot();
  if (Full(slot)) {
    return 0;
  }
  const long copied = slot->WriteBuffer(data, len);
  if (commit != 0) {
    AddData();
  }
  return copied;
}

// The event is raised inside the lock: after it, the reader could have taken the frame and lowered
// the event already, and the late signal would stand over an empty ring.
void CFrameBuffer::AddData() {
  ScopeLock lock(countLock_);
  ++frameCount_;
  CBuffer* const next = WriteSlot()->GetNextBuf();
  next->ResetWriteInfo();
  writeSlot_.store(next, std::memory_order_release);
  dataEvent_.Set();
}

long CFrameBuffer::Read(void* dest, long destSize) {
  ScopeLock lock(readLock_);
  if (slotSize_ == 0 || destSize < slotSize_ || !WaitForData()) {
    return 0;
  }
  CBuffer* const slot = ReadSlot();
  if (slot == WriteSlot()) {
    return 0;
  }
  long got = 0;
  const void* const data = slot->ReadBuffer(destSize, got);
  if (got > 0) {
    std::memcpy(dest, data, static_cast<std::size_t>(got));
  }
  RemoveData(got == 0 ? 1 : 0);
  return got;
}

void CFrameBuffer::RemoveData(int empty) {
  ScopeLock lock(countLock_);
  readSlot_.store(ReadSlot()->GetNextBuf(), std::memory_order_release);
  if (empty == 0) {
    frameCount_ = std::max(frameCount_ - 1, 0L);
  }
  if (frameCount_ == 0 && running_) {
    dataEvent_.Reset();
  }
}

bool CFrameBuffer::IsBufEmpty() const {
  return ReadSlot() == WriteSlot();
}

bool CFrameBuffer::IsBufFull() const {
  const CBuffer* const write = WriteSlot();
  return write == nullptr || Full(write);
}

long CFrameBuffer::GetWriteIdx() const {
  const CBuffer* const slot = WriteSlot();
  return slot != nullptr ? slot->GetIdx() : 0;
}

long CFrameBuffer::GetReadIdx() const {
  const CBuffer* const slot = ReadSlot();
  return slot != nullptr ? slot->GetIdx() : 0;
}

unsigned char* CFrameBuffer::GetWriteBufPos() {
  ScopeLock lock(countLock_);
  CBuffer* slot = WriteSlot();
  if (slot == nullptr) {
    return nullptr;
  }
  if (slot == ReadSlot()) {
    slot = slot->GetNextBuf();
    writeSlot_.store(slot, std::memory_order_release);
  }
  return slot->GetWriteBufPos();
}

unsigned char* CFrameBuffer::ChangeWriteBufPos() {
  ScopeLock lock(countLock_);
  CBuffer* const slot = cms::NextSlot(WriteSlot(), ReadSlot());
  slot->ResetWriteInfo();
  writeSlot_.store(slot, std::memory_order_release);
  return slot->GetWriteBufPos();
}

long CFrameBuffer::GetReadRemnantSize() const {
  return ReadSlot()->GetReadRemnantSize();
}

long CFrameBuffer::GetWriteRemnantSize() const {
  return WriteSlot()->GetWriteRemnantSize();
}

// Walks this ring's slots, so its writer is kept out as well; two rings are locked in the order of
// their addresses, in case somebody copies the other way round.
long CFrameBuffer::BufferCopy(CFrameBuffer* other) {
  const bool inOrder = std::less<>()(this, other);
  ScopeLock first(inOrder ? writeLock_ : other->writeLock_);
  ScopeLock second(inOrder ? other->writeLock_ : writeLock_);
  ScopeLock read(readLock_);
  if (slotSize_ == 0 || other->slotSize_ == 0) {
    return 0;
  }
  for (long pass = 0; pass <= slotCount_ && !IsBufEmpty(); ++pass) {
    if (GetReadRemnantSize() > 0) {
      unsigned char* const place = other->GetWriteBufPos();
      CBuffer* const slot = other->WriteSlot();
      const long got = Read(place, slot->GetWriteRemnantSize());
      if (got > 0) {
        other->TakeMovedFrame(slot, got);
        return got;
      }
    }
    ScopeLock lock(countLock_);
    readSlot_.store(cms::NextSlot(ReadSlot(), WriteSlot()), std::memory_order_release);
  }
  return 0;
}

void CFrameBuffer::TakeMovedFrame(CBuffer* slot, long len) {
  ScopeLock lock(countLock_);
  slot->CommitInPlace(len);
  ChangeWriteBufPos();
  // A step over the read slot leaves nothing queued but what that slot holds.
  const long queued = (GetWriteIdx() - GetReadIdx() + slotCount_) % slotCount_;
  frameCount_ = std::min(frameCount_ + 1, queued);
  dataEvent_.Set();
}

void CFrameBuffer::StopBuffer() {
  ScopeLock lock(countLock_);
  running_ = false;
  frameCount_ = 0;
  dataEvent_.Set();
}

long CFrameBufferNW::Read(void* dest, long destSize) {
  if (IsBufEmpty()) {
    return 0;
  }
  SignalData();
  return CFrameBuffer::Read(dest, destSize);
}

long CFrameBufferNW::Write(const void* data, long len, int commit) {
  return IsBufFull() ? 0 : CFrameBuffer::Write(data, len, commit);
}
