// One stream of an RTSP session: its description, its depacketizer, and over UDP its two sockets.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "cms/streaming/internal/rtp_gate.h"
#include "cms/streaming/internal/rtsp_connection.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtcp_instance.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/rtsp_udp_client.h"

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
