#include "cms/audio/internal/playout_buffer.h"

#include <algorithm>

namespace cms {
namespace {

constexpr std::size_t kFramesToCorrection = 800;  // 1,250 ppm, more than clocks differ
constexpr double kSmoothing = 1.0 / 64;
// Beyond the wanted delay by so much, waiting for corrections would take minutes.
constexpr std::uint32_t kIntolerableMs = 300;

}  // namespace

PlayoutBuffer::PlayoutBuffer(std::size_t capacityBytes, std::uint32_t delayMs)
    : delayMs_(delayMs), ring_(capacityBytes / sizeof(std::int16_t)), scratch_(ring_.size()) {
  runs_.reserve(kRuns);
}

std::size_t PlayoutBuffer::Delay(std::uint32_t milliseconds, const PcmFormat& format) const {
  return std::size_t{format.sampleRate} * milliseconds / 1000;
}

std::size_t PlayoutBuffer::Put(PcmFormat format, std::span<const std::int16_t> samples) {
  if (format.channels == 0 || format.sampleRate == 0) {
    return 0;
  }
  ScopeLock lock(lock_);
  const std::uint64_t cutBefore = cut_;
  std::size_t whole = samples.size() / format.channels * format.channels;
  const std::size_t room = ring_.size() / format.channels * format.channels;
  if (whole > room) {
    cut_ += (whole - room) / format.channels;
    samples = samples.subspan(whole - room);
    whole = room;
  }
  if (count_ + whole > ring_.size()) {
    Cut(count_ + whole - ring_.size());
  }
  if (runs_.empty() || !(runs_.back().format == format)) {
    if (runs_.size() == kRuns) {
      Cut(runs_.front().samples);
    }
    runs_.push_back({format, 0});
  }
  const std::size_t end = (first_ + count_) % ring_.size();
  const std::size_t head = std::min(whole, ring_.size() - end);
  std::copy_n(samples.begin(), head, ring_.begin() + static_cast<std::ptrdiff_t>(end));
  std::copy_n(samples.begin() + static_cast<std::ptrdiff_t>(head), whole - head, ring_.begin());
  count_ += whole;
  runs_.back().samples += whole;

  const Run& oldest = runs_.front();
  const std::size_t intolerable = Delay(delayMs_ + kIntolerableMs, format);
  if (runs_.size() == 1 && oldest.samples / format.channels > intolerable) {
    Cut(oldest.samples - Delay(delayMs_, format) * format.channels);
  }
  return static_cast<std::size_t>(cut_ - cutBefore);
}

// Removes the oldest samples, whole frames of each run.
void PlayoutBuffer::Cut(std::size_t samples) {
  while (samples > 0 && !runs_.empty()) {
    Run& run = runs_.front();
    const std::size_t channels = run.format.channels;
    const std::size_t now = std::min((samples + channels - 1) / channels * channels, run.samples);
    first_ = (first_ + now) % ring_.size();
    count_ -= now;
    run.samples -= now;
    cut_ += now / channels;
    samples -= std::min(samples, now);
    if (run.samples == 0) {
      runs_.erase(runs_.begin());
    }
  }
}

PcmFormat PlayoutBuffer::NextFormat() const {
  ScopeLock lock(lock_);
  return runs_.empty() ? PcmFormat{} : runs_.front().format;
}

std::size_t PlayoutBuffer::QueuedFrames() const {
  ScopeLock lock(lock_);
  return runs_.empty() ? 0 : runs_.front().samples / runs_.front().format.channels;
}

bool PlayoutBuffer::IsPrimed(bool waited) {
  ScopeLock lock(lock_);
  if (!primed_ && !runs_.empty()) {
    const Run& run = runs_.front();
    primed_ = waited || runs_.size() > 1 ||
              run.samples / run.format.channels >= Delay(delayMs_, run.format);
  }
  return primed_ && !runs_.empty();
}

void PlayoutBuffer::RanDry() {
  ScopeLock lock(lock_);
  primed_ = false;
  averageDelay_ = 0;
}

// One frame fewer (-1) or more (1) to be used up than given out, or none.
int PlayoutBuffer::Correction(const Run& run, std::size_t deviceFrames) {
  const std::size_t frames = run.samples / run.format.channels + deviceFrames;
  const auto delay = static_cast<double>(frames);
  averageDelay_ = averageDelay_ == 0 ? delay : averageDelay_ + (delay - averageDelay_) * kSmoothing;
  if (sinceCorrection_ < kFramesToCorrection) {
    return 0;
  }
  const auto wanted = static_cast<double>(Delay(delayMs_, run.format));
  const double tolerance = wanted / 5;
  if (averageDelay_ > wanted + tolerance) {
    return 1;
  }
  // A card that does not pace is always empty: there is nothing to make up for.
  return deviceFrames > 0 && averageDelay_ < wanted - tolerance ? -1 : 0;
}

void PlayoutBuffer::Copy(std::span<std::int16_t> out) {
  const std::size_t head = std::min(out.size(), ring_.size() - first_);
  std::copy_n(ring_.begin() + static_cast<std::ptrdiff_t>(first_), head, out.begin());
  std::copy_n(ring_.begin(), out.size() - head, out.begin() + static_cast<std::ptrdiff_t>(head));
}

std::size_t PlayoutBuffer::Take(std::span<std::int16_t> out, std::size_t deviceFrames) {
  ScopeLock lock(lock_);
  if (runs_.empty()) {
    return 0;
  }
  Run& run = runs_.front();
  const std::size_t channels = run.format.channels;
  std::size_t given = std::min(out.size() / channels, run.samples / channels);
  const int correction = given >= 3 ? Correction(run, deviceFrames) : 0;
  std::size_t used = given;
  if (correction > 0 && run.samples / channels > given) {
    ++used;
  } else if (correction < 0) {
    --used;
  } else if (correction > 0) {
    --given;  // all that is there is used up for one frame less
  }
  if (used == given) {
    Copy(out.first(given * channels));
  } else {
    // Resampled by linear interpolation, first and last frame kept.
    const std::span<std::int16_t> source(scratch_.data(), used * channels);
    Copy(source);
    const double step = static_cast<double>(used - 1) / static_cast<double>(given - 1);
    for (std::size_t i = 0; i < given; ++i) {
      const double position = static_cast<double>(i) * step;
      const auto left = std::min(static_cast<std::size_t>(position), used - 2);
      const double share = position - static_cast<double>(left);
      for (std::size_t c = 0; c < channels; ++c) {
        const double a = source[left * channels + c];
        const double b = source[(left + 1) * channels + c];
        out[i * channels + c] = static_cast<std::int16_t>(a + (b - a) * share);
      }
    }
    sinceCorrection_ = 0;
  }
  sinceCorrection_ += given;
  first_ = (first_ + used * channels) % ring_.size();
  count_ -= used * channels;
  run.samples -= used * channels;
  if (run.samples == 0) {
    runs_.erase(runs_.begin());
  }
  return given;
}

void PlayoutBuffer::Clear() {
  ScopeLock lock(lock_);
  runs_.clear();
  first_ = 0;
  count_ = 0;
  primed_ = false;
  averageDelay_ = 0;
}

std::uint64_t PlayoutBuffer::CutFrames() const {
  ScopeLock lock(lock_);
  return cut_;
}

}  // namespace cms
