#include "tools/serve/jpeg_encoder.h"

#include <turbojpeg.h>

#include <stdexcept>

namespace tools {
namespace {

constexpr int kQuality = 80;

}  // namespace

void JpegEncoder::Free::operator()(void* pointer) const {
  tjFree(static_cast<unsigned char*>(pointer));
}

void JpegEncoder::Destroy::operator()(void* encoder) const {
  tjDestroy(encoder);
}

JpegEncoder::JpegEncoder() : encoder_(tjInitCompress()) {
  if (encoder_ == nullptr) {
    throw std::runtime_error(std::string("no JPEG encoder: ") + tjGetErrorStr2(nullptr));
  }
}

std::string JpegEncoder::Encode(const unsigned char* bgra, long width, long height) {
  unsigned char* buffer = buffer_.release();
  unsigned long size = size_;
  const int result =
      tjCompress2(encoder_.get(), bgra, static_cast<int>(width), 0, static_cast<int>(height),
                  TJPF_BGRX, &buffer, &size, TJSAMP_420, kQuality, TJFLAG_FASTDCT);
  buffer_.reset(buffer);
  if (result != 0) {
    throw std::runtime_error(std::string("cannot encode a picture: ") +
                             tjGetErrorStr2(encoder_.get()));
  }
  size_ = std::max(size_, size);
  return {reinterpret_cast<const char*>(buffer), size};
}

}  // namespace tools
