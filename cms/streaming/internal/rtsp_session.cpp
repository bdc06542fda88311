#include "cms/streaming/internal/rtsp_session.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/streaming/interleaved.h"
#include "cms/streaming/internal/port_pair.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/rtsp_url.h"

using cms::RTSPRequest;
using cms::StreamFailure;

namespace {

constexpr int kSocketsPerUdpStream = 2;
constexpr int kSocketsPerUdpSession = 1 + 2 * kSocketsPerUdpStream;
constexpr std::size_t kLongestDescription = 256 * 1024;
constexpr std::size_t kLongestQuote = 120;  // of an answer, in a failure's text
constexpr unsigned kOptionNotSupported = 551;

int SocketsFor(const stRTSPClientConfig& config) {
  return config.transport != kRtspTransportUdp
             ? 1
             : kSocketsPerUdpSession + (config.talkBack ? kSocketsPerUdpStream : 0);
}

}  // namespace

CMSRTSPClient::Session::Session(CMSRTSPClient& client,
                                std::shared_ptr<const cms::RTSPTarget> target,
                                cms::GetParameter known)
    : client_(client),
      target_(std::move(target)),
      group_(target_->config.group, kAutomaticGroup, SocketsFor(target_->config)),
      connection_(*this, client.OpeningGate()),
      dialogue_(connection_, target_, known),
      address_(target_->config.address),
      asksForTalk_(target_->config.talkBack),
      video_(connection_),
      audio_(connection_),
      talk_(connection_),
      frames_(client, target_->config) {}

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

StreamFailure CMSRTSPClient::Session::Connect() {
  const stRTSPClientConfig& config = target_->config;
  if (config.transport != kRtspTransportUdp && config.transport != kRtspTransportInterleaved) {
    return {ConnectionFault::kBadAddress,
            "transport " + std::to_string(config.transport) + " is neither 0 nor 1"};
  }
  if (address_ == 0) {
    if (auto failure = LookUpHost()) {
      return failure;
    }
  }
  if (!connection_.Cancelled() &&
      connection_.Open(address_, target_->port, static_cast<int>(config.connectTimeoutMs),
                       group_.Key())) {
    return {};
  }
  if (connection_.Cancelled()) {
    return {ConnectionFault::kCancelled, "closed while opening"};
  }
  const int error = connection_.LastError();
  const ConnectionFault fault = error == EMFILE || error == ENFILE || error == ENOMEM
                                    ? ConnectionFault::kOutOfResources
                                    : ConnectionFault::kUnreachable;
  return {fault, std::string("cannot connect: ") + std::strerror(error)};
}

StreamFailure CMSRTSPClient::Session::LookUpHost() {
  using Outcome = cms::NameLookup::Outcome;
  const std::uint32_t limitMs = target_->config.connectTimeoutMs;
  const auto found = connection_.LookUp(target_->host, static_cast<int>(limitMs));
  switch (found.outcome) {
    case Outcome::kFound:
      address_ = found.address;
      break;
    case Outcome::kNoAddress:
      return {ConnectionFault::kBadAddress, "the host name has no IPv4 address"};
    case Outcome::kTimeout:
      return {ConnectionFault::kUnreachable, "the host name could not be looked up within " +
                                                 std::to_string(limitMs / 1000) + " s"};
    case Outcome::kCancelled:
      return {ConnectionFault::kCancelled, "closed while opening"};
    case Outcome::kNoThread:
      return {ConnectionFault::kOutOfResources, "no thread to look the host name up"};
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
  if (body.size() > kLongestDescription ||
      description_.ParseDescription(body, video_.config, audio_.config) == 0) {
    return {ConnectionFault::kNoUsableVideo, "the description has no video section"};
  }
  failure = MakeSubSessions();
  frames_.TakeDescription(description_, video_.config, audio_.config);
  return failure;
}

StreamFailure CMSRTSPClient::Session::MakeSubSessions() {
  RTSPSubSessionOptions options;
  options.siteNumber = target_->config.siteNumber;
  options.ignoreDelimiters = target_->config.ignoreDelimiters;
  options.sink = &frames_;
  if (video_.subSession.SetConfig(video_.config, options) == 0) {
    return {ConnectionFault::kNoUsableVideo,
            std::string("video in the encoding \"") + video_.config.encodingName +
                "\" is not supported (H264, JPEG and MP4V-ES are)"};
  }
  if (audio_.Present()) {
    options.video = false;
    if (audio_.subSession.SetConfig(audio_.config, options) == 0) {
      audio_.config.payloadType = kNoPayloadType;
    }
  }
  return {};
}

StreamFailure CMSRTSPClient::Session::BindPorts() {
  if (target_->config.transport != kRtspTransportUdp) {
    return {};
  }
  if (auto failure = cms::BindPortPair(video_.config)) {
    return failure;
  }
  if (audio_.Present() && cms::BindPortPair(audio_.config)) {
    audio_.config.payloadType = kNoPayloadType;  // the picture comes all the same
  }
  if (!audio_.Present()) {
    // Fewer threads serve the same number of cameras when its places are given back.
    group_.Shrink(kSocketsPerUdpSession - kSocketsPerUdpStream +
                  (talk_.Present() ? kSocketsPerUdpStream : 0));
  }
  return talk_.Present() ? cms::BindPortPair(talk_.config) : StreamFailure{};
}

// --- SETUP --------------------------------------------------------------------------------------

RTSPRequest CMSRTSPClient::Session::SetUpRequest(const std::string& url,
                                                 const _RTSPSUBSESSION_CONFIG& config) const {
  const bool udp = target_->config.transport == kRtspTransportUdp;
  const int first = udp ? config.clientRtpPort : config.rtpChannel;
  const int second = udp ? config.clientRtcpPort : config.rtcpChannel;
  const std::string transport = std::string("Transport: RTP/AVP") +
                                (udp ? ";unicast;client_port=" : "/TCP;unicast;interleaved=") +
                                std::to_string(first) + "-" + std::to_string(second) + "\r\n";
  return {"SETUP", url,
          (dialogue_.HasSession() ? dialogue_.SessionLine() : "") + transport + TalkRequirement()};
}

StreamFailure CMSRTSPClient::Session::SetUp(RTSPStream& stream, std::string_view name) {
  const bool interleaved = target_->config.transport == kRtspTransportInterleaved;
  if (interleaved) {
    stream.config.rtpChannel = nextChannel_++;
    stream.config.rtcpChannel = nextChannel_++;
  }
  const std::string url = description_.StreamURL(target_->url, stream.config);
  std::string answer;
  auto failure = dialogue_.Ask(SetUpRequest(url, stream.config), name, &answer);
  if (!failure) {
    failure = TakeSetUpAnswer(answer, stream.config);
  }
  if (failure) {
    return failure;
  }
  if (!stream.Open(target_->config.transport, address_, group_.Key())) {
    return {ConnectionFault::kOutOfResources,
            "no threads, descriptors or memory left to receive the stream"};
  }
  if (interleaved) {
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
                                                      _RTSPSUBSESSION_CONFIG& config) {
  const cms::RTSPMessage message(answer);
  if (auto failure = dialogue_.TakeSession(message)) {
    return failure;
  }
  if (!message.HasHeader("Transport")) {
    return {};
  }
  const auto transport = cms::ParseTransport(message.Header("Transport"));
  if (!transport) {
    return {ConnectionFault::kBadAnswer,
            "the answer to SETUP has an impossible transport: " +
                std::string(message.Header("Transport").substr(0, kLongestQuote))};
  }
  const bool udp = target_->config.transport == kRtspTransportUdp;
  const bool ports = transport->serverPort.has_value();
  const bool channels = transport->interleaved.has_value() || transport->tcp;
  if (udp ? channels && !ports : ports && !channels) {
    return {ConnectionFault::kTransportRefused,
            std::string("the camera answered SETUP with ") +
                (udp ? "interleaved TCP although UDP was asked for, try interleaved TCP"
                     : "UDP although interleaved TCP was asked for, try UDP")};
  }
  config.source = cms::ParseIPv4(transport->source).value_or(0);
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
  return {"PLAY", target_->url,
          dialogue_.SessionLine() +
              cms::RangeLine(description_.RangeStart(), description_.RangeEnd()) +
              TalkRequirement()};
}

StreamFailure CMSRTSPClient::Session::Play() {
  std::string answer;
  return dialogue_.Ask(PlayRequest(), "PLAY", &answer);
}

StreamFailure CMSRTSPClient::Session::Pause() {
  std::string answer;
  return dialogue_.Ask(PauseRequest(), "PAUSE", &answer);
}

RTSPRequest CMSRTSPClient::Session::TearDownRequest() const {
  return {"TEARDOWN", target_->url, dialogue_.SessionLine()};
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
    case kInterleaveVideoRTP:
      video_.TakePacket(frame.subspan(kInterleavedPrefix));
      break;
    case kInterleaveAudioRTP:
      audio_.TakePacket(frame.subspan(kInterleavedPrefix));
      break;
    case cms::kInterleaveTalkRTP:  // sound goes there; nothing comes from there
      break;
    default: {
      RTSPStream& stream = type == kInterleaveVideoRTCP   ? video_
                           : type == kInterleaveAudioRTCP ? audio_
                                                          : talk_;
      stream.rtcp.RTPOverRTSPAddPacket(frame.data(), static_cast<int>(frame.size()));
      break;
    }
  }
}

void CMSRTSPClient::Session::OnConnectionEvent() {
  client_.PokeKeeping();
}
