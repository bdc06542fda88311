#include "cms/exports/text_exports.h"

#include <cstddef>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "cms/runtime/digest.h"
#include "cms/runtime/text.h"

namespace {

std::string_view Viewed(const char* text) {
  return text != nullptr ? text : std::string_view();
}

std::wstring_view Viewed(const wchar_t* text) {
  return text != nullptr ? text : std::wstring_view();
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
