// CMSRTSPClient's side of the conversation: requests, answers, and the steps of an opening.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "cms/live/frame_header.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/rtsp_url.h"

namespace {

constexpr char kUserAgent[] = "User-Agent: Orvanta_CMS v2009.11.02\r\n";
constexpr unsigned kTearDownTimeoutMs = 1'000;
constexpr std::size_t kLongestDescription = 256 * 1024;

std::string Head(const char* method, const std::string& url, int cseq) {
  return std::string(method) + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n";
}

std::string StatusLine(const std::string& answer) {
  return answer.substr(0, std::min(answer.find_first_of("\r\n"), std::size_t{120}));
}

}  // namespace

// --- Failures -----------------------------------------------------------------------------------

std::string CMSRTSPClient::Where() const {
  return host_ + ":" + std::to_string(port_);
}

int CMSRTSPClient::Fail(ConnectionFault fault, const std::string& what) {
  SetFault(fault, (host_.empty() ? std::string() : Where() + ": ") + what);
  return 0;
}

int CMSRTSPClient::FailStatus(const char* method, unsigned status) {
  const std::string answered =
      std::string(method) + " was answered with status " + std::to_string(status);
  switch (status) {
    case 401:
      return Fail(ConnectionFault::kPasswordRefused,
                  haveCredentials_
                      ? answered +
                            ": user name or password is wrong, or the camera wants a login "
                            "method other than Basic or Digest"
                      : answered + ": the camera wants a user name and a password");
    case 403:
      return Fail(ConnectionFault::kPasswordRefused,
                  answered + ": this user may not see the stream");
    case 404:
    case 454:
      return Fail(ConnectionFault::kNoSuchStream,
                  answered + ": there is no stream at " + requestUrl_);
    case 453:
    case 503:
      return Fail(ConnectionFault::kCameraFull,
                  answered + ": the camera serves as many sessions as it can");
    case 461:
      return Fail(ConnectionFault::kTransportRefused,
                  answered + ": the camera does not offer " +
                      (config_.transport == kRtspTransportUdp ? "UDP, try interleaved TCP"
                                                              : "interleaved TCP, try UDP"));
    default:
      return Fail(ConnectionFault::kRefused, answered);
  }
}

// --- Requests and answers -----------------------------------------------------------------------

std::string CMSRTSPClient::CreateAuthStr(const char* method, const std::string& url) {
  if (!challenged_) {
    return {};
  }
  return authenticator_.GetAuthString(method, url.c_str());
}

int CMSRTSPClient::SendText(const std::string& request) {
  const int cseq = cseq_++;
  return session_->Connection().SendRequest(request, cseq) ? 1 : 0;
}

int CMSRTSPClient::SendOption() {
  return SendText(Head("OPTIONS", requestUrl_, cseq_) + CreateAuthStr("OPTIONS", requestUrl_) +
                  kUserAgent + "\r\n");
}

int CMSRTSPClient::SendDescribe() {
  return SendText(Head("DESCRIBE", requestUrl_, cseq_) + "Accept: application/sdp\r\n" +
                  CreateAuthStr("DESCRIBE", requestUrl_) + kUserAgent + "\r\n");
}

int CMSRTSPClient::SendSetup(const std::string& url, _RTSPSUBSESSION_CONFIG& config) {
  std::string session;
  if (!sessionId_.empty()) {
    session = "Session: " + sessionId_ + "\r\n";
  }
  const bool udp = config_.transport == kRtspTransportUdp;
  const int first = udp ? config.clientRtpPort : config.rtpChannel;
  const int second = udp ? config.clientRtcpPort : config.rtcpChannel;
  const std::string transport = std::string("Transport: RTP/AVP") +
                                (udp ? ";unicast;client_port=" : "/TCP;unicast;interleaved=") +
                                std::to_string(first) + "-" + std::to_string(second) + "\r\n";
  return SendText(Head("SETUP", url, cseq_) + session + transport + CreateAuthStr("SETUP", url) +
                  kUserAgent + "\r\n");
}

int CMSRTSPClient::SendPlayMedia() {
  char range[64] = "";
  const double start = session_->description.RangeStart();
  const double end = session_->description.RangeEnd();
  if (start >= 0 && end < 0) {
    std::snprintf(range, sizeof range, "Range: npt=%.3f-\r\n", start);
  } else if (start >= 0) {
    std::snprintf(range, sizeof range, "Range: npt=%.3f-%.3f\r\n", start, end);
  }
  return SendText(Head("PLAY", requestUrl_, cseq_) + "Session: " + sessionId_ + "\r\n" + range +
                  CreateAuthStr("PLAY", requestUrl_) + kUserAgent + "\r\n");
}

int CMSRTSPClient::SendPause() {
  return SendText(Head("PAUSE", requestUrl_, cseq_) + CreateAuthStr("PAUSE", requestUrl_) +
                  kUserAgent + "\r\n");
}

int CMSRTSPClient::SendTearDown() {
  return SendText(Head("TEARDOWN", requestUrl_, cseq_) + "Session: " + sessionId_ + "\r\n" +
                  CreateAuthStr("TEARDOWN", requestUrl_) + kUserAgent + "\r\n");
}

int CMSRTSPClient::SendKeepAlive() {
  const char* const method = keepAliveByOptions_ ? "OPTIONS" : "GET_PARAMETER";
  const int cseq = cseq_++;
  return session_->Connection().SendKeepAlive(
             Head(method, requestUrl_, cseq) + "Session: " + sessionId_ + "\r\n" +
                 CreateAuthStr(method, requestUrl_) + kUserAgent + "\r\n",
             cseq)
             ? 1
             : 0;
}

int CMSRTSPClient::GetResponse(std::string& response, unsigned timeoutMs) {
  using Wait = cms::RTSPConnection::Wait;
  switch (session_->Connection().WaitAnswer(static_cast<int>(timeoutMs), &response)) {
    case Wait::kAnswer:
      return 1;
    case Wait::kTimeout:
      return Fail(ConnectionFault::kNoAnswer,
                  "no answer within " + std::to_string(timeoutMs / 1000) + " s");
    case Wait::kClosed:
      return Fail(ConnectionFault::kClosedByCamera, "the camera closed the connection");
    case Wait::kCancelled:
      return Fail(ConnectionFault::kCancelled, "closed while opening");
  }
  return 0;
}

unsigned CMSRTSPClient::CheckRTSPResponseCode(const std::string& response) {
  return cms::RTSPMessage(response).Status();
}

template <typename Sender>
int CMSRTSPClient::Exchange(const char* method, Sender sender, std::string* answer) {
  for (const bool mayLogIn : {true, false}) {
    if (cancels_.load() > 0) {
      return Fail(ConnectionFault::kCancelled, "closed while opening");
    }
    if (sender() == 0) {
      return Fail(ConnectionFault::kClosedByCamera,
                  std::string(method) + " could not be sent: the connection is gone");
    }
    answer->clear();
    if (GetResponse(*answer, config_.answerTimeoutMs) == 0) {
      return 0;
    }
    const unsigned status = CheckRTSPResponseCode(*answer);
    if (status == 200) {
      return 1;
    }
    // One login a request: a second refusal means that the password is wrong, and cameras count.
    if (status != 401 || !mayLogIn || !haveCredentials_ ||
        authenticator_.ParserealmFromServerResponse(*answer) == 0) {
      return FailStatus(method, status);
    }
    challenged_ = true;
  }
  return 0;
}

// --- The steps of an opening --------------------------------------------------------------------

int CMSRTSPClient::Negotiate() {
  cseq_ = 1;
  sessionId_.clear();
  sessionTimeout_ = cms::RTSPSessionHeader::kDefaultTimeout;
  nextChannel_ = 0;
  keepAliveByOptions_ = false;
  keepAliveRetried_ = false;
  nextKeepAlive_ = 0;
  challenged_ = false;
  authenticator_.Reset();
  if (haveCredentials_) {
    authenticator_.SetUsernameAndPassword(config_.user.c_str(), config_.password.c_str());
  }
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
  return PlayMedia();
}

int CMSRTSPClient::Connect() {
  if (config_.address == 0) {
    const auto address = cms::ResolveIPv4(host_);
    if (!address) {
      return Fail(ConnectionFault::kBadAddress, "the host name has no IPv4 address");
    }
    address_ = *address;
  }
  auto session = std::make_shared<Session>(*this, config_.group, config_.transport);
  {
    ScopeLock lock(sessionLock_);
    session_ = session;
  }
  if (cancels_.load() > 0) {
    return Fail(ConnectionFault::kCancelled, "closed while opening");
  }
  auto& connection = session->Connection();
  if (connection.Open(address_, port_, static_cast<int>(config_.connectTimeoutMs),
                      session->Group())) {
    return 1;
  }
  if (connection.Cancelled()) {
    return Fail(ConnectionFault::kCancelled, "closed while opening");
  }
  const int error = connection.LastError();
  const ConnectionFault fault = error == EMFILE || error == ENFILE || error == ENOMEM
                                    ? ConnectionFault::kOutOfResources
                                    : ConnectionFault::kUnreachable;
  return Fail(fault, std::string("cannot connect: ") + std::strerror(error));
}

int CMSRTSPClient::Option() {
  std::string answer;
  if (Exchange(
          "OPTIONS", [this] { return SendOption(); }, &answer) == 0) {
    return 0;
  }
  const cms::RTSPMessage message(answer);
  const std::string_view methods = message.Header("Public");
  keepAliveByOptions_ = !methods.empty() && !cms::ParsePublic(methods, "GET_PARAMETER");
  return 1;
}

int CMSRTSPClient::Describe() {
  std::string answer;
  if (Exchange(
          "DESCRIBE", [this] { return SendDescribe(); }, &answer) == 0) {
    return 0;
  }
  const std::string_view body = cms::RTSPMessage(answer).Body();
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
  }
  DescribeAudioFormat(audio.config);
  receiving_ = session_.get();
  otherFrameRate_ = session_->description.IsFrameRateNot30();
  announcedFrameRate_ = session_->description.FrameRate();
  if (MustDecode() != 0) {
    InitialChannelCodec();
  } else if (CMSChannelDataBase* const channel = Channel(config_.channel)) {
    channel->SetVideoType(VideoCodec());
  }

  if (config_.transport == kRtspTransportUdp) {
    if (CreateSubSessionSocket(video.config) == 0) {
      return 0;
    }
    if (audio.Present() && CreateSubSessionSocket(audio.config) == 0) {
      audio.config.payloadType = kNoPayloadType;
    }
    if (!audio.Present()) {
      session_->LeaveOutAudio();
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
  const bool needsSlash = !base.ends_with('/') && !control.starts_with('/');
  return base + (needsSlash ? "/" : "") + control;
}

int CMSRTSPClient::SetupVideo() {
  return SetupStream(session_->Stream(true));
}
int CMSRTSPClient::SetupAudio() {
  return SetupStream(session_->Stream(false));
}

int CMSRTSPClient::SetupStream(RTSPStream& stream) {
  if (config_.transport == kRtspTransportInterleaved) {
    stream.config.rtpChannel = static_cast<int>(nextChannel_);
    stream.config.rtcpChannel = static_cast<int>(nextChannel_ + 1);
    nextChannel_ += 2;
  }
  const std::string url = ConstructSubsessionURL(session_->description, stream.config);
  std::string answer;
  if (Exchange(
          "SETUP", [&] { return SendSetup(url, stream.config); }, &answer) == 0 ||
      ParserSetupResponse(answer, stream.config) == 0) {
    return 0;
  }
  if (config_.transport == kRtspTransportInterleaved) {
    session_->SetChannels();
    stream.StartRtcp(config_.transport, session_->Group());
    return 1;
  }
  if (!stream.OpenUdp(address_, session_->Group())) {
    return Fail(ConnectionFault::kOutOfResources, "the UDP sockets could not be started");
  }
  stream.StartRtcp(config_.transport, session_->Group());
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
    sessionId_ = session->id;
    sessionTimeout_ = session->timeoutSeconds;
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
                    StatusLine(std::string(message.Header("Transport"))));
  }
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
  return opened_ ? Exchange(
                       "PAUSE", [this] { return SendPause(); }, &answer)
                 : 0;
}

int CMSRTSPClient::Resume() {
  ScopeLock lock(lock_);
  return opened_ ? PlayMedia() : 0;
}

void CMSRTSPClient::TearDown() {
  std::string answer;
  if (!session_->Connection().PeerClosed() && SendTearDown() != 0) {
    // The answer only tells that the request went out whole; without one the camera's own session
    // timeout frees the session.
    session_->Connection().WaitLastAnswer(kTearDownTimeoutMs, &answer);
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

// --- Keep-alive ---------------------------------------------------------------------------------

ConnectionFault CMSRTSPClient::KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) {
  constexpr std::uint64_t kBusyMs = 1'000;
  if (lock_.LockTest() == 0) {  // the client application is talking to the camera
    *nextInMs = kBusyMs;
    return ConnectionFault::kNone;
  }
  const ConnectionFault fault = KeepAliveLocked(now, nextInMs);
  lock_.UnLock();
  return fault;
}

ConnectionFault CMSRTSPClient::KeepAliveLocked(std::uint64_t now, std::uint64_t* nextInMs) {
  cms::RTSPConnection& connection = session_->Connection();
  const std::uint64_t interval = std::uint64_t{sessionTimeout_} * 1000 / 2;
  if (const auto answer = connection.TakeKeepAliveAnswer()) {
    const unsigned status = CheckRTSPResponseCode(*answer);
    if (status == 401 && !keepAliveRetried_ && haveCredentials_ &&
        authenticator_.ParserealmFromServerResponse(*answer) != 0) {
      challenged_ = true;  // the nonce has become stale: once more with the new one
      keepAliveRetried_ = true;
      nextKeepAlive_ = now;
    } else if (status == 454) {
      Fail(ConnectionFault::kClosedByCamera, "the camera has forgotten the session");
      return ConnectionFault::kClosedByCamera;
    } else if (status != 200 && status != 401 && !keepAliveByOptions_) {
      keepAliveByOptions_ = true;  // 405, 501 and the like: no GET_PARAMETER here
      nextKeepAlive_ = now;
    } else {
      keepAliveRetried_ = false;
    }
  }
  if (connection.PeerClosed()) {
    Fail(ConnectionFault::kClosedByCamera, "the camera closed the connection");
    return ConnectionFault::kClosedByCamera;
  }
  if (nextKeepAlive_ == 0) {
    nextKeepAlive_ = now + interval;
  }
  if (now >= nextKeepAlive_) {
    SendKeepAlive();
    nextKeepAlive_ = now + interval;
  }
  *nextInMs = nextKeepAlive_ - now;
  return ConnectionFault::kNone;
}
