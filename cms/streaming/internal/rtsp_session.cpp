#include "cms/streaming/internal/rtsp_session.h"

#include <algorithm>
#include <utility>

#include "cms/net/client_group.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/interleaved.h"
#include "cms/streaming/internal/port_pair.h"
#include "cms/streaming/internal/rtsp_client_state.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/stream_url.h"
#include "cms/streaming/rtsp_url.h"

using cms::RTSPRequest;
using cms::StreamFailure;

namespace {

constexpr int kSocketsPerUdpStream = 2;
constexpr int kSocketsPerUdpSession = 1 + 2 * kSocketsPerUdpStream;
constexpr std::size_t kLongestDescription = 256 * 1024;
constexpr std::size_t kLongestQuote = 120;  // of an answer, in a failure's text
constexpr unsigned kOptionNotSupported = 551;

int SocketsFor(const cms::stRTSPClientConfig& config) {
  constexpr int kSocketsPerTunnel = 2;
  return config.transport == cms::kRtspTransportHttp ? kSocketsPerTunnel
         : config.transport == cms::kRtspTransportInterleaved
             ? 1
             : kSocketsPerUdpSession + (config.talkBack ? kSocketsPerUdpStream : 0);
}

}  // namespace

CMSRTSPClient::Session::Session(CMSRTSPClient& client,
                                std::shared_ptr<const cms::RTSPTarget> target,
                                cms::GetParameter known)
    : client_(client),
      target_(std::move(target)),
      group_(target_->config.group, cms::kAutomaticGroup, SocketsFor(target_->config)),
      connection_(*this, client.OpeningGate()),
      dialogue_(connection_, target_, known),
      asksForTalk_(target_->config.talkBack),
      transport_(target_->config.transport),
      video_(connection_),
      audio_(connection_),
      talk_(connection_),
      frames_(client, target_->config) {
  for (RTSPStream* const stream : {&video_, &audio_, &talk_}) {
    stream->todaysCameras = target_->config.todaysCameras;
  }
}

CMSRTSPClient::Session::~Session() {
  Stop();
}

void CMSRTSPClient::Session::Stop() {
  talker_.Stop();
  talk_.Stop();
  connection_.Shut();
  video_.Stop();
  audio_.Stop();
}

// --- The connection -----------------------------------------------------------------------------

bool CMSRTSPClient::Session::OverUdp() const {
  const int transport = Transport();
  return transport == cms::kRtspTransportUdp || transport == cms::kRtspTransportMulticast;
}

StreamFailure CMSRTSPClient::Session::Connect() {
  const cms::stRTSPClientConfig& config = target_->config;
  if (config.transport < cms::kRtspTransportUdp ||
      config.transport > cms::kRtspTransportMulticast) {
    return {cms::ConnectionFault::kBadAddress,
            "transport " + std::to_string(config.transport) + " is none that there is"};
  }
  if (config.todaysCameras) {
    connection_.SetPrompt(true);
    EachClientGroupTable::Instance().Prepare(group_.Key());
  }
  cms::CameraRoute route;
  route.port = target_->port;
  route.tls = target_->tls;
  route.connectTimeoutMs = static_cast<int>(config.connectTimeoutMs);
  route.group = group_.Key();
  if (config.address != 0) {
    route.addresses = {cms::IpAddress(config.address)};
  } else if (auto failure = LookUpHost(&route)) {
    return failure;
  }
  if (connection_.Cancelled()) {
    return {cms::ConnectionFault::kCancelled, "closed while opening"};
  }
  if (config.transport != cms::kRtspTransportHttp) {
    return connection_.Connect(route);
  }
  cms::RTSPConnection::Tunnel tunnel;
  tunnel.path = cms::PathOfUrl(target_->url);
  tunnel.host = target_->HostAndPort();
  tunnel.login.SetCredentials(config.user, config.password);
  tunnel.login.AllowBasic(target_->MayUseBasic());
  tunnel.mayLogIn = target_->HasCredentials();
  tunnel.answerLimitMs = static_cast<int>(config.answerTimeoutMs);
  return connection_.OpenTunnel(route, std::move(tunnel));
}

StreamFailure CMSRTSPClient::Session::LookUpHost(cms::CameraRoute* route) {
  using Outcome = cms::NameLookup::Outcome;
  const std::uint32_t limitMs = target_->config.connectTimeoutMs;
  auto found = connection_.LookUp(target_->host, static_cast<int>(limitMs));
  switch (found.outcome) {
    case Outcome::kFound:
      route->addresses = std::move(found.addresses);
      break;
    case Outcome::kNoAddress:
      return {cms::ConnectionFault::kBadAddress, "the host name has no address"};
    case Outcome::kTimeout:
      return {cms::ConnectionFault::kUnreachable, "the host name could not be looked up within " +
                                                      std::to_string(limitMs / 1000) + " s"};
    case Outcome::kCancelled:
      return {cms::ConnectionFault::kCancelled, "closed while opening"};
    case Outcome::kNoThread:
      return {cms::ConnectionFault::kOutOfResources, "no thread to look the host name up"};
  }
  return {};
}

StreamFailure CMSRTSPClient::Session::Options() {
  std::string answer;
  if (auto failure = dialogue_.Ask(OptionsRequest(), "OPTIONS", &answer)) {
    return failure;
  }
  dialogue_.TakeMethods(cms::RTSPMessage(answer).Header("Public"));
  return {};
}

// --- The description ----------------------------------------------------------------------------

std::string CMSRTSPClient::Session::TalkRequirement() const {
  return asksForTalk_ ? cms::kBackchannelRequirement : "";
}

RTSPRequest CMSRTSPClient::Session::DescribeRequest() const {
  return {"DESCRIBE", target_->url, "Accept: application/sdp\r\n" + TalkRequirement()};
}

StreamFailure CMSRTSPClient::Session::Describe() {
  std::string answer;
  auto failure = dialogue_.Ask(DescribeRequest(), "DESCRIBE", &answer);
  if (failure && asksForTalk_ && cms::RTSPMessage(answer).Status() == kOptionNotSupported) {
    asksForTalk_ = false;
    failure = dialogue_.Ask(DescribeRequest(), "DESCRIBE", &answer);
  }
  if (failure) {
    return failure;
  }
  std::string_view body = cms::RTSPMessage(answer).Body();
  cms::TalkBackDescription split;
  if (body.size() <= kLongestDescription) {
    // Cameras describe their backchannel unasked, too: it must not pass for the microphone.
    split = cms::SplitTalkBack(body);
    body = split.viewing;
    if (target_->config.talkBack) {
      talk_.config = split.talk;
    }
  }
  description_.KeepAnySound(target_->config.todaysCameras);
  const bool hasVideo = body.size() <= kLongestDescription &&
                        description_.ParseDescription(body, video_.config, audio_.config) != 0;
  {
    const ScopeLock lock(client_.shown_->lock);  // the keeping asks for it
    hasVideo_ = hasVideo;
  }
  const bool soundAlone = !hasVideo && target_->config.todaysCameras && audio_.Present();
  if (!hasVideo && !soundAlone) {
    return {cms::ConnectionFault::kNoUsableVideo, "the description has no video section"};
  }
  TakeBaseUrl(cms::RTSPMessage(answer));
  describedGroup_ = cms::MulticastOf(body);
  if (describedGroup_ && Transport() == cms::kRtspTransportUdp && target_->config.todaysCameras) {
    transport_ = cms::kRtspTransportMulticast;
  }
  failure = MakeSubSessions();
  frames_.TakeDescription(description_, video_.config, audio_.config);
  return failure;
}

// RFC 2326, C.1.1. Cameras that name the session's own URL mean their streams to be behind it.
void CMSRTSPClient::Session::TakeBaseUrl(const cms::RTSPMessage& answer) {
  if (!target_->config.todaysCameras) {
    return;
  }
  baseUrl_ = cms::ControlUrl(cms::BaseUrlOf(answer, target_->url), description_.ControlURL());
  dialogue_.SetSessionUrl(baseUrl_);
}

std::string CMSRTSPClient::Session::UrlOf(const RTSPStream& stream) const {
  return baseUrl_.empty() ? description_.StreamURL(target_->url, stream.config)
                          : cms::ControlUrl(baseUrl_, stream.config.control);
}

StreamFailure CMSRTSPClient::Session::MakeSubSessions() {
  cms::RTSPSubSessionOptions options;
  options.siteNumber = target_->config.siteNumber;
  options.ignoreDelimiters = target_->config.ignoreDelimiters;
  options.sink = &frames_;
  if (target_->config.todaysCameras) {
    options.units = &frames_;
    options.mostUnitBytes = target_->config.mostFrameBytes;
  }
  ScopeLock lock(client_.shown_->lock);  // they are counted from here on
  if (hasVideo_ && video_.subSession.SetConfig(video_.config, options) == 0) {
    return {cms::ConnectionFault::kNoUsableVideo,
            std::string("video in the encoding \"") + video_.config.encodingName +
                "\" is not supported (" + (target_->config.todaysCameras ? "H264, H265" : "H264") +
                ", JPEG and MP4V-ES are)"};
  }
  if (audio_.Present()) {
    options.video = false;
    if (audio_.subSession.SetConfig(audio_.config, options) == 0) {
      audio_.config.payloadType = cms::kNoPayloadType;
    }
  }
  if (!hasVideo_ && !audio_.Present()) {
    return {cms::ConnectionFault::kNoUsableVideo,
            std::string("the description has no video section, and sound in the encoding \"") +
                audio_.config.encodingName + "\" is not supported"};
  }
  return {};
}

StreamFailure CMSRTSPClient::Session::BindPorts() {
  if (Transport() != cms::kRtspTransportUdp) {
    return {};
  }
  const bool ipv6 = connection_.Peer().IsV6();
  if (auto failure = hasVideo_ ? cms::BindPortPair(video_.config, ipv6) : StreamFailure{}) {
    return failure;
  }
  if (audio_.Present() && cms::BindPortPair(audio_.config, ipv6)) {
    audio_.config.payloadType = cms::kNoPayloadType;  // the picture comes all the same
  }
  if (!audio_.Present()) {
    // Fewer threads serve the same number of cameras when its places are given back.
    group_.Shrink(kSocketsPerUdpSession - kSocketsPerUdpStream +
                  (talk_.Present() ? kSocketsPerUdpStream : 0));
  }
  return talk_.Present() ? cms::BindPortPair(talk_.config, ipv6) : StreamFailure{};
}

// --- SETUP --------------------------------------------------------------------------------------

RTSPRequest CMSRTSPClient::Session::SetUpRequest(const std::string& url,
                                                 const _RTSPSUBSESSION_CONFIG& config) const {
  const bool udp = OverUdp();
  const int first = udp ? config.clientRtpPort : config.rtpChannel;
  const int second = udp ? config.clientRtcpPort : config.rtcpChannel;
  const std::string transport =
      Transport() == cms::kRtspTransportMulticast
          ? "Transport: RTP/AVP;multicast\r\n"
          : std::string("Transport: RTP/AVP") +
                (udp ? ";unicast;client_port=" : "/TCP;unicast;interleaved=") +
                std::to_string(first) + "-" + std::to_string(second) + "\r\n";
  return {"SETUP", url,
          (dialogue_.HasSession() ? dialogue_.SessionLine() : "") + transport + TalkRequirement()};
}

StreamFailure CMSRTSPClient::Session::AgreeOn(RTSPStream& stream, std::string_view name) {
  if (!OverUdp()) {
    stream.config.rtpChannel = nextChannel_++;
    stream.config.rtcpChannel = nextChannel_++;
  }
  std::string answer;
  auto failure = dialogue_.Ask(SetUpRequest(UrlOf(stream), stream.config), name, &answer);
  const bool absolute = stream.config.control[0] == '/' && !baseUrl_.empty();
  if (absolute && failure.fault == cms::ConnectionFault::kNoSuchStream) {
    // Of a path from the root some cameras mean that it is behind the base.
    const std::string url = baseUrl_ + std::string(stream.config.control);
    failure = dialogue_.Ask(SetUpRequest(url, stream.config), name, &answer);
  }
  if (!failure) {
    failure = TakeSetUpAnswer(answer, stream.config, &stream.source, &stream.group);
  }
  return failure || !stream.group.address ? failure : JoinGroup(stream);
}

// A camera that only describes a group, and was not asked for it by the user, is asked to send to
// this client alone; one that refuses UDP, for its packets inside the connection. That costs a
// request: a new connection would find some cameras still busy with this one's end.
StreamFailure CMSRTSPClient::Session::SetUp(RTSPStream& stream, std::string_view name) {
  auto failure = AgreeOn(stream, name);
  const auto mayTry = [&] {
    return failure.fault == cms::ConnectionFault::kTransportRefused && !dialogue_.HasSession();
  };
  if (mayTry() && Transport() == cms::kRtspTransportMulticast &&
      target_->config.transport == cms::kRtspTransportUdp) {
    transport_ = cms::kRtspTransportUdp;
    failure = BindPorts();
    if (!failure) {
      failure = AgreeOn(stream, name);
    }
  }
  if (mayTry() && OverUdp() && target_->MayChangeTransport()) {
    transport_ = cms::kRtspTransportInterleaved;
    for (RTSPStream* const each : {&video_, &audio_, &talk_}) {
      each->ClosePorts();
    }
    failure = AgreeOn(stream, name);
  }
  if (failure) {
    return failure;
  }
  if (!stream.Open(OverUdp(), connection_.Peer(), group_.Key())) {
    return {cms::ConnectionFault::kOutOfResources,
            "no threads, descriptors or memory left to receive the stream"};
  }
  if (!OverUdp()) {
    SetChannels();
  }
  return {};
}

StreamFailure CMSRTSPClient::Session::SetUpTalk() {
  auto failure = SetUp(talk_, "SETUP of the backchannel");
  if (!failure) {
    talker_.Start(talk_.config,
                  [this](std::span<const std::uint8_t> packet) { return talk_.SendRtp(packet); });
  }
  return failure;
}

StreamFailure CMSRTSPClient::Session::TakeSetUpAnswer(const std::string& answer,
                                                      _RTSPSUBSESSION_CONFIG& config,
                                                      cms::IpAddress* source,
                                                      cms::MulticastGroup* group) {
  const cms::RTSPMessage message(answer);
  if (auto failure = dialogue_.TakeSession(message)) {
    return failure;
  }
  if (!message.HasHeader("Transport")) {
    return {};
  }
  const auto transport = cms::ParseTransport(message.Header("Transport"));
  if (!transport) {
    return {cms::ConnectionFault::kBadAnswer,
            "the answer to SETUP has an impossible transport: " +
                std::string(message.Header("Transport").substr(0, kLongestQuote))};
  }
  const bool udp = OverUdp();
  const bool ports = transport->serverPort.has_value();
  const bool channels = transport->interleaved.has_value() || transport->tcp;
  if (udp ? channels && !ports : ports && !channels) {
    return {cms::ConnectionFault::kTransportRefused,
            std::string("the camera answered SETUP with ") +
                (udp ? "interleaved TCP although UDP was asked for, try interleaved TCP"
                     : "UDP although interleaved TCP was asked for, try UDP")};
  }
  if (transport->multicast && udp) {
    group->address = cms::IpAddress::Parse(transport->destination).value_or(describedGroup_);
    group->rtpPort = transport->port ? transport->port->rtp : config.clientRtpPort;
    group->rtcpPort = transport->port ? transport->port->rtcp
                                      : static_cast<std::uint16_t>(config.clientRtpPort + 1);
    group->hops = static_cast<int>(transport->ttl);
  }
  if (transport->multicast && udp ? !group->address.IsMulticast() || group->rtpPort == 0
                                  : Transport() == cms::kRtspTransportMulticast) {
    return {cms::ConnectionFault::kTransportRefused,
            "the camera names no multicast group in its answer to SETUP, try UDP or TCP"};
  }
  *source = cms::IpAddress::Parse(transport->source).value_or(cms::IpAddress());
  config.source = source->V4();
  if (transport->serverPort) {
    config.serverRtpPort = transport->serverPort->rtp;
    config.serverRtcpPort = transport->serverPort->rtcp;
  }
  if (transport->interleaved) {
    config.rtpChannel = transport->interleaved->rtp;
    config.rtcpChannel = transport->interleaved->rtcp;
  }
  return {};
}

// Sockets for this client alone, if there are any, are of no use.
StreamFailure CMSRTSPClient::Session::JoinGroup(RTSPStream& stream) {
  transport_ = cms::kRtspTransportMulticast;
  stream.ClosePorts();
  return cms::JoinMulticast(stream.group, connection_.Local(), stream.Senders(connection_.Peer()),
                            stream.config);
}

// Tells the connection which channels carry the streams.
void CMSRTSPClient::Session::SetChannels() {
  cms::RTSPStreamChannels channels = cms::kNoChannels;
  const RTSPStream* const streams[] = {&video_, &audio_, &talk_};
  for (std::size_t i = 0; i < std::size(streams); ++i) {
    if (streams[i]->Present()) {
      channels[2 * i] = streams[i]->config.rtpChannel;
      channels[2 * i + 1] = streams[i]->config.rtcpChannel;
    }
  }
  connection_.SetChannels(channels);
}

// --- Playing ------------------------------------------------------------------------------------

RTSPRequest CMSRTSPClient::Session::PlayRequest() const {
  return {"PLAY", dialogue_.SessionUrl(),
          dialogue_.SessionLine() +
              cms::RangeLine(description_.RangeStart(), description_.RangeEnd()) +
              TalkRequirement()};
}

StreamFailure CMSRTSPClient::Session::Play() {
  std::string answer;
  auto failure = dialogue_.Ask(PlayRequest(), "PLAY", &answer);
  playedAt_ = cms::TickMilliseconds();
  return failure;
}

StreamFailure CMSRTSPClient::Session::WatchDatagrams(std::uint64_t now, std::uint64_t* nextInMs) {
  constexpr std::uint64_t kPatience = 3'000;  // milliseconds
  const auto packets = [](const RTSPStream& stream) { return stream.subSession.PacketCount(); };
  if (!OverUdp() || playedAt_ == 0 || packets(video_) + packets(audio_) > 0) {
    return {};
  }
  if (now < playedAt_ + kPatience) {
    *nextInMs = std::min(*nextInMs, playedAt_ + kPatience - now);
    return {};
  }
  return {cms::ConnectionFault::kDatagramsLost,
          "no packet came over UDP within " + std::to_string(kPatience / 1000) +
              " s (a firewall between here and the camera?): going over to TCP"};
}

StreamFailure CMSRTSPClient::Session::Pause() {
  std::string answer;
  return dialogue_.Ask(PauseRequest(), "PAUSE", &answer);
}

RTSPRequest CMSRTSPClient::Session::TearDownRequest() const {
  return {"TEARDOWN", dialogue_.SessionUrl(), dialogue_.SessionLine()};
}

// The camera has a session from the first SETUP on, also when the opening fails later. The answer
// tells that the request went out whole, or asks for a new login; without one the camera's own
// session timeout frees the session.
void CMSRTSPClient::Session::TearDown(int limitMs) {
  if (dialogue_.HasSession()) {
    dialogue_.AskLast(TearDownRequest(), limitMs);
  }
}

void CMSRTSPClient::Session::SetDelivering(bool delivering) {
  for (RTSPStream* const stream : {&video_, &audio_}) {
    delivering ? stream->subSession.Play() : stream->subSession.StopPlay();
  }
}

void CMSRTSPClient::Session::OnPacket(int type, std::span<const std::uint8_t> frame) {
  switch (type) {
    case cms::kInterleaveVideoRTP:
      video_.TakePacket(frame.subspan(cms::kInterleavedPrefix));
      break;
    case cms::kInterleaveAudioRTP:
      audio_.TakePacket(frame.subspan(cms::kInterleavedPrefix));
      break;
    case cms::kInterleaveTalkRTP:  // sound goes there; nothing comes from there
      break;
    default: {
      RTSPStream& stream = type == cms::kInterleaveVideoRTCP   ? video_
                           : type == cms::kInterleaveAudioRTCP ? audio_
                                                               : talk_;
      stream.TakeControl(frame);
      break;
    }
  }
}

void CMSRTSPClient::Session::OnConnectionEvent() {
  client_.PokeKeeping();
}
