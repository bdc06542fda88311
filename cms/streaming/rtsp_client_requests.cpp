// CMSRTSPClient's requests as they are sent, and their answers.
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/rtsp_session.h"

namespace {

constexpr char kUserAgent[] = "User-Agent: Orvanta_CMS v2009.11.02\r\n";

std::string Head(const char* method, const std::string& url, int cseq) {
  return std::string(method) + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n";
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

// A call that cannot be done now. The reason why there is no stream is worth more, where there is
// one.
int CMSRTSPClient::FailUse(const std::string& what) {
  if (GetConnectionStatus().fault == ConnectionFault::kNone) {
    SetFault(configured_ ? ConnectionFault::kNone : ConnectionFault::kBadAddress, what);
  }
  return 0;
}

int CMSRTSPClient::FailStatus(const char* method, unsigned status) {
  const std::string answered =
      std::string(method) + " was answered with status " + std::to_string(status);
  switch (status) {
    case 401:
      return Fail(ConnectionFault::kPasswordRefused,
                  answered + (!haveCredentials_ ? ": the camera wants a user name and a password"
                              : login_.Problem().empty() ? ": user name or password is wrong"
                                                         : ": " + login_.Problem()));
    case 403:
      return Fail(ConnectionFault::kPasswordRefused,
                  answered + ": this user may not see the stream");
    case 404:
      return Fail(ConnectionFault::kNoSuchStream,
                  answered + ": there is no stream at " + requestUrl_);
    case 454:
      return Fail(ConnectionFault::kRefused,
                  answered + ": the camera does not know the session that it gave out itself");
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
  return login_.AuthorizationLine(method, url);
}

// Whether the request that was answered so can be sent again with a login.
bool CMSRTSPClient::TakeChallenge(const std::string& answer) {
  return haveCredentials_ && login_.ReadChallenges(answer);
}

int CMSRTSPClient::SendText(const std::string& request) {
  const int cseq = cseq_++;
  return session_->Connection().SendRequest(request, cseq) ? 1 : 0;
}

int CMSRTSPClient::SendOption() {
  return SendText(Head("OPTIONS", requestUrl_, cseq_) + CreateAuthStr("OPTIONS", requestUrl_) +
                  kUserAgent + "\r\n");
}

const char* CMSRTSPClient::TalkRequirement() const {
  return config_.talkBack && !talkRefused_ ? cms::kBackchannelRequirement : "";
}

int CMSRTSPClient::SendDescribe() {
  return SendText(Head("DESCRIBE", requestUrl_, cseq_) + "Accept: application/sdp\r\n" +
                  TalkRequirement() + CreateAuthStr("DESCRIBE", requestUrl_) + kUserAgent + "\r\n");
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
  return SendText(Head("SETUP", url, cseq_) + session + transport + TalkRequirement() +
                  CreateAuthStr("SETUP", url) + kUserAgent + "\r\n");
}

int CMSRTSPClient::SendPlayMedia() {
  const std::string range =
      cms::RangeLine(session_->description.RangeStart(), session_->description.RangeEnd());
  return SendText(Head("PLAY", requestUrl_, cseq_) + "Session: " + sessionId_ + "\r\n" + range +
                  TalkRequirement() + CreateAuthStr("PLAY", requestUrl_) + kUserAgent + "\r\n");
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

int CMSRTSPClient::Exchange(const char* method, const std::function<int()>& sender,
                            std::string* answer) {
  for (const bool mayLogIn : {true, false}) {
    if (OpeningGate().IsShut()) {
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
    if (cms::RTSPMessage(*answer).IsOfWebServer()) {
      return Fail(ConnectionFault::kBadAnswer,
                  std::string(method) + " was answered by a web server (HTTP status " +
                      std::to_string(status) + "): this is not the port for RTSP");
    }
    if (status == 200) {
      return 1;
    }
    // One login a request: a second refusal means that the password is wrong, and cameras count.
    if (status != 401 || !mayLogIn || !TakeChallenge(*answer)) {
      return FailStatus(method, status);
    }
  }
  return 0;
}
