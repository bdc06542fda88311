#include "cms/playback/internal/picture_store.h"

#include <algorithm>
#include <span>
#include <utility>

namespace cms {

tagSIZE PictureStore::SizeOf(const tagSIZE& recorded) const {
  return display_.cx > 0 && display_.cy > 0 ? display_ : recorded;
}

PictureStore::Picture* PictureStore::FreePicture() {
  const auto staged = std::span(staged_).first(stagedCount_);
  for (const auto& picture : pictures_) {
    if (picture.get() != shown_ && picture->pins == 0 &&
        std::ranges::find(staged, picture.get()) == staged.end()) {
      return picture.get();
    }
  }
  if (pictures_.size() == kMostPictures) {
    return nullptr;
  }
  pictures_.push_back(std::make_unique<Picture>());
  return pictures_.back().get();
}

PictureStore::Picture* PictureStore::Convert(const AVFrame& frame) {
  Picture* picture = nullptr;
  tagSIZE size;
  {
    const ScopeLock guard(lock_);
    picture = FreePicture();
    recorded_ = {frame.width, frame.height};
    size = SizeOf(recorded_);
    if (std::exchange(fisheyeChanged_, false)) {
      look_.Set(fisheye_);
    }
  }
  // Neither shown, nor staged, nor pinned: it belongs to this thread alone.
  const auto width = static_cast<int>(size.cx);
  const auto height = static_cast<int>(size.cy);
  const AVFrame* const seen = picture != nullptr ? look_.Look(frame, width, height) : nullptr;
  const bool converted = seen != nullptr && picture->converter.Convert(*seen, width, height);
  return converted ? picture : nullptr;
}

void PictureStore::Stage(Picture* picture, FrameRef frame, std::int64_t end, bool forced) {
  picture->frame = std::move(frame);
  picture->end = end;
  picture->forced = forced;
  const ScopeLock guard(lock_);
  stagedNothing_ = false;
  if (stagedCount_ < staged_.size()) {
    staged_[stagedCount_++] = picture;
  }
}

bool PictureStore::IsFull(std::size_t bytes) {
  const ScopeLock guard(lock_);
  const tagSIZE size = SizeOf(recorded_);
  const auto each = static_cast<std::size_t>(size.cx) * static_cast<std::size_t>(size.cy) * 4;
  return stagedCount_ == kMostStaged || (stagedCount_ > 0 && (stagedCount_ + 1) * each > bytes);
}

void PictureStore::StageNothing() {
  const ScopeLock guard(lock_);
  stagedCount_ = 0;
  stagedNothing_ = true;
}

void PictureStore::Unstage() {
  const ScopeLock guard(lock_);
  stagedCount_ = 0;
  stagedNothing_ = false;
}

std::int64_t PictureStore::ShowDue(std::int64_t position, bool forward, bool audible) {
  const ScopeLock guard(lock_);
  if (std::exchange(stagedNothing_, false)) {
    shown_ = nullptr;
  }
  Picture* due = nullptr;
  std::size_t passed = 0;
  for (; passed < stagedCount_; ++passed) {
    Picture* const picture = staged_[passed];
    const bool begun = forward ? position >= picture->frame.Time() : position < picture->end;
    const bool over = forward ? position >= picture->end : position < picture->frame.Time();
    if (!begun) {
      break;
    }
    due = !over || picture->forced ? picture : due;
  }
  std::copy(staged_.begin() + static_cast<std::ptrdiff_t>(passed),
            staged_.begin() + static_cast<std::ptrdiff_t>(stagedCount_), staged_.begin());
  stagedCount_ -= passed;
  if (due != nullptr) {
    shown_ = due;
    audible_ = audible ? due->frame : audible_;
    const std::int64_t time = due->frame.Time();
    imageId_.fetch_add(1, std::memory_order_relaxed);
    if (count_.fetch_add(1, std::memory_order_relaxed) == 0) {
      first_.store(time, std::memory_order_relaxed);
    }
    last_.store(time, std::memory_order_relaxed);
  }
  return shown_ != nullptr ? shown_->frame.Time() : 0;
}

PictureStore::Standing PictureStore::Stand() {
  const ScopeLock guard(lock_);
  Standing standing;
  standing.imageId = imageId_.load(std::memory_order_relaxed);
  if (shown_ != nullptr) {
    standing.shown = shown_->frame;
  }
  standing.audible = audible_;
  standing.staged = stagedCount_;
  if (stagedCount_ > 0) {
    standing.first = staged_[0]->frame;
    standing.firstEnd = staged_[0]->end;
    standing.last = staged_[stagedCount_ - 1]->frame;
  }
  return standing;
}

void PictureStore::Blank() {
  const ScopeLock guard(lock_);
  shown_ = nullptr;
}

PictureStore::Picture* PictureStore::Pin() {
  const ScopeLock guard(lock_);
  if (shown_ != nullptr) {
    ++shown_->pins;
  }
  return shown_;
}

void PictureStore::Unpin(Picture* picture) {
  const ScopeLock guard(lock_);
  --picture->pins;
}

void PictureStore::SetDisplaySize(const tagSIZE& size) {
  const ScopeLock guard(lock_);
  display_ = size;
}

void PictureStore::SetFisheye(const FisheyeSettings& settings) {
  const ScopeLock guard(lock_);
  fisheye_ = settings;
  fisheyeChanged_ = true;
}

std::int64_t PictureStore::ShownTime() {
  const ScopeLock guard(lock_);
  return shown_ != nullptr ? shown_->frame.Time() : 0;
}

tagSIZE PictureStore::RecordedSize() {
  const ScopeLock guard(lock_);
  return recorded_;
}

}  // namespace cms
