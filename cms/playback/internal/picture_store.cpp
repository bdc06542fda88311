#include "cms/playback/internal/picture_store.h"

#include <utility>

namespace cms {

PictureStore::Picture* PictureStore::FreePicture() {
  for (const auto& picture : pictures_) {
    if (picture.get() != shown_ && picture.get() != staged_ && picture->pins == 0) {
      return picture.get();
    }
  }
  if (pictures_.size() == kMostPictures) {
    return nullptr;
  }
  pictures_.push_back(std::make_unique<Picture>());
  return pictures_.back().get();
}

bool PictureStore::Stage(const AVFrame& frame, std::int64_t time) {
  Picture* picture = nullptr;
  tagSIZE size;
  {
    const ScopeLock guard(lock_);
    staged_ = nullptr;
    stagedNothing_ = false;
    picture = FreePicture();
    recorded_ = {frame.width, frame.height};
    size = display_.cx > 0 && display_.cy > 0 ? display_ : recorded_;
  }
  // Neither shown, nor staged, nor pinned: it belongs to this thread alone.
  if (picture == nullptr ||
      !picture->converter.Convert(frame, static_cast<int>(size.cx), static_cast<int>(size.cy))) {
    return false;
  }
  picture->time = time;
  const ScopeLock guard(lock_);
  staged_ = picture;
  return true;
}

void PictureStore::StageNothing() {
  const ScopeLock guard(lock_);
  staged_ = nullptr;
  stagedNothing_ = true;
}

void PictureStore::Unstage() {
  const ScopeLock guard(lock_);
  staged_ = nullptr;
  stagedNothing_ = false;
}

bool PictureStore::Show() {
  const ScopeLock guard(lock_);
  if (std::exchange(stagedNothing_, false)) {
    shown_ = nullptr;
    return false;
  }
  if (staged_ == nullptr) {
    return false;
  }
  shown_ = std::exchange(staged_, nullptr);
  imageId_.fetch_add(1, std::memory_order_relaxed);
  if (count_.fetch_add(1, std::memory_order_relaxed) == 0) {
    first_.store(shown_->time, std::memory_order_relaxed);
  }
  last_.store(shown_->time, std::memory_order_relaxed);
  return true;
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

std::int64_t PictureStore::ShownTime() {
  const ScopeLock guard(lock_);
  return shown_ != nullptr ? shown_->time : 0;
}

tagSIZE PictureStore::RecordedSize() {
  const ScopeLock guard(lock_);
  return recorded_;
}

}  // namespace cms
