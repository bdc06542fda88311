// Pictures for browsers.
#pragma once

#include <memory>
#include <string>

namespace tools {

// One thread at a time.
class JpegEncoder {
 public:
  JpegEncoder();  // throws std::runtime_error when memory is short

  // BGRA rows without gaps; throws std::runtime_error with the encoder's word.
  std::string Encode(const unsigned char* bgra, long width, long height);

 private:
  struct Free {
    void operator()(void* pointer) const;
  };
  struct Destroy {
    void operator()(void* encoder) const;
  };
  std::unique_ptr<void, Destroy> encoder_;
  std::unique_ptr<unsigned char, Free> buffer_;  // the encoder's; grows to the largest picture
  unsigned long size_ = 0;                       // of the buffer
};

}  // namespace tools
