// SOAP answers: every reader takes any text, keeps what it had when it reports failure, and escaped
// texts survive the way through an answer.
#include <string>
#include <string_view>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/media_answers.h"
#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = cms::WideFromUtf8({reinterpret_cast<const char*>(data), size});
  CIPCAM_Config_Utility utility;
  for (const std::wstring_view operation :
       {L"GetDeviceInformation", L"GetProfiles", L"GetVideoEncoderConfigurations",
        L"GetVideoEncoderConfigurationOptions", L"GetOptions", L"GetImagingSettings",
        L"GetNetworkInterfaces", L"GetNetworkDefaultGateway", L"GetDNS"}) {
    utility.ParserAllONVIFData(operation, text);
  }
  for (const cms::stVideoProfile& profile : utility.ONVIFConfiguration().profiles) {
    CHECK(!profile.token.empty());
  }
  const std::wstring normalized = cms::Normalized(text);
  std::wstring kept = L"kept";
  CHECK(cms::ParseStreamUri(normalized, kept) || kept == L"kept");
  CHECK(cms::ParseCreatedProfile(normalized, kept) || !kept.empty());
  CHECK(cms::FaultReason(normalized).size() <= 4 * 200);
  static_cast<void>(cms::ParseSystemDateAndTime(normalized));

  const std::wstring escaped = cms::XmlEscaped(text);
  const std::wstring plain = cms::XmlUnescaped(escaped);
  CHECK(cms::XmlEscaped(plain) == escaped);
  const std::wstring element = L"<tt:Name>x" + escaped + L"x</tt:Name>";
  CHECK(cms::Normalized(element) == element);
  CHECK(cms::TextOf(element, L"tt:Name") == L"x" + plain + L"x");
  return 0;
}
