// Life, transport and display of the controller; multi_site_playback_channels.cpp has the rest.
#include "cms/playback/multi_site_playback_ctrl.h"

#include <algorithm>

#include "cms/playback/internal/multi_site_playback_impl.h"
#include "cms/playback/internal/single_drv_data_reader.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"

CCMSMultiSitePlaybackCtrl::CCMSMultiSitePlaybackCtrl() : impl_(std::make_unique<Impl>()) {}

CCMSMultiSitePlaybackCtrl::~CCMSMultiSitePlaybackCtrl() {
  impl_->Stop();
}

int CCMSMultiSitePlaybackCtrl::SetConfig(_MULTI_SITE_PLAYBACK_CONFIG& config) {
  return impl_->SetConfig(config);
}

int CCMSMultiSitePlaybackCtrl::StartPlayback() {
  return impl_->Start();
}

void CCMSMultiSitePlaybackCtrl::StopPlayback() {
  impl_->Stop();
}

int CCMSMultiSitePlaybackCtrl::HasStartPlay() const {
  return impl_->Running() ? 1 : 0;
}

std::string CCMSMultiSitePlaybackCtrl::GetLastErrorText() const {
  return impl_->ErrorText();
}

int CCMSMultiSitePlaybackCtrl::IsAllEndOfFile() const {
  const auto session = impl_->Running();
  return session && session->Transport().AllAtEnd() ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::GetStartAndEndTimeOfDRVFile(std::int64_t* start, std::int64_t* end,
                                                           const wchar_t* file) {
  if (start == nullptr || end == nullptr || file == nullptr) {
    return 0;
  }
  cms::_MULTI_PB_SITE_CONFIG config;
  config.files = {file};
  config.source = cms::PLAYBACK_SOURCE_SINGLE_DRV;
  config.channelCount = 0;
  CCMSPlaybackSiteBase site(config, 0);
  std::string error;
  if (!site.Open(error)) {
    return 0;
  }
  *start = site.StartTime();
  *end = site.EndTime();
  return 1;
}

int CCMSMultiSitePlaybackCtrl::GetStartAndEndTimeOfDRVFile(std::int64_t* start, std::int64_t* end,
                                                           const std::string& file) {
  return GetStartAndEndTimeOfDRVFile(start, end, cms::SystemPath(file).c_str());
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetPlaybackDataStartTime() const {
  const auto session = impl_->Running();
  return session ? session->StartTime() : 0;
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetPlaybackDataEndTime() const {
  const auto session = impl_->Running();
  return session ? session->EndTime() : 0;
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetTotalPlaybackTime() const {
  return GetPlaybackDataEndTime() - GetPlaybackDataStartTime();
}

// --- Transport ----------------------------------------------------------------------------------

int CCMSMultiSitePlaybackCtrl::PlaybackPause() {
  return impl_->Operate([](cms::PlaybackSession& session) { session.Transport().Pause(); });
}

int CCMSMultiSitePlaybackCtrl::PlaybackResume() {
  return impl_->Operate([](cms::PlaybackSession& session) {
    session.PlayForward(0);
    session.Transport().Resume();
  });
}

int CCMSMultiSitePlaybackCtrl::PlaybackStepForward() {
  return impl_->Operate([](cms::PlaybackSession& session) {
    session.PlayForward(0);
    session.Transport().Step(true);
  });
}

int CCMSMultiSitePlaybackCtrl::PlaybackStepBackward() {
  return impl_->Operate([](cms::PlaybackSession& session) {
    session.PlayBackward();
    session.Transport().Step(false);
  });
}

namespace {

void ChangeSpeed(cms::PlaybackSession& session, bool up) {
  session.Transport().ChangeSpeed(up,
                                  [&session](const cms::PlaybackTransport::Direction& direction) {
                                    if (direction.forward) {
                                      session.PlayForward(direction.normalSpeed);
                                    } else {
                                      session.PlayBackward();
                                    }
                                  });
}

}  // namespace

int CCMSMultiSitePlaybackCtrl::PlaybackSetSpeedUp() {
  return impl_->Operate([](cms::PlaybackSession& session) { ChangeSpeed(session, true); });
}

int CCMSMultiSitePlaybackCtrl::PlaybackSetSlowDown() {
  return impl_->Operate([](cms::PlaybackSession& session) { ChangeSpeed(session, false); });
}

int CCMSMultiSitePlaybackCtrl::PlaybackSetSlowMode(int slow) {
  return impl_->Operate(
      [slow](cms::PlaybackSession& session) { session.Transport().SetSlowMode(slow != 0); });
}

int CCMSMultiSitePlaybackCtrl::SetPlaybackTargetTime(std::int64_t time) {
  return impl_->Operate([time](cms::PlaybackSession& session) { session.Transport().Seek(time); });
}

int CCMSMultiSitePlaybackCtrl::GetPlaySpeed() const {
  const auto session = impl_->Running();
  return session ? session->Transport().Speed() : 0;
}

int CCMSMultiSitePlaybackCtrl::IsPlaybackPause() const {
  return GetPlaySpeed() == 0 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsPlaybackPlaying() const {
  return GetPlaySpeed() != 0 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsPlaybackStep() const {
  const auto session = impl_->Running();
  return session && session->Transport().IsStep() ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsPlaybackInSlowMode() const {
  const auto session = impl_->Running();
  return session && session->Transport().IsSlow() ? 1 : 0;
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetCurPlaybackTargetTime() const {
  const auto session = impl_->Running();
  return session ? session->Transport().Target() : cms::kPlaybackNoTargetTime;
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetPlaybackTime() const {
  const auto session = impl_->Running();
  return session ? session->Transport().Position() : 0;
}

int CCMSMultiSitePlaybackCtrl::WaitUntilShown(int milliseconds) const {
  const auto session = impl_->Running();
  return session && session->Transport().WaitShown(milliseconds) ? 1 : 0;
}

std::int64_t CCMSMultiSitePlaybackCtrl::GetMaximumSkew() const {
  const auto session = impl_->Running();
  return session ? session->Transport().MaximumSkew() : 0;
}

// --- Display ------------------------------------------------------------------------------------

void CCMSMultiSitePlaybackCtrl::setCurrentSplitMode(int pictures) {
  impl_->Choose([pictures](cms::PlaybackChoice& choice) { choice.pictures = pictures; });
}

void CCMSMultiSitePlaybackCtrl::setCurrentDisplayChannel(int channel) {
  impl_->Choose([channel](cms::PlaybackChoice& choice) { choice.channel = channel; });
}

void CCMSMultiSitePlaybackCtrl::setCurrentSiteIdx(int site) {
  impl_->Choose([site](cms::PlaybackChoice& choice) { choice.site = site; });
}

int CCMSMultiSitePlaybackCtrl::SetSingleChannel(unsigned site, unsigned channel, int on) {
  return impl_->Choose(site, channel, [=](cms::PlaybackChoice::Site& choice) {
    choice.single = on != 0 ? static_cast<int>(channel) : -1;
  });
}

int CCMSMultiSitePlaybackCtrl::S_ON_DDCH_ONE(unsigned site, unsigned channel, int on) {
  return impl_->Choose(site, channel, [=](cms::PlaybackChoice::Site& choice) {
    choice.channels[channel].on = on != 0;
  });
}

int CCMSMultiSitePlaybackCtrl::SetQuickSearch(unsigned site, unsigned channel, int on) {
  return impl_->Choose(site, channel, [=](cms::PlaybackChoice::Site& choice) {
    choice.channels[channel].quick = on != 0;
  });
}

int CCMSMultiSitePlaybackCtrl::IsQuickSearch(unsigned site) const {
  const cms::PlaybackChoice choice = impl_->Chosen();
  const auto found = choice.sites.find(site);
  return found != choice.sites.end() &&
                 std::ranges::any_of(found->second.channels,
                                     [](const auto& channel) { return channel.quick; })
             ? 1
             : 0;
}

int CCMSMultiSitePlaybackCtrl::GetFrameCallBack(const void* frame, long size,
                                                _MULTI_PB_GET_FRAME_CALL_BACK_PARAM* parameter) {
  return impl_->GetFrameCallBack(frame, size, parameter);
}
