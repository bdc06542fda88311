// Everything that one opening of an RTSP stream owns, and its steps.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "cms/streaming/internal/group_allocator.h"
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
  cms::RTSPRequest PauseRequest() const { return {"PAUSE", target_->url, ""}; }
  cms::RTSPRequest TearDownRequest() const;
  cms::StreamFailure TakeSetUpAnswer(const std::string& answer, _RTSPSUBSESSION_CONFIG& config);

  void SetDelivering(bool delivering);  // to the client, of frames that come
  RTSPStream& Stream(bool video) { return video ? video_ : audio_; }
  const RTSPStream& Stream(bool video) const { return video ? video_ : audio_; }
  const RTSPStream& Talk() const { return talk_; }  // what we send
  cms::TalkBackSender& Talker() { return talker_; }
  const FrameSource& Frames() const { return frames_; }
  cms::RTSPDialogue& Dialogue() { return dialogue_; }
  const cms::RTSPTarget& Target() const { return *target_; }

 private:
  cms::StreamFailure LookUpHost();
  cms::StreamFailure MakeSubSessions();
  std::string TalkRequirement() const;
  void SetChannels();
  void OnPacket(int type, std::span<const std::uint8_t> frame) override;
  void OnConnectionEvent() override;

  CMSRTSPClient& client_;
  const std::shared_ptr<const cms::RTSPTarget> target_;
  cms::GroupClaim group_;
  cms::RTSPConnection connection_;
  cms::RTSPDialogue dialogue_;
  std::uint32_t address_;  // the camera's; 0: not looked up yet
  int nextChannel_ = 0;    // of the interleaved ones
  bool asksForTalk_;       // until the camera says that it knows no backchannel
  MediaSession description_;
  RTSPStream video_;
  RTSPStream audio_;
  RTSPStream talk_;
  cms::TalkBackSender talker_;
  FrameSource frames_;
};
