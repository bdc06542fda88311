// Everything that one opening of an RTSP stream owns, and its steps.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "cms/streaming/internal/group_allocator.h"
#include "cms/streaming/internal/multicast_group.h"
#include "cms/streaming/internal/rtsp_connection.h"
#include "cms/streaming/internal/rtsp_dialogue.h"
#include "cms/streaming/internal/rtsp_frame_source.h"
#include "cms/streaming/internal/rtsp_stream.h"
#include "cms/streaming/internal/rtsp_target.h"
#include "cms/streaming/internal/stream_failure.h"
#include "cms/streaming/internal/talk_back.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtsp_client.h"

// Made anew by each opening, so that nothing of the one before it can be left over. Steps come one
// at a time; Stop ends all that runs. Counters and the talker may be used from any thread.
class CMSRTSPClient::Session final : private cms::RTSPConnection::Sink {
 public:
  Session(CMSRTSPClient& client, std::shared_ptr<const cms::RTSPTarget> target,
          cms::GetParameter known);
  ~Session();

  // The steps, in their order. Each one waits for the camera, and for no longer than the gate of
  // the client's openings is open.
  cms::StreamFailure Connect();
  cms::StreamFailure Options();
  cms::StreamFailure Describe();
  cms::StreamFailure BindPorts();
  cms::StreamFailure SetUp(RTSPStream& stream, std::string_view name);
  cms::StreamFailure SetUpTalk();
  cms::StreamFailure Play();
  cms::StreamFailure Pause();
  void TearDown(int limitMs);  // gives the camera's session back, where there is one
  void Stop();

  // Their requests, as they are at this point of the opening.
  cms::RTSPRequest OptionsRequest() const { return {"OPTIONS", target_->url, ""}; }
  cms::RTSPRequest DescribeRequest() const;
  cms::RTSPRequest SetUpRequest(const std::string& url, const _RTSPSUBSESSION_CONFIG& config) const;
  cms::RTSPRequest PlayRequest() const;
  cms::RTSPRequest PauseRequest() const { return {"PAUSE", dialogue_.SessionUrl(), ""}; }
  cms::RTSPRequest TearDownRequest() const;
  // *source is where the packets come from, *group where they go to, when the answer says so.
  cms::StreamFailure TakeSetUpAnswer(const std::string& answer, _RTSPSUBSESSION_CONFIG& config,
                                     cms::IpAddress* source, cms::MulticastGroup* group);

  // A failure when a camera that plays over UDP has not been heard for some seconds; *nextInMs
  // becomes no more than the milliseconds until that is known.
  cms::StreamFailure WatchDatagrams(std::uint64_t now, std::uint64_t* nextInMs);
  // How the packets travel: RTSPTransport. Any thread.
  int Transport() const { return transport_.load(std::memory_order_relaxed); }

  void SetDelivering(bool delivering);  // to the client, of frames that come
  bool HasVideo() const { return hasVideo_; }
  RTSPStream& Stream(bool video) { return video ? video_ : audio_; }
  const RTSPStream& Stream(bool video) const { return video ? video_ : audio_; }
  const RTSPStream& Talk() const { return talk_; }  // what we send
  cms::TalkBackSender& Talker() { return talker_; }
  const FrameSource& Frames() const { return frames_; }
  cms::RTSPDialogue& Dialogue() { return dialogue_; }
  const cms::RTSPTarget& Target() const { return *target_; }

 private:
  cms::StreamFailure LookUpHost(cms::CameraRoute* route);
  bool OverUdp() const;
  cms::StreamFailure AgreeOn(RTSPStream& stream, std::string_view name);
  cms::StreamFailure JoinGroup(RTSPStream& stream);
  cms::StreamFailure MakeSubSessions();
  std::string TalkRequirement() const;
  std::string UrlOf(const RTSPStream& stream) const;
  void TakeBaseUrl(const cms::RTSPMessage& answer);
  void SetChannels();
  void OnPacket(int type, std::span<const std::uint8_t> frame) override;
  void OnConnectionEvent() override;

  CMSRTSPClient& client_;
  const std::shared_ptr<const cms::RTSPTarget> target_;
  cms::GroupClaim group_;
  cms::RTSPConnection connection_;
  cms::RTSPDialogue dialogue_;
  int nextChannel_ = 0;  // of the interleaved ones
  bool asksForTalk_;     // until the camera says that it knows no backchannel
  MediaSession description_;
  cms::IpAddress describedGroup_;  // to which the camera says that it sends; none: to each alone
  std::atomic<int> transport_;     // how they do travel
  std::uint64_t playedAt_ = 0;     // ticks; 0: it was not asked to play
  std::string baseUrl_;            // of the streams; empty: as the described rules have it
  bool hasVideo_ = true;           // else the description has sound alone
  RTSPStream video_;
  RTSPStream audio_;
  RTSPStream talk_;
  cms::TalkBackSender talker_;
  FrameSource frames_;
};
