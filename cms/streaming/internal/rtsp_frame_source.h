// The frames of one opening, on their way from its sub-sessions to the site client.
#pragma once

#include <cstdint>
#include <span>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/internal/access_unit.h"
#include "cms/streaming/internal/frame_clock.h"
#include "cms/streaming/internal/sound_format.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/stream_probes.h"

// Writes their headers. What it knows is copied from the configuration and the description before
// the first packet comes; from then on all belongs to the receiving thread, which takes no lock.
class CMSRTSPClient::FrameSource final : public cms::RTSPFrameSink, public cms::AccessUnitSink {
 public:
  FrameSource(CMSRTSPClient& client, const cms::stRTSPClientConfig& config);

  void TakeDescription(const MediaSession& description, const _RTSPSUBSESSION_CONFIG& video,
                       const _RTSPSUBSESSION_CONFIG& audio);
  const cms::SoundFormat& Sound() const { return sound_; }

  void OnFrame(RTPProcesserBase& depacketizer, std::span<std::uint8_t> frame) override;
  // What cannot be decoded is left out, until no key picture has come for ten seconds.
  void OnAccessUnit(const cms::AccessUnit& unit) override;
  void OnSound(std::span<std::uint8_t> block, std::uint32_t timestamp) override;
  void OnReport(bool video, const cms::SenderReport& report) override;

 private:
  void NoteTime(cms::FrameClock::Stream stream, std::uint32_t timestamp, std::int64_t lengthUs,
                cms::FrameInfo& info);
  void NoteFrame(cms::FrameInfo& info, std::span<const std::uint8_t> payload) const;
  void WriteHeader(std::span<std::uint8_t> frame, int frameType, std::uint32_t timestamp,
                   CMSChannelDataBase* channel);
  bool IsKeyless();
  void NoteMetadata(RTPProcesserBase& depacketizer, std::uint8_t* header) const;
  static void NotePictureSize(CMSChannelDataBase* channel, cms::PictureSize size);

  CMSRTSPClient& client_;
  const unsigned channel_;
  const unsigned stream_;
  const int clockOffset_;  // seconds
  const bool asSpecified_;
  bool otherFrameRate_ = false;
  float announcedFrameRate_ = 0;
  cms::PictureSize described_{};        // for key frames that do not tell; 0 x 0: unknown
  cms::PictureSize size_{};             // of the access units; 0 x 0: unknown
  std::uint64_t undecodableSince_ = 0;  // tick; 0: the last unit was decodable
  cms::SoundFormat sound_;
  cms::FrameClock clock_;
};
