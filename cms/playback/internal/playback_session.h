// PlaybackSession, what exists between StartPlayback and StopPlayback.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cms/playback/internal/playback_choice.h"
#include "cms/playback/internal/playback_site.h"
#include "cms/playback/internal/playback_transport.h"

namespace cms {

// The sites with the transport of all their channels. Channels have one number for the transport,
// in the order of sites and channels; those without a recording have none. Queries of other threads
// may hold a session for a moment longer than the controller: its threads have ended then.
class PlaybackSession {
 public:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  // False when there is nothing to play, with `error` set.
  bool Open(const _MULTI_SITE_PLAYBACK_CONFIG& config, std::string& error);
  bool Start(const _MULTI_SITE_PLAYBACK_CONFIG& config, const PlaybackChoice& choice,
             PlaybackSink& sink);
  void Stop();  // ends and joins the reader threads

  PlaybackTransport& Transport() { return transport_; }
  std::size_t SiteCount() const { return sites_.size(); }
  CCMSPlaybackSiteBase* Site(std::size_t site) const {
    return site < sites_.size() ? sites_[site].get() : nullptr;
  }
  CCMSPlaybackChannelData* Channel(unsigned site, unsigned channel) const {
    return Site(site) != nullptr ? Site(site)->Channel(channel) : nullptr;
  }
  std::size_t NumberOf(unsigned site, unsigned channel) const;  // in the transport, or kNone

  // Synchronises the transport when it changes what is shown.
  void Apply(const PlaybackChoice& choice);

  void PlayForward(int normalSpeed);
  void PlayBackward();

  std::int64_t StartTime() const;
  std::int64_t EndTime() const;

 private:
  struct Entry {
    unsigned site = 0;
    unsigned channel = 0;
    CCMSPlaybackChannelData* data = nullptr;
  };

  std::vector<std::unique_ptr<CCMSPlaybackSiteBase>> sites_;
  std::vector<Entry> order_;
  PlaybackTransport transport_;
};

}  // namespace cms
