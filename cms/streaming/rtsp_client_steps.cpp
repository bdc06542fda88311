// CMSRTSPClient's steps by their described names, which pass on to the session of the opening.
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/port_pair.h"
#include "cms/streaming/internal/rtsp_session.h"

namespace {

constexpr int kTearDownLimitMs = 1'000;
constexpr int kCancelledTearDownLimitMs = 200;

}  // namespace

int CMSRTSPClient::Option() {
  return Succeeded(session_->Options()) ? 1 : 0;
}
int CMSRTSPClient::SendOption() {
  return session_->Dialogue().Send(session_->OptionsRequest()) ? 1 : 0;
}

int CMSRTSPClient::Describe() {
  if (!Succeeded(session_->Describe())) {
    return 0;
  }
  TakeDescription();
  return Succeeded(session_->BindPorts()) ? 1 : 0;
}
int CMSRTSPClient::SendDescribe() {
  return session_->Dialogue().Send(session_->DescribeRequest()) ? 1 : 0;
}
int CMSRTSPClient::CreateSubSessionSocket(_RTSPSUBSESSION_CONFIG& config) {
  return Succeeded(cms::BindPortPair(config)) ? 1 : 0;
}

int CMSRTSPClient::SetupVideo() {
  return Succeeded(session_->SetUp(session_->Stream(true), "SETUP")) ? 1 : 0;
}
int CMSRTSPClient::SetupAudio() {
  return Succeeded(session_->SetUp(session_->Stream(false), "SETUP of the sound")) ? 1 : 0;
}
std::string CMSRTSPClient::ConstructSubsessionURL(const MediaSession& session,
                                                  const _RTSPSUBSESSION_CONFIG& config) const {
  return session.StreamURL(target_->url, config);
}
int CMSRTSPClient::SendSetup(const std::string& url, _RTSPSUBSESSION_CONFIG& config) {
  return session_->Dialogue().Send(session_->SetUpRequest(url, config)) ? 1 : 0;
}
int CMSRTSPClient::ParserSetupResponse(const std::string& response,
                                       _RTSPSUBSESSION_CONFIG& config) {
  return Succeeded(session_->TakeSetUpAnswer(response, config)) ? 1 : 0;
}

int CMSRTSPClient::PlayMedia() {
  return Succeeded(session_->Play()) ? 1 : 0;
}
int CMSRTSPClient::SendPlayMedia() {
  return session_->Dialogue().Send(session_->PlayRequest()) ? 1 : 0;
}
int CMSRTSPClient::SendPause() {
  return session_->Dialogue().Send(session_->PauseRequest()) ? 1 : 0;
}

void CMSRTSPClient::TearDown() {
  session_->TearDown(OpeningGate().IsShut() && !opened_ ? kCancelledTearDownLimitMs
                                                        : kTearDownLimitMs);
}
int CMSRTSPClient::SendTearDown() {
  return session_->Dialogue().Send(session_->TearDownRequest()) ? 1 : 0;
}

int CMSRTSPClient::GetResponse(std::string& response, unsigned timeoutMs) {
  return Succeeded(session_->Dialogue().WaitAnswer(timeoutMs, &response)) ? 1 : 0;
}
unsigned CMSRTSPClient::CheckRTSPResponseCode(const std::string& response) {
  return cms::RTSPMessage(response).Status();
}
std::string CMSRTSPClient::CreateAuthStr(const char* method, const std::string& url) {
  return session_->Dialogue().AuthorizationLine(method, url);
}
