#include "cms/ipcam/internal/tag_search.h"

#include <gtest/gtest.h>

#include <cmath>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/soap_envelope.h"

namespace {

TEST(TagSearch, TheValueLiesBetweenTheFirstTags) {
  struct Case {
    const wchar_t* text;
    const wchar_t* opening;
    const wchar_t* closing;
    const wchar_t* value;  // "before": left as it was
  };
  for (const Case& c : {
           Case{L"<a>1</a><a>2</a>", L"<a>", L"</a>", L"1"},
           Case{L"<a></a>", L"<a>", L"</a>", L""},
           Case{L"</a><a>1</a>", L"<a>", L"</a>", L"before"},  // an end before the start
           Case{L"<a>1", L"<a>", L"</a>", L"before"},
           Case{L"1</a>", L"<a>", L"</a>", L"before"},
           Case{L"<a x=\"y\">1</a>", L"<a", L"</a>", L" x=\"y\">1"},
           Case{L"", L"<a>", L"</a>", L"before"},
       }) {
    SCOPED_TRACE(c.text);
    std::wstring value = L"before";
    EXPECT_EQ(CIPCAM_Config_Utility::ONVIF_GetStrByElement(c.text, c.opening, c.closing, value),
              -1);
    EXPECT_EQ(value, c.value);
  }
}

TEST(TagSearch, ABracketedValueIsLookedForBehindTheKey) {
  struct Case {
    const wchar_t* text;
    const wchar_t* key;
    int index;
    const wchar_t* value;
  };
  for (const Case& c : {
           Case{L"token=\"a\" b=\"c\"", L"b=", 13, L"c"},
           Case{L"k\"ey\"=\"v\"", L"k\"ey\"", 7, L"v"},  // brackets in the key do not count
           Case{L"b=\"c", L"b=", -1, L""},
           Case{L"b=\"\"", L"b=", -1, L""},
           Case{L"\"c\" b=", L"b=", -1, L""},
       }) {
    SCOPED_TRACE(c.text);
    std::wstring value = L"before";
    EXPECT_EQ(CIPCAM_Config_Utility::ONVIF_GetStrInBrace(c.text, c.key, L'"', L'"', value),
              c.index);
    EXPECT_EQ(value, c.value);
  }
}

TEST(TagSearch, AnswersAreBroughtIntoOneSpelling) {
  struct Case {
    const wchar_t* answer;
    const wchar_t* normalized;
  };
  for (const Case& c : {
           Case{L"<x:a b='\"' token='t'/>", L"<tt:a token=\"t\" b=\"&quot;\"/>"},
           Case{L"<y:a></y:a >", L"<y:a></y:a>"},
           Case{L"<b><x:a xmlns:x='other'></x:a><x:a/></b>",
                L"<b><x:a xmlns:x=\"other\"></x:a><tt:a/></b>"},
           Case{L"<!-- <x:a> --><![CDATA[1<2]]>", L"1&lt;2"},
           // What is broken stays readable as far as it goes.
           Case{L"<x:a b=c><x:a", L"<x:a b=c><x:a"},
           Case{L"a<1 <<x:a>", L"a<1 <<tt:a>"},
           // The first end closes the root, and with it the meaning of its prefixes.
           Case{L"</x:a></x:a></x:a><x:a>", L"</tt:a></x:a></x:a><x:a>"},
       }) {
    SCOPED_TRACE(c.answer);
    const std::wstring root = L"<root xmlns:x=\"http://www.onvif.org/ver10/schema\">";
    EXPECT_EQ(cms::Normalized(root + c.answer), root + c.normalized);
  }
}

TEST(TagSearch, ValuesAreReadStrictly) {
  EXPECT_EQ(cms::NumberOf(L"<tt:a> 4.5 </tt:a>", L"tt:a"), 4.5);
  for (const wchar_t* text : {L"<tt:a></tt:a>", L"<tt:a/>", L"<tt:a>x</tt:a>", L"<tt:a>inf</tt:a>",
                              L"<tt:ab>1</tt:ab>", L"<tt:a>1e999</tt:a>"}) {
    EXPECT_FALSE(cms::NumberOf(text, L"tt:a")) << text;
  }
  EXPECT_EQ(cms::IntegerOf(L"<tt:a>1e12</tt:a>", L"tt:a", 3), 3);
  EXPECT_EQ(cms::TextOf(L"<tt:a y=\"1\">&lt;&#x41;&#66;&amp;lt;&bad;&#0;</tt:a>", L"tt:a"),
            L"<AB&lt;&bad;&#0;");
  EXPECT_EQ(cms::XmlUnescaped(cms::XmlEscaped(L"a<b>&\"'\U0001F600")), L"a<b>&\"'\U0001F600");
  EXPECT_EQ(cms::Decimal(1e300, 2).size(), 304U);
  const auto clock = [](const wchar_t* hour) {
    return cms::ParseSystemDateAndTime(
        L"<tds:SystemDateAndTime><tt:Hour>" + std::wstring(hour) +
        L"</tt:Hour><tt:Minute>0</tt:Minute><tt:Second>0</tt:Second><tt:Year>2024</tt:Year>"
        L"<tt:Month>2</tt:Month><tt:Day>29</tt:Day>");
  };
  EXPECT_EQ(clock(L"12"), 1709208000);
  EXPECT_FALSE(clock(L"24"));
  EXPECT_FALSE(clock(L""));
}

}  // namespace
