#include "cms/playback/internal/index_times.h"

#include <algorithm>

#include "cms/playback/internal/playback_data_reader.h"

namespace cms {
namespace {

constexpr std::uint64_t kNumbered = 2;       // ms a frame: nearer together is no time
constexpr std::size_t kNumberedPart = 8;     // of a second's frames, before none of its times count
constexpr std::size_t kDense = 3;            // frames in a second that tell how far apart they are
constexpr std::int64_t kClockStep = 1000;    // ms back: the clock was set
constexpr std::int64_t kBehindTheStep = 40;  // ms from the frame in front of such a step

using Frames = std::span<const IndexedFrame>;

// The frames of one second that lie behind each other.
struct Second {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t Count() const { return end - begin; }
};

Second SecondAt(Frames frames, std::size_t begin) {
  Second second{begin, begin};
  while (second.end < frames.size() && frames[second.end].Second() == frames[begin].Second()) {
    ++second.end;
  }
  return second;
}

// The frames of the second that follows without a break; none when it does not.
Second Following(Frames frames, const Second& second) {
  const bool follows = second.end < frames.size() &&
                       frames[second.end].Second() == frames[second.begin].Second() + 1;
  return follows ? SecondAt(frames, second.end) : Second{second.end, second.end};
}

// Whether the milliseconds of a second's records are times.
bool IsTimed(Frames frames, const Second& second) {
  std::size_t near = 0;
  for (std::size_t i = second.begin; i < second.end; ++i) {
    if (!frames[i].timed) {
      return false;
    }
    if (i == second.begin) {
      continue;
    }
    if (frames[i].milliseconds < frames[i - 1].milliseconds) {
      return false;
    }
    near += frames[i].milliseconds - frames[i - 1].milliseconds < kNumbered ? 1 : 0;
  }
  return near == 0 || near * kNumberedPart < second.Count() - 1;
}

// A recording that begins within a second has only the rest of it, but its recorder counts the
// milliseconds of a second from the first frame. How much later these frames are, so that the next
// second follows them without a break. Where frames are far apart nothing can be told.
std::uint64_t LeadOf(Frames frames, const Second& second, const Second& following) {
  const std::uint64_t first = frames[second.begin].milliseconds;
  if (following.Count() < kDense || first % 1000 != 0) {
    return 0;
  }
  const std::uint64_t last = frames[second.end - 1].milliseconds;
  const std::uint64_t usual =
      second.Count() > 1 ? (last - first) / (second.Count() - 1) : 1000 / following.Count();
  const std::uint64_t pause = frames[second.end].milliseconds - last;
  return pause > 2 * usual ? pause - usual : 0;
}

}  // namespace

std::vector<std::int64_t> TimesOf(Frames frames) {
  std::vector<std::int64_t> times;
  times.reserve(frames.size());
  std::int64_t previous = 0;
  std::int64_t shift = 0;
  std::uint64_t interval = 1000;  // of the second before
  for (Second second = SecondAt(frames, 0); second.Count() > 0;
       second = SecondAt(frames, second.end)) {
    const Second following = Following(frames, second);
    const bool begun =
        second.begin == 0 || frames[second.begin - 1].Second() + 1 != frames[second.begin].Second();
    const bool timed = IsTimed(frames, second);
    const std::uint64_t even = 1000 / second.Count();
    std::uint64_t lead = 0;
    if (timed) {
      interval = even;
      lead = begun ? LeadOf(frames, second, following) : 0;
    } else if (begun && following.Count() >= kDense && following.Count() > second.Count()) {
      interval = 1000 / following.Count();
      lead = 1000 - second.Count() * interval;
    } else {
      interval = following.Count() == 0 ? std::min(interval, even) : even;
    }
    const std::uint64_t base = frames[second.begin].Second() * 1000;
    for (std::size_t i = second.begin; i < second.end; ++i) {
      auto time = static_cast<std::int64_t>(
          lead + (timed ? frames[i].milliseconds : base + (i - second.begin) * interval));
      if (i > 0) {
        if (time > previous) {
          shift = 0;
        } else if (previous - time > kClockStep && shift == 0) {
          shift = previous + kBehindTheStep - time;
        }
        time = std::max(time + shift, previous + 1);
      }
      times.push_back(time);
      previous = time;
    }
  }
  return times;
}

namespace {

// Times from the `first`th on stay behind the one in front of each.
void PushOn(std::span<std::int64_t> times, std::size_t first) {
  for (std::size_t i = first; i < times.size(); ++i) {
    times[i] = std::max(times[i], times[i - 1] + 1);
  }
}

// And those in front of the `behind`th in front of it.
void PushBack(std::span<std::int64_t> times, std::size_t behind, std::size_t first) {
  for (std::size_t i = behind; i > first && times[i - 1] >= times[i]; --i) {
    times[i - 1] = times[i] - 1;
  }
}

void BeginAt(Frames frames, std::size_t key, std::int64_t begin, std::span<std::int64_t> times) {
  const Second second = SecondAt(frames, key);
  const auto behind = static_cast<std::int64_t>((frames[key].Second() + 1) * 1000);
  const auto count = static_cast<std::int64_t>(second.Count());
  if (times[key] < begin && behind - begin >= count) {
    for (std::size_t i = key; i < second.end; ++i) {
      times[i] = begin + static_cast<std::int64_t>(i - key) * (behind - begin) / count;
    }
  }
  times[key] = begin;
  PushOn(times, key + 1);
  PushBack(times, key, 0);
}

void EndBefore(Frames frames, std::size_t key, std::int64_t before, std::span<std::int64_t> times) {
  std::size_t first = times.size() - 1;
  while (first > key && frames[first - 1].Second() == frames.back().Second()) {
    --first;
  }
  std::int64_t from = times[first];
  if (first > key) {
    from = std::max(static_cast<std::int64_t>(frames[first].Second() * 1000), times[first - 1] + 1);
  }
  const auto count = static_cast<std::int64_t>(times.size() - first);
  if (before - from >= count) {
    for (std::size_t i = first; i < times.size(); ++i) {
      times[i] = from + static_cast<std::int64_t>(i - first) * (before - from) / count;
    }
    return;
  }
  times.back() = before - 1;
  PushBack(times, times.size() - 1, key + 1);
  PushOn(times, key + 1);  // there may be less room than frames
}

}  // namespace

void FitTimes(Frames frames, std::size_t key, const TimeBounds& bounds,
              std::span<std::int64_t> times) {
  if (bounds.begin && times[key] != *bounds.begin) {
    BeginAt(frames, key, *bounds.begin, times);
  }
  if (bounds.before && times.back() >= *bounds.before &&
      times.back() - *bounds.before < kPlaybackGap) {
    EndBefore(frames, key, *bounds.before, times);
  }
}

}  // namespace cms
