// The whole way of four cameras: recorded, found, played in step both ways, and exported. Cameras
// number their pictures, so that each picture shown can be told from its neighbours.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/playback/clip_recording.h"
#include "tests/support/plain_decoder.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::RunOrvanta;

constexpr int kNumbers = 4096;

struct Camera {
  std::vector<std::string> options;
  test::ClipCodec codec;
  int width;
  int height;
};

const Camera kCameras[] = {
    {{"--gop", "10", "--audio", "pcmu"}, test::ClipCodec::kH264, 640, 360},
    {{"--codec", "mjpeg", "--fps", "10"}, test::ClipCodec::kMjpeg, 640, 360},
    {{"--codec", "mpeg4"}, test::ClipCodec::kMpeg4, 640, 360},
    {{"--codec", "h265", "--size", "960x540", "--slices", "3", "--gop", "50", "--audio", "aac"},
     test::ClipCodec::kH265,
     960,
     540},
};
constexpr unsigned kSites = std::size(kCameras);

std::string Utc(std::int64_t seconds) {
  char text[sizeof "2026-11-21T10:30:00Z"];
  std::strftime(text, sizeof text, "%FT%TZ", std::gmtime(&seconds));
  return text;
}

struct Shot {
  std::int64_t time;  // milliseconds
  int number;         // what the picture shows
  bool key;
};
using Shots = std::vector<Shot>;

// What the site's files hold, read without the library. The cameras lose nothing on this machine,
// so that the first picture's number tells all.
Shots ReadShots(const std::vector<test::RecordedFile>& files, unsigned site) {
  const Camera& camera = kCameras[site];
  Shots shots;
  for (const test::RecordedFile& file : files) {
    if (file.name.rfind("Rec_Site" + std::to_string(site + 1) + "_", 0) != 0) {
      continue;
    }
    auto index = file.index.begin();
    for (const test::RecordedFrame& frame : file.frames) {
      if (frame.audio) {
        continue;
      }
      int number = 0;
      if (shots.empty()) {
        const auto bgra = test::PlainDecoder(camera.codec)
                              .DecodeToBgra({frame.payload.begin(), frame.payload.end()},
                                            camera.width, camera.height);
        number = bgra.empty() ? -1
                              : test::ReadFrameNumber(bgra.data(), camera.width, camera.height,
                                                      camera.width * 4, camera.width);
        EXPECT_GE(number, 0);
      } else {
        number = (shots.back().number + 1) % kNumbers;
      }
      shots.push_back(
          {static_cast<std::int64_t>((index++)->milliseconds), number, frame.type == 1});
    }
  }
  return shots;
}

// Of that time: the last one that is not later.
const Shot& At(const Shots& shots, std::int64_t time) {
  return *std::prev(
      std::upper_bound(shots.begin(), shots.end(), time,
                       [](std::int64_t t, const Shot& shot) { return t < shot.time; }));
}

class WholeWay : public testing::Test {
 protected:
  void SetUp() override {
    std::vector<std::unique_ptr<test::RtspCamera>> cameras;
    std::string urls;
    for (const Camera& camera : kCameras) {
      cameras.push_back(std::make_unique<test::RtspCamera>(camera.options));
      urls += " " + cameras.back()->Url();
    }
    const auto recorded =
        RunOrvanta("record --json --seconds 9 --transport tcp " + DataOption() + urls);
    ASSERT_EQ(recorded.status, 0) << recorded.errors;
    std::vector<test::RecordedFile> files;
    for (const auto& day : fs::directory_iterator(player_.Path("data/recordings"))) {
      if (day.is_directory()) {  // two at midnight
        const auto more = test::ReadRecordings(day.path().string());
        files.insert(files.end(), more.begin(), more.end());
      }
    }
    for (unsigned site = 0; site < kSites; ++site) {
      shots_.push_back(ReadShots(files, site));
      ASSERT_GT(shots_.back().size(), 20u) << recorded.output;
      // Of the second in which a recording begins, the milliseconds are not those of the clock.
      begin_ = std::max(begin_, (shots_.back().front().time / 1000 + 1) * 1000);
      end_ = std::min(end_, shots_.back().back().time);
    }
    ASSERT_GT(end_ - begin_, 2000) << recorded.output;
  }

  std::string DataOption() const { return "--data " + player_.folder.File("data"); }
  static json Parsed(const test::ShellResult& result) {
    EXPECT_EQ(result.status, 0) << result.errors;
    return json::parse(result.output, nullptr, false);
  }

  // What search finds, as a client application goes on with it.
  void Find() {
    const json found =
        Parsed(RunOrvanta("search --json " + DataOption() + " --from " + Utc(begin_ / 1000 - 60) +
                          " --to " + Utc(end_ / 1000 + 60)));
    ASSERT_EQ(found["spans"].size(), kSites) << found;
    for (unsigned site = 0; site < kSites; ++site) {
      const json& span = found["spans"][site];
      EXPECT_EQ(span["site"], site + 1);
      EXPECT_EQ(span["start"], Utc(shots_[site].front().time / 1000));
      EXPECT_EQ(span["end"], Utc(shots_[site].back().time / 1000));
      cms::_MULTI_PB_SITE_CONFIG config;
      config.siteNumber = site + 1;
      for (const json& file : span["files"]) {
        config.files.push_back(cms::SystemPath(file.get<std::string>()));
      }
      player_.config.sites.push_back(config);
      player_.codedWidths.push_back(kCameras[player_.codedWidths.size()].width);
    }
  }

  // Every site comes to show the picture of the clock's time.
  void ExpectAllAtTheClock() {
    const std::int64_t time = player_.control.GetPlaybackTime();
    for (unsigned site = 0; site < kSites; ++site) {
      const Shot& shot = At(shots_[site], time);
      ASSERT_TRUE(player_.Shows(shot.number, site))
          << "site " << site + 1 << " shows " << player_.Number(site) << " and not " << shot.number
          << ", " << time - begin_ << " ms behind the beginning";
      ASSERT_EQ(player_.control.CurTimeGet(site, 0), shot.time);
    }
  }
  void Seek(std::int64_t time) {
    player_.control.SetPlaybackTargetTime(time);
    ASSERT_EQ(player_.control.WaitUntilShown(30'000), 1);
    ASSERT_EQ(player_.control.GetPlaybackTime(), time);
    ExpectAllAtTheClock();
  }

  // From one picture of any site to the next one, so that none is passed over.
  void Play(std::int64_t to) {
    for (std::int64_t time = player_.control.GetPlaybackTime(); time != to;) {
      std::int64_t next = to;
      for (const Shots& shots : shots_) {
        if (to < time) {  // it changes in the millisecond in front of a picture
          next = std::max(next, At(shots, time).time - 1);
        } else if (const Shot* const after = &At(shots, time) + 1; after->time > time) {
          next = std::min(next, after->time);
        }
      }
      player_.clock.AdvanceMilliseconds(static_cast<std::uint64_t>(std::abs(next - time)));
      time = next;
      ASSERT_EQ(player_.control.GetPlaybackTime(), time);
      ASSERT_NO_FATAL_FAILURE(ExpectAllAtTheClock());
    }
  }

  // Picture by picture of one site; the others go along.
  void StepThrough(unsigned site) {
    player_.control.setCurrentSiteIdx(static_cast<int>(site));
    const int first = player_.Number(site);
    constexpr int kSteps = 12;
    for (int i = 1; i <= 2 * kSteps; ++i) {
      const bool back = i > kSteps;
      ASSERT_EQ(
          back ? player_.control.PlaybackStepBackward() : player_.control.PlaybackStepForward(), 1);
      ASSERT_EQ(player_.Settled(site), (first + (back ? 2 * kSteps - i : i)) % kNumbers);
      ASSERT_NO_FATAL_FAILURE(ExpectAllAtTheClock());
    }
  }

  // The whole seconds between, and what leads to the first of them.
  void Export(unsigned site) {
    const std::int64_t from = begin_ / 1000;
    const std::int64_t to = end_ / 1000 - 1;
    const std::string clip = player_.Path("clip" + std::to_string(site) + ".mp4");
    const json report =
        Parsed(RunOrvanta("export --json " + DataOption() + " --site " + std::to_string(site + 1) +
                          " --from " + Utc(from) + " --to " + Utc(to) + " " + clip));
    const test::ShellResult probe = test::RunShell(
        "ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames "
        "-of csv=p=0 " +
        clip);
    EXPECT_EQ(probe.errors, "");
    EXPECT_EQ(std::stoi(probe.output), report["frames"]) << report;
    constexpr int kWidth = 160;
    constexpr int kHeight = 90;
    constexpr std::size_t kPicture = std::size_t{kWidth} * kHeight * 4;
    const test::ShellResult raw = test::RunShell(
        "ffmpeg -v error -i " + clip +
        " -fps_mode passthrough -enc_time_base 1:90000 -f rawvideo -pix_fmt bgra -s 160x90 -");
    EXPECT_EQ(raw.errors, "");
    ASSERT_GE(raw.output.size(), kPicture);
    std::vector<int> numbers;
    for (std::size_t at = 0; at + kPicture <= raw.output.size(); at += kPicture) {
      numbers.push_back(
          test::ReadFrameNumber(reinterpret_cast<const std::uint8_t*>(raw.output.data()) + at,
                                kWidth, kHeight, kWidth * 4, kCameras[site].width));
    }
    const Shots& shots = shots_[site];
    const Shot* begin = &*std::find_if(
        shots.begin(), shots.end(), [from](const Shot& shot) { return shot.time >= from * 1000; });
    while (!begin->key) {
      --begin;
    }
    std::vector<int> expected;
    for (; begin->time < (to + 1) * 1000; ++begin) {
      expected.push_back(begin->number);
    }
    const auto [is, should] =
        std::mismatch(numbers.begin(), numbers.end(), expected.begin(), expected.end());
    EXPECT_EQ(numbers, expected) << numbers.size() << " and " << expected.size()
                                 << " pictures, which differ from the " << is - numbers.begin()
                                 << "th on: " << (is == numbers.end() ? -1 : *is) << " and "
                                 << (should == expected.end() ? -1 : *should) << "; " << report;
  }

  test::Player player_;
  std::vector<Shots> shots_;
  std::int64_t begin_ = 0;  // all sites have pictures from here
  std::int64_t end_ = std::numeric_limits<std::int64_t>::max();
};

TEST_F(WholeWay, FourCamerasAreFoundPlayedInStepAndExported) {
  ASSERT_NO_FATAL_FAILURE(Find());
  ASSERT_TRUE(player_.Start());
  CCMSMultiSitePlaybackCtrl& control = player_.control;
  for (const std::int64_t time : {begin_, end_, begin_ + 1234, begin_ + 700}) {
    SCOPED_TRACE("seek");
    ASSERT_NO_FATAL_FAILURE(Seek(time));
  }
  for (unsigned site = 0; site < kSites; ++site) {
    SCOPED_TRACE("step");
    ASSERT_NO_FATAL_FAILURE(StepThrough(site));
  }
  ASSERT_NO_FATAL_FAILURE(Seek(begin_));
  ASSERT_EQ(control.PlaybackResume(), 1);
  ASSERT_EQ(control.WaitUntilShown(30'000), 1);
  {
    SCOPED_TRACE("forward");
    ASSERT_NO_FATAL_FAILURE(Play(begin_ + 1900));
  }
  ASSERT_EQ(control.PlaybackSetSlowDown(), 1);
  ASSERT_EQ(control.GetPlaySpeed(), -1);
  ASSERT_EQ(control.WaitUntilShown(30'000), 1);
  {
    SCOPED_TRACE("backward");
    ASSERT_NO_FATAL_FAILURE(Play(begin_));
  }
  std::int64_t longest = 0;  // how long a picture is shown
  for (const Shots& shots : shots_) {
    for (std::size_t i = 1; i < shots.size(); ++i) {
      longest = std::max(longest, shots[i].time - shots[i - 1].time);
    }
  }
  EXPECT_LE(control.GetMaximumSkew(), longest);
  for (unsigned site = 0; site < kSites; ++site) {
    SCOPED_TRACE("export of site " + std::to_string(site + 1));
    Export(site);
  }
  // In real time, by the clock of a machine that may be busy.
  const json played = Parsed(RunOrvanta("play --json " + DataOption()));
  ASSERT_EQ(played["sites"].size(), kSites) << played;
  for (const json& site : played["sites"]) {
    EXPECT_GE(site["shown"], 20) << played;
    EXPECT_EQ(site["lost"], 0);
    EXPECT_TRUE(site["end_of_file"]);
  }
}

}  // namespace
