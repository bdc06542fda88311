#include "tools/serve/live_pictures.h"

namespace tools {

void LivePictures::Begin() {
  const std::lock_guard lock(lock_);
  if (++watchers_ == 1) {
    // What was decoded for earlier watchers is old.
    decoded_ = site_.DecodedPictures();
    newest_.reset();
    site_.SetDecoding(true);
  }
}

void LivePictures::End() {
  const std::lock_guard lock(lock_);
  if (--watchers_ == 0) {
    site_.SetDecoding(false);
    newest_.reset();
  }
}

PictureRecord LivePictures::Newest() {
  const std::lock_guard lock(lock_);
  const unsigned decoded = site_.DecodedPictures();
  if (decoded != decoded_) {
    decoded_ = decoded;
    tagSIZE size{};
    std::string jpeg;
    site_.WithPicture([&](const unsigned char* bgra, const tagSIZE& of) {
      size = of;
      jpeg = encoder_.Encode(bgra, of.cx, of.cy);
    });
    if (!jpeg.empty()) {
      newest_ =
          MakePictureRecord({{"site", number_}, {"width", size.cx}, {"height", size.cy}}, jpeg);
    }
  }
  return newest_;
}

PictureRecord LivePictures::Watch::Next() {
  PictureRecord newest = pictures_->Newest();
  if (newest == last_) {
    return nullptr;
  }
  last_ = newest;
  return newest;
}

}  // namespace tools
