#include "cms/playback/internal/playback_session.h"

#include <algorithm>

namespace cms {

bool PlaybackSession::Open(const _MULTI_SITE_PLAYBACK_CONFIG& config, std::string& error) {
  for (const _MULTI_PB_SITE_CONFIG& each : config.sites) {
    const auto number = static_cast<unsigned>(sites_.size());
    sites_.push_back(std::make_unique<CCMSPlaybackSiteBase>(each, number));
    std::string why;
    if (!sites_.back()->Open(why) && error.empty()) {
      error = why;
    }
    for (unsigned channel = 0; channel < sites_.back()->ChannelCount(); ++channel) {
      if (CCMSPlaybackChannelData* const data = sites_.back()->Channel(channel)) {
        order_.push_back({number, channel, data});
      }
    }
  }
  return !order_.empty();
}

bool PlaybackSession::Start(const _MULTI_SITE_PLAYBACK_CONFIG& config, PlaybackSink& sink) {
  std::vector<std::shared_ptr<PictureStore>> stores;
  for (const Entry& entry : order_) {
    stores.push_back(entry.data->Pictures());
  }
  transport_.Start(std::move(stores),
                   config.startTime == kPlaybackNoTargetTime ? StartTime() : config.startTime,
                   config.startPaused);
  for (std::size_t i = 0; i < order_.size(); ++i) {
    if (!order_[i].data->Start(transport_, i, sink)) {
      return false;
    }
  }
  return true;
}

void PlaybackSession::Stop() {
  transport_.Stop();
  for (const Entry& entry : order_) {
    entry.data->Join();
  }
}

std::size_t PlaybackSession::NumberOf(unsigned site, unsigned channel) const {
  for (std::size_t i = 0; i < order_.size(); ++i) {
    if (order_[i].site == site && order_[i].channel == channel) {
      return i;
    }
  }
  return kNone;
}

void PlaybackSession::SetSplit(int pictures) {
  {
    const ScopeLock guard(displayLock_);
    split_ = pictures;
  }
  UpdateDisplayed();
}

void PlaybackSession::SetCurrentSite(int site) {
  {
    const ScopeLock guard(displayLock_);
    site_ = site;
  }
  UpdateDisplayed();
}

void PlaybackSession::SetCurrentChannel(int channel) {
  {
    const ScopeLock guard(displayLock_);
    channel_ = channel;
  }
  UpdateDisplayed();
}

void PlaybackSession::UpdateDisplayed() {
  const ScopeLock guard(displayLock_);
  std::size_t current = NumberOf(static_cast<unsigned>(site_), static_cast<unsigned>(channel_));
  current = current == kNone ? 0 : current;
  std::vector<bool> displayed(order_.size());
  const std::size_t pictures =
      split_ > 0 ? std::min<std::size_t>(static_cast<std::size_t>(split_), order_.size())
                 : order_.size();
  for (std::size_t i = 0; i < pictures; ++i) {
    const std::size_t number = (current + i) % order_.size();
    const Entry& entry = order_[number];
    CCMSPlaybackSiteBase& site = *sites_[entry.site];
    const int single = site.Single().load();
    displayed[number] = site.Of(entry.channel).on.load() &&
                        (single < 0 || single == static_cast<int>(entry.channel));
  }
  if (!displayed[current]) {
    const auto first = std::find(displayed.begin(), displayed.end(), true);
    current = first == displayed.end() ? 0 : static_cast<std::size_t>(first - displayed.begin());
  }
  transport_.SetDisplayed(std::move(displayed), current);
}

void PlaybackSession::PlayForward(int normalSpeed) {
  for (const auto& site : sites_) {
    site->PlayForward(normalSpeed);
  }
}

void PlaybackSession::PlayBackward() {
  for (const auto& site : sites_) {
    site->PlayBackward();
  }
}

std::int64_t PlaybackSession::StartTime() const {
  std::int64_t start = INT64_MAX;
  for (const Entry& entry : order_) {
    start = std::min(start, entry.data->StartTime());
  }
  return start;
}

std::int64_t PlaybackSession::EndTime() const {
  std::int64_t end = 0;
  for (const Entry& entry : order_) {
    end = std::max(end, entry.data->EndTime());
  }
  return end;
}

}  // namespace cms
