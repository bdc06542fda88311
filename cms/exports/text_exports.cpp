#include "cms/exports/text_exports.h"

#include <cstddef>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <iterator>
#include <limits>
#include <span>
#include <string_view>

#include "cms/recording/recording_names.h"
#include "cms/runtime/digest.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace {

std::string_view Viewed(const char* text) {
  return text != nullptr ? text : std::string_view();
}

std::wstring_view Viewed(const wchar_t* text) {
  return text != nullptr ? text : std::wstring_view();
}

template <class Char>
int Changed(std::basic_string_view<Char> path, std::basic_string_view<Char> extension,
            std::basic_string<Char>& out) {
  const Char separators[] = {'\\', '/', 0};
  const auto last = path.find_last_of(separators);
  const std::size_t name = last == path.npos ? 0 : last + 1;
  if (name == path.size()) {
    out.clear();
    return 0;
  }
  // A dot in front is no extension's: ".profile".
  const auto dot = path.rfind(Char{'.'});
  std::basic_string<Char> changed(
      path.substr(0, dot == path.npos || dot <= name ? path.npos : dot));
  if (!extension.empty() && extension.front() != Char{'.'}) {
    changed += Char{'.'};
  }
  out = changed.append(extension);
  return 1;
}

// The longest input whose Base64, with its zero, an int can count.
constexpr int kLongestBase64Input = (std::numeric_limits<int>::max() - 1) / 4 * 3;

}  // namespace

int CMSMakeMD5(std::string& out, const char* input) {
  out = cms::Md5Hex(Viewed(input));
  return out.empty() ? 0 : 1;
}

int Base64Encode(char* out, const unsigned char* in, int length) {
  if (out == nullptr) {
    return 0;
  }
  out[0] = '\0';
  if (in == nullptr || length <= 0 || length > kLongestBase64Input) {
    return 0;
  }
  const std::string text = cms::Base64(std::span(in, static_cast<std::size_t>(length)));
  std::memcpy(out, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

int CMSGetStrInBrace(const std::string& text, const std::string& key, char open, char close,
                     std::string& value) {
  return cms::StrInBrace(text, key, open, close, value);
}

int CMSGetWStrInBrace(const std::wstring& text, const std::wstring& key, wchar_t open,
                      wchar_t close, std::wstring& value) {
  return cms::StrInBrace(text, key, open, close, value);
}

int CMSGetCStringStrInBrace(const wchar_t* text, const wchar_t* key, wchar_t open, wchar_t close,
                            std::wstring& value) {
  return cms::StrInBrace(Viewed(text), Viewed(key), open, close, value);
}

int CMSGetStrsInBrace(const std::string& text, const std::string& key, char open, char close,
                      std::vector<std::string>& values) {
  return cms::StrsInBrace(text, key, open, close, values);
}

int CMSGetWStrsInBrace(const std::wstring& text, const std::wstring& key, wchar_t open,
                       wchar_t close, std::vector<std::wstring>& values) {
  return cms::StrsInBrace(text, key, open, close, values);
}

int CMSGetLineA(const std::string& text, std::string& line, int start) {
  return cms::GetLine(text, line, start);
}

int CMSGetLineW(const std::wstring& text, std::wstring& line, int start) {
  return cms::GetLine(text, line, start);
}

int CMSStrcmpAnyCase(const char* a, const char* b) {
  return cms::CompareAnyCase(Viewed(a), Viewed(b));
}

int CMSStrcmpAnyCaseW(const wchar_t* a, const wchar_t* b) {
  return cms::CompareAnyCase(Viewed(a), Viewed(b));
}

void CStringToStdString(const std::wstring& text, std::string& out) {
  out = cms::Utf8FromWide(text);
}

void StdStringToCString(const std::string& text, std::wstring& out) {
  out = cms::WideFromUtf8(text);
}

void MultiByteToCString(const char* text, std::wstring& out) {
  out = cms::WideFromUtf8(Viewed(text));
}

int TimetToCString(std::int64_t time, std::wstring& out) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm local{};
  wchar_t text[64] = L"";
  if (localtime_r(&seconds, &local) == nullptr || local.tm_year < -1900 ||
      std::wcsftime(text, std::size(text), L"%Y-%m-%d %H:%M:%S", &local) == 0) {
    out.clear();
    return 0;
  }
  out = text;
  return 1;
}

int CMSChangeExtName(const wchar_t* path, const wchar_t* extension, std::wstring& out) {
  return Changed(Viewed(path), Viewed(extension), out);
}

int ChangeExtName(const char* path, const char* extension, std::string& out) {
  return Changed(Viewed(path), Viewed(extension), out);
}

int GetCMSSiteNo(const wchar_t* path) {
  const auto name = cms::SplitAtLastSeparator(Viewed(path)).name;
  return cms::SiteNumberOf(name).value_or(0);
}

int GetString(const char* buffer, int size, std::string& out) {
  const std::string_view field = buffer != nullptr && size > 0
                                     ? std::string_view(buffer, static_cast<std::size_t>(size))
                                     : std::string_view();
  out = field.substr(0, field.find('\0'));
  return static_cast<int>(out.size());
}

int PutStrToBuffer(char* buffer, int size, const char* text) {
  if (buffer == nullptr || size <= 0) {
    return 0;
  }
  const std::string_view whole = Viewed(text);
  const std::string_view shown = cms::CutUtf8(whole, static_cast<std::size_t>(size) - 1);
  std::memset(buffer, 0, static_cast<std::size_t>(size));
  shown.copy(buffer, shown.size());
  return shown.size() == whole.size() ? 1 : 0;
}
