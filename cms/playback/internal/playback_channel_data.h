// CCMSPlaybackChannelData plays one channel: reads, decodes and shows its pictures by the clock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/playback/internal/frame_decoder.h"
#include "cms/playback/internal/picture_store.h"
#include "cms/playback/internal/playback_data_reader.h"
#include "cms/playback/internal/playback_plan.h"
#include "cms/playback/internal/playback_sink.h"
#include "cms/playback/internal/playback_sound.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/playback/internal/playback_transport.h"
#include "cms/playback/internal/reverse_decoder.h"
#include "cms/runtime/internal/named_thread.h"

// The variants (DRV, RAW, single DRV) differ in their reader alone.
//
// The reader thread goes round: it asks the transport where the clock is, reports where the channel
// stands, and does one piece of work: decodes one frame, or converts one picture. The picture that
// belongs to the clock comes first; then those that follow in the direction of play are prepared
// ahead, and shown when the clock arrives (PlaybackPlan says which). Backward a whole group is
// decoded and kept (see ReverseDecoder), and the one before it while the pictures of the first are
// shown.
class CCMSPlaybackChannelData {
 public:
  // The reader is open.
  CCMSPlaybackChannelData(unsigned site, unsigned channel,
                          std::unique_ptr<cms::PlaybackDataReader> reader);
  ~CCMSPlaybackChannelData();
  CCMSPlaybackChannelData(const CCMSPlaybackChannelData&) = delete;
  CCMSPlaybackChannelData& operator=(const CCMSPlaybackChannelData&) = delete;

  std::int64_t StartTime() const { return start_; }
  std::int64_t EndTime() const { return end_.load(std::memory_order_relaxed); }
  const std::shared_ptr<cms::PictureStore>& Pictures() const { return pictures_; }

  // `index`: the channel's number in the transport. False when there is no thread to be had.
  bool Start(cms::PlaybackTransport& transport, std::size_t index, cms::PlaybackSink& sink);
  void Join();  // after the transport was stopped

  // What a change of the transport asks for, in front of the synchronisation that follows it.
  // normalSpeed: 1 when play goes on as it was, only faster or slower; else what was learnt about
  // how long work takes counts no more. What was prepared ahead stays for as long as it fits.
  void PlayForward(int normalSpeed);
  void PlayBackward() { PlayForward(0); }

  void SetRenderCallback(void (*callback)(struct IDirect3DSurface9*)) {
    render_.store(callback, std::memory_order_release);  // with what the host prepared for it
  }
  void ShowAnew() { anew_.store(true, std::memory_order_relaxed); }  // at the next synchronisation

  int VideoType() const { return videoType_.load(std::memory_order_relaxed); }
  int OtherRate() const { return otherRate_.load(std::memory_order_relaxed); }
  std::uint64_t Lost() const { return lostCount_.load(std::memory_order_relaxed); }
  cms::PlaybackReaderStatus ReaderStatus() const;

 private:
  using View = cms::PlaybackTransport::View;
  using Standing = cms::PlaybackTransport::Standing;
  using Place = cms::PlaybackPlan::Place;

  static constexpr int kForever = -1;
  static constexpr int kAtOnce = 0;

  void Run();
  int Turn(const View& view);  // milliseconds until the next one
  void BeginEpoch(const View& view);
  void ResolveStep(const View& view);
  void Unstage();
  void TakeOverShown(const View& view);
  Standing Stand(const View& view, const Place& place);
  bool LookForMore(const View& view);

  int Hold(const View& view, const Place& place, const Standing& standing);
  bool Prepare(const View& view, const Place& place);
  int Rest(const View& view, const Place& place);
  int Play(const View& view, const Place& place);

  // One piece of the way to a picture; true when it is staged, or came too late, or turned out to
  // be lost.
  bool Work(const View& view, const cms::FrameRef& target, bool keysOnly);
  bool ReadyBackward(const View& view, const cms::FrameRef& target);
  bool DecodeOne(const View& view, const cms::FrameRef& frame, const cms::FrameRef& target);
  cms::ReverseDecoder::DecodeOne Decoding(const View& view);
  void Stage(const View& view, const cms::FrameRef& target, bool keysOnly, const AVFrame* picture);
  bool IsDone(const cms::FrameRef& frame) const { return shown_.Is(frame) || plan_.IsLost(frame); }

  const unsigned site_;
  const unsigned channel_;
  const std::unique_ptr<cms::PlaybackDataReader> reader_;  // open
  const std::int64_t start_;
  std::atomic<std::int64_t> end_;
  const std::shared_ptr<cms::PictureStore> pictures_;
  cms::PlaybackTransport* transport_ = nullptr;
  std::size_t index_ = 0;
  cms::PlaybackSink* sink_ = nullptr;
  cms::NamedThread thread_;

  // Of the reader thread.
  cms::PlaybackTrack track_;
  cms::PlaybackPlan plan_;
  cms::FrameDecoder decoder_;
  cms::ReverseDecoder reverse_;
  cms::PlaybackSound sound_;
  cms::FrameRef target_;               // on its way to be staged
  cms::PictureStore::Standing stage_;  // as it was at the beginning of this turn
  cms::FrameRef shown_;
  std::uint64_t epoch_ = 0;
  std::uint64_t prepared_ = 0;  // epoch
  Standing reported_;
  std::uint64_t lookedForMore_ = 0;   // tick
  std::uint64_t lookAgainAfter_ = 0;  // milliseconds
  bool filling_ = false;
  unsigned imageId_ = 0;

  std::atomic<void (*)(struct IDirect3DSurface9*)> render_{nullptr};
  std::atomic<bool> anew_{false};
  std::atomic<bool> otherWay_{false};
  std::atomic<int> videoType_{0};
  std::atomic<int> otherRate_{0};
  std::atomic<std::uint64_t> lostCount_{0};
  std::atomic<std::uint64_t> skippedBytes_{0};
  std::atomic<std::uint64_t> rebuilt_{0};
};
