// PlaybackPlan: which picture a channel makes ready next, and how long it may wait for its turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "cms/playback/internal/picture_store.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/playback/internal/playback_transport.h"

namespace cms {

// Decides by the clock, the recording and what was learnt about the work: how long it takes, which
// frames give no picture, how many pictures in a row came too late. Nothing here decodes, waits or
// asks what time it is. Of the channel's reader thread.
class PlaybackPlan {
 public:
  using View = PlaybackTransport::View;

  // Where the clock is in the recording.
  struct Place {
    FrameRef current;      // the last frame that is not later than the clock
    bool covered = false;  // and it is the one to show
    FrameRef wanted;       // what is to be shown, empty when nothing is
    bool keysOnly = false;
  };

  // How many frames have to be decoded for the picture of one.
  using StepsTo = std::function<std::size_t(const FrameRef&)>;

  // `processors`: that all displayed channels share.
  PlaybackPlan(PlaybackTrack& track, double processors) : track_(track), processors_(processors) {}

  // Backward a group that cannot be decoded in the time that it plays is shown by its key frame.
  Place Locate(const View& view) const;

  // The picture to make ready: the wanted one if it is missing, else the one that follows; behind
  // the clock, the first that can still be had in time. Empty when there is none. `staged`: the
  // last picture that waits for its turn, `shown`: the one that is seen.
  FrameRef Aim(const View& view, const Place& place, const FrameRef& staged, const FrameRef& shown,
               const StepsTo& stepsTo);

  // Whether the clock has passed a picture that is being prepared.
  bool IsOvertaken(const View& view, const Place& place, const FrameRef& target);

  // Whether a picture is ready when its turn is over.
  bool IsLate(const View& view, const FrameRef& target, std::int64_t end, std::int64_t now);
  // So many in a row were late that one must be shown all the same.
  bool MustShow() const { return missed_ >= kMostMissed; }

  // The next one in the direction of play that is not lost; empty at the end.
  FrameRef Following(const View& view, FrameRef frame, bool keysOnly) const;

  // Up to when a frame is shown among those that are shown at all.
  std::int64_t EndOf(const FrameRef& frame, bool keysOnly) const;

  // Milliseconds until something is due: the staged picture's turn, or the end of the current
  // one's.
  int UntilDue(const View& view, const Place& place, const PictureStore::Standing& stage) const;

  // Memory that the displayed channels share: for pictures that wait for their time, and how many
  // decoded ones go into one of the two windows that are decoded for playing backward.
  static std::size_t StagedBytes(const View& view);
  std::size_t PicturesOfWindow(const View& view) const;

  // --- What is learnt ---------------------------------------------------------------------------
  void BeginEpoch(bool otherWay);  // `otherWay`: what was missed tells nothing any more
  void Decoded(double milliseconds, std::size_t pixels);  // processor time; 0 pixels: not known
  void Lose(const FrameRef& frame) { lost_.push_back(frame); }  // it gives no picture
  bool IsLost(const FrameRef& frame) const;
  void Shown(const View& view, const FrameRef& frame);  // forgets the lost ones behind it

 private:
  static constexpr int kMostMissed =
      3;  // pictures in a row, before the next key frame is waited for

  FrameRef AimInTime(const View& view, const Place& place, const StepsTo& stepsTo);
  bool IsTooSlow(const View& view, const PlaybackGop& gop) const;
  double MediaTimeOfFrame(const View& view, int channels) const;

  PlaybackTrack& track_;
  const double processors_;
  std::vector<FrameRef> lost_;                      // behind the last one that was shown
  int missed_ = 0;                                  // pictures in a row that came too late
  double decodeMs_ = 0;                             // processor time of a frame, smoothed
  std::size_t pictureBytes_ = 1920 * 1080 * 3 / 2;  // of one decoded picture, roughly
};

}  // namespace cms
