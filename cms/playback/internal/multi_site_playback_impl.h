// What stands behind CCMSMultiSitePlaybackCtrl.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cms/playback/internal/playback_session.h"
#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

// Locks: the controller's (lock_), then a session's, then the transport's, then a channel's
// pictures. None is held while a reader thread is waited for or a callback runs.
class CCMSMultiSitePlaybackCtrl::Impl final : public cms::PlaybackSink {
 public:
  using Session = std::shared_ptr<cms::PlaybackSession>;

  int SetConfig(const _MULTI_SITE_PLAYBACK_CONFIG& config);
  int Start();
  void Stop();
  std::string ErrorText();

  // The running session, null when there is none.
  Session Running();

  // A transport operation: under the controller's lock, 0 when playback has not started.
  template <typename Operation>
  int Operate(Operation&& operation) {
    const ScopeLock guard(lock_);
    if (!session_) {
      return 0;
    }
    operation(*session_);
    return 1;
  }

  // Changes how a channel's pictures are made, and makes the one that is shown anew. 0 when there
  // is no such channel.
  template <typename Change>
  int ShowAnew(unsigned site, unsigned channel, const Change& change) {
    int known = 0;
    Operate([&](cms::PlaybackSession& session) {
      if (auto* const data = session.Channel(site, channel)) {
        change(*data);
        data->ShowAnew();
        session.Transport().Synchronise();
        known = 1;
      }
    });
    return known;
  }

  // Changes what the viewer wants, at once or for when playback starts. For a channel: 0 when there
  // is no such channel, or when none is configured.
  void Choose(const std::function<void(cms::PlaybackChoice&)>& change);
  int Choose(unsigned site, unsigned channel,
             const std::function<void(cms::PlaybackChoice::Site&)>& change);
  cms::PlaybackChoice Chosen();
  unsigned SiteCount();  // that are configured

  unsigned char* Lock(unsigned site, unsigned channel, tagSIZE* size);
  unsigned char* Locked(unsigned site, unsigned channel, tagSIZE* size);  // of the calling thread
  void Unlock(unsigned site, unsigned channel);

  int GetFrameCallBack(const void* frame, long size,
                       _MULTI_PB_GET_FRAME_CALL_BACK_PARAM* parameter) override;
  void OnPicture(unsigned site, unsigned channel, std::int64_t time) override;
  bool WantsAudio(unsigned site, unsigned channel) override;
  void OnAudio(cms::_MULTI_PB_AUDIO_BLOCK& block) override;

 private:
  struct Pin {
    std::thread::id thread;
    unsigned site = 0;
    unsigned channel = 0;
    std::shared_ptr<cms::PictureStore> pictures;
    cms::PictureStore::Picture* picture = nullptr;
  };
  std::vector<Pin>::iterator FindPin(unsigned site, unsigned channel) CMS_REQUIRES(pinLock_);

  CMSCritical lock_;
  Session session_ CMS_GUARDED_BY(lock_);
  cms::PlaybackChoice choice_ CMS_GUARDED_BY(lock_);
  std::string error_ CMS_GUARDED_BY(lock_);
  // Changed under lock_ while there is no session; reader threads read it.
  _MULTI_SITE_PLAYBACK_CONFIG config_;

  CMSCritical pinLock_;
  std::vector<Pin> pins_ CMS_GUARDED_BY(pinLock_);
};
