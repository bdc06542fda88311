// Reading SOAP answers of growing size up to the largest that is taken, 64 KiB: the time per byte
// stays the same.
#include <benchmark/benchmark.h>

#include <string>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace {

constexpr int kSmallest = 4096;
constexpr int kLargest = 65535;

// Profiles as a camera sends them, as many as go into `size` bytes.
std::wstring Answer(std::size_t size) {
  std::wstring answer =
      L"<e:Envelope xmlns:e=\"http://www.w3.org/2003/05/soap-envelope\""
      L" xmlns:sc=\"http://www.onvif.org/ver10/schema\""
      L" xmlns:md=\"http://www.onvif.org/ver10/media/wsdl\"><e:Body><md:GetProfilesResponse>";
  const std::wstring end = L"</md:GetProfilesResponse></e:Body></e:Envelope>";
  for (int i = 0;; ++i) {
    const std::wstring number = std::to_wstring(i);
    const std::wstring profile =
        L"<md:Profiles fixed=\"true\" token=\"p" + number + L"\"><sc:Name>profile " + number +
        L"</sc:Name><sc:VideoSourceConfiguration token=\"v\"><sc:Name>s</sc:Name><sc:SourceToken>"
        L"vs0</sc:SourceToken></sc:VideoSourceConfiguration><sc:VideoEncoderConfiguration "
        L"token=\"e" +
        number +
        L"\"><sc:Name>e</sc:Name><sc:UseCount>1</sc:UseCount><sc:Encoding>H264</sc:Encoding>"
        L"<sc:Resolution><sc:Width>1920</sc:Width><sc:Height>1080</sc:Height></sc:Resolution>"
        L"<sc:Quality>4</sc:Quality><sc:RateControl><sc:FrameRateLimit>25</sc:FrameRateLimit>"
        L"<sc:EncodingInterval>1</sc:EncodingInterval><sc:BitrateLimit>4096</sc:BitrateLimit>"
        L"</sc:RateControl><sc:H264><sc:GovLength>50</sc:GovLength><sc:H264Profile>High"
        L"</sc:H264Profile></sc:H264></sc:VideoEncoderConfiguration></md:Profiles>";
    if (answer.size() + profile.size() + end.size() > size) {
      return answer + end;
    }
    answer += profile;
  }
}

// One search for a tag at the answer's end.
void Search(benchmark::State& state) {
  const std::wstring answer =
      Answer(static_cast<std::size_t>(state.range(0))) + L"<tt:Uri>x</tt:Uri>";
  std::wstring value;
  for (auto _ : state) {
    CIPCAM_Config_Utility::ONVIF_GetStrByElement(answer, L"<tt:Uri>", L"</tt:Uri>", value);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(answer.size()));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(Search)->RangeMultiplier(4)->Range(kSmallest, kLargest)->Complexity();

// A whole answer: from UTF-8 to the profiles.
void ReadProfiles(benchmark::State& state) {
  const std::string answer = cms::Utf8FromWide(Answer(static_cast<std::size_t>(state.range(0))));
  CIPCAM_Config_Utility utility;
  for (auto _ : state) {
    if (!utility.ParserAllONVIFData(L"GetProfiles", cms::WideFromUtf8(answer))) {
      state.SkipWithError("not read");
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(answer.size()));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadProfiles)->RangeMultiplier(4)->Range(kSmallest, kLargest)->Complexity();

// The worst that a peer can send: only beginnings of tags.
void ReadBrokenTags(benchmark::State& state) {
  std::wstring answer;
  while (answer.size() < static_cast<std::size_t>(state.range(0))) {
    answer += L"<trt:Profiles token=\"";
  }
  for (auto _ : state) {
    std::wstring normalized = cms::Normalized(answer);
    std::wstring_view rest = normalized;
    std::wstring_view element;
    while (cms::TakeElement(rest, L"trt:Profiles", element)) {
    }
    benchmark::DoNotOptimize(rest);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(answer.size()));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadBrokenTags)->RangeMultiplier(4)->Range(kSmallest, kLargest)->Complexity();

}  // namespace

BENCHMARK_MAIN();
