// PictureStore, the pictures of a channel between its reader thread and those who look at them.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/live/media/internal/fisheye_picture.h"
#include "cms/live/media/internal/picture_converter.h"
#include "cms/live/media/size.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// A picture is staged (converted, not seen yet), shown when the clock comes to its time, and free
// again once another one is shown and nobody has it pinned. The reader thread converts and stages;
// whoever moves or reads the clock shows; viewers pin. Only the conversion itself takes time, and
// that happens without the lock.
class PictureStore {
 public:
  struct Picture {
    PictureConverter converter;
    FrameRef frame;
    std::int64_t end = 0;  // up to when it is the one to show
    bool forced = false;   // also when it is late
    unsigned pins = 0;
  };

  struct Standing {
    unsigned imageId = 0;
    FrameRef shown;
    FrameRef audible;  // the last one that was shown with its sound
    std::size_t staged = 0;
    FrameRef first;  // of what is staged: the next to be shown, and until when it can be
    std::int64_t firstEnd = 0;
    FrameRef last;
  };

  PictureStore() = default;
  PictureStore(const PictureStore&) = delete;
  PictureStore& operator=(const PictureStore&) = delete;

  // Converts a picture, or what is seen of it, to the display size (0x0: as it is). Null when that
  // failed or viewers have every picture pinned. Without Stage it is free again.
  Picture* Convert(const AVFrame& frame);
  // Behind what is staged already; its turn is from the frame's time up to `end`, or backward the
  // other way round. `forced`: it is shown even when that is over.
  void Stage(Picture* picture, FrameRef frame, std::int64_t end, bool forced);
  bool IsFull(std::size_t bytes);  // as much is staged as goes into so many bytes; one always does
  void StageNothing();             // the channel has no picture at the new time
  void Unstage();                  // what was staged is not wanted any more

  // Shows the last of the staged pictures whose turn it is, and gives up those whose turn is over.
  // `audible`: its sound is wanted, too. Returns the time of the picture shown, 0 without one.
  std::int64_t ShowDue(std::int64_t position, bool forward, bool audible);
  void Blank();

  // The picture shown, null when there is none. It stays as it is until Unpin.
  Picture* Pin();
  void Unpin(Picture* picture);

  void SetDisplaySize(const tagSIZE& size);
  void SetFisheye(
      const FisheyeSettings& settings);  // of the pictures that are converted from now on

  Standing Stand();
  std::int64_t ShownTime();  // 0: none
  tagSIZE RecordedSize();    // of the last picture converted
  unsigned ImageId() const { return imageId_.load(std::memory_order_relaxed); }
  std::uint64_t ShownCount() const { return count_.load(std::memory_order_relaxed); }
  std::int64_t FirstTime() const { return first_.load(std::memory_order_relaxed); }
  std::int64_t LastTime() const { return last_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::size_t kMostPictures = 14;
  static constexpr std::size_t kMostStaged = 4;

  tagSIZE SizeOf(const tagSIZE& recorded) const CMS_REQUIRES(lock_);
  Picture* FreePicture() CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::vector<std::unique_ptr<Picture>> pictures_ CMS_GUARDED_BY(lock_);
  Picture* shown_ CMS_GUARDED_BY(lock_) = nullptr;
  FrameRef audible_ CMS_GUARDED_BY(lock_);
  std::array<Picture*, kMostStaged> staged_ CMS_GUARDED_BY(lock_){};  // in the order of play
  std::size_t stagedCount_ CMS_GUARDED_BY(lock_) = 0;
  bool stagedNothing_ CMS_GUARDED_BY(lock_) = false;
  tagSIZE display_ CMS_GUARDED_BY(lock_);
  tagSIZE recorded_ CMS_GUARDED_BY(lock_);
  FisheyeSettings fisheye_ CMS_GUARDED_BY(lock_);
  bool fisheyeChanged_ CMS_GUARDED_BY(lock_) = false;
  FisheyePicture look_;  // the reader thread's
  std::atomic<unsigned> imageId_{0};
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::int64_t> first_{0};
  std::atomic<std::int64_t> last_{0};
};

}  // namespace cms
