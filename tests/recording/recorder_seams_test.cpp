// Where one file ends and the next begins when the stream or the clock is not as usual.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

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
  const std::vector<Times> expected{{begin_ - 3595, begin_ - 3586}, {begin_, begin_ + 20}};
  EXPECT_EQ(RecordTimes(), expected);
  auto files = site_.Files();
  ASSERT_EQ(files.size(), 2u);
  std::reverse(files.begin(), files.end());  // by their names the later one is the earlier
  EXPECT_EQ(CheckSeams(files), source_.NextSequence());
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
        std::pair(3, test::ClipCodec::kMpeg4)}) {
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

}  // namespace
