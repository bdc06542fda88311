// Everything that one opening of an RTSP stream owns.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

#include "cms/streaming/internal/group_allocator.h"
#include "cms/streaming/internal/rtp_gate.h"
#include "cms/streaming/internal/rtsp_connection.h"
#include "cms/streaming/internal/talk_back.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtcp_instance.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/rtsp_udp_client.h"

// One stream of the session: its description, its depacketizer, and over UDP its two sockets.
class RTSPStream {
 public:
  explicit RTSPStream(cms::RTSPConnection& connection);
  ~RTSPStream();
  RTSPStream(const RTSPStream&) = delete;
  RTSPStream& operator=(const RTSPStream&) = delete;

  bool Present() const { return config.payloadType != kNoPayloadType; }
  // Makes ready to receive what SETUP agreed on: over UDP from `serverAddress` (host order) and the
  // configuration's source only. False when descriptors, threads or memory are short.
  bool Open(int transport, std::uint32_t serverAddress, int group);
  // One RTP packet that came in; on the receiving thread.
  void TakePacket(std::span<const std::uint8_t> packet);
  void Stop();  // no packet arrives after it; counters stay readable
  // One whole RTP packet to the other end; false when it was not taken.
  bool SendRtp(std::span<const std::uint8_t> packet);

  _RTSPSUBSESSION_CONFIG config;
  RTSPSubSession subSession;
  RTCPInstance rtcp;

 private:
  bool OpenUdp(std::uint32_t serverAddress, int group);
  bool StartRtcp(int transport, int group);
  static void OnDatagram(void* context, char* data, int length);
  static int ReadUdp(void* context, unsigned char* buffer, int size);
  static int SendUdp(void* context, const unsigned char* data, int length);
  static int SendInterleaved(void* context, const unsigned char* data, int length);

  cms::RTSPConnection& connection_;
  cms::RtpGate gate_;
  bool rtcpRegistered_ = false;
  std::unique_ptr<RTSPUDPClient> rtpSocket_;
  std::unique_ptr<RTSPUDPClient> rtcpSocket_;
};

class CMSRTSPClient::Session final : private cms::RTSPConnection::Sink {
 public:
  Session(CMSRTSPClient& client, int group, int transport, bool talkBack);
  ~Session();

  RTSPStream& Stream(bool video) { return video ? video_ : audio_; }
  const RTSPStream& Stream(bool video) const { return video ? video_ : audio_; }
  cms::RTSPConnection& Connection() { return connection_; }
  int Group() const { return group_.Key(); }
  RTSPStream& Talk() { return talk_; }  // what we send
  cms::TalkBackSender& Talker() { return talker_; }
  // Gives the places of the audio sockets back, once it is known that there will be none: fewer
  // threads then serve the same number of cameras.
  void LeaveOutAudio();
  // Tells the connection which channels carry the streams, once they are negotiated.
  void SetChannels();
  void Stop();

  MediaSession description;

 private:
  void OnPacket(int type, std::span<const std::uint8_t> frame) override;
  void OnConnectionEvent() override;

  CMSRTSPClient& client_;
  cms::GroupClaim group_;
  cms::RTSPConnection connection_;
  RTSPStream video_;
  RTSPStream audio_;
  RTSPStream talk_;
  cms::TalkBackSender talker_;
};
