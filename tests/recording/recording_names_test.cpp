#include "cms/recording/recording_names.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "cms/exports/recording_exports.h"

namespace {

TEST(RecordingNames, TheNextFileHasTheNextNumber) {
  const struct {
    std::wstring name;
    int found;
    std::wstring next;
  } cases[] = {
      {L"a_7.drv", 1, L"a_8.drv"},
      {L"a_9.drv", 1, L"a_10.drv"},
      {L"\\rec\\Rec_Site3_20240229235959.drv", 1, L"\\rec\\Rec_Site3_20240229235960.drv"},
      {L"a_18446744073709551614.x", 1, L"a_18446744073709551615.x"},
      {L"a_18446744073709551615.x", 1, L"a_0.x"},
      {L"a_99999999999999999999999.x", 1, L"a_0.x"},
      {L"a_007.drv", 1, L"a_8.drv"},
      {L"a_b_1.c.drv", 1, L"a_b_2.drv"},
      {L"a_.drv", 1, L"a_1.drv"},
      {L"a_x.drv", 1, L"a_1.drv"},
      {L"a_1", 0, L""},
      {L"a.1_2", 0, L""},
      {L"a.drv", 0, L""},
      {L"", 0, L""},
  };
  for (const auto& c : cases) {
    std::wstring next = L"before";
    EXPECT_EQ(CMSGetNewDrvFilename(c.name.c_str(), next), c.found);
    EXPECT_EQ(next, c.next);
  }
  std::wstring next = L"before";
  EXPECT_EQ(CMSGetNewDrvFilename(nullptr, next), 0);
  EXPECT_EQ(next, L"");
}

TEST(RecordingNames, IndexSiteAndStamp) {
  EXPECT_EQ(cms::IdxPathOf(L"C:\\r.d\\a.b.drv"), L"C:\\r.d\\a.b.idx");
  EXPECT_EQ(cms::IdxPathOf(L"C:\\r.d\\a"), L"C:\\r.d\\a.idx");
  EXPECT_EQ(cms::IdxPathOf(L"a.idx"), L"");
  EXPECT_EQ(cms::IdxPathOf(L"a\\"), L"");
  EXPECT_EQ(cms::SiteNumberOf(L"Rec_Site12_20240229.drv"), 12);
  EXPECT_EQ(cms::SiteNumberOf(L"Rec_Sitex_1.drv"), std::nullopt);
  EXPECT_EQ(cms::SiteNumberOf(L"Other1_2.drv"), std::nullopt);

  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  EXPECT_EQ(cms::RecordingStamp(1'709'247'599), L"20240229235959");
  unsetenv("TZ");
  tzset();
}

}  // namespace
