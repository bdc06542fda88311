#include "cms/playback/internal/reverse_decoder.h"

#include <utility>

namespace cms {

bool ReverseDecoder::Ready(const FrameRef& target, std::size_t pictures, const DecodeOne& decode) {
  if (!window_.Holds(target)) {
    if (ahead_.Holds(target)) {
      std::swap(window_, ahead_);
    } else {
      window_.Begin(target, pictures);
    }
    ahead_.Clear();
  }
  if (window_.Next()) {
    DecodeInto(window_, target, decode);
    return false;
  }
  return true;
}

// One frame of a window; true when there was one to decode.
bool ReverseDecoder::DecodeInto(ReverseWindow& window, const FrameRef& target,
                                const DecodeOne& decode) {
  const FrameRef wanted = window.Next();
  if (!wanted) {
    return false;
  }
  if (const FrameRef next = decoder_.NextTowards(wanted)) {
    if (!decode(next, target)) {
      return true;
    }
  }
  window.Take(decoder_);
  while (window.Next() && decoder_.Reach(window.Next())) {
    window.Take(decoder_);
  }
  return true;
}

bool ReverseDecoder::Prefetch(std::size_t pictures, const DecodeOne& decode) {
  if (window_.Next() || !window_.Low()) {
    return false;
  }
  const FrameRef high = track_.Before(window_.Low());
  if (!high) {
    return false;
  }
  if (!ahead_.Ends(high)) {
    ahead_.Begin(high, pictures);
  }
  return DecodeInto(ahead_, high, decode);
}

void ReverseDecoder::Clear() {
  window_.Clear();
  ahead_.Clear();
}

}  // namespace cms
