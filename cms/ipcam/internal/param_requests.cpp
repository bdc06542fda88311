#include "cms/ipcam/internal/param_requests.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>

#include "cms/ipcam/capability_tables.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace cms {

const std::wstring_view kResolutionParameter = L"Image.I0.Appearance.Resolution";

namespace {

constexpr std::wstring_view kList = L"/cgi-bin/admin/param.cgi?action=list";
constexpr std::wstring_view kUpdate = L"/cgi-bin/admin/param.cgi?action=update";
constexpr std::wstring_view kDisabled = L"disable";

enum class Kind { kUnsigned, kSigned, kText, kAudio };

struct Settable {
  std::wstring_view name;
  Kind kind;
};

// What updates may set. Cameras answer with "Framerate.Mjpeg" and want "Framerate.MJPEG" to set it.
constexpr Settable kSettable[] = {
    {L"Image.I0.Appearance.MjpegQfactor", Kind::kUnsigned},
    {L"Image.I0.Appearance.Mpeg4Bitrate", Kind::kUnsigned},
    {L"Image.I0.Appearance.Mpeg4VideoKeyFrameInterval", Kind::kUnsigned},
    {L"Image.I0.Appearance.H264Bitrate", Kind::kUnsigned},
    {L"Image.I0.Appearance.H264VideoKeyFrameInterval", Kind::kUnsigned},
    {L"Image.I0.Appearance.H264_2Bitrate", Kind::kUnsigned},
    {L"Image.I0.Appearance.H264_2VideoKeyFrameInterval", Kind::kUnsigned},
    {L"Image.I0.RateControl.MaxFPS", Kind::kUnsigned},
    {L"Image.I0.Appearance.Rotation", Kind::kText},
    {L"ImageSource.I0.Sensor.Exposure", Kind::kText},
    {L"ImageSource.I0.Sensor.3DNR", Kind::kText},
    {L"Image.I0.RateControl.Mpeg4Mode", Kind::kText},
    {L"Image.I0.RateControl.H264Mode", Kind::kText},
    {L"Image.I0.RateControl.H264_2Mode", Kind::kText},
    {L"Framerate.MJPEG", Kind::kSigned},
    {L"Framerate.H264", Kind::kSigned},
    {L"Framerate.H264_2", Kind::kSigned},
    {L"Frameskip.H264", Kind::kSigned},
    {L"Frameskip.H264_2", Kind::kSigned},
    {L"AudioSource.A0.BitRate", Kind::kAudio},
};

// Which streams of a list are on ('1') and off ('0'), as far as cameras take it.
constexpr std::wstring_view kPatterns[] = {
    L"111",  L"101",  L"100",  L"110",   L"011",   L"010",   L"1111",  L"1010",  L"1001",
    L"1000", L"0011", L"0010", L"11111", L"11000", L"10100", L"10000", L"01100", L"01000",
};

// Digits of a number up to `largest`.
bool IsNumber(std::wstring_view text, std::uint64_t largest) {
  std::uint64_t number = 0;
  for (const wchar_t c : text) {
    if (c < L'0' || c > L'9') {
      return false;
    }
    number = number * 10 + static_cast<std::uint64_t>(c - L'0');
    if (number > largest) {
      return false;
    }
  }
  return !text.empty();
}

bool IsOfKind(std::wstring_view value, Kind kind) {
  switch (kind) {
    case Kind::kUnsigned:
      return IsNumber(value, UINT32_MAX);
    case Kind::kSigned:
      return IsNumber(value.substr(value.starts_with(L'-') ? 1 : 0), INT32_MAX);
    case Kind::kText:
      return !value.empty();
    case Kind::kAudio:
      return std::ranges::find(AudioEncodings(), value) != AudioEncodings().end();
  }
  return false;
}

// For a query (RFC 3986, section 2): all but the unreserved characters and the comma as "%XX" of
// their UTF-8.
std::wstring QueryEscaped(std::wstring_view text) {
  constexpr std::string_view kPlain = "-._~,";
  static constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
  std::wstring escaped;
  for (const char c : Utf8FromWide(text)) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                       kPlain.find(c) != std::string_view::npos;
    if (plain) {
      escaped += static_cast<wchar_t>(c);
    } else {
      escaped += {L'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return escaped;
}

std::vector<std::wstring> SplitAtCommas(std::wstring_view list) {
  std::vector<std::wstring> items;
  for (;;) {
    const std::size_t comma = list.find(L',');
    items.emplace_back(list.substr(0, comma));
    if (comma == std::wstring_view::npos) {
      return items;
    }
    list.remove_prefix(comma + 1);
  }
}

std::span<const std::int32_t> StreamMap(std::size_t count) {
  switch (count) {
    case 3:
      return THREE_RES_MAP_TBL;
    case 4:
      return FOUR_RES_MAP_TBL;
    case 5:
      return FIVE_RES_MAP_TBL;
    default:
      return {};
  }
}

}  // namespace

std::wstring ListPath(const std::vector<std::wstring>& groups) {
  std::wstring path(kList);
  for (const std::wstring& group : groups) {
    path += L"&group=" + QueryEscaped(group);
  }
  return path;
}

std::wstring ResolutionListPath() {
  return ListPath({std::wstring(kResolutionParameter), L"ImageSource.I0", L"Fisheye"});
}

std::optional<std::wstring> UpdatePath(const std::vector<stCameraParameter>& parameters,
                                       std::string& error) {
  std::wstring path(kUpdate);
  for (const stCameraParameter& parameter : parameters) {
    const auto* known = std::ranges::find_if(kSettable, [&parameter](const Settable& one) {
      return CompareAnyCase(one.name, parameter.name) == 0;
    });
    if (known == std::end(kSettable)) {
      error = "parameter " + Utf8FromWide(parameter.name) + " cannot be set";
      return std::nullopt;
    }
    if (!IsOfKind(parameter.value, known->kind)) {
      error = "parameter " + Utf8FromWide(known->name) + " cannot be \"" +
              Utf8FromWide(parameter.value) + "\"";
      return std::nullopt;
    }
    path += L'&';
    path += known->name;
    path += L'=' + QueryEscaped(parameter.value);
  }
  return path;
}

std::optional<std::wstring> ResolutionUpdatePath(std::wstring_view combination,
                                                 std::string& error) {
  std::wstring pattern;
  for (const std::wstring& key : SplitAtCommas(combination)) {
    if (FindResolution(key) == nullptr) {
      error = "\"" + Utf8FromWide(key) + "\" is no resolution that cameras know";
      return std::nullopt;
    }
    pattern += key == kDisabled ? L'0' : L'1';
  }
  if (std::ranges::find(kPatterns, pattern) == std::end(kPatterns)) {
    error = "cameras take three to five resolutions, and not every pattern of disabled ones: not " +
            Utf8FromWide(combination);
    return std::nullopt;
  }
  std::wstring path(kUpdate);
  path += L'&';
  path += kResolutionParameter;
  path += L'=';
  path += combination;
  path += L'&';
  return path;
}

std::vector<stCameraParameter> ParseParameters(std::wstring_view answer) {
  constexpr std::wstring_view kRoot = L"root.";
  std::vector<stCameraParameter> parameters;
  while (!answer.empty()) {
    const std::size_t end = std::min(answer.find(L'\n'), answer.size());
    std::wstring_view line = answer.substr(0, end);
    answer.remove_prefix(std::min(end + 1, answer.size()));
    while (line.ends_with(L'\r')) {
      line.remove_suffix(1);
    }
    const std::size_t equals = line.find(L'=');
    if (line.starts_with(kRoot) && equals != std::wstring_view::npos) {
      parameters.push_back({std::wstring(line.substr(kRoot.size(), equals - kRoot.size())),
                            std::wstring(line.substr(equals + 1))});
    }
  }
  return parameters;
}

bool IsInvalidValueAnswer(std::wstring_view answer) {
  return answer.find(L"Error:invalid value") != std::wstring_view::npos;
}

std::optional<stResolutionConfiguration> ParseResolutions(std::wstring_view answer) {
  if (IsInvalidValueAnswer(answer)) {
    return std::nullopt;
  }
  const std::vector<stCameraParameter> parameters = ParseParameters(answer);
  const auto list = std::ranges::find(parameters, kResolutionParameter, &stCameraParameter::name);
  if (list == parameters.end()) {
    return std::nullopt;
  }
  stResolutionConfiguration configuration{
      .combination = list->value,
      .streams = {},
      .fisheye = answer.find(L"root.Fisheye") != std::wstring_view::npos,
      .pal = answer.find(L"DetectedType=pal") != std::wstring_view::npos};
  const std::vector<std::wstring> keys = SplitAtCommas(list->value);
  const std::span<const std::int32_t> map = StreamMap(keys.size());
  for (std::size_t i = 0; i < std::min(keys.size(), map.size()); ++i) {
    configuration.streams.push_back({map[i], keys[i]});
  }
  return configuration;
}

}  // namespace cms
