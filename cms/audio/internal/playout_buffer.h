// PlayoutBuffer stands between blocks that arrive when they like and a card that plays steadily.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

struct PcmFormat {
  std::uint32_t sampleRate = 0;
  std::uint32_t channels = 0;
  bool operator==(const PcmFormat&) const = default;
};

// 16-bit samples, first in, first out, with the format of each run. One thread puts, one takes.
//
// After a silence nothing is given out until the wanted delay has come together. A card that is
// slower than the camera would pile the sound up over the hours, one that is faster would run dry
// again and again: once in 800 samples one more is put into, or left out of, what is given out
// (spread over its neighbours), until the delay is the wanted one again. A pile beyond
// what that can mend (a camera that sends a backlog) is cut at its old end.
//
// Nothing is allocated after construction.
class PlayoutBuffer {
 public:
  PlayoutBuffer(std::size_t capacityBytes, std::uint32_t delayMs);

  // Queues whole frames (a sample for each channel), of which the oldest are cut if they do not
  // fit. Returns the frames that were cut.
  std::size_t Put(PcmFormat format, std::span<const std::int16_t> samples);

  // The format of what Take gives next; a sample rate of 0 when the buffer is empty.
  PcmFormat NextFormat() const;
  std::size_t QueuedFrames() const;  // of that format

  // Whether enough has come together. `waited`: no more came for a while, so what is there counts.
  bool IsPrimed(bool waited);
  void RanDry();  // the card did; the delay is to come together anew

  // Fills at most `out` with frames of the next format; returns how many frames were written.
  // `deviceFrames`: what the card has got and not yet played, 0 where it does not pace.
  std::size_t Take(std::span<std::int16_t> out, std::size_t deviceFrames);

  void Clear();
  std::uint64_t CutFrames() const;

 private:
  struct Run {
    PcmFormat format;
    std::size_t samples = 0;
  };

  std::size_t Delay(std::uint32_t milliseconds, const PcmFormat& format) const;
  void Cut(std::size_t samples) CMS_REQUIRES(lock_);
  void Copy(std::span<std::int16_t> out) CMS_REQUIRES(lock_);
  int Correction(const Run& run, std::size_t deviceFrames) CMS_REQUIRES(lock_);

  static constexpr std::size_t kRuns = 16;

  const std::uint32_t delayMs_;
  mutable CMSCritical lock_;
  std::vector<std::int16_t> ring_ CMS_GUARDED_BY(lock_);
  std::vector<std::int16_t> scratch_ CMS_GUARDED_BY(lock_);
  std::size_t first_ CMS_GUARDED_BY(lock_) = 0;
  std::size_t count_ CMS_GUARDED_BY(lock_) = 0;
  std::vector<Run> runs_ CMS_GUARDED_BY(lock_);  // oldest first, never more than kRuns
  bool primed_ CMS_GUARDED_BY(lock_) = false;
  double averageDelay_ CMS_GUARDED_BY(lock_) = 0;  // frames
  std::size_t sinceCorrection_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t cut_ CMS_GUARDED_BY(lock_) = 0;
};

}  // namespace cms
