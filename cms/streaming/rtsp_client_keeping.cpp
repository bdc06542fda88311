// CMSRTSPClient's keep-alive.
#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/rtsp_session.h"

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
    getParameterWorks_ |= status == 200 && !keepAliveByOptions_;
    if (status == 401 && !keepAliveRetried_ && TakeChallenge(*answer)) {
      keepAliveRetried_ = true;  // the nonce has become stale: once more with the new one
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
    // Some cameras end the connection at the first GET_PARAMETER instead of answering it.
    getParameterEnds_ |=
        connection.KeepAliveIsOpen() && !keepAliveByOptions_ && !getParameterWorks_;
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
