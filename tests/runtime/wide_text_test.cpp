#include "cms/runtime/wide_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kBad = 0xFFFD;

TEST(WideText, EveryCharacterSurvivesUtf8AndUtf16) {
  for (std::uint32_t c = 1; c <= 0x10FFFF; c += c < 0x3000 ? 1 : 61) {
    if (c >= 0xD800 && c <= 0xDFFF) {
      continue;
    }
    const std::wstring text(2, static_cast<wchar_t>(c));
    ASSERT_EQ(cms::WideFromUtf8(cms::Utf8FromWide(text)), text) << c;
    std::array<std::uint8_t, 10> field;
    field.fill(0xEE);
    ASSERT_TRUE(cms::StoreUtf16(text, field)) << c;
    ASSERT_EQ(cms::LoadUtf16(field), text) << c;
  }
}

TEST(WideText, WhatIsNoCharacterBecomesTheReplacement) {
  const std::wstring wide{static_cast<wchar_t>(0xD83D), L'a', static_cast<wchar_t>(0x110000)};
  EXPECT_EQ(cms::Utf8FromWide(wide),
            "\xEF\xBF\xBD"
            "a"
            "\xEF\xBF\xBD");
  const struct {
    std::string bytes;
    std::wstring text;
  } cases[] = {
      {"a\xFFz", {L'a', kBad, L'z'}},
      {"\xC0\xAF", {kBad, kBad}},                      // overlong
      {"\xE0\x80\x80", {kBad, kBad, kBad}},            // overlong
      {"\xED\xA0\x80", {kBad, kBad, kBad}},            // a surrogate
      {"\xF4\x90\x80\x80", {kBad, kBad, kBad, kBad}},  // beyond U+10FFFF
      {"\xE2\x82z", {kBad, L'z'}},                     // breaks off: one for what belonged together
      {"\xF0\x9F\x98", {kBad}},                        // ends early
      {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cms::WideFromUtf8(c.bytes), c.text) << testing::PrintToString(c.bytes);
  }
  // Lone surrogates in a field, the last one at its very end.
  const std::vector<std::uint8_t> field = {0x3D, 0xD8, 'a', 0, 0x00, 0xDE, 0x3D, 0xD8};
  EXPECT_EQ(cms::LoadUtf16(field), (std::wstring{kBad, L'a', kBad, kBad}));
}

TEST(WideText, FieldsAreCutAtACharacterTerminatedAndZeroFilled) {
  const std::wstring pair(1, static_cast<wchar_t>(0x1F600));
  const struct {
    std::wstring text;
    bool whole;
    std::vector<std::uint8_t> bytes;
  } cases[] = {
      {L"ab", true, {'a', 0, 'b', 0, 0, 0, 0, 0}},
      {L"abc", true, {'a', 0, 'b', 0, 'c', 0, 0, 0}},
      {L"abcd", false, {'a', 0, 'b', 0, 'c', 0, 0, 0}},
      {L"a" + pair, true, {'a', 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}},
      {L"ab" + pair, false, {'a', 0, 'b', 0, 0, 0, 0, 0}},  // the pair would lose its half
      {std::wstring(L"a\0b", 3), true, {'a', 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    std::vector<std::uint8_t> field(8, 0xEE);
    EXPECT_EQ(cms::StoreUtf16(c.text, field), c.whole);
    EXPECT_EQ(field, c.bytes);
  }
  char16_t recordField[260];
  EXPECT_TRUE(cms::StoreUtf16(std::wstring(259, L'\x4E2D'), recordField));
  EXPECT_EQ(cms::LoadUtf16(recordField), std::wstring(259, L'\x4E2D'));
  EXPECT_FALSE(cms::StoreUtf16(std::wstring(260, L'x'), recordField));
  EXPECT_EQ(recordField[259], u'\0');
  // A foreign writer's field without a terminator is read to its end and no further.
  std::fill(std::begin(recordField), std::end(recordField), u'y');
  EXPECT_EQ(cms::LoadUtf16(recordField).size(), 260u);
}

}  // namespace
