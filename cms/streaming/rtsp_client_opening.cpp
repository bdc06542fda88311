// The steps of CMSRTSPClient's opening, from the connection to the answer to PLAY, and its end.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include "cms/live/media/frame_header.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/picture_size.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/rtsp_url.h"

namespace {

constexpr int kTearDownTimeoutMs = 1'000;
constexpr int kCancelledTearDownTimeoutMs = 200;
constexpr std::size_t kLongestDescription = 256 * 1024;
constexpr std::size_t kLongestQuote = 120;  // of an answer, in a failure's text

}  // namespace

int CMSRTSPClient::Negotiate() {
  cseq_ = 1;
  sessionId_.clear();
  sessionTimeout_ = cms::RTSPSessionHeader::kDefaultTimeout;
  nextChannel_ = 0;
  keepAliveByOptions_ = false;
  keepAliveRetried_ = false;
  nextKeepAlive_ = 0;
  talkRefused_ = false;
  login_.SetCredentials(config_.user, config_.password);
  if (config_.transport != kRtspTransportUdp && config_.transport != kRtspTransportInterleaved) {
    return Fail(ConnectionFault::kBadAddress,
                "transport " + std::to_string(config_.transport) + " is neither 0 nor 1");
  }
  if (Connect() == 0 || Option() == 0 || Describe() == 0) {
    return 0;
  }
  if (SetupVideo() == 0 || (session_->Stream(false).Present() && SetupAudio() == 0)) {
    return 0;
  }
  if (session_->Talk().Present() && SetupTalk() == 0) {
    return 0;
  }
  // A paused stream that comes back stays in the state that PAUSE leads to, which is that before
  // PLAY (RFC 2326, appendix A.1).
  return paused_ ? 1 : PlayMedia();
}

int CMSRTSPClient::Connect() {
  auto session =
      std::make_shared<Session>(*this, config_.group, config_.transport, config_.talkBack);
  {
    ScopeLock lock(sessionLock_);
    session_ = session;
  }
  if (OpeningGate().IsShut()) {
    return Fail(ConnectionFault::kCancelled, "closed while opening");
  }
  auto& connection = session->Connection();
  if (config_.address == 0 && LookUpHost(connection) == 0) {
    return 0;
  }
  if (connection.Open(address_, port_, static_cast<int>(config_.connectTimeoutMs),
                      session->Group())) {
    return 1;
  }
  if (OpeningGate().IsShut()) {
    return Fail(ConnectionFault::kCancelled, "closed while opening");
  }
  const int error = connection.LastError();
  const ConnectionFault fault = error == EMFILE || error == ENFILE || error == ENOMEM
                                    ? ConnectionFault::kOutOfResources
                                    : ConnectionFault::kUnreachable;
  return Fail(fault, std::string("cannot connect: ") + std::strerror(error));
}

int CMSRTSPClient::LookUpHost(const cms::RTSPConnection& connection) {
  using Outcome = cms::NameLookup::Outcome;
  const auto found = connection.LookUp(host_, static_cast<int>(config_.connectTimeoutMs));
  switch (found.outcome) {
    case Outcome::kFound:
      address_ = found.address;
      return 1;
    case Outcome::kNoAddress:
      return Fail(ConnectionFault::kBadAddress, "the host name has no IPv4 address");
    case Outcome::kTimeout:
      return Fail(ConnectionFault::kUnreachable,
                  "the host name could not be looked up within " +
                      std::to_string(config_.connectTimeoutMs / 1000) + " s");
    case Outcome::kCancelled:
      return Fail(ConnectionFault::kCancelled, "closed while opening");
    case Outcome::kNoThread:
      return Fail(ConnectionFault::kOutOfResources, "no thread to look the host name up");
  }
  return 0;
}

int CMSRTSPClient::Option() {
  std::string answer;
  if (Exchange(
          "OPTIONS", [this] { return SendOption(); }, &answer) == 0) {
    return 0;
  }
  const cms::RTSPMessage message(answer);
  const std::string_view methods = message.Header("Public");
  keepAliveByOptions_ =
      getParameterEnds_ || (!methods.empty() && !cms::ParsePublic(methods, "GET_PARAMETER"));
  return 1;
}

int CMSRTSPClient::Describe() {
  std::string answer;
  constexpr unsigned kOptionNotSupported = 551;
  const auto exchange = [&] {
    return Exchange(
        "DESCRIBE", [this] { return SendDescribe(); }, &answer);
  };
  if (exchange() == 0) {
    talkRefused_ = config_.talkBack && CheckRTSPResponseCode(answer) == kOptionNotSupported;
    if (!talkRefused_ || exchange() == 0) {
      return 0;
    }
    SetFault(ConnectionFault::kNone, "");
  }
  std::string_view body = cms::RTSPMessage(answer).Body();
  cms::TalkBackDescription split;
  if (body.size() <= kLongestDescription) {
    // Cameras describe their backchannel unasked, too: it must not pass for the microphone.
    split = cms::SplitTalkBack(body);
    body = split.viewing;
    if (config_.talkBack) {
      session_->Talk().config = split.talk;
    }
  }
  RTSPStream& video = session_->Stream(true);
  RTSPStream& audio = session_->Stream(false);
  if (body.size() > kLongestDescription ||
      session_->description.ParseDescription(body, video.config, audio.config) == 0) {
    return Fail(ConnectionFault::kNoUsableVideo, "the description has no video section");
  }

  RTSPSubSessionOptions options;
  options.headerRoom = static_cast<int>(cms::kVideoHeaderRoom);
  options.siteNumber = config_.siteNumber;
  options.ignoreDelimiters = config_.ignoreDelimiters;
  options.callback = &CMSRTSPClient::OnVideo;
  options.context = this;
  if (video.subSession.SetConfig(video.config, options) == 0) {
    return Fail(ConnectionFault::kNoUsableVideo,
                std::string("video in the encoding \"") + video.config.encodingName +
                    "\" is not supported (H264, JPEG and MP4V-ES are)");
  }
  if (audio.Present()) {
    options.video = false;
    options.headerRoom = static_cast<int>(cms::kAudioHeaderRoom);
    options.callback = &CMSRTSPClient::OnAudio;
    if (audio.subSession.SetConfig(audio.config, options) == 0) {
      audio.config.payloadType = kNoPayloadType;
    }
  }
  {
    ScopeLock lock(sessionLock_);
    videoEncoding_ = video.config.encodingName;
    audioEncoding_ = audio.Present() ? audio.config.encodingName : "";
    talkFormat_ = cms::TalkBackFormat(session_->Talk().config);
  }
  DescribeAudioFormat(audio.config);
  const std::vector<std::uint8_t> sps = cms::DecodeParameterSets(video.config.parameterSets).sps;
  const auto size = sps.empty() ? std::nullopt : cms::FullH264Size(std::span(sps).subspan(1));
  describedWidth_ = size ? size->width : 0;
  describedHeight_ = size ? size->height : 0;
  receiving_ = session_.get();
  otherFrameRate_ = session_->description.IsFrameRateNot30();
  announcedFrameRate_ = session_->description.FrameRate();
  if (MustDecode() != 0) {
    InitialChannelCodec();
  } else if (const auto channel = Channel(config_.channel)) {
    channel->SetVideoType(VideoCodec());
  }

  if (config_.transport == kRtspTransportUdp) {
    if (CreateSubSessionSocket(video.config) == 0) {
      return 0;
    }
    if (audio.Present() && CreateSubSessionSocket(audio.config) == 0) {
      audio.config.payloadType = kNoPayloadType;
      SetFault(ConnectionFault::kNone, "");  // the picture comes all the same
    }
    if (!audio.Present()) {
      session_->LeaveOutAudio();
    }
    if (session_->Talk().Present() && CreateSubSessionSocket(session_->Talk().config) == 0) {
      return 0;
    }
  }
  return 1;
}

std::string CMSRTSPClient::ConstructSubsessionURL(const MediaSession& session,
                                                  const _RTSPSUBSESSION_CONFIG& config) const {
  std::string control = config.control;
  const std::size_t colon = control.find(':');
  if (colon != std::string::npos && colon < control.find('/')) {
    return control;
  }
  const std::string& announced = session.ControlURL();
  const std::string& base = announced.empty() || announced == "*" ? requestUrl_ : announced;
  if (control.empty()) {
    return base;  // the only stream there is (RFC 2326, C.1.1)
  }
  const bool needsSlash = !base.ends_with('/') && !control.starts_with('/');
  return base + (needsSlash ? "/" : "") + control;
}

int CMSRTSPClient::SetupVideo() {
  return SetupStream(session_->Stream(true), "SETUP");
}
int CMSRTSPClient::SetupAudio() {
  return SetupStream(session_->Stream(false), "SETUP of the sound");
}

int CMSRTSPClient::SetupTalk() {
  RTSPStream& talk = session_->Talk();
  if (SetupStream(talk, "SETUP of the backchannel") == 0) {
    return 0;
  }
  session_->Talker().Start(
      talk.config, [&talk](std::span<const std::uint8_t> packet) { return talk.SendRtp(packet); });
  return 1;
}

int CMSRTSPClient::SetupStream(RTSPStream& stream, const char* method) {
  if (config_.transport == kRtspTransportInterleaved) {
    stream.config.rtpChannel = static_cast<int>(nextChannel_);
    stream.config.rtcpChannel = static_cast<int>(nextChannel_ + 1);
    nextChannel_ += 2;
  }
  const std::string url = ConstructSubsessionURL(session_->description, stream.config);
  std::string answer;
  if (Exchange(
          method, [&] { return SendSetup(url, stream.config); }, &answer) == 0 ||
      ParserSetupResponse(answer, stream.config) == 0) {
    return 0;
  }
  if (!stream.Open(config_.transport, address_, session_->Group())) {
    return Fail(ConnectionFault::kOutOfResources,
                "no threads, descriptors or memory left to receive the stream");
  }
  if (config_.transport == kRtspTransportInterleaved) {
    session_->SetChannels();
  }
  return 1;
}

int CMSRTSPClient::ParserSetupResponse(const std::string& response,
                                       _RTSPSUBSESSION_CONFIG& config) {
  const cms::RTSPMessage message(response);
  if (message.HasHeader("Session")) {
    const auto session = cms::ParseSessionHeader(message.Header("Session"));
    if (!session) {
      return Fail(ConnectionFault::kBadAnswer,
                  "the session id in the answer to SETUP is empty or longer than 64 characters");
    }
    if (sessionId_.empty()) {
      sessionId_ = session->id;
      sessionTimeout_ = session->timeoutSeconds;
    }
    // A camera that gives each stream an id of its own plays all of them under the first.
    sessionTimeout_ = std::min(sessionTimeout_, session->timeoutSeconds);
  }
  if (sessionId_.empty()) {
    return Fail(ConnectionFault::kBadAnswer, "the answer to SETUP names no session");
  }
  if (!message.HasHeader("Transport")) {
    return 1;
  }
  const auto transport = cms::ParseTransport(message.Header("Transport"));
  if (!transport) {
    return Fail(ConnectionFault::kBadAnswer,
                "the answer to SETUP has an impossible transport: " +
                    std::string(message.Header("Transport").substr(0, kLongestQuote)));
  }
  const bool udp = config_.transport == kRtspTransportUdp;
  const bool ports = transport->serverPort.has_value();
  const bool channels = transport->interleaved.has_value() || transport->tcp;
  if (udp ? channels && !ports : ports && !channels) {
    return Fail(ConnectionFault::kTransportRefused,
                std::string("the camera answered SETUP with ") +
                    (udp ? "interleaved TCP although UDP was asked for, try interleaved TCP"
                         : "UDP although interleaved TCP was asked for, try UDP"));
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
  return 1;
}

int CMSRTSPClient::PlayMedia() {
  std::string answer;
  return Exchange(
      "PLAY", [this] { return SendPlayMedia(); }, &answer);
}

int CMSRTSPClient::Pause() {
  ScopeLock lock(lock_);
  std::string answer;
  if (!opened_ || Exchange(
                      "PAUSE", [this] { return SendPause(); }, &answer) == 0) {
    return 0;
  }
  paused_ = true;
  if (IsClientPlaying() != 0) {
    SetState(ConnectionState::kPaused);
  }
  return 1;
}

int CMSRTSPClient::Resume() {
  ScopeLock lock(lock_);
  if (!opened_) {  // it plays once it is open again
    return std::exchange(paused_, false) ? 1 : 0;
  }
  if (PlayMedia() == 0) {
    return 0;
  }
  paused_ = false;
  if (IsClientPlaying() != 0) {
    SetState(ConnectionState::kPlaying);
  }
  return 1;
}

void CMSRTSPClient::TearDown() {
  // The answer tells that the request went out whole, or asks for a new login; without one the
  // camera's own session timeout frees the session.
  auto& connection = session_->Connection();
  const int limit =
      OpeningGate().IsShut() && !opened_ ? kCancelledTearDownTimeoutMs : kTearDownTimeoutMs;
  for (const bool mayLogIn : {true, false}) {
    std::string answer;
    if (connection.PeerClosed() || SendTearDown() == 0 ||
        connection.WaitLastAnswer(limit, &answer) != cms::RTSPConnection::Wait::kAnswer ||
        CheckRTSPResponseCode(answer) != 401 || !mayLogIn || !TakeChallenge(answer)) {
      return;
    }
  }
}

// --- Ports --------------------------------------------------------------------------------------

namespace {

int BindUdp(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return -1;
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    const int error = errno;
    close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}

}  // namespace

int CMSRTSPClient::CreateSubSessionSocket(_RTSPSUBSESSION_CONFIG& config) {
  // An even port for RTP and the next one for RTCP (RFC 3550, section 11), above the privileged
  // ones.
  constexpr int kFirstPort = 1024;
  constexpr int kMostDraws = 10'000;
  static thread_local std::minstd_rand random{std::random_device{}()};
  for (int draw = 0; draw < kMostDraws; ++draw) {
    const auto port = static_cast<std::uint16_t>(random() % 65535);
    if (port % 2 != 0 || port < kFirstPort) {
      continue;
    }
    const int rtp = BindUdp(port);
    const int rtcp = rtp >= 0 ? BindUdp(static_cast<std::uint16_t>(port + 1)) : -1;
    if (rtcp >= 0) {
      config.clientRtpPort = port;
      config.clientRtcpPort = static_cast<std::uint16_t>(port + 1);
      config.rtpSocket = rtp;
      config.rtcpSocket = rtcp;
      return 1;
    }
    const int error = errno;
    if (rtp >= 0) {
      close(rtp);
    }
    if (error != EADDRINUSE && error != EACCES) {
      return Fail(ConnectionFault::kOutOfResources,
                  std::string("no UDP port pair: ") + std::strerror(error));
    }
  }
  return Fail(ConnectionFault::kOutOfResources, "no free UDP port pair found");
}
