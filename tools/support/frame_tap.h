// A look at the frames of a camera as they come, beside what else becomes of them.
#pragma once

#include <cstdint>
#include <span>

#include "cms/live/client_base.h"
#include "cms/live/media/frame_type.h"

namespace tools {

// Called on the receiving thread, behind recording and decoding; it waits for nobody. The bytes are
// valid during the call, in which the client tells when the frame was taken (GetFrameMoment).
class FrameTap {
 public:
  virtual ~FrameTap() = default;
  virtual void OnPicture(CMSClientBase& client, std::span<const std::uint8_t> bytes, bool key) = 0;
  virtual void OnSound(CMSClientBase& client, std::span<const std::uint8_t> block) = 0;
};

// A client whose frames of channel 0 go to a tap as well, which outlives it.
template <typename Client>
class TappedClient final : public Client {
 public:
  explicit TappedClient(FrameTap& tap) : tap_(tap) {}
  ~TappedClient() override {
    Client::StopPlay();
    Client::CloseStream();
  }

  void OnGetVideoFrame(void* header, int headerSize, void* data, int size, unsigned channel,
                       int frameType) override {
    Client::OnGetVideoFrame(header, headerSize, data, size, channel, frameType);
    if (channel == 0 && size > 0) {
      tap_.OnPicture(*this, Bytes(data, size), frameType == cms::kKeyFrame);
    }
  }
  void OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                       unsigned channel) override {
    Client::OnGetAudioFrame(header, headerSize, data, size, channel);
    if (channel == 0 && size > 0) {
      tap_.OnSound(*this, Bytes(data, size));
    }
  }

 private:
  static std::span<const std::uint8_t> Bytes(const void* data, int size) {
    return {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(size)};
  }

  FrameTap& tap_;
};

}  // namespace tools
