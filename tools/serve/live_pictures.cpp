#include "tools/serve/live_pictures.h"

#include <algorithm>

namespace tools {

void LivePictures::Begin(long width) {
  const std::lock_guard lock(lock_);
  widths_.insert(width);
  if (widths_.size() == 1) {
    // What was decoded for earlier watchers is old.
    decoded_ = site_.DecodedPictures();
    newest_.reset();
    site_.SetDecoding(true);
  }
}

void LivePictures::End(long width) {
  const std::lock_guard lock(lock_);
  widths_.erase(widths_.find(width));
  if (widths_.empty()) {
    site_.SetDecoding(false);
    newest_.reset();
  }
}

// The camera's size is that of what it announces with its key pictures, and of what was decoded as
// it came.
void LivePictures::SetSize() {
  unsigned width = 0;
  unsigned height = 0;
  CMSClientBase& client = site_.Client();
  client.GetWidthAndHeight(0, &width, &height);
  const tagSIZE told{static_cast<long>(width), static_cast<long>(height)};
  if (told.cx > 0 && told.cy > 0 && (told.cx != size_.cx || told.cy != size_.cy)) {
    camera_ = told;
  }
  if (camera_.cx == 0 || widths_.empty()) {
    return;
  }
  tagSIZE size{};
  if (const long wanted = *widths_.rbegin(); wanted < camera_.cx) {
    size = {wanted, std::max(1L, camera_.cy * wanted / camera_.cx)};
  }
  if (size.cx != size_.cx || size.cy != size_.cy) {
    size_ = size;
    client.SetDecoder(0, DECODER_PARAMETER_DISPLAY_SIZE, &size_);
  }
}

PictureRecord LivePictures::Newest() {
  const std::lock_guard lock(lock_);
  SetSize();
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
