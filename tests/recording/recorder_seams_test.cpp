// Where one file ends and the next begins when the stream or the clock is not as usual.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/picture_format.h"
#include "tests/recording/recorder_site.h"

namespace {

using test::CheckSeams;
using test::FrameSource;

class RecorderSeams : public test::RecorderTest {
 protected:
  using Times = std::pair<std::int64_t, std::int64_t>;
  std::vector<Times> RecordTimes() {
    recorder_.StopRecordAll();
    test::WaitForDisk();
    const std::string records = site_.Records();
    std::vector<Times> times;
    for (std::size_t at = 0; at < records.size(); at += test::kRecordBytes) {
      times.emplace_back(test::TimeAt(records, at + 720), test::TimeAt(records, at + 728));
    }
    std::sort(times.begin(), times.end());
    return times;
  }
  void RecordSeconds(int seconds) {
    for (int i = 0; i < seconds; ++i) {
      EXPECT_TRUE(source_.RecordGop(recorder_));
      site_.clock.Advance(1);
    }
  }
  std::vector<std::string> Names() const {
    test::WaitForDisk();
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(site_.Rec())) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  const std::int64_t begin_ = 1'700'000'000;
};

TEST_F(RecorderSeams, AClockThatIsSetBackBeginsAFileAndBothAreListed) {
  Begin();
  RecordSeconds(20);
  source_.Record(recorder_);
  site_.clock.SetWall(begin_ - 3600);
  for (int i = 0; i < 5; ++i) {  // the rest of the group, from before the next key frame
    EXPECT_TRUE(source_.Record(recorder_));
    site_.clock.Advance(1);
  }
  while (!source_.NextIsKey()) {
    EXPECT_TRUE(source_.Record(recorder_));
  }
  RecordSeconds(10);
  const std::vector<Times> expected{
      {begin_ - 3600, begin_ - 3595}, {begin_ - 3595, begin_ - 3586}, {begin_, begin_ + 20}};
  EXPECT_EQ(RecordTimes(), expected);
  auto files = site_.Files();
  ASSERT_EQ(files.size(), 2u);
  std::reverse(files.begin(), files.end());  // by their names the later one is the earlier
  EXPECT_EQ(CheckSeams(files), source_.NextSequence());
}

// As a host without a battery does once it is told the time. What runs goes on as another event.
TEST_F(RecorderSeams, AClockThatIsSetAheadLeavesNoRecordOverWhatNobodyRecorded) {
  site_.clock.SetWall(1000);
  Begin();
  ASSERT_TRUE(recorder_.StartDeviceAlarmRecord(0));
  RecordSeconds(5);
  source_.Record(recorder_);
  site_.clock.SetWall(begin_);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(source_.Record(recorder_));
    site_.clock.Advance(1);
  }
  while (!source_.NextIsKey()) {
    EXPECT_TRUE(source_.Record(recorder_));
  }
  RecordSeconds(5);
  const std::vector<Times> expected{{1000, 1005}, {begin_, begin_ + 3}, {begin_ + 3, begin_ + 7}};
  EXPECT_EQ(RecordTimes(), expected);
  EXPECT_EQ(CheckSeams(site_.Files()), source_.NextSequence());
  const auto events = cms::ReadEventList(0).rows;
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].start, 1000);
  EXPECT_EQ(events[0].end, 1005);
  EXPECT_EQ(events[1].start, begin_);
  EXPECT_EQ(events[1].end, begin_ + 7);
}

TEST_F(RecorderSeams, WithoutKeyFramesAClockThatIsSetBeginsAFileAtOnce) {
  Begin();
  const auto record = [&](int seconds) {
    for (int i = 0; i < seconds; ++i) {
      while (!source_.NextIsKey()) {
        source_.Record(recorder_);
      }
      source_.Next();
      site_.clock.Advance(1);
    }
  };
  source_.Next();
  record(15);
  site_.clock.SetWall(begin_ - 3600);
  record(5);
  site_.clock.SetWall(begin_ + 3600);
  record(5);
  const std::vector<Times> expected{
      {begin_ - 3600, begin_ - 3596}, {begin_ + 10, begin_ + 14}, {begin_ + 3600, begin_ + 3604}};
  EXPECT_EQ(RecordTimes(), expected);
  EXPECT_EQ(site_.Files().size(), 3u);
}

// Files are named by local time, which an autumn night has twice and a spring night leaves out.
TEST_F(RecorderSeams, NightsOf23And25HoursLoseNothing) {
  const char* const zone = std::getenv("TZ");
  const std::string before = zone != nullptr ? zone : "";
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  recorder_.RememberFinished();  // as sites do: nothing that is finished is continued
  const auto settle = [this] {   // the owner's clock
    test::WaitForDisk();
    recorder_.Flush();
    test::WaitForDisk();
    recorder_.Flush();
  };
  for (const std::int64_t night : {1'792'889'400, 1'806'195'000}) {  // ten to three, and to two
    site_.clock.SetWall(night);
    Begin();
    for (int i = 0; i < 16; ++i) {  // up to half past three
      EXPECT_TRUE(source_.RecordGop(recorder_));
      site_.clock.Advance(300);
      EXPECT_TRUE(source_.RecordGop(recorder_));
      site_.clock.Advance(300);
      recorder_.SetForceChangeFile();
      settle();
    }
    recorder_.StopRecordAll();
    settle();
  }
  zone != nullptr ? setenv("TZ", before.c_str(), 1) : unsetenv("TZ");
  tzset();
  auto files = site_.Files();
  EXPECT_EQ(files.size(), 32u);
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
    return a.frames.at(0).sequence < b.frames.at(0).sequence;
  });
  EXPECT_EQ(CheckSeams(files), source_.NextSequence());
  const std::vector<Times> times = RecordTimes();
  ASSERT_EQ(times.size(), 32u);
  for (std::size_t i = 0; i < times.size(); ++i) {
    const std::int64_t night = i < 16 ? 1'792'889'400 : 1'806'195'000;
    EXPECT_EQ(times[i].first, night + static_cast<std::int64_t>(i % 16) * 600);
    EXPECT_EQ(times[i].second, times[i].first + 300);
  }
}

TEST_F(RecorderSeams, ARecordHasAtLeastASecond) {
  Begin();
  EXPECT_TRUE(source_.Record(recorder_));
  EXPECT_EQ(RecordTimes(), (std::vector<Times>{{begin_, begin_ + 1}}));
}

TEST_F(RecorderSeams, AnotherPictureFormatBeginsAFile) {
  test::ClipSpec spec;
  spec.width = 640;
  FrameSource larger(spec);
  Begin();
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(source_.RecordGop(recorder_));
    site_.clock.Advance(1);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(larger.RecordGop(recorder_));
    site_.clock.Advance(1);
  }
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 2u);
  RecordTimes();
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].frames.size(), 20u);
  EXPECT_EQ(files[1].frames.size(), 20u);
}

TEST_F(RecorderSeams, TheFormatIsThatOfTheParameterSets) {
  const auto format = [](int videoType, test::ClipSpec spec, std::size_t frame = 0) {
    const auto clip = test::EncodeClip(spec);
    cms::VideoFrameInfo info;
    info.videoType = videoType;
    std::array<std::uint8_t, cms::kVideoHeaderRoom> area;
    cms::BuildVideoFrameHeader(area, info);
    return cms::PictureFormatOf(area, clip[frame].data);
  };
  test::ClipSpec small;
  small.frames = 12;
  for (const auto& [type, codec] :
       {std::pair(1, test::ClipCodec::kH264), std::pair(2, test::ClipCodec::kMjpeg),
        std::pair(3, test::ClipCodec::kMpeg4), std::pair(4, test::ClipCodec::kH265)}) {
    small.codec = codec;
    test::ClipSpec large = small;
    large.width = 640;
    large.height = 480;
    EXPECT_NE(format(type, small), 0u) << type;
    EXPECT_EQ(format(type, small), format(type, small, 10)) << type;  // another key frame
    EXPECT_NE(format(type, small), format(type, large)) << type;
  }
  small.codec = test::ClipCodec::kH264;
  EXPECT_EQ(format(1, small, 1), 0u);  // without parameter sets nothing is known
  EXPECT_EQ(format(0, small), 0u);
}

TEST_F(RecorderSeams, AFileWithoutAFrameIsGoneWithItsRecord) {
  Begin();
  EXPECT_EQ(Names().size(), 3u);  // the pair, and a list that a full disk need not make
  EXPECT_FALSE(source_.RecordAudio(recorder_));
  EXPECT_EQ(RecordTimes(), std::vector<Times>{});
  EXPECT_EQ(Names(), std::vector<std::string>{"RecordDB"});
  Begin();  // also the one that a change of day left empty
  RecordSeconds(1);
  site_.clock.Advance(20);
  EXPECT_TRUE(recorder_.ChangeRecordFile());
  EXPECT_EQ(RecordTimes().size(), 1u);
  EXPECT_EQ(site_.Files().size(), 1u);
}

// A camera may refresh its pictures bit by bit and never send a key frame.
TEST_F(RecorderSeams, AStreamWithoutKeyFramesIsRecordedAfterAWhile) {
  Begin(test::ParamFor(1, 1));
  std::uint64_t taken = 0;
  source_.Next();
  for (int i = 0; i < 14; ++i) {
    while (!source_.NextIsKey()) {
      taken += source_.Record(recorder_) ? 1u : 0u;
    }
    source_.Next();  // lost on its way
    EXPECT_EQ(taken > 0, i >= 10) << i;
    site_.clock.Advance(1);
  }
  EXPECT_EQ(taken, 4u * 9);
  RecordTimes();
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].frames.size(), taken);
}

TEST_F(RecorderSeams, SoundAloneIsRecordedAfterAWhileAndFound) {
  Begin();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(source_.RecordAudio(recorder_), i >= 10) << i;
    site_.clock.Advance(1);
  }
  EXPECT_EQ(RecordTimes(), (std::vector<Times>{{begin_ + 10, begin_ + 19}}));
}

// Frames from before an event are written at once, long after they came.
TEST_F(RecorderSeams, PreAlarmFramesKeepTheirPlaceInTheirSecond) {
  const auto record = [&](std::uint64_t arrival) {
    const auto frame = source_.Next();
    EXPECT_TRUE(recorder_.RecordPreAlarmFrame(
        frame.header.data(), static_cast<int>(frame.header.size()), frame.payload->data(),
        static_cast<int>(frame.payload->size()), 0, arrival));
  };
  Begin();
  const std::uint64_t first = site_.clock.TickMilliseconds();
  site_.clock.AdvanceMilliseconds(5000);
  for (std::uint64_t i = 0; i < 20; ++i) {
    record(first + 40 * i);
  }
  for (int i = 0; i < 3; ++i) {
    record(0);  // nobody knows when: behind the one before
  }
  recorder_.StopRecordAll();
  const auto files = site_.Files();
  ASSERT_EQ(files.at(0).index.size(), 23u);
  for (std::size_t i = 0; i < 23; ++i) {
    EXPECT_EQ(files[0].index[i].milliseconds % 1000, i < 20 ? 40 * i : 760 + i - 19) << i;
  }
}

TEST_F(RecorderSeams, TheIndexHasTheTimesThatHeadersTell) {
  Begin();
  const std::uint32_t told[] = {700'900, 730'000, 730'100, 999'999};  // two in a millisecond
  for (const std::uint32_t microseconds : told) {
    auto frame = source_.Next();
    cms::VideoFrameInfo info;
    info.payloadSize = static_cast<std::uint32_t>(frame.payload->size());
    info.hostSeconds = site_.clock.WallSeconds();
    info.microseconds = microseconds;
    info.frameType = frame.key ? cms::kKeyFrame : cms::kOtherFrame;
    cms::BuildVideoFrameHeader(frame.header, info);
    ASSERT_TRUE(recorder_.RecordVideoFrame(frame.header.data(), frame.header.size(),
                                           frame.payload->data(),
                                           static_cast<int>(frame.payload->size()), 0, false));
  }
  recorder_.StopRecordAll();
  const auto index = site_.Files().at(0).index;
  ASSERT_EQ(index.size(), std::size(told));
  const std::uint64_t expected[] = {700, 730, 731, 999};
  for (std::size_t i = 0; i < index.size(); ++i) {
    EXPECT_EQ(index[i].milliseconds % 1000, expected[i]) << i;
  }
}

}  // namespace
