#include "cms/playback/clip/recording_export.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "cms/live/media/frame_header.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/flat_jpeg.h"
#include "tests/support/recorded_clip.h"
#include "tests/support/shell.h"

namespace {

using cms::ClipContainer;
using cms::RecordedPicture;
using cms::RecordingSource;
using cms::WhichPicture;
using test::ClipCodec;
using testing::HasSubstr;

constexpr int kFrames = 30;
constexpr std::int64_t kExportedStart = 1'700'000'000;

class RecordingExport : public testing::Test {
 protected:
  RecordingSource Record(ClipCodec codec) {
    test::RecordedClipSpec spec;
    spec.clip.codec = codec;
    spec.clip.frames = kFrames;
    test::WriteWholeFile(folder_.File("one.drv"), test::RecordClip(spec).bytes);
    RecordingSource source;
    source.parts.emplace_back().path = folder_.File("one.drv");
    return source;
  }
  bool NothingWritten() const {
    return !std::filesystem::exists(out_) && !std::filesystem::exists(out_ + ".part");
  }

  test::TemporaryFolder folder_;
  const std::string out_ = folder_.File("clip.mkv");
};

TEST_F(RecordingExport, GoesThroughAllOfItAndStopsAtAnyFrame) {
  const cms::ExportOptions options{Record(ClipCodec::kH264), out_, ClipContainer::kMatroska};
  int calls = 0;
  std::uint64_t last = 0;
  const cms::ExportResult whole =
      cms::ExportRecording(options, [&](std::uint64_t done, std::uint64_t total) {
        ++calls;
        EXPECT_GE(done, last);
        EXPECT_LE(done, total);
        last = done;
        return true;
      });
  EXPECT_EQ(whole.error, "");
  EXPECT_EQ(whole.frames, static_cast<std::uint64_t>(kFrames));
  EXPECT_EQ(whole.first, kExportedStart);
  EXPECT_EQ(whole.last, kExportedStart + 1);
  EXPECT_EQ(last, std::filesystem::file_size(folder_.File("one.drv")));
  EXPECT_GE(calls, kFrames);
  EXPECT_TRUE(std::filesystem::remove(out_));

  for (int stop = 0; stop < calls; stop += 7) {
    int left = stop;
    const cms::ExportResult stopped =
        cms::ExportRecording(options, [&](std::uint64_t, std::uint64_t) { return left-- > 0; });
    EXPECT_EQ(stopped.error, "stopped; nothing was written") << stop;
    EXPECT_EQ(stopped.frames, 0u);
    EXPECT_TRUE(NothingWritten()) << stop;
  }
}

TEST_F(RecordingExport, FailuresAreTold) {
  RecordingSource missing;
  missing.parts.emplace_back().path = folder_.File("none.drv");
  EXPECT_THAT(cms::ExportRecording({missing, out_, ClipContainer::kMp4}, {}).error,
              HasSubstr("none.drv: "));
  EXPECT_THAT(cms::DecodeRecordedPicture(missing, WhichPicture::kFirst, {}).error,
              HasSubstr("none.drv: "));
  const std::string nowhere = folder_.File("no/clip.mp4");
  EXPECT_THAT(
      cms::ExportRecording({Record(ClipCodec::kH264), nowhere, ClipContainer::kMp4}, {}).error,
      HasSubstr(nowhere));
  EXPECT_TRUE(NothingWritten());
}

TEST_F(RecordingExport, PicturesAreThoseOfTheirTime) {
  for (const ClipCodec codec :
       {ClipCodec::kH264, ClipCodec::kH265, ClipCodec::kMjpeg, ClipCodec::kMpeg4}) {
    RecordingSource source = Record(codec);
    const auto numberOf = [&](WhichPicture which) {
      const RecordedPicture picture = cms::DecodeRecordedPicture(source, which, {});
      EXPECT_EQ(picture.error, "");
      EXPECT_EQ(picture.jpeg.empty(), codec != ClipCodec::kMjpeg);
      EXPECT_EQ(picture.bgra.size(), 320u * 240 * 4);
      return picture.error.empty()
                 ? test::ReadFrameNumber(picture.bgra.data(), 320, 240, 320 * 4, 320)
                 : -1;
    };
    EXPECT_EQ(numberOf(WhichPicture::kFirst), 0);
    EXPECT_EQ(numberOf(WhichPicture::kLast), kFrames - 1);
    source.parts[0].last = kExportedStart;
    EXPECT_EQ(numberOf(WhichPicture::kLast), 24);
  }
}

TEST_F(RecordingExport, WritesViewsOfFisheyeCameras) {
  for (const ClipCodec codec : {ClipCodec::kH265, ClipCodec::kMjpeg}) {
    RecordingSource source = Record(codec);
    source.fisheye.parameter.mount = 1;
    source.fisheye.parameter.viewMode = static_cast<int>(cms::FisheyeViewKind::kOneCamera);
    source.fisheye.parameter.radius = 190;
    source.fisheye.parameter.centerX = 160;
    source.fisheye.parameter.centerY = 120;
    source.viewWidth = 201;
    source.viewHeight = 101;
    const RecordedPicture still = cms::DecodeRecordedPicture(source, WhichPicture::kLast, {});
    EXPECT_EQ(still.error, "");
    EXPECT_TRUE(still.jpeg.empty());
    ASSERT_EQ(still.bgra.size(), 201u * 101 * 4);
    source.viewWidth = 200;
    source.viewHeight = 100;
    const RecordedPicture last = cms::DecodeRecordedPicture(source, WhichPicture::kLast, {});
    const cms::ExportResult clip =
        cms::ExportRecording({source, out_, ClipContainer::kMatroska}, {});
    EXPECT_EQ(clip.error, "");
    EXPECT_EQ(clip.frames, static_cast<std::uint64_t>(kFrames));
    // Its last picture is that view, but for being encoded once more.
    const std::string raw =
        test::RunShell("ffmpeg -v error -i " + out_ +
                       " -vf 'select=eq(n\\,29)' -fps_mode passthrough -f rawvideo "
                       "-pix_fmt bgra -")
            .output;
    ASSERT_EQ(raw.size(), last.bgra.size());
    double off = 0;
    for (std::size_t i = 0; i < raw.size(); ++i) {
      off += std::abs(static_cast<unsigned char>(raw[i]) - last.bgra[i]);
    }
    EXPECT_LT(off / static_cast<double>(raw.size()), 4);
    std::filesystem::remove(out_);
  }
}

// Frames of a recording with the times that a test gives them, in microseconds from kExportedStart
// on.
class TimedFrames {
 public:
  static constexpr std::size_t kBlock = 1'000;  // samples of a block of sound

  void Picture(std::int64_t us) {
    cms::VideoFrameInfo info = At(us, jpeg_.size(), cms::VideoFrameInfo{});
    info.frameType = cms::kKeyFrame;
    info.videoType = cms::CMS_VIDEO_MJPEG;
    cms::BuildVideoFrameHeader(area_, info);
    Put(area_, jpeg_);
  }
  void Sound(std::int64_t us) {
    cms::AudioFrameInfo info = At(us, kBlock, cms::AudioFrameInfo{});
    info.format = {cms::CMS_CODEC_PCM_MULAW, 8'000, 1, 8, {}};
    const std::span header = std::span(area_).first<cms::kAudioHeaderRoom>();
    cms::BuildAudioFrameHeader(header, info);
    Put(header, silence_);
  }
  RecordingSource WriteTo(const std::string& path) const {
    test::WriteWholeFile(path, drv_);
    RecordingSource source;
    source.parts.emplace_back().path = path;
    return source;
  }

 private:
  template <typename Info>
  static Info At(std::int64_t us, std::size_t payload, Info info) {
    info.hostSeconds = kExportedStart + us / 1'000'000;
    info.microseconds = static_cast<std::uint32_t>(us % 1'000'000);
    info.payloadSize = static_cast<std::uint32_t>(payload);
    return info;
  }
  void Put(std::span<const std::uint8_t> header, std::span<const std::uint8_t> payload) {
    drv_.append(header.begin(), header.end());
    drv_.append(payload.begin(), payload.end());
  }

  const std::vector<std::uint8_t> jpeg_ = test::FlatJpeg({{128, 90, 200}}, 1, {});
  const std::vector<std::uint8_t> silence_ = std::vector<std::uint8_t>(kBlock, 0xFF);
  std::array<std::uint8_t, cms::kVideoHeaderRoom> area_{};
  std::string drv_;
};

// The frames lie as they came: an encoder that takes 700 ms leaves its pictures behind their sound.
TEST_F(RecordingExport, PicturesBehindTheirSoundAreNotCutOff) {
  for (const std::int64_t late : {std::int64_t{700'000}, std::int64_t{-700'000}}) {
    TimedFrames frames;
    for (std::int64_t us = 0; us < 20'000'000; us += 125'000) {
      const std::int64_t sound = us + std::max<std::int64_t>(late, 0);
      const std::int64_t picture = us + std::max<std::int64_t>(-late, 0);
      frames.Sound(sound);
      if (us % 500'000 == 0) {
        frames.Picture(picture);
      }
    }
    RecordingSource source = frames.WriteTo(folder_.File("one.drv"));
    source.parts[0].first = kExportedStart + 5;
    source.parts[0].last = kExportedStart + 9;
    const auto exported = cms::ExportRecording({source, out_, ClipContainer::kMatroska}, {});
    EXPECT_EQ(exported.error, "");
    EXPECT_EQ(exported.frames, 10u) << late;
    EXPECT_EQ(exported.last, kExportedStart + 9);
    std::filesystem::remove(out_);
  }
}

// An hour whose sound card was slow or fast against the pictures, as the times of the frames tell:
// counted in samples it would be a second off at the end.
class ExportedHour : public testing::TestWithParam<double> {};

TEST_P(ExportedHour, HasItsSoundWhereItsTimesAre) {
  const double ppm = GetParam();
  constexpr std::int64_t kHour = 3'600'000'000;
  constexpr std::int64_t kPicture = 500'000;
  TimedFrames frames;
  std::vector<double> told;  // of the sound, from the first picture on
  std::int64_t soundAt = 0;
  for (std::int64_t at = 0; at < kHour; at += kPicture) {
    frames.Picture(at);
    while (soundAt < at + kPicture) {
      frames.Sound(soundAt);
      told.push_back(static_cast<double>(soundAt) / 1e6);
      soundAt = std::llround(static_cast<double>(told.size() * TimedFrames::kBlock) * 125 /
                             (1 + ppm / 1e6));
    }
  }
  const test::TemporaryFolder folder;
  const RecordingSource source = frames.WriteTo(folder.File("one.drv"));
  const std::string clip = folder.File("clip.mkv");
  EXPECT_EQ(cms::ExportRecording({source, clip, ClipContainer::kMatroska}, {}).error, "");
  std::istringstream times(
      test::RunShell(
          "ffprobe -v error -select_streams a -show_entries packet=pts_time -of csv=p=0 " + clip)
          .output);
  double worst = 0;
  std::size_t count = 0;
  for (double time = 0; times >> time && count < told.size(); ++count) {
    worst = std::max(worst, std::abs(time - told[count]));
    times.ignore(16, '\n');
  }
  EXPECT_EQ(count, told.size());
  EXPECT_LT(worst, 0.04);
}

INSTANTIATE_TEST_SUITE_P(PartsPerMillion, ExportedHour, testing::Values(-300.0, 300.0));

}  // namespace
