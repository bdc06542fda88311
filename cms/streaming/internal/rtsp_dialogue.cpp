#include "cms/streaming/internal/rtsp_dialogue.h"

#include <algorithm>
#include <utility>

namespace cms {
namespace {

constexpr char kUserAgent[] = "User-Agent: Orvanta_CMS v2009.11.02\r\n";

}  // namespace

RTSPDialogue::RTSPDialogue(RTSPConnection& connection, std::shared_ptr<const RTSPTarget> target,
                           GetParameter known)
    : connection_(connection),
      target_(std::move(target)),
      sessionUrl_(target_->url),
      known_(known) {
  login_.SetCredentials(target_->config.user, target_->config.password);
  login_.AllowBasic(target_->MayUseBasic());
}

// --- Requests and answers -----------------------------------------------------------------------

std::string RTSPDialogue::TextOf(const RTSPRequest& request, int cseq) {
  return request.method + " " + request.url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) +
         "\r\n" + request.lines + AuthorizationLine(request.method, request.url) + kUserAgent +
         "\r\n";
}

bool RTSPDialogue::Send(const RTSPRequest& request) {
  const int cseq = cseq_++;
  return connection_.SendRequest(TextOf(request, cseq), cseq);
}

StreamFailure RTSPDialogue::WaitAnswer(unsigned limitMs, std::string* answer) {
  using Wait = RTSPConnection::Wait;
  switch (connection_.WaitAnswer(static_cast<int>(limitMs), answer)) {
    case Wait::kAnswer:
      break;
    case Wait::kTimeout:
      return {ConnectionFault::kNoAnswer,
              "no answer within " + std::to_string(limitMs / 1000) + " s"};
    case Wait::kClosed:
      return {ConnectionFault::kClosedByCamera, "the camera closed the connection"};
    case Wait::kCancelled:
      return {ConnectionFault::kCancelled, "closed while opening"};
  }
  return {};
}

// Whether the request that was answered so can be sent again with a login.
bool RTSPDialogue::TakeChallenge(const std::string& answer) {
  return target_->HasCredentials() && login_.ReadChallenges(answer);
}

StreamFailure RTSPDialogue::Ask(const RTSPRequest& request, std::string_view name,
                                std::string* answer) {
  for (bool mayLogIn = true;; mayLogIn = false) {
    if (connection_.Cancelled()) {
      return {ConnectionFault::kCancelled, "closed while opening"};
    }
    if (!Send(request)) {
      return {ConnectionFault::kClosedByCamera,
              std::string(name) + " could not be sent: the connection is gone"};
    }
    answer->clear();
    if (auto failure = WaitAnswer(target_->config.answerTimeoutMs, answer)) {
      return failure;
    }
    const RTSPMessage message(*answer);
    const unsigned status = message.Status();
    if (message.IsOfWebServer()) {
      return {ConnectionFault::kBadAnswer,
              std::string(name) + " was answered by a web server (HTTP status " +
                  std::to_string(status) + "): this is not the port for RTSP"};
    }
    if (status == 200) {
      return {};
    }
    // One login a request: a second refusal means that the password is wrong, and cameras count.
    if (status != 401 || !mayLogIn || !TakeChallenge(*answer)) {
      return Refused(name, status);
    }
  }
}

void RTSPDialogue::AskLast(const RTSPRequest& request, int limitMs) {
  for (const bool mayLogIn : {true, false}) {
    std::string answer;
    if (connection_.PeerClosed() || !Send(request) ||
        connection_.WaitLastAnswer(limitMs, &answer) != RTSPConnection::Wait::kAnswer ||
        RTSPMessage(answer).Status() != 401 || !mayLogIn || !TakeChallenge(answer)) {
      return;
    }
  }
}

StreamFailure RTSPDialogue::Refused(std::string_view name, unsigned status) const {
  const std::string answered =
      std::string(name) + " was answered with status " + std::to_string(status);
  switch (status) {
    case 401:
      return {
          ConnectionFault::kPasswordRefused,
          answered + (!target_->HasCredentials() ? ": the camera wants a user name and a password"
                      : login_.Problem().empty() ? ": user name or password is wrong"
                                                 : ": " + login_.Problem())};
    case 403:
      return {ConnectionFault::kPasswordRefused, answered + ": this user may not see the stream"};
    case 404:
      return {ConnectionFault::kNoSuchStream, answered + ": there is no stream at " + target_->url};
    case 454:
      return {ConnectionFault::kRefused,
              answered + ": the camera does not know the session that it gave out itself"};
    case 453:
    case 503:
      return {ConnectionFault::kCameraFull,
              answered + ": the camera serves as many sessions as it can"};
    case 461:
      return {ConnectionFault::kTransportRefused,
              answered + ": the camera does not offer " +
                  (target_->config.transport == kRtspTransportUdp ? "UDP, try interleaved TCP"
                                                                  : "interleaved TCP, try UDP")};
    default:
      return {ConnectionFault::kRefused, answered};
  }
}

// --- The session --------------------------------------------------------------------------------

StreamFailure RTSPDialogue::TakeSession(const RTSPMessage& answer) {
  if (answer.HasHeader("Session")) {
    const auto session = ParseSessionHeader(answer.Header("Session"));
    if (!session) {
      return {ConnectionFault::kBadAnswer,
              "the session id in the answer to SETUP is empty or longer than 64 characters"};
    }
    if (sessionId_.empty()) {
      sessionId_ = session->id;
      sessionTimeout_ = session->timeoutSeconds;
    }
    // A camera that gives each stream an id of its own plays all of them under the first.
    sessionTimeout_ = std::min(sessionTimeout_, session->timeoutSeconds);
  }
  return sessionId_.empty()
             ? StreamFailure{ConnectionFault::kBadAnswer, "the answer to SETUP names no session"}
             : StreamFailure{};
}

// --- Keep-alive ---------------------------------------------------------------------------------

void RTSPDialogue::TakeMethods(std::string_view methods) {
  const bool unknown = !methods.empty() && !ParsePublic(methods, "GET_PARAMETER");
  keepAliveBy_ = unknown || known_ == GetParameter::kEndsConnection ? KeepAliveBy::kOptions
                                                                    : KeepAliveBy::kGetParameter;
}

StreamFailure RTSPDialogue::KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) {
  if (const auto answer = connection_.TakeKeepAliveAnswer()) {
    if (auto failure = ReadKeepAliveAnswer(*answer, now)) {
      return failure;
    }
  }
  if (connection_.PeerClosed()) {
    // Some cameras end the connection at the first GET_PARAMETER instead of answering it.
    if (connection_.KeepAliveIsOpen() && keepAliveBy_ == KeepAliveBy::kGetParameter &&
        known_ == GetParameter::kUnknown) {
      known_ = GetParameter::kEndsConnection;
    }
    return {ConnectionFault::kClosedByCamera, "the camera closed the connection"};
  }
  const std::uint64_t interval = std::uint64_t{sessionTimeout_} * 1000 / 2;
  if (nextKeepAlive_ == 0) {
    nextKeepAlive_ = now + interval;
  }
  if (now >= nextKeepAlive_) {
    SendKeepAlive();
    nextKeepAlive_ = now + interval;
  }
  *nextInMs = nextKeepAlive_ - now;
  return {};
}

StreamFailure RTSPDialogue::ReadKeepAliveAnswer(const std::string& answer, std::uint64_t now) {
  const unsigned status = RTSPMessage(answer).Status();
  const bool byGetParameter = keepAliveBy_ == KeepAliveBy::kGetParameter;
  if (status == 200 && byGetParameter) {
    known_ = GetParameter::kAnswered;
  }
  if (status == 401 && !loggedInAgain_ && TakeChallenge(answer)) {
    loggedInAgain_ = true;  // the nonce has become stale: once more with the new one
    nextKeepAlive_ = now;
  } else if (status == 454) {
    return {ConnectionFault::kClosedByCamera, "the camera has forgotten the session"};
  } else if (status != 200 && status != 401 && byGetParameter) {
    keepAliveBy_ = KeepAliveBy::kOptions;  // 405, 501 and the like: no GET_PARAMETER here
    nextKeepAlive_ = now;
  } else {
    loggedInAgain_ = false;
  }
  return {};
}

void RTSPDialogue::SendKeepAlive() {
  const char* const method = keepAliveBy_ == KeepAliveBy::kOptions ? "OPTIONS" : "GET_PARAMETER";
  const int cseq = cseq_++;
  connection_.SendKeepAlive(TextOf({method, sessionUrl_, SessionLine()}, cseq), cseq);
}

}  // namespace cms
