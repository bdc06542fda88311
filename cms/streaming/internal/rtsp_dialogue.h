// The requests of one opening of an RTSP stream, and their answers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "cms/streaming/internal/rtsp_connection.h"
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/rtsp_target.h"
#include "cms/streaming/internal/stream_failure.h"
#include "cms/streaming/login.h"

namespace cms {

struct RTSPRequest {
  std::string method;
  std::string url;
  std::string lines;  // those that other requests have not, each ended by CR LF
};

// What a camera makes of GET_PARAMETER, as far as its openings have shown.
enum class GetParameter : int { kUnknown, kAnswered, kEndsConnection };

// Numbers the requests, logs in, and remembers the session that the camera gave out. It is made
// anew for each opening and not locked: one thread at a time makes requests.
class RTSPDialogue {
 public:
  RTSPDialogue(RTSPConnection& connection, std::shared_ptr<const RTSPTarget> target,
               GetParameter known);

  // Sends a request and waits for its answer; after a challenge once more with the login. `name`
  // is the request's for people; *answer is the last one, of a refusal too.
  StreamFailure Ask(const RTSPRequest& request, std::string_view name, std::string* answer);
  // The last request of all: it waits so long although openings are cancelled, and needs no answer.
  void AskLast(const RTSPRequest& request, int limitMs);

  // The steps of Ask. Each text that is made counts, for the login as well: make none that is not
  // sent.
  bool Send(const RTSPRequest& request);
  StreamFailure WaitAnswer(unsigned limitMs, std::string* answer);
  std::string AuthorizationLine(std::string_view method, std::string_view url) {
    return login_.AuthorizationLine(method, url);
  }

  // The session of an answer to SETUP.
  StreamFailure TakeSession(const RTSPMessage& answer);
  bool HasSession() const { return !sessionId_.empty(); }
  std::string SessionLine() const { return "Session: " + sessionId_ + "\r\n"; }

  // The value of "Public" in the answer to OPTIONS; empty when it has none.
  void TakeMethods(std::string_view methods);
  // Reads what was answered to a keep-alive, and sends the next when it is time to: *nextInMs are
  // the milliseconds until then. Waits for nobody. A failure ends the stream.
  StreamFailure KeepAlive(std::uint64_t now, std::uint64_t* nextInMs);
  GetParameter Known() const { return known_; }
  // What the requests for all streams together name from now on: first it is the target's.
  void SetSessionUrl(const std::string& url) { sessionUrl_ = url; }
  const std::string& SessionUrl() const { return sessionUrl_; }

 private:
  enum class KeepAliveBy { kGetParameter, kOptions };

  std::string TextOf(const RTSPRequest& request, int cseq);
  bool TakeChallenge(const std::string& answer);
  StreamFailure Refused(std::string_view name, unsigned status) const;
  StreamFailure ReadKeepAliveAnswer(const std::string& answer, std::uint64_t now);
  void SendKeepAlive();

  RTSPConnection& connection_;
  const std::shared_ptr<const RTSPTarget> target_;
  Login login_;
  int cseq_ = 1;
  std::string sessionUrl_;
  std::string sessionId_;
  std::uint32_t sessionTimeout_ = RTSPSessionHeader::kDefaultTimeout;  // seconds

  GetParameter known_;
  KeepAliveBy keepAliveBy_ = KeepAliveBy::kGetParameter;
  bool loggedInAgain_ = false;       // since the last keep-alive that was answered well
  std::uint64_t nextKeepAlive_ = 0;  // 0: none was sent yet
};

}  // namespace cms
