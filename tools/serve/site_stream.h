// The live stream of one site as browsers play it, neither decoded nor encoded again.
#pragma once

#include <cstdint>
#include <memory>

#include "cms/playback/fragments/sound_fragments.h"
#include "cms/playback/fragments/video_fragments.h"
#include "tools/serve/stream_ring.h"
#include "tools/support/frame_tap.h"

namespace tools {

// H.264 as fragments, JPEG as it is, and sound as fragments of AAC; nothing of it is made while
// nobody watches. Other video is for LivePictures.
class SiteStream final : public FrameTap {
 public:
  explicit SiteStream(int number);

  StreamRing& Video() { return video_; }
  StreamRing& Sound() { return sound_; }

  void OnPicture(CMSClientBase& client, std::span<const std::uint8_t> bytes, bool key) override;
  void OnSound(CMSClientBase& client, std::span<const std::uint8_t> block) override;

 private:
  std::shared_ptr<const RecordBytes> HeaderRecord() const;
  void AddJpeg(CMSClientBase& client, std::span<const std::uint8_t> jpeg);

  const int number_;
  StreamRing video_;
  StreamRing sound_;

  // The receiving thread's.
  const std::int64_t originUs_;
  cms::VideoFragments pictures_;
  cms::SoundFragments blocks_;
  int videoType_ = 0;
  unsigned videoVersion_ = 0;
  unsigned soundVersion_ = 0;
  std::shared_ptr<const RecordBytes> videoHeader_;
  std::shared_ptr<const RecordBytes> soundHeader_;
  RecordBytes scratch_;
};

}  // namespace tools
