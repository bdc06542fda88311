// What CMSClientBase keeps and does not show.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/audio/audio_capture.h"
#include "cms/live/client_base.h"
#include "cms/live/internal/keeper.h"
#include "cms/live/internal/rate_meter.h"
#include "cms/recording/site/internal/site_recording.h"

struct CMSClientBase::State {
  explicit State(cms::KeptStream* stream);

  using Channels = std::vector<std::shared_ptr<CMSChannelDataBase>>;
  Channels CopyOfChannels() const;

  std::atomic<unsigned> channelCount{0};
  std::atomic<unsigned> recordableChannels{0};  // the last count above 0: while there are none too
  mutable CMSCritical channelsLock;             // for a moment only, inside all others
  Channels channels CMS_GUARDED_BY(channelsLock);
  std::atomic<int> mustDecode{0};
  std::atomic<bool> threadedDecode{false};
  stFisheyeParameter fisheye CMS_GUARDED_BY(channelsLock);

  std::atomic<int> playing{0};
  std::atomic<int> siteType{0};
  std::atomic<int> audioType{0};

  CMSCritical audioLock;  // held while the player is called
  cms::AudioPlayer* audioPlayer CMS_GUARDED_BY(audioLock) = nullptr;
  tCMSAudioPlayerConfig playedFormat CMS_GUARDED_BY(audioLock){.codecId = cms::CMS_CODEC_NONE};
  CMSCritical recorderLock;  // held while a capture is started or stopped
  std::unique_ptr<cms::AudioCapture> audioCapture CMS_GUARDED_BY(recorderLock);

  cms::FrameMoment moment;  // of the frame in hand; the receiving thread's
  std::atomic<std::int64_t> lastTimeUs{0};
  std::atomic<std::int64_t> lastCameraUs{0};
  std::atomic<std::uint64_t> videoFrames{0};
  std::atomic<std::uint64_t> keyFrames{0};
  std::atomic<std::uint64_t> audioFrames{0};
  std::atomic<std::uint64_t> bytes{0};
  std::atomic<std::uint64_t> openingTick{0};
  std::atomic<std::uint32_t> openMs{0};
  std::atomic<std::uint64_t> firstFrameTick{0};
  cms::RateMeter rate;
  CMSFpsReport fpsReport;

  cms::Keeper keeper;
  cms::SiteRecording recording;
};
