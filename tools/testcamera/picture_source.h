// The camera's pictures as JPEGs, for as many readers as want them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

// Makes pictures on a thread of its own as long as somebody watches; a file is played for ever.
class PictureSource {
 public:
  using Picture = std::shared_ptr<const std::string>;

  explicit PictureSource(const CameraOptions& options);
  ~PictureSource();
  PictureSource(const PictureSource&) = delete;
  PictureSource& operator=(const PictureSource&) = delete;

  // Counts a reader for as long as it lives.
  class Watch {
   public:
    explicit Watch(PictureSource& source);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Waits for a picture newer than the last one that it gave, so a slow reader misses some;
    // nullptr when the source stopped.
    Picture Next();

   private:
    PictureSource& source_;
    std::uint64_t seen_ = 0;
  };

  // Ends all waits for good.
  void Stop();

 private:
  void Run();
  bool Play();  // until the end of the file; false when nobody watches any more

  const CameraOptions options_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Picture latest_;
  std::uint64_t number_ = 0;
  int watchers_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace testcamera
