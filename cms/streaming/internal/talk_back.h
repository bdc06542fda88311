// Sound to the camera: the audio backchannel of RTSP as ONVIF's streaming specification, 5.3, has
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "cms/live/media/audio_endpoint.h"
#include "cms/runtime/critical.h"
#include "cms/streaming/media_session.h"

namespace cms {

// Asks the camera to describe its backchannel, and not to answer if it does not know of any.
inline constexpr char kBackchannelRequirement[] = "Require: www.onvif.org/ver20/backchannel\r\n";

struct TalkBackDescription {
  std::string viewing;  // the description without its backchannels
  // The first backchannel in PCMU, PCMA or L16; kNoPayloadType when there is none.
  _RTSPSUBSESSION_CONFIG talk;
};

// Takes the audio sections that the client is to send ("a=sendonly") out of a description. Some
// cameras mark what they themselves send so, video too: their only audio is the microphone.
TalkBackDescription SplitTalkBack(std::string_view description);

// The format of the blocks that a described backchannel takes: codec CMS_CODEC_NONE for none.
tCMSAudioPlayerConfig TalkBackFormat(const _RTSPSUBSESSION_CONFIG& talk);

// Makes RTP packets (RFC 3550, 3551) of blocks of sound. Any thread.
class TalkBackSender {
 public:
  // Sends one RTP packet whole: true when it was taken.
  using SendPacket = std::function<bool(std::span<const std::uint8_t> packet)>;

  void Start(const _RTSPSUBSESSION_CONFIG& talk, SendPacket send);
  void Stop();  // no packet is sent after it

  // Sends a block at once, in packets of whole samples. Time stamps go on with the samples; after a
  // pause they go on with the clock. Returns the bytes that were taken.
  int Send(const unsigned char* data, int length);

 private:
  static constexpr std::size_t kHeader = 12;
  static constexpr std::size_t kPayload = 1400;

  CMSCritical lock_;
  SendPacket send_ CMS_GUARDED_BY(lock_);
  std::uint8_t payloadType_ CMS_GUARDED_BY(lock_) = 0;
  std::uint32_t clockRate_ CMS_GUARDED_BY(lock_) = 0;
  std::size_t frameBytes_ CMS_GUARDED_BY(lock_) = 1;  // a sample of each channel
  std::uint16_t sequence_ CMS_GUARDED_BY(lock_) = 0;
  std::uint32_t timestamp_ CMS_GUARDED_BY(lock_) = 0;
  std::uint32_t source_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t lastTick_ CMS_GUARDED_BY(lock_) = 0;  // 0: nothing was sent yet
};

}  // namespace cms
