// The whole way of what cameras of today send: clips of real encoders, served by a real RTSP
// server, recorded, compared with what was sent bit by bit, found, played and exported.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/encoded_clip.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/recording_reader.h"
#include "tests/support/rtp_packetizer.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::ClipCodec;
using test::RunOrvanta;

struct Way {
  const char* name;
  test::ClipSpec clip;
  std::vector<std::string> camera;
  const char* codec;    // as ffprobe calls it
  std::size_t largest;  // the largest picture has more bytes than that
};

const Way kWays[] = {
    {"H265Aac",
     {.codec = ClipCodec::kH265, .width = 640, .height = 360, .frames = 40},
     {"--audio", "aac"},
     "hevc",
     0},
    {"H265SlicesDelimitersMessagesLatm",
     {.codec = ClipCodec::kH265, .width = 640, .height = 360, .frames = 40, .slices = 3},
     {"--delimiters", "on", "--sei", "on", "--packets", "stap", "--audio", "latm"},
     "hevc",
     0},
    {"H264SlicesDelimitersMessages",
     {.width = 640, .height = 360, .frames = 40, .slices = 4},
     {"--delimiters", "on", "--sei", "on", "--packets", "stap", "--audio", "g726"},
     "h264",
     0},
    {"LargeKeyPictures",
     {.width = 2560, .height = 1440, .frames = 4, .gop = 2, .fps = 5, .noise = true},
     {},
     "h264",
     512'000},
};

// The units of a picture but for delimiters and messages, which the camera makes anew.
std::vector<std::vector<std::uint8_t>> PictureUnits(const Way& way, test::Bytes frame) {
  const bool h265 = way.clip.codec == ClipCodec::kH265;
  std::vector<std::vector<std::uint8_t>> units;
  for (const test::Bytes unit : test::SplitAnnexB(frame)) {
    const int type = h265 ? unit[0] >> 1 & 0x3F : unit[0] & 0x1F;
    if (h265 ? type != 35 && type != 39 : type != 9 && type != 6) {
      units.emplace_back(unit.begin(), unit.end());
    }
  }
  return units;
}

class CamerasOfToday : public testing::TestWithParam<Way> {
 protected:
  // A camera that plays the clip for ever, recorded for some seconds.
  void Record() {
    clip_ = test::EncodeClip(GetParam().clip);
    const std::string file =
        folder_.File(GetParam().clip.codec == ClipCodec::kH265 ? "clip.h265" : "clip.h264");
    {
      std::ofstream out(file, std::ios::binary);
      for (const test::EncodedFrame& frame : clip_) {
        out.write(reinterpret_cast<const char*>(frame.data.data()),
                  static_cast<std::streamsize>(frame.data.size()));
      }
    }
    std::vector<std::string> options = GetParam().camera;
    options.insert(options.end(), {"--file", file});
    const test::RtspCamera camera(options);
    const auto recorded = RunOrvanta("record --json --seconds 4 --transport tcp --data " + Data() +
                                     " " + camera.Url());
    ASSERT_EQ(recorded.status, 0) << recorded.errors;
    for (const auto& day : fs::directory_iterator(Data() + "/recordings")) {
      if (day.is_directory()) {  // two at midnight
        for (auto& each : test::ReadRecordings(day.path().string())) {
          paths_.push_back(day.path() / each.name);
          files_.push_back(std::move(each));
        }
      }
    }
    ASSERT_FALSE(files_.empty()) << recorded.output;
    report_ = recorded.output;
  }

  // The clip's pictures from one of its key pictures on, again and again.
  void CompareWithWhatWasSent() {
    std::size_t next = 0;
    std::size_t largest = 0;
    for (const test::RecordedFile& file : files_) {
      for (const test::RecordedFrame& frame : file.frames) {
        if (frame.audio) {
          ++blocks_;
          continue;
        }
        const std::vector<std::uint8_t> payload(frame.payload.begin(), frame.payload.end());
        const auto units = PictureUnits(GetParam(), payload);
        if (pictures_ == 0) {
          const auto first = std::find_if(clip_.begin(), clip_.end(), [&](const auto& each) {
            return each.key && PictureUnits(GetParam(), each.data) == units;
          });
          ASSERT_NE(first, clip_.end()) << "the first picture is no key picture that was sent";
          next = static_cast<std::size_t>(first - clip_.begin());
        }
        ASSERT_EQ(units, PictureUnits(GetParam(), clip_[next].data)) << "picture " << pictures_;
        ASSERT_EQ(frame.type, clip_[next].key ? 1u : 2u);
        next = (next + 1) % clip_.size();
        largest = std::max(largest, payload.size());
        ++pictures_;
      }
    }
    EXPECT_GE(pictures_, GetParam().clip.fps);
    EXPECT_GT(largest, GetParam().largest);
  }

  void Export(const std::string& name) {
    const std::string clip = folder_.File(name);
    std::string recordings;
    for (const fs::path& path : paths_) {
      recordings += path.string() + " ";
    }
    const auto exported = RunOrvanta("export --json " + recordings + clip);
    ASSERT_EQ(exported.status, 0) << exported.errors;
    const json report = json::parse(exported.output);
    EXPECT_EQ(report["frames"], pictures_);
    const auto probed = test::RunShell(
        "ffprobe -v error -count_frames -show_entries stream=codec_name,nb_read_frames -of json " +
        clip);
    EXPECT_EQ(probed.errors, "");
    const json streams = json::parse(probed.output)["streams"];
    EXPECT_EQ(streams.size(), blocks_ > 0 ? 2u : 1u) << streams;
    EXPECT_EQ(streams[0]["codec_name"], GetParam().codec);
    EXPECT_EQ(streams[0]["nb_read_frames"], std::to_string(pictures_));
  }

  std::string report_;
  std::string Data() const { return folder_.File("data"); }

  test::TemporaryFolder folder_;
  std::vector<test::EncodedFrame> clip_;
  std::vector<test::RecordedFile> files_;
  std::vector<fs::path> paths_;
  int pictures_ = 0;
  int blocks_ = 0;
};
INSTANTIATE_TEST_SUITE_P(, CamerasOfToday, testing::ValuesIn(kWays),
                         [](const auto& way) { return way.param.name; });

TEST_P(CamerasOfToday, AreRecordedAsSentFoundPlayedAndExported) {
  ASSERT_NO_FATAL_FAILURE(Record());
  ASSERT_NO_FATAL_FAILURE(CompareWithWhatWasSent());
  EXPECT_EQ(blocks_ > 0, std::ranges::count(GetParam().camera, "--audio") > 0);
  for (const char* name : {"clip.mp4", "clip.mkv"}) {
    SCOPED_TRACE(name);
    Export(name);
  }
  const auto found = RunOrvanta("search --json --from 2026-01-01 --to 2100-01-01 --data " + Data());
  ASSERT_EQ(found.status, 0) << found.errors;
  EXPECT_EQ(json::parse(found.output)["spans"].size(), 1u) << found.output;
  const auto played = RunOrvanta("play --json --data " + Data());
  ASSERT_EQ(played.status, 0) << played.errors;
  const json site = json::parse(played.output)["sites"][0];
  EXPECT_GE(site["shown"], pictures_ / 4);  // a busy machine leaves pictures out
  EXPECT_EQ(site["lost"], 0);
  EXPECT_TRUE(site["end_of_file"]);
}

}  // namespace
