// Wide texts of the interface, UTF-8 and the UTF-16LE fields of records: all conversions of texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// All of them are lenient: what is not a character (a lone surrogate, a broken or overlong UTF-8
// sequence, a number beyond U+10FFFF) becomes U+FFFD. Any thread may call them.

CMS_API std::string Utf8FromWide(std::wstring_view text);
CMS_API std::wstring WideFromUtf8(std::string_view text);

// As much of a UTF-8 text as `longest` bytes have room for, without half a character at the end.
CMS_API std::string_view CutUtf8(std::string_view text, std::size_t longest);

// Writes `text` into a fixed UTF-16LE field of a record: terminated by a zero, zero-filled behind.
// A text that is too long is cut in front of the first character that does not fit, which never
// leaves half a surrogate pair; the result is false then. A zero inside the text ends it. The field
// has an even number of bytes and may lie at any address; one of fewer than two stays untouched.
CMS_API bool StoreUtf16(std::wstring_view text, std::span<std::uint8_t> field);

// How many 16-bit characters a text takes in such a field, without the zero behind it.
CMS_API std::size_t Utf16Length(std::wstring_view text);

// The text of such a field: up to its first zero, or all of it when a foreign writer left none.
CMS_API std::wstring LoadUtf16(std::span<const std::uint8_t> field);

// The same for a field declared as an array of 16-bit characters.
template <std::size_t N>
bool StoreUtf16(std::wstring_view text, char16_t (&field)[N]) {
  return StoreUtf16(text, {reinterpret_cast<std::uint8_t*>(&field), N * sizeof(char16_t)});
}
template <std::size_t N>
std::wstring LoadUtf16(const char16_t (&field)[N]) {
  return LoadUtf16({reinterpret_cast<const std::uint8_t*>(&field), N * sizeof(char16_t)});
}

}  // namespace cms
