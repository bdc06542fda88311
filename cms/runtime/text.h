// Small readers of the texts that devices answer with; narrow and wide alike.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

// From the start of the first `key` in `text`: the text between the first `open` and the next
// `close` behind it. Returns the index just before that close character, or -1 with an empty value
// when anything is missing or there is nothing between.
CMS_API int StrInBrace(std::string_view text, std::string_view key, char open, char close,
                       std::string& value);
CMS_API int StrInBrace(std::wstring_view text, std::wstring_view key, wchar_t open, wchar_t close,
                       std::wstring& value);

// All values of `key`, one behind the other: the search for the next key begins behind the close
// character of the last value. Keys with nothing between their braces give no value. Returns how
// many there are.
CMS_API int StrsInBrace(std::string_view text, std::string_view key, char open, char close,
                        std::vector<std::string>& values);
CMS_API int StrsInBrace(std::wstring_view text, std::wstring_view key, wchar_t open, wchar_t close,
                        std::vector<std::wstring>& values);

// The line that begins at `start`. It ends before the first line feed if there is one at or behind
// `start`, else before the first carriage return; so a line ended by CR LF keeps its CR. Returns
// the index behind the end character, to be the next start; -1 with an empty line when `start` is
// -1 or lies beyond the text, or when no such character follows.
CMS_API int GetLine(std::string_view text, std::string& line, int start);
CMS_API int GetLine(std::wstring_view text, std::wstring& line, int start);

// Compares without regard to the case of the letters A to Z, whatever the locale: 0 when equal,
// else the sign of the order.
CMS_API int CompareAnyCase(std::string_view a, std::string_view b);
CMS_API int CompareAnyCase(std::wstring_view a, std::wstring_view b);

inline bool EqualAnyCase(std::string_view a, std::string_view b) {
  return CompareAnyCase(a, b) == 0;
}

}  // namespace cms
