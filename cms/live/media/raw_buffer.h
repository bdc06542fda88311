// CRawBuffer, a growable byte array in which frames are assembled.
#pragma once

#include <atomic>
#include <memory>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

// Bytes up to a maximum; every change is locked. Data() is valid until the next Append, and only
// the thread that appends and erases may look at the bytes. cms::kInputPadding bytes behind
// the capacity are readable too, so that a frame can be decoded where it lies.
class CMS_API CRawBuffer {
 public:
  static constexpr long kDefaultMaximum = 10240;
  static constexpr long kDefaultCapacity = 1024;

  CRawBuffer();  // takes the default capacity at the first Append
  CRawBuffer(long capacity, long maximum);
  CRawBuffer(const CRawBuffer&) = delete;
  CRawBuffer& operator=(const CRawBuffer&) = delete;
  virtual ~CRawBuffer();

  // Begins anew with an empty block of `capacity` bytes; pointers from Data() die. 1, or 0 when the
  // memory does not suffice.
  int AllocateMemory(long capacity, long maximum);

  // 1, or 0 without effect when the maximum would be passed or there is no memory. A block that is
  // too small grows by exactly `len`.
  int Append(const void* data, long len);

  // Removes `len` bytes at `offset`: 1. Beyond the length it returns 0 with the lock still held, so
  // that the next change from another thread blocks: never erase beyond the length.
  int Erase(long offset, long len) CMS_NO_THREAD_SAFETY_ANALYSIS;

  int Clear();                    // keeps the storage; 1
  int Insert(long, char*, long);  // does nothing; 0

  unsigned char* Data();  // nullptr before there is storage
  long Length() const { return length_.load(std::memory_order_relaxed); }
  long Capacity() const { return capacity_.load(std::memory_order_relaxed); }

 protected:
  void ReleaseMemory();

  // Sets the sizes and leaves the storage to the first Append.
  void InitialVariable(long capacity, long maximum);

 private:
  struct Free {
    void operator()(unsigned char* block) const;
  };

  bool Fits(long len) const;
  bool Reserve(long capacity) CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::unique_ptr<unsigned char[], Free> data_ CMS_GUARDED_BY(lock_);
  std::atomic<long> length_{0};
  std::atomic<long> maximum_{kDefaultMaximum};
  std::atomic<long> capacity_{kDefaultCapacity};
};
