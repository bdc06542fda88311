// The live pictures of one site, for any number of watchers.
#pragma once

#include <mutex>
#include <string>

#include "tools/serve/jpeg_encoder.h"
#include "tools/serve/picture_record.h"
#include "tools/support/live_site.h"

namespace tools {

// Nothing is decoded while nobody watches, and each picture is encoded at most once. Any thread.
class LivePictures {
 public:
  LivePictures(LiveSite& site, int number) : site_(site), number_(number) {}

  // Somebody watches while it lives.
  class Watch {
   public:
    explicit Watch(LivePictures& pictures) : pictures_(&pictures) { pictures.Begin(); }
    ~Watch() { pictures_->End(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    // The newest picture that was not told before; null when there is none.
    PictureRecord Next();

   private:
    LivePictures* pictures_;
    PictureRecord last_;
  };

 private:
  void Begin();
  void End();
  PictureRecord Newest();

  LiveSite& site_;
  const int number_;
  std::mutex lock_;
  int watchers_ = 0;      // guarded by lock_, as all below
  unsigned decoded_ = 0;  // pictures decoded when newest_ was made
  PictureRecord newest_;
  JpegEncoder encoder_;
};

}  // namespace tools
