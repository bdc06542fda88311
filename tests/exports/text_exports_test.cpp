#include "cms/exports/text_exports.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
    Lines wideGot;
    std::string line;
    for (int at = CMSGetLineA(text, line, 0); at != -1; at = CMSGetLineA(text, line, at)) {
      got.push_back(line);
    }
    EXPECT_EQ(line, "");
    EXPECT_EQ(got, lines) << text;
    std::wstring wide;
    for (int at = CMSGetLineW(Wide(text), wide, 0); at != -1;
         at = CMSGetLineW(Wide(text), wide, at)) {
      wideGot.emplace_back(wide.begin(), wide.end());
    }
    EXPECT_EQ(wideGot, lines) << text;
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

TEST(TextExports, AllValuesInBraces) {
  const std::string answer = "<a>1</a><b>x</b><a></a><a>22</a><a>3";
  std::vector<std::string> values = {"before"};
  EXPECT_EQ(CMSGetStrsInBrace(answer, "<a", '>', '<', values), 2);
  EXPECT_EQ(values, (std::vector<std::string>{"1", "22"}));
  std::vector<std::wstring> wide;
  EXPECT_EQ(CMSGetWStrsInBrace(Wide(answer), L"", L'>', L'<', wide), 3) << "an empty key is found";
  EXPECT_EQ(wide, (std::vector<std::wstring>{L"1", L"x", L"22"}));
  EXPECT_EQ(CMSGetStrsInBrace(answer, "c", '>', '<', values), 0);
  EXPECT_TRUE(values.empty());
  std::wstring value;
  EXPECT_EQ(CMSGetCStringStrInBrace(L"k=(v)", L"k", L'(', L')', value), 3);
  EXPECT_EQ(value, L"v");
  EXPECT_EQ(CMSGetCStringStrInBrace(nullptr, L"k", L'(', L')', value), -1);
}

TEST(TextExports, ConversionsAndTimes) {
  std::string narrow;
  CStringToStdString(L"\u00e9\U0001F600", narrow);
  EXPECT_EQ(narrow, "\u00e9\U0001F600");
  std::wstring wide;
  StdStringToCString(std::string("a\0b", 3), wide);
  EXPECT_EQ(wide, std::wstring(L"a\0b", 3));
  MultiByteToCString("\xC3(", wide);
  EXPECT_EQ(wide, L"\uFFFD(");
  const char* const zone = std::getenv("TZ");
  const std::string kept = zone != nullptr ? zone : "";
  setenv("TZ", "UTC-1", 1);
  tzset();
  EXPECT_EQ(TimetToCString(1'709'247'599, wide), 1);
  EXPECT_EQ(wide, L"2024-02-29 23:59:59");
  EXPECT_EQ(TimetToCString(INT64_MAX, wide), 0);
  EXPECT_EQ(wide, L"");
  zone != nullptr ? setenv("TZ", kept.c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST(TextExports, NamesOfFiles) {
  const struct {
    std::wstring path;
    std::wstring extension;
    std::wstring changed;
  } cases[] = {
      {L"a.b\\c.drv", L"idx", L"a.b\\c.idx"},
      {L"a.b/c", L".idx", L"a.b/c.idx"},
      {L"c.tar.gz", L"", L"c.tar"},
      {L".profile", L"bak", L".profile.bak"},
      {L"a\\", L"idx", L""},
      {L"", L"idx", L""},
  };
  for (const auto& [path, extension, changed] : cases) {
    std::wstring wide;
    EXPECT_EQ(CMSChangeExtName(path.c_str(), extension.c_str(), wide), changed.empty() ? 0 : 1);
    EXPECT_EQ(wide, changed);
    std::string narrow;
    ChangeExtName(std::string(path.begin(), path.end()).c_str(),
                  std::string(extension.begin(), extension.end()).c_str(), narrow);
    EXPECT_EQ(Wide(narrow), changed);
  }
  EXPECT_EQ(GetCMSSiteNo(L"C:\\Rec\\Rec_Site12_20240229.drv"), 12);
  EXPECT_EQ(GetCMSSiteNo(L"Rec_Site12\\other.drv"), 0);
}

TEST(TextExports, FieldsOfRecords) {
  char field[6];
  std::memset(field, 'x', sizeof field);
  std::string text;
  EXPECT_EQ(GetString(field, sizeof field, text), 6) << "nothing ends it";
  EXPECT_EQ(PutStrToBuffer(field, 5, "ab"), 1);
  EXPECT_EQ(std::string(field, 6), std::string("ab\0\0\0x", 6));
  EXPECT_EQ(GetString(field, sizeof field, text), 2);
  EXPECT_EQ(PutStrToBuffer(field, 5, "abc\u00e9"), 0);
  EXPECT_STREQ(field, "abc");
  EXPECT_EQ(PutStrToBuffer(field, 0, "a"), 0);
  EXPECT_EQ(GetString(nullptr, 5, text), 0);
}
