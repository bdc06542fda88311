#include "cms/streaming/internal/rtsp_stream.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "cms/net/client_group.h"
#include "cms/net/internal/socket_address.h"
#include "cms/streaming/interleaved.h"
#include "cms/streaming/internal/sender_filter.h"
#include "cms/streaming/rtsp_client.h"

namespace {

// Room for the largest burst that a camera sends at once, a key frame of several hundred packets.
// The kernel counts about 2.3 KB for a packet of 1.4 KB; without privileges it grants what
// net.core.rmem_max allows.
constexpr int kRtpReceiveBuffer = 4 * 1024 * 1024;
constexpr int kRtcpDepth = 8;
constexpr int kRtcpDatagram = 1536;
constexpr int kDirectDepth = 2;  // of queues that a callback stands in for
constexpr int kTalkDepth = 16;   // RTP packets of sound on their way out

// An RTP packet without payload, and a report of a receiver that has received nothing.
constexpr std::array<std::uint8_t, 12> kEmptyPacket = {0x80};
constexpr std::array<std::uint8_t, 8> kEmptyReport = {0x80, 201, 0, 1};

// Sent to where the stream will come from: a firewall or address translation in between then lets
// it in. If it is lost, so be it.
void OpenWay(int socket, const cms::SocketAddress& to, std::span<const std::uint8_t> packet) {
  if (to.Port() != 0) {
    sendto(socket, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL, to.Pointer(),
           to.size);
  }
}

}  // namespace

RTSPStream::RTSPStream(cms::RTSPConnection& connection) : connection_(connection) {}

RTSPStream::~RTSPStream() {
  Stop();
  ClosePorts();
}

void RTSPStream::ClosePorts() {
  for (int* const socket : {&config.rtpSocket, &config.rtcpSocket}) {
    if (*socket >= 0) {
      close(std::exchange(*socket, -1));
    }
  }
}

void RTSPStream::OnDatagram(void* context, char* data, int length) {
  auto* const self = static_cast<RTSPStream*>(context);
  const auto admitted = self->gate_.Admit(
      {reinterpret_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length)});
  auto next = self->window_ ? self->window_->Put(admitted) : admitted;
  while (!next.empty()) {
    self->subSession.RTPOverRTSPAddPacket(next.data(), static_cast<int>(next.size()));
    next = self->window_ ? self->window_->Next() : std::span<const std::uint8_t>();
  }
}

void RTSPStream::TakePacket(std::span<const std::uint8_t> packet) {
  const auto admitted = gate_.Admit(packet);
  if (!admitted.empty()) {
    subSession.RTPOverRTSPAddPacket(admitted.data(), static_cast<int>(admitted.size()));
  }
}

void RTSPStream::TakeControl(std::span<const std::uint8_t> frame) {
  subSession.TakeControlPacket(frame.subspan(cms::kInterleavedPrefix));
  rtcp.RTPOverRTSPAddPacket(frame.data(), static_cast<int>(frame.size()));
}

// Receive steps of the group do not run meanwhile. What a lost packet holds up would otherwise wait
// for the stream's next one.
int RTSPStream::RTCPProcessNB() {
  if (window_ && window_->IsWaiting()) {
    for (auto next = window_->Next(); !next.empty(); next = window_->Next()) {
      subSession.RTPOverRTSPAddPacket(next.data(), static_cast<int>(next.size()));
    }
  }
  return rtcp.RTCPProcessNB();
}

bool RTSPStream::Open(bool udp, const cms::IpAddress& camera, int ioGroup) {
  if (udp && todaysCameras) {
    window_.emplace();
  }
  gate_.Start(config.payloadType, udp);
  return (!udp || OpenUdp(camera, ioGroup)) && StartRtcp(udp, ioGroup);
}

std::vector<cms::IpAddress> RTSPStream::Senders(const cms::IpAddress& camera) const {
  const bool elsewhere = source && source != camera && source.IsV6() == camera.IsV6();
  return elsewhere ? std::vector{source, camera} : std::vector{camera};
}

bool RTSPStream::OpenUdp(const cms::IpAddress& camera, int ioGroup) {
  _UDPCLIENT_CONFIG rtp{};
  rtp.recvQueueDepth = kDirectDepth;
  rtp.recvDatagramSize = kRtcpDatagram;
  rtp.sendQueueDepth = kTalkDepth;
  rtp.sendDatagramSize = kRtcpDatagram;
  rtp.localPort = config.clientRtpPort;
  rtp.recvContext = this;
  rtp.recvCallback = &RTSPStream::OnDatagram;

  _UDPCLIENT_CONFIG control = rtp;
  control.recvQueueDepth = kRtcpDepth;
  control.sendQueueDepth = kRtcpDepth;
  control.localPort = config.clientRtcpPort;
  control.recvContext = nullptr;
  control.recvCallback = nullptr;

  const std::vector<cms::IpAddress> senders = Senders(camera);
  if (!group.address) {
    OpenWay(config.rtpSocket, {senders.front(), config.serverRtpPort}, kEmptyPacket);
    if (todaysCameras) {
      OpenWay(config.rtcpSocket, {senders.front(), config.serverRtcpPort}, kEmptyReport);
    }
  }
  for (const int socket : {config.rtpSocket, config.rtcpSocket}) {
    cms::TakeDatagramsOnlyFrom(socket, senders);
  }
  const cms::IpAddress& remote = group.address ? group.address : camera;
  rtpSocket_ = std::make_unique<RTSPUDPClient>();
  rtpSocket_->SetConfig(rtp);
  rtpSocket_->SetRemote(remote, config.serverRtpPort);
  rtpSocket_->SetClientSocket(std::exchange(config.rtpSocket, -1));
  rtcpSocket_ = std::make_unique<RTSPUDPClient>();
  rtcpSocket_->SetConfig(control);
  rtcpSocket_->SetRemote(remote, config.serverRtcpPort);
  rtcpSocket_->SetClientSocket(std::exchange(config.rtcpSocket, -1));
  if (rtpSocket_->OnStartUDPClient() == 0 || rtcpSocket_->OnStartUDPClient() == 0) {
    return false;
  }
  rtpSocket_->SetRecvSocketBuffer(kRtpReceiveBuffer);
  auto& table = EachClientGroupTable::Instance();
  return table.Register(rtpSocket_.get(), ioGroup) != 0 &&
         table.Register(rtcpSocket_.get(), ioGroup) != 0;
}

int RTSPStream::ReadUdp(void* context, unsigned char* buffer, int size) {
  // The interleaved transport's reads begin with its 4-byte prefix; this one leaves room for it.
  constexpr int kPrefix = static_cast<int>(cms::kInterleavedPrefix);
  auto* const self = static_cast<RTSPStream*>(context);
  const int length =
      self->rtcpSocket_->OnRecvNB(reinterpret_cast<char*>(buffer) + kPrefix, size - kPrefix);
  if (length <= 0) {
    return length;
  }
  self->subSession.TakeControlPacket({buffer + kPrefix, static_cast<std::size_t>(length)});
  return length + kPrefix;
}

int RTSPStream::SendUdp(void* context, const unsigned char* data, int length) {
  auto* const self = static_cast<RTSPStream*>(context);
  return self->rtcpSocket_->OnSend(const_cast<char*>(reinterpret_cast<const char*>(data)), length);
}

bool RTSPStream::SendRtp(std::span<const std::uint8_t> packet) {
  if (rtpSocket_ != nullptr) {
    const auto length = static_cast<int>(packet.size());
    char* const data = const_cast<char*>(reinterpret_cast<const char*>(packet.data()));
    return rtpSocket_->OnSend(data, length) == length;
  }
  std::array<char, cms::kInterleavedPrefix + kRtcpDatagram> frame;
  if (packet.size() > kRtcpDatagram) {
    return false;
  }
  const std::size_t length = packet.size();
  frame[0] = '$';
  frame[1] = static_cast<char>(config.rtpChannel);
  frame[2] = static_cast<char>(length >> 8);
  frame[3] = static_cast<char>(length);
  std::copy(packet.begin(), packet.end(), frame.begin() + cms::kInterleavedPrefix);
  return connection_.SendWhole({frame.data(), length + cms::kInterleavedPrefix}) > 0;
}

int RTSPStream::SendInterleaved(void* context, const unsigned char* data, int length) {
  auto* const self = static_cast<RTSPStream*>(context);
  std::array<unsigned char, 256> frame;
  if (length < 0 || static_cast<std::size_t>(length) + cms::kInterleavedPrefix > frame.size()) {
    return 0;
  }
  frame[0] = '$';
  frame[1] = static_cast<unsigned char>(self->config.rtcpChannel);
  frame[2] = static_cast<unsigned char>(length >> 8);
  frame[3] = static_cast<unsigned char>(length);
  std::copy(data, data + length, frame.begin() + cms::kInterleavedPrefix);
  return self->connection_.SendWhole({reinterpret_cast<const char*>(frame.data()),
                                      static_cast<std::size_t>(length) + cms::kInterleavedPrefix});
}

bool RTSPStream::StartRtcp(bool udp, int ioGroup) {
  _RTCP_CONFIG rtcpConfig{};
  rtcpConfig.transportMode = udp ? cms::kRTCPOverUDP : cms::kRTCPInterleaved;
  rtcpConfig.statistics = &subSession;
  rtcpConfig.todaysCameras = todaysCameras;
  if (udp) {
    rtcpConfig.read = &RTSPStream::ReadUdp;
    rtcpConfig.readContext = this;
    rtcpConfig.send = &RTSPStream::SendUdp;
  } else {
    rtcpConfig.send = &RTSPStream::SendInterleaved;
  }
  rtcpConfig.sendContext = this;
  rtcpRegistered_ = rtcp.SetConfig(rtcpConfig) != 0 && rtcp.Play() != 0 &&
                    EachClientGroupTable::Instance().Register(this, ioGroup) != 0;
  return rtcpRegistered_;
}

void RTSPStream::Stop() {
  if (rtcpRegistered_) {
    EachClientGroupTable::Instance().Unregister(this);
    rtcp.StopPlay();
    rtcpRegistered_ = false;
  }
  rtpSocket_.reset();
  rtcpSocket_.reset();
  subSession.StopPlay();
}
