// The frames of one opening, on their way from its sub-sessions to the site client.
#pragma once

#include <cstdint>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/stream_probes.h"

// Writes their headers. What it knows is copied from the configuration and the description before
// the first packet comes; from then on all belongs to the receiving thread, which takes no lock.
class CMSRTSPClient::FrameSource final {
 public:
  FrameSource(CMSRTSPClient& client, const stRTSPClientConfig& config, RTSPSubSession& video);

  void TakeDescription(const MediaSession& description, const _RTSPSUBSESSION_CONFIG& video,
                       const _RTSPSUBSESSION_CONFIG& audio);
  const cms::AudioFormatDescriptor& Sound() const { return sound_; }  // codec 0: there is none

  // RTSPFrameCallbacks, whose context is the source.
  static void OnVideo(void* context, unsigned char* frameBuffer, int headerRoom,
                      unsigned char* payload, int length, int frameType);
  static void OnAudio(void* context, unsigned char* frameBuffer, int headerRoom,
                      unsigned char* payload, int length, int frameType);

 private:
  void HandVideo(unsigned char* header, unsigned char* payload, int length, int frameType);
  void HandAudio(unsigned char* header, unsigned char* payload, int length);
  void NoteFrame(cms::FrameInfo& info, int length) const;
  void NotePictureSize(CMSChannelDataBase& channel, const unsigned char* payload, int length) const;

  CMSRTSPClient& client_;
  RTSPSubSession& video_;
  const unsigned channel_;
  const unsigned stream_;
  const int clockOffset_;  // seconds
  bool otherFrameRate_ = false;
  float announcedFrameRate_ = 0;
  cms::PictureSize described_{};  // for key frames that do not tell; 0 x 0: unknown
  cms::AudioFormatDescriptor sound_;
};
