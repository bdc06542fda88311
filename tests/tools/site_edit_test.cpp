// Sites of a configuration file that programs change: what people wrote around them stays.
#include "tools/service/site_edit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "tests/support/faulty_file_io.h"
#include "tools/service/recorder_config.h"
#include "tools/service/reload_signal.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tools::SiteKeys;
using tools::WithoutSite;
using tools::WithSite;

constexpr char kFile[] =
    "# Höfe\n"
    "data = \"video\"\n"
    "\n"
    "[[sites]]  # the gate\n"
    "name = \"Tör\"   # \"old\"\n"
    "number = 1\n"
    "url = \"rtsp://gate/1\"\n"
    "events = [\n"
    "  \"motion\",  # only this\n"
    "]\n"
    "onvif = \"onvif://gate\"\n"
    "user = 'admin'\n"
    "[sites.retention]\n"
    "days = 7\n"
    "\n"
    "# The yard\n"
    "[[sites]]\n"
    "number = 2\n"
    "url = \"rtsp://yard/1\"";

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST(SiteEdit, OnlyWhatIsMeantChanges) {
  EXPECT_EQ(WithSite(kFile, 1, {{"name", "A \"B\" ö"}}),
            Replaced(kFile, "\"Tör\"", R"("A \"B\" ö")"));
  EXPECT_EQ(WithSite(kFile, 1, {{"events", std::nullopt}, {"name", std::nullopt}}),
            Replaced(Replaced(kFile, "events = [\n  \"motion\",  # only this\n]\n", ""),
                     "name = \"Tör\"   # \"old\"\n", ""));
  EXPECT_EQ(
      WithSite(kFile, 1,
               {{"enabled", false},
                {"url", "rtsp://gate/2"},
                {"pre-alarm", std::int64_t{3}},
                {"name", "Gate"}}),
      Replaced(Replaced(Replaced(kFile, "\"Tör\"", "\"Gate\""), "rtsp://gate/1", "rtsp://gate/2"),
               "number = 1\n", "number = 1\nenabled = false\npre-alarm = 3\n"));
  EXPECT_EQ(
      WithSite(kFile, 7, {{"url", "rtsp://new/"}, {"insecure", true}}),
      std::string(kFile) + "\n\n[[sites]]\nnumber = 7\nurl = \"rtsp://new/\"\ninsecure = true\n");
  EXPECT_EQ(WithoutSite(WithSite("data = \"v\"\n", 1, {}), 1), "data = \"v\"\n\n");
  const std::string text = kFile;
  EXPECT_EQ(WithoutSite(kFile, 1),
            text.substr(0, text.find("[[sites]]")) + text.substr(text.find("\n# The yard")));
  EXPECT_EQ(WithoutSite(kFile, 2), text.substr(0, text.rfind("[[sites]]")));
}

TEST(SiteEdit, WhatCannotBeChangedSaysSo) {
  EXPECT_THROW(WithSite("data = ", 1, {}), std::runtime_error);
  EXPECT_THROW(WithSite("sites = 1", 1, {}), std::runtime_error);
  EXPECT_THROW(WithSite("sites = [{ number = 1, name = 'a' }]", 1, {{"enabled", true}}),
               std::runtime_error);
  EXPECT_THROW(WithoutSite("sites = [{ number = 1 }]\nx = 1", 1), std::runtime_error);
  EXPECT_THROW(WithoutSite(kFile, 3), std::runtime_error);
  EXPECT_THROW(WithSite(kFile, 1, {{"name", "a\nurl = 'b'"}}), std::runtime_error);
}

TEST(SiteEdit, TheFileIsWrittenWhenTheRecorderTakesIt) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("recorder.toml");
  test::WriteWholeFile(path, kFile);
  chmod(path.c_str(), 0640);
  tools::SiteEditor editor(path);
  tools::TakeReload();
  EXPECT_EQ(editor.Add({{"url", "rtsp://new/"}, {"user", "me"}}, "secret:1"), 3u);
  EXPECT_TRUE(tools::TakeReload());
  editor.Change(3, {{"name", "New"}}, "secret:2");
  const auto passwordOf = [&](std::size_t index) {
    tools::ConfigProblems problems;
    const auto config = tools::ReadRecorderConfig(path, &problems);
    EXPECT_THAT(tools::LinesOf(path, problems.errors), testing::IsEmpty());
    return config.sites.at(index).password;
  };
  EXPECT_EQ(passwordOf(2), "secret:2");
  EXPECT_THAT(test::ReadWholeFile(path), Not(HasSubstr("secret")));
  struct stat about {};
  stat(path.c_str(), &about);
  EXPECT_EQ(about.st_mode & 0777, 0640u);
  const std::string secret = folder.File("site-3.other.password");
  ASSERT_EQ(stat(secret.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0600u);

  const std::string before = test::ReadWholeFile(path);
  tools::TakeReload();
  EXPECT_THROW(editor.Change(3, {{"url", "ftp://new/"}}, "x"), std::runtime_error);
  EXPECT_THROW(editor.Change(3, {{"url", "rtsp://a:b@new/"}}, {}), std::runtime_error);
  EXPECT_THROW(editor.Change(4, {}, {}), std::runtime_error);
  EXPECT_EQ(test::ReadWholeFile(path), before);
  EXPECT_EQ(passwordOf(2), "secret:2");
  EXPECT_FALSE(tools::TakeReload());

  editor.Remove(3);
  EXPECT_EQ(folder.Names(), std::vector<std::string>{"recorder.toml"});
}

}  // namespace
