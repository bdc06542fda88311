#include "cms/exports/text_exports.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

std::wstring Wide(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace

TEST(TextExports, StrInBraceNarrowAndWide) {
  const std::string answer = R"(Digest realm="cam 1", nonce="ab", opaque="")";
  const struct {
    std::string key;
    char open;
    char close;
    std::string value;
    int result;
  } cases[] = {
      {"realm", '"', '"', "cam 1", 18},
      {"nonce=", '"', '"', "ab", 30},
      {"opaque", '"', '"', "", -1},   // nothing between
      {"missing", '"', '"', "", -1},  // no key
      {"realm", '<', '"', "", -1},    // no open character
      {"nonce", '"', '>', "", -1},    // no close character
      {"", '=', ',', "\"cam 1\"", 19},
      {"cam", 'c', ' ', "am", 16},  // the key itself may hold the open character
  };
  for (const auto& [key, open, close, value, result] : cases) {
    std::string got = "before";
    EXPECT_EQ(CMSGetStrInBrace(answer, key, open, close, got), result) << key;
    EXPECT_EQ(got, value);
    std::wstring wide = L"before";
    EXPECT_EQ(CMSGetWStrInBrace(Wide(answer), Wide(key), static_cast<wchar_t>(open),
                                static_cast<wchar_t>(close), wide),
              result);
    EXPECT_EQ(wide, Wide(value));
  }
  std::string text = "(its own result)";
  EXPECT_EQ(CMSGetStrInBrace(text, "", '(', ')', text), 14);
  EXPECT_EQ(text, "its own result");
  EXPECT_EQ(CMSGetStrInBrace("", "key", '"', '"', text), -1);
}

TEST(TextExports, GetLineNarrowAndWide) {
  using Lines = std::vector<std::string>;
  const struct {
    std::string text;
    Lines lines;
  } cases[] = {
      {"a\nb\n", {"a", "b"}},
      {"a\r\n\r\nb", {"a\r", "\r"}},  // CR LF leaves the CR; an unfinished line is none
      {"a\rb\nc\rd", {"a\rb", "c"}},  // a CR ends a line only when no LF follows anywhere
      {"\n\n", {"", ""}},
      {"no end", {}},
      {"", {}},
  };
  for (const auto& [text, lines] : cases) {
    Lines got;
    Lines wide_got;
    std::string line;
    for (int at = CMSGetLineA(text, line, 0); at != -1; at = CMSGetLineA(text, line, at)) {
      got.push_back(line);
    }
    EXPECT_EQ(line, "");
    EXPECT_EQ(got, lines) << text;
    std::wstring wide;
    for (int at = CMSGetLineW(Wide(text), wide, 0); at != -1;
         at = CMSGetLineW(Wide(text), wide, at)) {
      wide_got.emplace_back(wide.begin(), wide.end());
    }
    EXPECT_EQ(wide_got, lines) << text;
  }
  std::string line;
  EXPECT_EQ(CMSGetLineA("a\n", line, -1), -1);
  EXPECT_EQ(CMSGetLineA("a\n", line, 100), -1);
  EXPECT_EQ(CMSGetLineA("a\n", line, -100), -1);
}

TEST(TextExports, ComparisonsWithoutCase) {
  EXPECT_EQ(CMSStrcmpAnyCase("Content-Length", "content-lENGTH"), 0);
  EXPECT_LT(CMSStrcmpAnyCase("abc", "ABD"), 0);
  EXPECT_GT(CMSStrcmpAnyCase("abcd", "ABC"), 0);
  EXPECT_NE(CMSStrcmpAnyCase("[", "{"), 0) << "neighbours of the letters keep their case";
  EXPECT_GT(CMSStrcmpAnyCase("\xC4", "a"), 0) << "bytes compare unsigned";
  EXPECT_EQ(CMSStrcmpAnyCase(nullptr, ""), 0);
  EXPECT_EQ(CMSStrcmpAnyCaseW(L"Realm", L"rEALM"), 0);
  EXPECT_LT(CMSStrcmpAnyCaseW(L"a", L"\x1F600"), 0);
}

TEST(TextExports, Digests) {
  std::string md5 = "before";
  EXPECT_EQ(CMSMakeMD5(md5, "abc"), 1);
  EXPECT_EQ(md5, "900150983cd24fb0d6963f7d28e17f72");
  char out[9];
  std::memset(out, 'x', sizeof(out));
  EXPECT_EQ(Base64Encode(out, reinterpret_cast<const unsigned char*>("fooba"), 5), 8);
  EXPECT_STREQ(out, "Zm9vYmE=");
  EXPECT_EQ(Base64Encode(out, reinterpret_cast<const unsigned char*>("x"), -1), 0);
  EXPECT_STREQ(out, "");
}
