// Exported helpers for texts and digests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

// Any thread may call them. A null pointer for a text is an empty text. Where a name says CString,
// a text is a std::wstring. 8-bit texts are UTF-8; what is not a character becomes U+FFFD.
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
// CMSGetWStrInBrace for texts as they come from wide literals.
CMS_API int CMSGetCStringStrInBrace(const wchar_t* text, const wchar_t* key, wchar_t open,
                                    wchar_t close, std::wstring& value);

// All values of the key, one behind the other: the next key is looked for behind the close
// character of the last value. Empty values are left out. Returns how many there are.
CMS_API int CMSGetStrsInBrace(const std::string& text, const std::string& key, char open,
                              char close, std::vector<std::string>& values);
CMS_API int CMSGetWStrsInBrace(const std::wstring& text, const std::wstring& key, wchar_t open,
                               wchar_t close, std::vector<std::wstring>& values);

// The line of `text` that begins at `start`, without its end: the first line feed if one follows,
// else the first carriage return. A line ended by CR LF keeps its CR. Returns the index behind the
// end, or -1 with an empty line when `start` is -1 or no such character follows.
CMS_API int CMSGetLineA(const std::string& text, std::string& line, int start);
CMS_API int CMSGetLineW(const std::wstring& text, std::wstring& line, int start);

// Compare without regard to the case of the letters A to Z: 0 when equal, else the sign of the
// order.
CMS_API int CMSStrcmpAnyCase(const char* a, const char* b);
CMS_API int CMSStrcmpAnyCaseW(const wchar_t* a, const wchar_t* b);

CMS_API void CStringToStdString(const std::wstring& text, std::string& out);
CMS_API void StdStringToCString(const std::string& text, std::wstring& out);
CMS_API void MultiByteToCString(const char* text, std::wstring& out);

// "2024-02-29 23:59:59", local time, of seconds since 1970-01-01 UTC. 1, or 0 with an empty result
// for a time beyond the calendar.
CMS_API int TimetToCString(std::int64_t time, std::wstring& out);

// The path with another extension: what stands behind the last "." of its name, or nothing, becomes
// `extension` (with or without its "."; an empty one takes the "." away as well). Folders are
// separated by "\" or "/". 1, or 0 with an empty result for a path without a name. ChangeExtName is
// the 8-bit twin.
CMS_API int CMSChangeExtName(const wchar_t* path, const wchar_t* extension, std::wstring& out);
CMS_API int ChangeExtName(const char* path, const char* extension, std::string& out);

// The site number N of a recording's file "...\Rec_SiteN_....drv", 0 for other names.
CMS_API int GetCMSSiteNo(const wchar_t* path);

// The text of a field of `size` bytes: up to its first zero, or all of it. Returns its length.
CMS_API int GetString(const char* buffer, int size, std::string& out);
// Writes a text into a field of `size` bytes, with a zero behind it and zeroes up to the end. 1, or
// 0 when it is too long (it is cut in front of a character then) or there is no field.
CMS_API int PutStrToBuffer(char* buffer, int size, const char* text);

}  // extern "C"
