// What PTZ services answer: every reader takes any text, keeps what it had when it reports failure,
// and what was read can be asked for.
#include <cmath>
#include <string>

#include "cms/ipcam/internal/ptz_messages.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text =
      cms::Normalized(cms::WideFromUtf8({reinterpret_cast<const char*>(data), size}));
  cms::PtzFeatures features;
  features.profileToken = "kept";
  if (!cms::ParsePtzProfile(text, "", features)) {
    CHECK(features.profileToken == "kept");
  }
  static_cast<void>(cms::ParsePtzNode(text, features));
  std::string token = "kept";
  CHECK(cms::ParsePresetToken(text, token) || token == "kept");
  cms::PtzStatus status;
  static_cast<void>(cms::ParsePtzStatus(text, status));
  std::vector<cms::PtzPreset> presets;
  static_cast<void>(cms::ParsePresets(text, presets));
  for (const cms::PtzPreset& preset : presets) {
    CHECK(!preset.token.empty());
    const cms::PtzVector& at = preset.position;
    CHECK(std::isfinite(at.pan.value_or(0)) && std::isfinite(at.zoom.value_or(0)));
    const std::wstring body = cms::PtzBody(
        L"AbsoluteMove", preset.token,
        cms::VectorElement(L"Position", at, features.panTiltPosition, features.zoomPosition));
    CHECK(cms::Normalized(body) == body);
  }
  return 0;
}
