#include "cms/exports/log_exports.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <thread>

#include "tests/support/faulty_file_io.h"

using testing::MatchesRegex;

TEST(LogExports, StandardErrorOneLineEach) {
  testing::internal::CaptureStderr();
  CMSLogA("camera %d says %s", 7, "no\nway");
  CMSLogW(L"%ls \u00e9 %d", L"wide", 8);
  CMSLogExA(cms::CMS_LOG_ERROR, "%s", std::string(10'000, 'x').c_str());
  CMSLogExW(cms::CMS_LOG_DEBUG, L"%ls", std::wstring(10'000, L'y').c_str());
  CMSSetLog(nullptr, cms::CMS_LOG_WARNING);
  CMSLogExW(cms::CMS_LOG_WARNING, L"seen");
  CMSLogA("hidden");
  CMSSetLog(nullptr, cms::CMS_LOG_DEBUG);
  CMSLogA(nullptr);
  CMSTraceA("nothing %d", 1);
  CMSTraceW(L"nothing");
  CMS_syslog(LOG_ERR, "nothing");
  wsyslog(LOG_ERR, L"nothing");
  const std::string start = "20[-0-9]+T[.:0-9]+Z ";
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, MatchesRegex(start + "I [0-9]+ camera 7 says no\\\\nway\n" +  //
                                  start + "I [0-9]+ wide \u00e9 8\n" +             //
                                  start + "E [0-9]+ x+\n" +                        //
                                  start + "D [0-9]+ y+\n" +                        //
                                  start + "W [0-9]+ seen\n"));
}

TEST(LogExports, CircularLogOfManyThreads) {
  const test::TemporaryFolder folder;
  constexpr int kThreads = 8;
  constexpr int kLines = 500;
  cms::CCircularLogWriter* writer =
      CreateCircularLogWriter(folder.SystemFile("log").c_str(), 1 << 20);
  ASSERT_NE(writer, nullptr);
  CMSSetLog(writer, cms::CMS_LOG_INFORMATION);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, writer] {
      for (int line = 0; line < kLines; ++line) {
        if (line % 2 == 0) {
          CMSLogExA(cms::CMS_LOG_ERROR, "%d", i);
        } else {
          EXPECT_EQ(WriteLog(writer, "direct"), 1);
        }
      }
    });
  }
  for (auto& each : threads) {
    each.join();
  }
  CMSSetLog(nullptr, cms::CMS_LOG_DEBUG);
  DestroyCircularLogWriter(writer);
  std::vector<cms::CircularLogEntry> entries;
  ASSERT_TRUE(cms::ReadCircularLog(folder.File("log"), entries));
  ASSERT_EQ(entries.size(), std::size_t{kThreads * kLines});
  EXPECT_EQ(entries.back().number, entries.size() - 1);

  EXPECT_EQ(CreateCircularLogWriter(nullptr, 1 << 20), nullptr);
  EXPECT_EQ(CreateCircularLogWriter(folder.SystemFile("no\\such").c_str(), 1 << 20), nullptr);
  EXPECT_EQ(WriteLog(nullptr, "x"), 0);
  DestroyCircularLogWriter(nullptr);
}
