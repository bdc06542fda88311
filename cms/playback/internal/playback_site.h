// CCMSPlaybackSiteBase, one site of the controller: its recordings' channels and its sound.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cms/playback/internal/playback_channel_data.h"
#include "cms/playback/internal/playback_data_reader.h"
#include "cms/playback/playback_config.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

// A reader for one channel of a site, not opened yet.
std::unique_ptr<cms::PlaybackDataReader> MakePlaybackReader(
    const cms::_MULTI_PB_SITE_CONFIG& config, unsigned channel);

// What a site has besides its channels: its sound.
class CCMSPlaybackSiteData {
 public:
  void PlayForward(int) { forward_.store(true, std::memory_order_relaxed); }
  void PlayBackward() { forward_.store(false, std::memory_order_relaxed); }
  bool PlaysForward() const { return forward_.load(std::memory_order_relaxed); }

  void SetDevice(const std::string& device);
  std::string Device() const;

 private:
  std::atomic<bool> forward_{true};
  mutable CMSCritical lock_;
  std::string device_ CMS_GUARDED_BY(lock_);
};

// Made by StartPlayback, gone with StopPlayback. All but its sound stays as it was opened.
class CCMSPlaybackSiteBase {
 public:
  CCMSPlaybackSiteBase(const cms::_MULTI_PB_SITE_CONFIG& config, unsigned index);

  // Opens a reader for each channel. False when the site has nothing to play; `error` says why.
  bool Open(std::string& error);

  unsigned ChannelCount() const { return static_cast<unsigned>(channels_.size()); }
  CCMSPlaybackChannelData* Channel(unsigned channel) const {  // null: nothing to play there
    return channel < channels_.size() ? channels_[channel].get() : nullptr;
  }
  const cms::_MULTI_PB_SITE_CONFIG& Config() const { return config_; }
  CCMSPlaybackSiteData& Data() { return data_; }
  std::int64_t StartTime() const;
  std::int64_t EndTime() const;

  void PlayForward(int normalSpeed);
  void PlayBackward();

  // Whether a channel's sound is handed out; channels that there are not are never asked for.
  std::atomic<bool>& Audible(unsigned channel) { return audible_[channel]; }

 private:
  const cms::_MULTI_PB_SITE_CONFIG config_;
  const unsigned index_;
  std::vector<std::unique_ptr<CCMSPlaybackChannelData>> channels_;
  std::vector<std::atomic<bool>> audible_;
  CCMSPlaybackSiteData data_;
};
