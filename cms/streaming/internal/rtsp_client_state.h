// What CMSRTSPClient keeps and does not show.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/internal/rtsp_target.h"
#include "cms/streaming/rtsp_client.h"

// The client's lock guards it.
struct CMSRTSPClient::Life {
  std::shared_ptr<const cms::RTSPTarget> target = std::make_shared<const cms::RTSPTarget>();
  std::shared_ptr<Session> session;  // from an opening's start to its end
  cms::GetParameter getParameter{};  // what the openings have shown of it
  bool opened = false;
  bool paused = false;
};

// For those who do not wait for an opening.
struct CMSRTSPClient::Shown {
  CMSCritical lock;
  std::shared_ptr<Session> session CMS_GUARDED_BY(lock);
  std::string videoEncoding CMS_GUARDED_BY(lock);
  std::string audioEncoding CMS_GUARDED_BY(lock);
  tCMSAudioPlayerConfig talkFormat CMS_GUARDED_BY(lock){.codecId = cms::CMS_CODEC_NONE};
  int transport CMS_GUARDED_BY(lock) = cms::kRtspTransportUdp;  // of the last session
  cms::StreamCounts earlier CMS_GUARDED_BY(lock);               // of the sessions before this one

  // Of the last frame; goes on over all openings. Written by the receiving thread.
  std::atomic<std::uint32_t> videoSequence{0};
};
