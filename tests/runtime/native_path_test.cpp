#include "cms/runtime/native_path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(NativePath, SystemPathsBecomeNativeOnes) {
  const struct {
    std::wstring system;
    std::string native;
  } cases[] = {
      {L"", ""},
      {L"C:", "/"},
      {L"C:\\", "/"},
      {L"z:\\rec\\20240229\\Rec_Site1_1.drv", "/rec/20240229/Rec_Site1_1.drv"},
      {L"D:rec", "rec"},
      {L"\\data\\a/b", "/data/a/b"},
      {L"..\\EventList0", "../EventList0"},
      {L"\\\\nas\\share\\x", "//nas/share/x"},
      {L"1:\\x", "1:/x"},  // no drive
      {L"ab:\\x", "ab:/x"},
      {L"\\\x0413\x043E\x0434\\\x6771\x4EAC", "/\xD0\x93\xD0\xBE\xD0\xB4/\xE6\x9D\xB1\xE4\xBA\xAC"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cms::NativePath(c.system), c.native);
  }
}

TEST(NativePath, ANativePathSurvivesTheRoundTrip) {
  for (const std::string native :
       {"/", "/srv/cms/a b.drv", "../x", "x", "//nas/x", "/\xF0\x9F\x98\x80/\xC3\xA9"}) {
    EXPECT_EQ(cms::NativePath(cms::SystemPath(native)), native);
  }
  EXPECT_EQ(cms::SystemPath("/srv/x"), L"\\srv\\x");
}

TEST(NativePath, SplitsAtTheLastSeparatorOfEitherKind) {
  const auto split = cms::SplitAtLastSeparator(L"a\\b/c.drv");
  EXPECT_EQ(split.folder, L"a\\b");
  EXPECT_EQ(split.name, L"c.drv");
  const auto root = cms::SplitAtLastSeparator(L"\\c");
  EXPECT_TRUE(root.hasFolder && root.folder.empty());
  const auto plain = cms::SplitAtLastSeparator(L"c");
  EXPECT_FALSE(plain.hasFolder);
  EXPECT_EQ(plain.name, L"c");
}

}  // namespace
