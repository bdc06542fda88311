#include "cms/ipcam/onvif_ptz.h"

#include <algorithm>
#include <cmath>

#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/onvif_client.h"
#include "cms/ipcam/internal/ptz_messages.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/runtime/wide_text.h"

namespace cms {

class OnvifPtz::Impl {
 public:
  explicit Impl(OnvifClient& connection) : client(connection) {}

  bool Learn();
  bool Call(std::wstring_view operation, std::wstring_view elements, std::wstring& answer) {
    return Learn() && client.Call(kPtzWsdl, operation,
                                  PtzBody(operation, features.profileToken, elements), answer);
  }
  bool Do(std::wstring_view operation, std::wstring_view elements = {}) {
    std::wstring answer;
    return Call(operation, elements, answer);
  }
  // A request with a vector in those spaces, once the camera has said that it can.
  bool MoveIn(std::wstring_view operation, std::wstring_view name, const PtzVector& vector,
              PtzRange PtzFeatures::*panTilt, PtzRange PtzFeatures::*zoom,
              std::wstring_view elements);
  std::wstring SpeedElement(const PtzVector& vector, std::optional<double> part) const;

  OnvifClient& client;
  PtzFeatures features;
  std::string wishedProfile;
  bool learnt = false;
};

bool OnvifPtz::Impl::Learn() {
  if (learnt) {
    return true;
  }
  std::wstring answer;
  PtzFeatures found;
  const bool media2 = !client.Offers(kMediaWsdl) && client.Offers(kMedia2Wsdl);
  const bool asked =
      media2
          ? client.Call(kMedia2Wsdl, L"GetProfiles",
                        Media2Body(L"GetProfiles", L"<tr2:Type>PTZ</tr2:Type>"), answer)
          : client.Call(kMediaWsdl, L"GetProfiles", L"<trt:GetProfiles></trt:GetProfiles>", answer);
  if (!asked) {
    return false;
  }
  if (!ParsePtzProfile(answer, wishedProfile, found)) {
    return client.Fail(wishedProfile.empty() ? "none of its profiles can be moved"
                                             : "it has no such profile that can be moved");
  }
  const std::wstring body = L"<tptz:GetNode>" +
                            Element(L"tptz:NodeToken", WideFromUtf8(found.nodeToken)) +
                            L"</tptz:GetNode>";
  if (!client.Call(kPtzWsdl, L"GetNode", body, answer)) {
    return false;
  }
  if (!ParsePtzNode(answer, found)) {
    return client.Unreadable("GetNode");
  }
  features = found;
  learnt = true;
  return true;
}

bool OnvifPtz::Impl::MoveIn(std::wstring_view operation, std::wstring_view name,
                            const PtzVector& vector, PtzRange PtzFeatures::*panTilt,
                            PtzRange PtzFeatures::*zoom, std::wstring_view elements) {
  if (!Learn()) {
    return false;
  }
  if (((vector.pan || vector.tilt) && (features.*panTilt).space.empty()) ||
      (vector.zoom && (features.*zoom).space.empty())) {
    return client.Fail(Utf8FromWide(operation) + ": the camera cannot be moved so");
  }
  return Do(operation, VectorElement(name, vector, features.*panTilt, features.*zoom) +
                           std::wstring(elements));
}

// How fast a position is gone to. Its spaces are the generic ones of speeds without a direction.
std::wstring OnvifPtz::Impl::SpeedElement(const PtzVector& vector,
                                          std::optional<double> part) const {
  if (!part) {
    return {};
  }
  const PtzRange panTilt{
      "http://www.onvif.org/ver10/tptz/PanTiltSpaces/GenericSpeedSpace", {0, 1}, {0, 1}};
  const PtzRange zoom{
      "http://www.onvif.org/ver10/tptz/ZoomSpaces/ZoomGenericSpeedSpace", {0, 1}, {}};
  const double speed = std::clamp(std::fabs(*part), 0.0, 1.0);
  PtzVector speeds;
  if (vector.pan || vector.tilt) {
    speeds.pan = speed;
    speeds.tilt = speed;
  }
  if (vector.zoom) {
    speeds.zoom = speed;
  }
  return VectorElement(L"Speed", speeds, panTilt, zoom);
}

OnvifPtz::OnvifPtz(const OnvifAccess& access)
    : OnvifConnection(access), impl_(std::make_unique<Impl>(Client())) {}

OnvifPtz::~OnvifPtz() = default;

void OnvifPtz::SetProfile(const std::string& token) {
  impl_->wishedProfile = token;
  impl_->learnt = false;
}

bool OnvifPtz::ReadFeatures(PtzFeatures& features) {
  if (!impl_->Learn()) {
    return false;
  }
  features = impl_->features;
  return true;
}

bool OnvifPtz::Move(const PtzVector& speed, int seconds) {
  if (!impl_->Learn()) {
    return false;
  }
  PtzVector numbers;
  if (speed.pan || speed.tilt) {
    numbers.pan = InRange(impl_->features.panTiltSpeed.x, speed.pan.value_or(0));
    numbers.tilt = InRange(impl_->features.panTiltSpeed.y, speed.tilt.value_or(0));
  }
  if (speed.zoom) {
    numbers.zoom = InRange(impl_->features.zoomSpeed.x, *speed.zoom);
  }
  return impl_->MoveIn(
      L"ContinuousMove", L"Velocity", numbers, &PtzFeatures::panTiltSpeed, &PtzFeatures::zoomSpeed,
      Element(L"tptz:Timeout", L"PT" + std::to_wstring(std::max(seconds, 1)) + L"S"));
}

bool OnvifPtz::Stop() {
  return impl_->Do(L"Stop", L"<tptz:PanTilt>true</tptz:PanTilt><tptz:Zoom>true</tptz:Zoom>");
}

bool OnvifPtz::MoveTo(const PtzVector& position, std::optional<double> speed) {
  return impl_->MoveIn(L"AbsoluteMove", L"Position", position, &PtzFeatures::panTiltPosition,
                       &PtzFeatures::zoomPosition, impl_->SpeedElement(position, speed));
}

bool OnvifPtz::MoveBy(const PtzVector& translation, std::optional<double> speed) {
  return impl_->MoveIn(L"RelativeMove", L"Translation", translation,
                       &PtzFeatures::panTiltTranslation, &PtzFeatures::zoomTranslation,
                       impl_->SpeedElement(translation, speed));
}

bool OnvifPtz::ReadPresets(std::vector<PtzPreset>& presets) {
  std::wstring answer;
  return impl_->Call(L"GetPresets", {}, answer) &&
         (ParsePresets(answer, presets) || impl_->client.Unreadable("GetPresets"));
}

bool OnvifPtz::GoToPreset(const std::string& token) {
  return impl_->Do(L"GotoPreset", Element(L"tptz:PresetToken", WideFromUtf8(token)));
}

bool OnvifPtz::SetPreset(const std::string& name, std::string& token) {
  std::wstring elements = Element(L"tptz:PresetName", WideFromUtf8(name));
  if (!token.empty()) {
    elements += Element(L"tptz:PresetToken", WideFromUtf8(token));
  }
  std::wstring answer;
  return impl_->Call(L"SetPreset", elements, answer) &&
         (ParsePresetToken(answer, token) || impl_->client.Unreadable("SetPreset"));
}

bool OnvifPtz::RemovePreset(const std::string& token) {
  return impl_->Do(L"RemovePreset", Element(L"tptz:PresetToken", WideFromUtf8(token)));
}

bool OnvifPtz::GoHome() {
  return impl_->Do(L"GotoHomePosition");
}

bool OnvifPtz::SetHome() {
  return impl_->Do(L"SetHomePosition");
}

bool OnvifPtz::ReadStatus(PtzStatus& status) {
  std::wstring answer;
  return impl_->Call(L"GetStatus", {}, answer) &&
         (ParsePtzStatus(answer, status) || impl_->client.Unreadable("GetStatus"));
}

}  // namespace cms
