// Answers of the parameter CGI, and foreign texts on their way into a query.
#include <algorithm>
#include <string>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/param_requests.h"
#include "cms/runtime/wide_text.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = cms::WideFromUtf8({reinterpret_cast<const char*>(data), size});
  CIPCAM_Config_Utility utility;
  if (utility.ParserResolutionAPIData(text)) {
    const std::size_t streams = utility.ResolutionConfiguration().streams.size();
    CHECK(streams == 0 || (streams >= 3 && streams <= 5));
  }
  for (const cms::stCameraParameter& parameter : cms::ParseParameters(text)) {
    CHECK(parameter.name.find(L'=') == std::wstring::npos);
    CHECK(parameter.value.find(L'\n') == std::wstring::npos);
  }
  std::string error;
  const auto path = cms::UpdatePath({{L"Image.I0.Appearance.Rotation", text}}, error);
  CHECK(path.has_value() == !text.empty());
  const std::wstring all = path.value_or(L"") + cms::ListPath({text});
  CHECK(std::ranges::all_of(all, [](wchar_t c) { return c > L' ' && c < 0x7F; }));
  CHECK(std::ranges::count(all, L'&') <= 2 && std::ranges::count(all, L'#') == 0);
  if (const auto list = cms::ResolutionUpdatePath(text, error)) {
    CHECK(std::ranges::count(*list, L'&') == 2);
  }
  return 0;
}
