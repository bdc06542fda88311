// The frames of one opening, on their way from its sub-sessions to the site client.
#pragma once

#include <cstdint>
#include <span>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/stream_probes.h"

// Writes their headers. What it knows is copied from the configuration and the description before
// the first packet comes; from then on all belongs to the receiving thread, which takes no lock.
class CMSRTSPClient::FrameSource final : public RTSPFrameSink {
 public:
  FrameSource(CMSRTSPClient& client, const stRTSPClientConfig& config);

  void TakeDescription(const MediaSession& description, const _RTSPSUBSESSION_CONFIG& video,
                       const _RTSPSUBSESSION_CONFIG& audio);
  const cms::AudioFormatDescriptor& Sound() const { return sound_; }  // codec 0: there is none

  void OnFrame(RTPProcesserBase& depacketizer, std::span<std::uint8_t> frame) override;
  void OnSound(std::span<std::uint8_t> block) override;

 private:
  void NoteFrame(cms::FrameInfo& info, std::span<const std::uint8_t> payload) const;
  void NoteMetadata(RTPProcesserBase& depacketizer, std::uint8_t* header) const;
  void NotePictureSize(CMSChannelDataBase& channel, std::span<const std::uint8_t> frame) const;

  CMSRTSPClient& client_;
  const unsigned channel_;
  const unsigned stream_;
  const int clockOffset_;  // seconds
  bool otherFrameRate_ = false;
  float announcedFrameRate_ = 0;
  cms::PictureSize described_{};  // for key frames that do not tell; 0 x 0: unknown
  cms::AudioFormatDescriptor sound_;
};
