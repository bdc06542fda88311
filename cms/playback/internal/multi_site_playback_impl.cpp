#include "cms/playback/internal/multi_site_playback_impl.h"

#include <algorithm>
#include <iterator>
#include <utility>

int CCMSMultiSitePlaybackCtrl::Impl::SetConfig(const _MULTI_SITE_PLAYBACK_CONFIG& config) {
  const ScopeLock guard(lock_);
  if (session_ || config.sites.empty()) {
    error_ = session_ ? "playback has started: stop it before it is configured" : "no site to play";
    return 0;
  }
  config_ = config;
  choice_.sites.clear();  // their numbers are others
  error_.clear();
  return 1;
}

int CCMSMultiSitePlaybackCtrl::Impl::Start() {
  {
    const ScopeLock guard(lock_);
    if (session_) {
      error_ = "playback has started already";
      return 0;
    }
  }
  // Opening reads files: without the lock, which the questions of other threads take.
  auto session = std::make_shared<cms::PlaybackSession>();
  std::string error;
  bool good = session->Open(config_, error);
  if (good) {
    const ScopeLock guard(lock_);
    error_.clear();
    session_ = session;
    good = session->Start(config_, choice_, *this);
    if (good) {
      return 1;
    }
    session_.reset();
    error = "cannot start a reader thread";
  }
  session->Stop();
  const ScopeLock guard(lock_);
  error_ = error.empty() ? "nothing to play" : error;
  return 0;
}

void CCMSMultiSitePlaybackCtrl::Impl::Stop() {
  Session session;
  {
    const ScopeLock guard(lock_);
    session = std::move(session_);
    session_.reset();
  }
  if (session) {
    session->Stop();  // its threads may be waiting for the lock
  }
}

std::string CCMSMultiSitePlaybackCtrl::Impl::ErrorText() {
  const ScopeLock guard(lock_);
  return error_;
}

CCMSMultiSitePlaybackCtrl::Impl::Session CCMSMultiSitePlaybackCtrl::Impl::Running() {
  const ScopeLock guard(lock_);
  return session_;
}

void CCMSMultiSitePlaybackCtrl::Impl::Choose(
    const std::function<void(cms::PlaybackChoice&)>& change) {
  const ScopeLock guard(lock_);
  change(choice_);
  if (session_) {
    session_->Apply(choice_);
  }
}

int CCMSMultiSitePlaybackCtrl::Impl::Choose(
    unsigned site, unsigned channel,
    const std::function<void(cms::PlaybackChoice::Site&)>& change) {
  const ScopeLock guard(lock_);
  if (session_) {
    if (session_->Channel(site, channel) == nullptr) {
      return 0;
    }
  } else {
    const int count = site < config_.sites.size() ? config_.sites[site].channelCount : -1;
    const unsigned channels =
        count == 0 ? cms::kMostPlaybackChannels : static_cast<unsigned>(std::max(count, 0));
    if (channel >= std::min(channels, cms::kMostPlaybackChannels)) {
      return 0;
    }
  }
  change(choice_.sites[site]);
  if (session_) {
    session_->Apply(choice_);
  }
  return 1;
}

cms::PlaybackChoice CCMSMultiSitePlaybackCtrl::Impl::Chosen() {
  const ScopeLock guard(lock_);
  return choice_;
}

unsigned CCMSMultiSitePlaybackCtrl::Impl::SiteCount() {
  const ScopeLock guard(lock_);
  return static_cast<unsigned>(config_.sites.size());
}

// --- Pictures -----------------------------------------------------------------------------------

// The last one of the calling thread: locks nest.
std::vector<CCMSMultiSitePlaybackCtrl::Impl::Pin>::iterator
CCMSMultiSitePlaybackCtrl::Impl::FindPin(unsigned site, unsigned channel) {
  const auto self = std::this_thread::get_id();
  const auto pin = std::find_if(pins_.rbegin(), pins_.rend(), [&](const Pin& each) {
    return each.thread == self && each.site == site && each.channel == channel;
  });
  return pin == pins_.rend() ? pins_.end() : std::prev(pin.base());
}

unsigned char* CCMSMultiSitePlaybackCtrl::Impl::Lock(unsigned site, unsigned channel,
                                                     tagSIZE* size) {
  const Session session = Running();
  CCMSPlaybackChannelData* const data = session ? session->Channel(site, channel) : nullptr;
  if (data == nullptr) {
    return nullptr;
  }
  session->Transport().ShowDue();
  Pin pin{std::this_thread::get_id(), site, channel, data->Pictures(), data->Pictures()->Pin()};
  if (pin.picture == nullptr) {
    return nullptr;
  }
  const auto& converter = pin.picture->converter;
  if (size != nullptr) {
    *size = {converter.Width(), converter.Height()};
  }
  unsigned char* const pixels = converter.Pixels();
  const ScopeLock guard(pinLock_);
  pins_.push_back(std::move(pin));
  return pixels;
}

unsigned char* CCMSMultiSitePlaybackCtrl::Impl::Locked(unsigned site, unsigned channel,
                                                       tagSIZE* size) {
  const ScopeLock guard(pinLock_);
  const auto pin = FindPin(site, channel);
  if (pin == pins_.end()) {
    return nullptr;
  }
  *size = {pin->picture->converter.Width(), pin->picture->converter.Height()};
  return pin->picture->converter.Pixels();
}

void CCMSMultiSitePlaybackCtrl::Impl::Unlock(unsigned site, unsigned channel) {
  const ScopeLock guard(pinLock_);
  const auto pin = FindPin(site, channel);
  if (pin != pins_.end()) {
    pin->pictures->Unpin(pin->picture);
    pins_.erase(pin);
  }
}

// --- What the readers call ----------------------------------------------------------------------

int CCMSMultiSitePlaybackCtrl::Impl::GetFrameCallBack(
    const void*, long size, _MULTI_PB_GET_FRAME_CALL_BACK_PARAM* parameter) {
  if (parameter == nullptr || size < 0) {
    return 0;
  }
  const ScopeLock guard(lock_);
  // Another direction, speed or target begins another synchronisation.
  if (!session_ || session_->Transport().Epoch() != parameter->serial) {
    return 0;
  }
  parameter->show = parameter->time == parameter->wantedTime ? 1 : 0;
  return 1;
}

void CCMSMultiSitePlaybackCtrl::Impl::OnPicture(unsigned site, unsigned channel,
                                                std::int64_t time) {
  if (config_.onPicture != nullptr) {
    config_.onPicture(config_.context, site, channel, time);
  }
}

bool CCMSMultiSitePlaybackCtrl::Impl::WantsAudio(unsigned site, unsigned channel) {
  const Session session = Running();
  CCMSPlaybackSiteBase* const base = session ? session->Site(site) : nullptr;
  return config_.onAudio != nullptr && base != nullptr && base->Audible(channel).load() &&
         base->Data().PlaysForward();
}

void CCMSMultiSitePlaybackCtrl::Impl::OnAudio(cms::_MULTI_PB_AUDIO_BLOCK& block) {
  const Session session = Running();
  if (session) {
    const std::string device = session->Site(block.site)->Data().Device();
    block.device = device.c_str();
    config_.onAudio(config_.context, &block);
  }
}
