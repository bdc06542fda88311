// What media services of the second version answer: every reader takes any text, keeps what it had
// when it reports failure, and tells no profile without a token and no number that is none.
#include <cmath>
#include <string>
#include <vector>

#include "cms/ipcam/internal/media_answers.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text =
      cms::Normalized(cms::WideFromUtf8({reinterpret_cast<const char*>(data), size}));
  std::vector<cms::stVideoProfile> profiles(1);
  if (cms::ParseMedia2Profiles(text, profiles)) {
    for (const cms::stVideoProfile& profile : profiles) {
      CHECK(!profile.token.empty());
      CHECK(!profile.videoEncoder || std::isfinite(profile.videoEncoder->quality));
      CHECK(!profile.videoEncoder || profile.videoEncoder->govLength >= 0);
    }
  } else {
    CHECK(profiles.size() == 1);
  }
  cms::stVideoEncoderOptions options;
  options.configurationToken = L"kept";
  const bool read = cms::ParseMedia2EncoderOptions(text, options);
  CHECK(options.configurationToken == L"kept" && read == !options.codecs.empty());
  for (const cms::stCodecOptions& codec : options.codecs) {
    CHECK(!codec.encoding.empty());
    CHECK(!codec.frameRate || codec.frameRate->min <= codec.frameRate->max);
  }
  std::wstring uri = L"kept";
  CHECK(cms::ParseStreamUri(text, uri) ? !uri.empty() : uri == L"kept");
  // A stream's address leads to the camera that was asked, whatever it names.
  cms::OnvifAccess access;
  access.host = "2001:db8::7";
  const cms::OnvifDevice device(access);
  const std::string url = device.StreamUrlOf(uri);
  CHECK(uri.find(L"://") == std::wstring::npos ? url == cms::Utf8FromWide(uri)
                                               : url.find("[2001:db8::7]") != std::string::npos);
  return 0;
}
