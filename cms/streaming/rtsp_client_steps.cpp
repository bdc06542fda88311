// CMSRTSPClient's steps by their described names, which pass on to the session of the opening.
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/port_pair.h"
#include "cms/streaming/internal/rtsp_client_state.h"
#include "cms/streaming/internal/rtsp_session.h"

namespace {

constexpr int kTearDownLimitMs = 1'000;
constexpr int kCancelledTearDownLimitMs = 200;

}  // namespace

int CMSRTSPClient::Option() {
  return Succeeded(life_->session->Options()) ? 1 : 0;
}
int CMSRTSPClient::SendOption() {
  return life_->session->Dialogue().Send(life_->session->OptionsRequest()) ? 1 : 0;
}

int CMSRTSPClient::Describe() {
  if (!Succeeded(life_->session->Describe())) {
    return 0;
  }
  TakeDescription();
  return Succeeded(life_->session->BindPorts()) ? 1 : 0;
}
int CMSRTSPClient::SendDescribe() {
  return life_->session->Dialogue().Send(life_->session->DescribeRequest()) ? 1 : 0;
}
int CMSRTSPClient::CreateSubSessionSocket(_RTSPSUBSESSION_CONFIG& config) {
  return Succeeded(cms::BindPortPair(config, false)) ? 1 : 0;
}

int CMSRTSPClient::SetupVideo() {
  return Succeeded(life_->session->SetUp(life_->session->Stream(true), "SETUP")) ? 1 : 0;
}
int CMSRTSPClient::SetupAudio() {
  return Succeeded(life_->session->SetUp(life_->session->Stream(false), "SETUP of the sound")) ? 1
                                                                                               : 0;
}
std::string CMSRTSPClient::ConstructSubsessionURL(const MediaSession& session,
                                                  const _RTSPSUBSESSION_CONFIG& config) const {
  return session.StreamURL(life_->target->url, config);
}
int CMSRTSPClient::SendSetup(const std::string& url, _RTSPSUBSESSION_CONFIG& config) {
  return life_->session->Dialogue().Send(life_->session->SetUpRequest(url, config)) ? 1 : 0;
}
int CMSRTSPClient::ParserSetupResponse(const std::string& response,
                                       _RTSPSUBSESSION_CONFIG& config) {
  cms::IpAddress source;
  cms::MulticastGroup group;
  return Succeeded(life_->session->TakeSetUpAnswer(response, config, &source, &group)) ? 1 : 0;
}

int CMSRTSPClient::PlayMedia() {
  return Succeeded(life_->session->Play()) ? 1 : 0;
}
int CMSRTSPClient::SendPlayMedia() {
  return life_->session->Dialogue().Send(life_->session->PlayRequest()) ? 1 : 0;
}
int CMSRTSPClient::SendPause() {
  return life_->session->Dialogue().Send(life_->session->PauseRequest()) ? 1 : 0;
}

void CMSRTSPClient::TearDown() {
  life_->session->TearDown(OpeningGate().IsShut() && !life_->opened ? kCancelledTearDownLimitMs
                                                                    : kTearDownLimitMs);
}
int CMSRTSPClient::SendTearDown() {
  return life_->session->Dialogue().Send(life_->session->TearDownRequest()) ? 1 : 0;
}

int CMSRTSPClient::GetResponse(std::string& response, unsigned timeoutMs) {
  return Succeeded(life_->session->Dialogue().WaitAnswer(timeoutMs, &response)) ? 1 : 0;
}
unsigned CMSRTSPClient::CheckRTSPResponseCode(const std::string& response) {
  return cms::RTSPMessage(response).Status();
}
std::string CMSRTSPClient::CreateAuthStr(const char* method, const std::string& url) {
  return life_->session->Dialogue().AuthorizationLine(method, url);
}
