// One stream of an RTSP session: its description, its depacketizer, and over UDP its two sockets.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "cms/net/rtcp_step.h"
#include "cms/streaming/internal/multicast_group.h"
#include "cms/streaming/internal/reorder_window.h"
#include "cms/streaming/internal/rtp_gate.h"
#include "cms/streaming/internal/rtsp_connection.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtcp_instance.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/rtsp_udp_client.h"

class RTSPStream final : private cms::RTCPStep {
 public:
  explicit RTSPStream(cms::RTSPConnection& connection);
  ~RTSPStream();
  RTSPStream(const RTSPStream&) = delete;
  RTSPStream& operator=(const RTSPStream&) = delete;

  bool Present() const { return config.payloadType != cms::kNoPayloadType; }
  // Makes ready to receive what SETUP agreed on: over UDP from the camera and `source` only. False
  // when descriptors, threads or memory are short.
  bool Open(bool udp, const cms::IpAddress& camera, int ioGroup);
  // Whom packets are taken from: the camera, and what SETUP names beside it.
  std::vector<cms::IpAddress> Senders(const cms::IpAddress& camera) const;
  // One RTP packet that came in over TCP; on the receiving thread.
  void TakePacket(std::span<const std::uint8_t> packet);
  // The same of RTCP, with its interleaved prefix.
  void TakeControl(std::span<const std::uint8_t> frame);
  void ClosePorts();  // that SETUP did not agree on
  void Stop();        // no packet arrives after it; counters stay readable
  // One whole RTP packet to the other end; false when it was not taken.
  bool SendRtp(std::span<const std::uint8_t> packet);

  _RTSPSUBSESSION_CONFIG config;
  cms::IpAddress source;      // where SETUP says the packets come from; none: unsaid
  cms::MulticastGroup group;  // where they go to; none: to this client alone
  // Packets are put in order, a report opens the way for the camera's before it has sent one, and
  // reports are those of the RFC.
  bool todaysCameras = true;
  RTSPSubSession subSession;
  RTCPInstance rtcp;

 private:
  bool OpenUdp(const cms::IpAddress& camera, int ioGroup);
  bool StartRtcp(bool udp, int ioGroup);
  int RTCPProcessNB() override;
  static void OnDatagram(void* context, char* data, int length);
  static int ReadUdp(void* context, unsigned char* buffer, int size);
  static int SendUdp(void* context, const unsigned char* data, int length);
  static int SendInterleaved(void* context, const unsigned char* data, int length);

  cms::RTSPConnection& connection_;
  cms::RtpGate gate_;
  // Under the lock of the group's receive steps.
  std::optional<cms::ReorderWindow> window_;
  bool rtcpRegistered_ = false;
  std::unique_ptr<RTSPUDPClient> rtpSocket_;
  std::unique_ptr<RTSPUDPClient> rtcpSocket_;
};
