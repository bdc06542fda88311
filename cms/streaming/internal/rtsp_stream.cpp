#include "cms/streaming/internal/rtsp_stream.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "cms/net/client_group.h"
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

// An RTP packet without payload to where the stream will come from: a firewall or address
// translation in between then lets the stream in. If it is lost, so be it.
void OpenWay(int socket, std::uint32_t address, std::uint16_t port) {
  if (port == 0) {
    return;
  }
  constexpr std::array<std::uint8_t, 12> kEmptyPacket = {0x80};
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(address);
  sendto(socket, kEmptyPacket.data(), kEmptyPacket.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

}  // namespace

RTSPStream::RTSPStream(cms::RTSPConnection& connection) : connection_(connection) {}

RTSPStream::~RTSPStream() {
  Stop();
  if (config.rtpSocket >= 0) {
    close(config.rtpSocket);
  }
  if (config.rtcpSocket >= 0) {
    close(config.rtcpSocket);
  }
}

void RTSPStream::OnDatagram(void* context, char* data, int length) {
  static_cast<RTSPStream*>(context)->TakePacket(
      {reinterpret_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length)});
}

void RTSPStream::TakePacket(std::span<const std::uint8_t> packet) {
  const auto admitted = gate_.Admit(packet);
  if (!admitted.empty()) {
    subSession.RTPOverRTSPAddPacket(admitted.data(), static_cast<int>(admitted.size()));
  }
}

bool RTSPStream::Open(int transport, std::uint32_t serverAddress, int group) {
  const bool udp = transport == kRtspTransportUdp;
  gate_.Start(config.payloadType, udp);
  return (!udp || OpenUdp(serverAddress, group)) && StartRtcp(transport, group);
}

bool RTSPStream::OpenUdp(std::uint32_t serverAddress, int group) {
  _UDPCLIENT_CONFIG rtp{};
  rtp.recvQueueDepth = kDirectDepth;
  rtp.recvDatagramSize = kRtcpDatagram;
  rtp.sendQueueDepth = kTalkDepth;
  rtp.sendDatagramSize = kRtcpDatagram;
  rtp.localPort = config.clientRtpPort;
  rtp.remotePort = config.serverRtpPort;
  rtp.remoteAddress = serverAddress;
  rtp.recvContext = this;
  rtp.recvCallback = &RTSPStream::OnDatagram;

  _UDPCLIENT_CONFIG control = rtp;
  control.recvQueueDepth = kRtcpDepth;
  control.sendQueueDepth = kRtcpDepth;
  control.localPort = config.clientRtcpPort;
  control.remotePort = config.serverRtcpPort;
  control.recvContext = nullptr;
  control.recvCallback = nullptr;

  OpenWay(config.rtpSocket, config.source != 0 ? config.source : serverAddress,
          config.serverRtpPort);
  const std::array<std::uint32_t, 2> senders = {serverAddress, config.source};
  for (const int socket : {config.rtpSocket, config.rtcpSocket}) {
    cms::TakeDatagramsOnlyFrom(socket, std::span(senders).first(config.source != 0 ? 2 : 1));
  }
  rtpSocket_ = std::make_unique<RTSPUDPClient>();
  rtpSocket_->SetConfig(rtp);
  rtpSocket_->SetClientSocket(std::exchange(config.rtpSocket, -1));
  rtcpSocket_ = std::make_unique<RTSPUDPClient>();
  rtcpSocket_->SetConfig(control);
  rtcpSocket_->SetClientSocket(std::exchange(config.rtcpSocket, -1));
  if (rtpSocket_->OnStartUDPClient() == 0 || rtcpSocket_->OnStartUDPClient() == 0) {
    return false;
  }
  rtpSocket_->SetRecvSocketBuffer(kRtpReceiveBuffer);
  auto& table = EachClientGroupTable::Instance();
  return table.Register(rtpSocket_.get(), group) != 0 &&
         table.Register(rtcpSocket_.get(), group) != 0;
}

int RTSPStream::ReadUdp(void* context, unsigned char* buffer, int size) {
  // The interleaved transport's reads begin with its 4-byte prefix; this one leaves room for it.
  constexpr int kPrefix = static_cast<int>(kInterleavedPrefix);
  auto* const self = static_cast<RTSPStream*>(context);
  const int length =
      self->rtcpSocket_->OnRecvNB(reinterpret_cast<char*>(buffer) + kPrefix, size - kPrefix);
  return length > 0 ? length + kPrefix : length;
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
  std::array<char, kInterleavedPrefix + kRtcpDatagram> frame;
  if (packet.size() > kRtcpDatagram) {
    return false;
  }
  const std::size_t length = packet.size();
  frame[0] = '$';
  frame[1] = static_cast<char>(config.rtpChannel);
  frame[2] = static_cast<char>(length >> 8);
  frame[3] = static_cast<char>(length);
  std::copy(packet.begin(), packet.end(), frame.begin() + kInterleavedPrefix);
  return connection_.SendWhole({frame.data(), length + kInterleavedPrefix}) > 0;
}

int RTSPStream::SendInterleaved(void* context, const unsigned char* data, int length) {
  auto* const self = static_cast<RTSPStream*>(context);
  std::array<unsigned char, 256> frame;
  if (length < 0 || static_cast<std::size_t>(length) + kInterleavedPrefix > frame.size()) {
    return 0;
  }
  frame[0] = '$';
  frame[1] = static_cast<unsigned char>(self->config.rtcpChannel);
  frame[2] = static_cast<unsigned char>(length >> 8);
  frame[3] = static_cast<unsigned char>(length);
  std::copy(data, data + length, frame.begin() + kInterleavedPrefix);
  return self->connection_.SendWhole({reinterpret_cast<const char*>(frame.data()),
                                      static_cast<std::size_t>(length) + kInterleavedPrefix});
}

bool RTSPStream::StartRtcp(int transport, int group) {
  _RTCP_CONFIG rtcpConfig{};
  rtcpConfig.transportMode = transport == kRtspTransportUdp ? kRTCPOverUDP : kRTCPInterleaved;
  rtcpConfig.statistics = &subSession;
  if (transport == kRtspTransportUdp) {
    rtcpConfig.read = &RTSPStream::ReadUdp;
    rtcpConfig.readContext = this;
    rtcpConfig.send = &RTSPStream::SendUdp;
  } else {
    rtcpConfig.send = &RTSPStream::SendInterleaved;
  }
  rtcpConfig.sendContext = this;
  rtcpRegistered_ = rtcp.SetConfig(rtcpConfig) != 0 && rtcp.Play() != 0 &&
                    EachClientGroupTable::Instance().Register(&rtcp, group) != 0;
  return rtcpRegistered_;
}

void RTSPStream::Stop() {
  if (rtcpRegistered_) {
    EachClientGroupTable::Instance().Unregister(&rtcp);
    rtcp.StopPlay();
    rtcpRegistered_ = false;
  }
  rtpSocket_.reset();
  rtcpSocket_.reset();
  subSession.StopPlay();
}
