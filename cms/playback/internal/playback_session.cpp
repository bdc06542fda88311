#include "cms/playback/internal/playback_session.h"

#include <algorithm>
#include <utility>

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

bool PlaybackSession::Start(const _MULTI_SITE_PLAYBACK_CONFIG& config, const PlaybackChoice& choice,
                            PlaybackSink& sink) {
  std::vector<std::shared_ptr<PictureStore>> stores;
  for (const Entry& entry : order_) {
    stores.push_back(entry.data->Pictures());
  }
  transport_.Start(std::move(stores),
                   config.startTime == kPlaybackNoTargetTime ? StartTime() : config.startTime,
                   config.startPaused);
  Apply(choice);
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

void PlaybackSession::Apply(const PlaybackChoice& choice) {
  std::size_t current =
      NumberOf(static_cast<unsigned>(choice.site), static_cast<unsigned>(choice.channel));
  current = current == kNone ? 0 : current;
  std::vector<bool> displayed(order_.size());
  const std::size_t pictures =
      choice.pictures > 0
          ? std::min<std::size_t>(static_cast<std::size_t>(choice.pictures), order_.size())
          : order_.size();
  for (std::size_t i = 0; i < pictures; ++i) {
    const std::size_t number = (current + i) % order_.size();
    displayed[number] = choice.IsOn(order_[number].site, order_[number].channel);
  }
  if (!displayed[current]) {
    const auto first = std::find(displayed.begin(), displayed.end(), true);
    current = first == displayed.end() ? 0 : static_cast<std::size_t>(first - displayed.begin());
  }
  for (std::size_t i = 0; i < order_.size(); ++i) {
    if (const auto site = choice.sites.find(order_[i].site); site != choice.sites.end()) {
      const PlaybackChoice::Channel& channel = site->second.channels[order_[i].channel];
      sites_[site->first]->Audible(order_[i].channel).store(channel.audio);
      sites_[site->first]->Data().SetDevice(site->second.device);
      transport_.SetQuick(i, channel.quick);
    }
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
