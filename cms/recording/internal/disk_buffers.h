// DiskBuffers, the bounded memory in which a recorder's bytes wait for its disk.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace cms {

// kOwn buffers for each recorder, as many more as the process has to spare, kMost at most: a long
// pre-alarm comes at once. Nothing is allocated while kOwn do. Not for concurrent use, but for what
// recorders share.
class DiskBuffers {
 public:
  static constexpr std::uint32_t kSize = 524'288;  // of each
  static constexpr unsigned kOwn = 8;
  static constexpr unsigned kMost = 160;
  static constexpr unsigned kSpare = 400;  // of the process

  DiskBuffers();  // none when memory is short
  bool IsReady() const { return memory_ != nullptr; }

  // Another recorder may take a spare one meanwhile.
  unsigned Free() const;

  // One of the recorder's own if there is any, of those the one used last: it is in the processor's
  // cache. Null when there is none.
  std::uint8_t* Take();
  void Give(std::uint8_t* buffer);

 private:
  std::unique_ptr<std::uint8_t[]> memory_;
  std::vector<std::uint8_t*> own_;  // free parts of it
  unsigned spareUsed_ = 0;
};

}  // namespace cms
