#include "cms/playback/clip/recording_export.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/faulty_file_io.h"
#include "tests/support/recorded_clip.h"

namespace {

using cms::ClipContainer;
using cms::RecordedPicture;
using cms::RecordingSource;
using cms::WhichPicture;
using test::ClipCodec;
using testing::HasSubstr;

constexpr int kFrames = 30;
constexpr std::int64_t kStart = 1'700'000'000;

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
  EXPECT_EQ(whole.first, kStart);
  EXPECT_EQ(whole.last, kStart + 1);
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
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kMjpeg, ClipCodec::kMpeg4}) {
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
    source.parts[0].last = kStart;
    EXPECT_EQ(numberOf(WhichPicture::kLast), 24);
  }
}

}  // namespace
