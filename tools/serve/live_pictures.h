// The live pictures of one site, for any number of watchers.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "tools/serve/jpeg_encoder.h"
#include "tools/serve/picture_record.h"
#include "tools/support/live_site.h"

namespace tools {

// Nothing is decoded while nobody watches, and each picture is encoded at most once, in the size of
// whoever wants the largest. Any thread.
class LivePictures {
 public:
  LivePictures(LiveSite& site, int number) : site_(site), number_(number) {}

  // Somebody watches while it lives.
  class Watch {
   public:
    static constexpr long kFullWidth = 100'000;  // wider than any camera's

    // `width`: pixels that are shown; the picture has no more than the camera's.
    explicit Watch(LivePictures& pictures, long width = kFullWidth)
        : pictures_(&pictures), width_(width) {
      pictures.Begin(width);
    }
    ~Watch() { pictures_->End(width_); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    // The newest picture that was not told before; null when there is none.
    PictureRecord Next();

   private:
    LivePictures* pictures_;
    const long width_;
    PictureRecord last_;
  };

 private:
  void Begin(long width);
  void End(long width);
  void SetSize();
  PictureRecord Newest();

  LiveSite& site_;
  const int number_;
  std::mutex lock_;
  std::multiset<long> widths_;  // wanted by the watchers; guarded by lock_, as all below
  tagSIZE camera_{};            // its size, as far as it is known
  tagSIZE size_{};              // that is asked for; 0 x 0: the camera's
  unsigned decoded_ = 0;        // pictures decoded when newest_ was made
  PictureRecord newest_;
  JpegEncoder encoder_;
};

}  // namespace tools
