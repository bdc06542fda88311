// What the controller tells and hands out of its sites and channels.
#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "cms/playback/internal/multi_site_playback_impl.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/streaming/stream_probes.h"

namespace {

using Session = std::shared_ptr<cms::PlaybackSession>;

int VideoTypeOf(const Session& session, unsigned site, unsigned channel) {
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  return data != nullptr ? data->VideoType() : 0;
}

const cms::_MULTI_PB_SITE_CONFIG* ConfigOf(const Session& session, unsigned site) {
  const auto* const base = session ? session->Site(site) : nullptr;
  return base != nullptr ? &base->Config() : nullptr;
}

}  // namespace

int CCMSMultiSitePlaybackCtrl::GetTotalPlaySite() const {
  const auto session = impl_->Running();
  return session ? static_cast<int>(session->SiteCount()) : 0;
}

int CCMSMultiSitePlaybackCtrl::GetSiteNum(unsigned site) const {
  const auto session = impl_->Running();
  const auto* const config = ConfigOf(session, site);
  return config != nullptr ? static_cast<int>(config->siteNumber) : -1;
}

int CCMSMultiSitePlaybackCtrl::GetPlayingSiteIdx(int siteNumber) const {
  const auto session = impl_->Running();
  for (unsigned site = 0; session && site < session->SiteCount(); ++site) {
    if (static_cast<int>(session->Site(site)->Config().siteNumber) == siteNumber) {
      return static_cast<int>(site);
    }
  }
  return -1;
}

int CCMSMultiSitePlaybackCtrl::GetTotalChannel(unsigned site) const {
  const auto session = impl_->Running();
  const auto* const base = session ? session->Site(site) : nullptr;
  return base != nullptr ? static_cast<int>(base->ChannelCount()) : 0;
}

int CCMSMultiSitePlaybackCtrl::GetCMSSiteType(unsigned site) const {
  const auto session = impl_->Running();
  const auto* const config = ConfigOf(session, site);
  return config != nullptr ? config->siteType : 0;
}

unsigned CCMSMultiSitePlaybackCtrl::GetImageID(unsigned site, unsigned channel) const {
  const auto session = impl_->Running();
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  if (data == nullptr) {
    return 0;
  }
  session->Transport().ShowDue();
  return data->Pictures()->ImageId();
}

char CCMSMultiSitePlaybackCtrl::GetChFrameState(unsigned site, unsigned channel) const {
  const auto session = impl_->Running();
  return session ? session->Transport().StateOf(session->NumberOf(site, channel))
                 : cms::PLAYBACK_CHANNEL_OFF;
}

int CCMSMultiSitePlaybackCtrl::GetChannelStatus(unsigned site, unsigned channel,
                                                cms::stPlaybackChannelStatus* status) const {
  const auto session = impl_->Running();
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  if (data == nullptr || status == nullptr) {
    return 0;
  }
  status->shown = data->Pictures()->ShownCount();
  status->first = data->Pictures()->FirstTime();
  status->last = data->Pictures()->LastTime();
  status->lost = data->Lost();
  status->endOfFile = session->Transport().IsAtEnd(session->NumberOf(site, channel)) ? 1 : 0;
  status->skippedBytes = data->ReaderStatus().skippedBytes;
  status->rebuiltIndexes = data->ReaderStatus().rebuiltIndexes;
  return 1;
}

int CCMSMultiSitePlaybackCtrl::IsIPCamera(unsigned site, unsigned) const {
  return GetTotalChannel(site) == 1 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsH264(unsigned site, unsigned channel) const {
  return VideoTypeOf(impl_->Running(), site, channel) == cms::CMS_VIDEO_H264 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsH265(unsigned site, unsigned channel) const {
  return VideoTypeOf(impl_->Running(), site, channel) == cms::CMS_VIDEO_H265 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsMJPEG(unsigned site, unsigned channel) const {
  return VideoTypeOf(impl_->Running(), site, channel) == cms::CMS_VIDEO_MJPEG ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::IsMPEG4(unsigned site, unsigned channel) const {
  return VideoTypeOf(impl_->Running(), site, channel) == cms::CMS_VIDEO_MPEG4 ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::Is84Inter(unsigned site, unsigned channel) const {
  const tagSIZE size = GetWidHei(site, channel);
  return size.cx == 704 && (size.cy == 240 || size.cy == 288) ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::GetVideoFormat(unsigned site, unsigned channel) const {
  const auto session = impl_->Running();
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  return data != nullptr ? data->OtherRate() : 0;
}

tagSIZE CCMSMultiSitePlaybackCtrl::GetWidHei(unsigned site, unsigned channel) const {
  const auto session = impl_->Running();
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  return data != nullptr ? data->Pictures()->RecordedSize() : tagSIZE{};
}

std::int64_t CCMSMultiSitePlaybackCtrl::CurTimeGet(unsigned site, unsigned channel) const {
  const auto session = impl_->Running();
  const auto* const data = session ? session->Channel(site, channel) : nullptr;
  if (data == nullptr) {
    return 0;
  }
  session->Transport().ShowDue();
  return data->Pictures()->ShownTime();
}

int CCMSMultiSitePlaybackCtrl::GetCAMERA_TITLE(unsigned site, unsigned channel,
                                               std::wstring* title) const {
  const auto session = impl_->Running();
  const auto* const config = ConfigOf(session, site);
  if (config == nullptr || title == nullptr) {
    return 0;
  }
  *title = channel < config->titles.size() ? config->titles[channel] : config->siteName;
  return 1;
}

int CCMSMultiSitePlaybackCtrl::GetTextType(unsigned site, unsigned channel) const {
  std::wstring text;
  return GetTextString(site, channel, &text) != 0 && !text.empty() ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::GetTextString(unsigned site, unsigned channel,
                                             std::wstring* text) const {
  const auto session = impl_->Running();
  const auto* const config = ConfigOf(session, site);
  if (config == nullptr || text == nullptr || channel >= config->texts.size()) {
    return 0;
  }
  *text = config->texts[channel];
  return 1;
}

int CCMSMultiSitePlaybackCtrl::GetFisheyeInfo(unsigned site, unsigned,
                                              stFisheyeParameter* parameter) const {
  const auto session = impl_->Running();
  const auto* const config = ConfigOf(session, site);
  if (config == nullptr || parameter == nullptr) {
    return 0;
  }
  *parameter = config->fisheye;
  return 1;
}

// --- Pictures -----------------------------------------------------------------------------------

unsigned char* CCMSMultiSitePlaybackCtrl::LockDecodedImage(unsigned site, unsigned channel,
                                                           tagSIZE* size) {
  tagSIZE unused;
  tagSIZE& result = size != nullptr ? *size : unused;
  result = {};
  return impl_->Lock(site, channel, &result);
}

void CCMSMultiSitePlaybackCtrl::UnlockDecodedImage(unsigned site, unsigned channel) {
  impl_->Unlock(site, channel);
}

int CCMSMultiSitePlaybackCtrl::LockImage(unsigned site, unsigned channel) {
  return impl_->Lock(site, channel, nullptr) != nullptr ? 1 : 0;
}

int CCMSMultiSitePlaybackCtrl::CurImageGet(unsigned site, unsigned channel, tagBITMAPINFO& head,
                                           unsigned char*& pixels) {
  tagSIZE size;
  pixels = impl_->Locked(site, channel, &size);
  if (pixels == nullptr) {
    return 0;
  }
  head = {};
  head.biWidth = static_cast<std::int32_t>(size.cx);
  head.biHeight = -static_cast<std::int32_t>(size.cy);
  head.biSizeImage = static_cast<std::uint32_t>(size.cx * size.cy * 4);
  return 1;
}

void CCMSMultiSitePlaybackCtrl::UnLockImage(unsigned site, unsigned channel) {
  impl_->Unlock(site, channel);
}

int CCMSMultiSitePlaybackCtrl::SetDecoderRenderCallback(unsigned site, unsigned channel,
                                                        const tagSIZE* size,
                                                        RenderCallback callback) {
  return impl_->ShowAnew(site, channel, [&](CCMSPlaybackChannelData& data) {
    data.SetRenderCallback(callback);
    data.Pictures()->SetDisplaySize(size != nullptr ? *size : tagSIZE{});
  });
}

int CCMSMultiSitePlaybackCtrl::SetFisheye(unsigned site, unsigned channel,
                                          const cms::FisheyeSettings& settings) {
  return impl_->ShowAnew(
      site, channel, [&](CCMSPlaybackChannelData& data) { data.Pictures()->SetFisheye(settings); });
}

int CCMSMultiSitePlaybackCtrl::GetPlaybackFrameData(unsigned site, unsigned channel,
                                                    std::int64_t time, unsigned char* buffer,
                                                    long& size) {
  const long room = std::exchange(size, 0);
  const auto session = impl_->Running();
  if (!session || session->Channel(site, channel) == nullptr || buffer == nullptr) {
    return 0;
  }
  // A reader of its own, so that nobody waits for the channel's.
  const auto reader = MakePlaybackReader(session->Site(site)->Config(), channel);
  std::string error;
  if (!reader->Open(error)) {
    return 0;
  }
  if (time > reader->EndTime()) {
    reader->Refresh();  // it may be in a file that came later
  }
  cms::PlaybackTrack track(*reader);
  const cms::FrameRef frame = track.At(time);
  if (!frame || time >= track.ValidUntil(frame)) {
    return 0;
  }
  size = static_cast<long>(frame.Frame().area) + static_cast<long>(frame.Frame().payload);
  return size <= room && reader->Read(frame.Place(), frame.Frame(),
                                      {buffer, static_cast<std::size_t>(size)}) ==
                             static_cast<std::size_t>(size)
             ? 1
             : 0;
}

// --- Audio --------------------------------------------------------------------------------------

int CCMSMultiSitePlaybackCtrl::SetAudio(unsigned site, const std::string& device) {
  int known = 0;
  for (unsigned channel = 0; known == 0 && channel < cms::kMostPlaybackChannels; ++channel) {
    known = impl_->Choose(site, channel,
                          [&](cms::PlaybackChoice::Site& choice) { choice.device = device; });
  }
  return known;
}

int CCMSMultiSitePlaybackCtrl::SetChAudioState(unsigned site, unsigned channel, int on) {
  return impl_->Choose(site, channel, [=](cms::PlaybackChoice::Site& choice) {
    choice.channels[channel].audio = on != 0;
  });
}

void CCMSMultiSitePlaybackCtrl::SetAllAudioState(int on) {
  const unsigned sites = impl_->SiteCount();
  impl_->Choose([=](cms::PlaybackChoice& choice) {
    for (unsigned site = 0; site < sites; ++site) {
      for (cms::PlaybackChoice::Channel& channel : choice.sites[site].channels) {
        channel.audio = on != 0;
      }
    }
  });
}
