// What holds between the columns of the tables: a slip of the pen in one of them shows.
#include "cms/ipcam/capability_tables.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

// "1280x720" of the keys that name a size by a word.
std::wstring SizeOfWord(const std::wstring& word) {
  static const std::pair<const wchar_t*, const wchar_t*> kWords[] = {
      {L"qcif", L"176x144"},     {L"qvga", L"320x240"},   {L"qvga_baseline", L"320x240"},
      {L"cif", L"352x240"},      {L"vga", L"640x480"},    {L"d1", L"720x480"},
      {L"svga", L"800x600"},     {L"xga", L"1024x768"},   {L"720p", L"1280x720"},
      {L"quadvga", L"1280x960"}, {L"sxga", L"1280x1024"}, {L"1080p", L"1920x1080"},
      {L"l1080p", L"1920x1080"}, {L"3m", L"2048x1536"},   {L"5m", L"2592x1944"},
  };
  for (const auto& [name, size] : kWords) {
    if (word == name) {
      return size;
    }
  }
  return word;
}

TEST(CapabilityTables, EachRowOfResolutionsAgreesWithItself) {
  const auto table = cms::ResolutionTable();
  ASSERT_EQ(table.size(), 56U);
  std::set<std::wstring_view> keys;
  std::int64_t width = 0;
  for (const cms::stResolutionRow& row : table) {
    const std::wstring key(row.key);
    SCOPED_TRACE(std::string(key.begin(), key.end()));
    EXPECT_EQ(&row, &table[static_cast<std::size_t>(row.id)]);
    EXPECT_TRUE(keys.insert(row.key).second);
    EXPECT_EQ(cms::FindResolution(row.key), &row);
    EXPECT_EQ(cms::FindResolution(row.id), &row);
    if (row.id == 0) {
      EXPECT_TRUE(row.key == L"disable" && row.width == 0 && row.ntsc.empty() && row.pal.empty());
      continue;
    }
    EXPECT_GE(row.width, width - 96);  // in order of width, but for 5m's neighbours
    width = row.width;

    // The key is the size or its word, with the pictures a second behind it.
    const std::wstring size = std::to_wstring(row.width) + L"x" + std::to_wstring(row.height);
    const bool plain = SizeOfWord(key) == size;
    const std::wstring pictures = plain ? L"" : key.substr(key.size() - 2);
    EXPECT_EQ(SizeOfWord(key.substr(0, key.size() - pictures.size())), size);
    std::wstring rate = plain ? L"" : L"(" + pictures + L"FPS)";
    const auto text = [&](int lines) {
      return std::to_wstring(row.width) + L" X " + std::to_wstring(lines) + rate;
    };
    const bool differs = row.height == 240 && row.width == 352;
    const bool d1 = row.height == 480 && row.width == 720;
    EXPECT_EQ(row.ntsc, text(row.height));
    if (key == L"qvga_baseline") {
      rate = L"(60FPS)";  // under a 50 Hz system only
    }
    EXPECT_EQ(row.pal, text(differs ? 288 : d1 ? 576 : row.height));
    EXPECT_EQ(cms::DisplayText(row, true), row.pal);
  }
  EXPECT_EQ(cms::FindResolution(L"CIF"), nullptr);
  EXPECT_EQ(cms::FindResolution(56), nullptr);
  EXPECT_EQ(cms::FindResolution(-1), nullptr);
}

TEST(CapabilityTables, VideoSystemsAlternateAndMapsNameEachStreamOnce) {
  for (std::size_t i = 0; i < cms::VideoSystemNames().size(); ++i) {
    const std::wstring name(cms::VideoSystemNames()[i]);
    const bool pal = i % 2 == 1;
    EXPECT_EQ(cms::IsPalSystem(static_cast<int>(i)), pal);
    EXPECT_EQ(name.starts_with(pal ? L"pal" : L"ntsc"), true);
    EXPECT_EQ(name.find(L"wdr") != std::wstring::npos, i >= 4);
    EXPECT_EQ(name.ends_with(L"autoiris"), i % 4 < 2);
  }
  EXPECT_FALSE(cms::IsPalSystem(9) || cms::IsPalSystem(-1));
  int count = 3;
  for (const std::int32_t(*map)[5] : {&THREE_RES_MAP_TBL, &FOUR_RES_MAP_TBL, &FIVE_RES_MAP_TBL}) {
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ((*map)[i] == -1, i >= count);
      EXPECT_TRUE(i == 0 || i >= count || (*map)[i] > (*map)[i - 1]);
    }
    ++count;
  }
}

}  // namespace
