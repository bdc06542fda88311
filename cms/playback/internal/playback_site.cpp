#include "cms/playback/internal/playback_site.h"

#include <algorithm>

#include "cms/playback/internal/drv_data_reader.h"
#include "cms/playback/internal/raw_data_reader.h"
#include "cms/playback/internal/single_drv_data_reader.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"

namespace {

// The highest channel number near the beginning of an index, plus one; 1 without an index.
unsigned ChannelsOf(const std::wstring& drvPath) {
  constexpr int kRecords = 2048;
  cms::FileIo& io = cms::CurrentFileIo();
  const cms::ScopedFile file(io, cms::NativePath(cms::IdxPathOf(drvPath)), cms::kFileRead);
  unsigned count = 1;
  if (file) {
    cms::IdxReader reader(io, file.Handle());
    for (int i = 0; i < kRecords; ++i) {
      const auto record = reader.Next();
      if (!record) {
        break;
      }
      count = std::max(count, std::min(record->channel, cms::kMostPlaybackChannels - 1) + 1);
    }
  }
  return count;
}

// A file of bare video is no recording.
cms::_MULTI_PB_SITE_CONFIG Located(cms::_MULTI_PB_SITE_CONFIG config) {
  for (std::wstring& file : config.files) {
    if (config.source != cms::PLAYBACK_SOURCE_RAW) {
      file = cms::LocatedInData(file, config.dataRoot);
    }
  }
  return config;
}

}  // namespace

void cms::_MULTI_PB_SITE_CONFIG::AddFile(const std::string& path) {
  files.push_back(SystemPath(path));
}

std::unique_ptr<cms::PlaybackDataReader> MakePlaybackReader(
    const cms::_MULTI_PB_SITE_CONFIG& config, unsigned channel) {
  cms::FileIo& io = cms::CurrentFileIo();
  switch (config.source) {
    case cms::PLAYBACK_SOURCE_SINGLE_DRV:
      return std::make_unique<CPlaybackSingleDRVDataReader>(io, config.files.front(), channel);
    case cms::PLAYBACK_SOURCE_RAW:
      return std::make_unique<CPlaybackRAWDataReader>(io, config.files.front(), config.rawFrameRate,
                                                      config.rawStartTime);
    default:
      return std::make_unique<CPlaybackDRVDataReader>(io, config.files, channel,
                                                      config.followNewFiles);
  }
}

void CCMSPlaybackSiteData::SetDevice(const std::string& device) {
  const ScopeLock guard(lock_);
  device_ = device;
}

std::string CCMSPlaybackSiteData::Device() const {
  const ScopeLock guard(lock_);
  return device_;
}

CCMSPlaybackSiteBase::CCMSPlaybackSiteBase(const cms::_MULTI_PB_SITE_CONFIG& config, unsigned index)
    : config_(Located(config)), index_(index) {}

bool CCMSPlaybackSiteBase::Open(std::string& error) {
  if (config_.files.empty()) {
    error = "site " + std::to_string(config_.siteNumber) + ": no recording";
    return false;
  }
  const unsigned count =
      config_.channelCount > 0
          ? std::min(static_cast<unsigned>(config_.channelCount), cms::kMostPlaybackChannels)
          : ChannelsOf(config_.files.front());
  bool any = false;
  for (unsigned channel = 0; channel < count; ++channel) {
    auto reader = MakePlaybackReader(config_, channel);
    std::string why;
    if (reader->Open(why)) {
      channels_.push_back(
          std::make_unique<CCMSPlaybackChannelData>(index_, channel, std::move(reader)));
      cms::FisheyeSettings settings;
      settings.parameter = config_.fisheye;
      channels_.back()->Pictures()->SetFisheye(settings);
      any = true;
    } else {
      channels_.push_back(nullptr);
      if (error.empty()) {
        error = why;
      }
    }
  }
  audible_ = std::vector<std::atomic<bool>>(count);
  return any;
}

std::int64_t CCMSPlaybackSiteBase::StartTime() const {
  std::int64_t start = INT64_MAX;
  for (const auto& channel : channels_) {
    start = channel ? std::min(start, channel->StartTime()) : start;
  }
  return start;
}

std::int64_t CCMSPlaybackSiteBase::EndTime() const {
  std::int64_t end = 0;
  for (const auto& channel : channels_) {
    end = channel ? std::max(end, channel->EndTime()) : end;
  }
  return end;
}

void CCMSPlaybackSiteBase::PlayForward(int normalSpeed) {
  for (const auto& channel : channels_) {
    if (channel) {
      channel->PlayForward(normalSpeed);
    }
  }
  data_.PlayForward(normalSpeed);
}

void CCMSPlaybackSiteBase::PlayBackward() {
  for (const auto& channel : channels_) {
    if (channel) {
      channel->PlayBackward();
    }
  }
  data_.PlayBackward();
}
