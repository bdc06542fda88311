#include "cms/ipcam/onvif_connection.h"

#include "cms/ipcam/internal/onvif_client.h"

namespace cms {

OnvifConnection::OnvifConnection(const OnvifAccess& access)
    : client_(std::make_unique<OnvifClient>(access)) {}

OnvifConnection::~OnvifConnection() = default;

const std::string& OnvifConnection::LastError() const {
  return client_->Error();
}

bool OnvifConnection::IsRefused() const {
  return client_->IsRefused();
}

void OnvifConnection::Interrupt() {
  client_->InterruptSignal().Signal();
}

void OnvifConnection::ResumeAfterInterrupt() {
  client_->InterruptSignal().Clear();
}

}  // namespace cms
