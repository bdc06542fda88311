// CCMSAudioCapture: a microphone, as encoded blocks.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "cms/live/media/audio_endpoint.h"
#include "cms/runtime/api.h"

namespace cms {

// Captures 20 ms blocks, encodes them (mu-law, A-law or 16-bit PCM of either byte order) and hands
// them to the callback on a thread of its own, which sleeps between blocks. A device that goes away
// is opened again every two seconds. Destruction waits for a running callback.
class CMS_API CCMSAudioCapture final : public cms::AudioCapture {
 public:
  // `device` as CCMSAudioPlayer's. Throws std::runtime_error that names the device when it cannot
  // be opened, or the format cannot be captured.
  CCMSAudioCapture(const tCMSAudioPlayerConfig& config, OnBlock onBlock, std::string device = {});
  ~CCMSAudioCapture() override;

  // mu-law, A-law, 16-bit PCM; 2,000 to 384,000 samples a second, 1 or 2 channels.
  static bool IsUsable(const tCMSAudioPlayerConfig& config);

  // The length of each block, of a usable format.
  static std::size_t BlockBytes(const tCMSAudioPlayerConfig& config);

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};

// A microphone of the device that the configuration counts; nullptr when either cannot be used.
CMS_API std::unique_ptr<AudioCapture> MakeAudioCapture(const tCMSAudioPlayerConfig& config,
                                                       AudioCapture::OnBlock onBlock);

}  // namespace cms
