// Whether a disk takes data, asked without waiting for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace tools {

// A thread of its own writes one block again and again, past the page cache, so that it waits for
// the device and not for what others have written. That thread is never waited for, as a disk that
// hangs lets go of nobody: it ends once this is gone and the disk lets it.
class DiskProbe {
 public:
  enum class Failing { kWaits, kIsNoWait };  // a disk that refuses the block

  // The block is in the folder's file fleet.probe. Where `mount` is not empty, only while a disk is
  // mounted there.
  DiskProbe(std::string folder, std::string mount, Failing failing);
  ~DiskProbe();
  DiskProbe(const DiskProbe&) = delete;
  DiskProbe& operator=(const DiskProbe&) = delete;

  // Milliseconds that the disk has not taken the block for; 0: it has taken the last one.
  std::int64_t Waits() const;

 private:
  struct Shared {
    std::atomic<bool> ends = false;
    std::atomic<std::int64_t> since = 0;  // steady milliseconds; 0: nothing waits
  };
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

}  // namespace tools
