// PictureStore, the pictures of a channel between its reader thread and those who look at them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/live/internal/picture_converter.h"
#include "cms/live/size.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// A picture is staged (converted, not seen yet), then shown, and free again once another one is
// shown and nobody has it pinned. The reader thread stages; whoever moves the clock shows; viewers
// pin. Only the conversion itself takes time, and that happens without the lock.
class PictureStore {
 public:
  struct Picture {
    PictureConverter converter;
    std::int64_t time = 0;
    unsigned pins = 0;
  };

  PictureStore() = default;
  PictureStore(const PictureStore&) = delete;
  PictureStore& operator=(const PictureStore&) = delete;

  // Converts a picture to the display size (0x0: as it is). False when that failed or viewers have
  // every picture pinned. What was staged before is given up.
  bool Stage(const AVFrame& frame, std::int64_t time);
  void StageNothing();  // the channel has no picture at the new time
  void Unstage();       // what was staged is not wanted any more

  // Shows what is staged; true when that was a picture.
  bool Show();
  void Blank();

  // The picture shown, null when there is none. It stays as it is until Unpin.
  Picture* Pin();
  void Unpin(Picture* picture);

  void SetDisplaySize(const tagSIZE& size);

  std::int64_t ShownTime();  // 0: none
  tagSIZE RecordedSize();    // of the last picture staged
  unsigned ImageId() const { return imageId_.load(std::memory_order_relaxed); }
  std::uint64_t ShownCount() const { return count_.load(std::memory_order_relaxed); }
  std::int64_t FirstTime() const { return first_.load(std::memory_order_relaxed); }
  std::int64_t LastTime() const { return last_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::size_t kMostPictures = 10;

  Picture* FreePicture() CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::vector<std::unique_ptr<Picture>> pictures_ CMS_GUARDED_BY(lock_);
  Picture* shown_ CMS_GUARDED_BY(lock_) = nullptr;
  Picture* staged_ CMS_GUARDED_BY(lock_) = nullptr;
  bool stagedNothing_ CMS_GUARDED_BY(lock_) = false;
  tagSIZE display_ CMS_GUARDED_BY(lock_);
  tagSIZE recorded_ CMS_GUARDED_BY(lock_);
  std::atomic<unsigned> imageId_{0};
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::int64_t> first_{0};
  std::atomic<std::int64_t> last_{0};
};

}  // namespace cms
