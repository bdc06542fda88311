#include "cms/ipcam/internal/ptz_messages.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

std::string PlainText(std::wstring text) {
  return Utf8FromWide(Plain(std::move(text)));
}

std::optional<double> AttributeNumber(std::wstring_view element, std::wstring_view name) {
  return NumberOf(L"<n>" + AttributeOf(element, name) + L"</n>", L"n");
}

// The first element of that name, its attributes included; empty when there is none.
std::wstring_view First(std::wstring_view text, std::wstring_view name) {
  std::wstring_view element;
  return TakeElement(text, name, element) ? element : std::wstring_view();
}

// Of several spaces the generic one, which means the same for every camera.
PtzRange SpaceOf(std::wstring_view node, std::wstring_view name) {
  PtzRange found;
  for (std::wstring_view one; TakeElement(node, name, one);) {
    const std::wstring uri = TextOf(one, L"tt:URI");
    const auto x = RangeOf(one, L"tt:XRange");
    const bool generic = uri.ends_with(L"GenericSpace");
    if (uri.empty() || !x || (!found.space.empty() && !generic)) {
      continue;
    }
    found = {Utf8FromWide(uri), *x, RangeOf(one, L"tt:YRange").value_or(stRange{})};
    if (generic) {
      break;
    }
  }
  return found;
}

PtzVector VectorOf(std::wstring_view text) {
  PtzVector vector;
  const std::wstring_view panTilt = First(text, L"tt:PanTilt");
  vector.pan = AttributeNumber(panTilt, L"x");
  vector.tilt = AttributeNumber(panTilt, L"y");
  vector.zoom = AttributeNumber(First(text, L"tt:Zoom"), L"x");
  return vector;
}

std::wstring SpaceAttribute(const PtzRange& range) {
  return L" space=\"" + XmlEscaped(WideFromUtf8(range.space)) + L"\"/>";
}

}  // namespace

bool ParsePtzProfile(std::wstring_view answer, std::string_view token, PtzFeatures& features) {
  const bool media2 = answer.find(L"<tr2:Profiles") != std::wstring_view::npos;
  const std::wstring_view profile = media2 ? L"tr2:Profiles" : L"trt:Profiles";
  const std::wstring_view configuration = media2 ? L"tr2:PTZ" : L"tt:PTZConfiguration";
  for (std::wstring_view one; TakeElement(answer, profile, one);) {
    const std::string found = Utf8FromWide(Token(one));
    const std::wstring node = TextOf(First(one, configuration), L"tt:NodeToken");
    if (!found.empty() && !node.empty() && (token.empty() || token == found)) {
      features.profileToken = found;
      features.nodeToken = Utf8FromWide(node);
      return true;
    }
  }
  return false;
}

bool ParsePtzNode(std::wstring_view answer, PtzFeatures& features) {
  const std::wstring_view node = First(answer, L"tptz:PTZNode");
  if (node.empty()) {
    return false;
  }
  features.panTiltPosition = SpaceOf(node, L"tt:AbsolutePanTiltPositionSpace");
  features.zoomPosition = SpaceOf(node, L"tt:AbsoluteZoomPositionSpace");
  features.panTiltTranslation = SpaceOf(node, L"tt:RelativePanTiltTranslationSpace");
  features.zoomTranslation = SpaceOf(node, L"tt:RelativeZoomTranslationSpace");
  features.panTiltSpeed = SpaceOf(node, L"tt:ContinuousPanTiltVelocitySpace");
  features.zoomSpeed = SpaceOf(node, L"tt:ContinuousZoomVelocitySpace");
  features.mostPresets = IntegerOf(node, L"tt:MaximumNumberOfPresets");
  features.home = TruthOf(node, L"tt:HomeSupported");
  return true;
}

bool ParsePresets(std::wstring_view answer, std::vector<PtzPreset>& presets) {
  if (answer.find(L"tptz:GetPresetsResponse") == std::wstring_view::npos) {
    return false;
  }
  presets.clear();
  for (std::wstring_view one; TakeElement(answer, L"tptz:Preset", one);) {
    PtzPreset preset{.token = Utf8FromWide(Token(one)),
                     .name = PlainText(TextOf(one, L"tt:Name")),
                     .position = VectorOf(First(one, L"tt:PTZPosition"))};
    if (!preset.token.empty()) {
      presets.push_back(std::move(preset));
    }
  }
  return true;
}

bool ParsePresetToken(std::wstring_view answer, std::string& token) {
  const std::wstring found = TextOf(answer, L"tptz:PresetToken");
  if (found.empty()) {
    return false;
  }
  token = Utf8FromWide(found);
  return true;
}

bool ParsePtzStatus(std::wstring_view answer, PtzStatus& status) {
  const std::wstring_view found = First(answer, L"tptz:PTZStatus");
  if (found.empty()) {
    return false;
  }
  status.position = VectorOf(First(found, L"tt:Position"));
  const std::wstring_view moves = First(found, L"tt:MoveStatus");
  status.moving =
      TextOf(moves, L"tt:PanTilt") == L"MOVING" || TextOf(moves, L"tt:Zoom") == L"MOVING";
  return true;
}

double InRange(const stRange& range, double part) {
  const double limited = std::clamp(part, -1.0, 1.0);
  return limited >= 0 ? limited * range.max : -limited * range.min;
}

std::wstring PtzBody(std::wstring_view operation, std::string_view profileToken,
                     std::wstring_view elements) {
  const std::wstring name = L"tptz:" + std::wstring(operation);
  return L"<" + name + L">" + Element(L"tptz:ProfileToken", WideFromUtf8(profileToken)) +
         std::wstring(elements) + L"</" + name + L">";
}

std::wstring VectorElement(std::wstring_view name, const PtzVector& vector, const PtzRange& panTilt,
                           const PtzRange& zoom) {
  constexpr int kDigits = 6;
  const std::wstring tag = L"tptz:" + std::wstring(name);
  std::wstring inside;
  if (vector.pan || vector.tilt) {
    inside += L"<tt:PanTilt x=\"" + Decimal(vector.pan.value_or(0), kDigits) + L"\" y=\"" +
              Decimal(vector.tilt.value_or(0), kDigits) + L"\"" + SpaceAttribute(panTilt);
  }
  if (vector.zoom) {
    inside += L"<tt:Zoom x=\"" + Decimal(*vector.zoom, kDigits) + L"\"" + SpaceAttribute(zoom);
  }
  return L"<" + tag + L">" + inside + L"</" + tag + L">";
}

}  // namespace cms
