// Exported helpers for texts and digests.
#pragma once

#include <string>

#include "cms/runtime/api.h"

// Any thread may call them. A null pointer for a text is an empty text.
extern "C" {

// MD5 (RFC 1321) of a zero-terminated text as 32 lower-case hexadecimal characters. 1, or 0 with an
// empty result when the crypto library refuses it.
CMS_API int CMSMakeMD5(std::string& out, const char* input);

// Standard Base64 of `length` bytes, filled up with "=", zero-terminated. `out` has room for
// (length + 2) / 3 * 4 + 1 characters. Returns the characters written, without the zero; 0 for
// nothing, or for a length whose result an int cannot count.
CMS_API int Base64Encode(char* out, const unsigned char* in, int length);

// From the start of the first `key` in `text`: the text between the first `open` and the next
// `close` behind it. Returns the index just before that close character, or -1 with an empty value
// when anything is missing or there is nothing between.
CMS_API int CMSGetStrInBrace(const std::string& text, const std::string& key, char open, char close,
                             std::string& value);
CMS_API int CMSGetWStrInBrace(const std::wstring& text, const std::wstring& key, wchar_t open,
                              wchar_t close, std::wstring& value);

// The line of `text` that begins at `start`, without its end: the first line feed if one follows,
// else the first carriage return. A line ended by CR LF keeps its CR. Returns the index behind the
// end, or -1 with an empty line when `start` is -1 or no such character follows.
CMS_API int CMSGetLineA(const std::string& text, std::string& line, int start);
CMS_API int CMSGetLineW(const std::wstring& text, std::wstring& line, int start);

// Compare without regard to the case of the letters A to Z: 0 when equal, else the sign of the
// order.
CMS_API int CMSStrcmpAnyCase(const char* a, const char* b);
CMS_API int CMSStrcmpAnyCaseW(const wchar_t* a, const wchar_t* b);

}  // extern "C"
