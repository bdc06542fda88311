// The whole way: recordings through `orvanta export`, judged by ffprobe and ffmpeg.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/audio_codec.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/recorded_clip.h"
#include "tests/support/shell.h"

namespace {

using nlohmann::json;
using test::ClipCodec;
using test::DrvRecording;
using test::RecordClip;
using test::RunOrvanta;
using test::RunShell;
using test::ShellResult;
using testing::HasSubstr;

constexpr std::int64_t kExportStart = 1'700'000'000;  // 2023-11-14T22:13:20Z
constexpr std::uint32_t kMuLaw = 0x10006;
constexpr std::uint32_t kL16 = 0x10000;

json Parsed(const ShellResult& result) {
  EXPECT_EQ(result.status, 0) << result.errors;
  return json::parse(result.output, nullptr, false);
}

// Decodes all of it: any error message fails the test.
json Probe(const std::string& path) {
  const ShellResult result = RunShell(
      "ffprobe -v error -count_frames -show_entries "
      "stream=codec_name,codec_type,nb_read_frames,width,duration,start_time:format=duration "
      "-of json '" +
      path + "'");
  EXPECT_EQ(result.errors, "");
  return json::parse(result.output, nullptr, false);
}

double Duration(const json& probe) {
  return std::stod(probe["format"]["duration"].get<std::string>());
}

// The frame numbers that a file's pictures show, in the order of presentation.
std::vector<int> NumbersShown(const std::string& path) {
  constexpr std::size_t kPicture = 320u * 240 * 4;
  const ShellResult raw = RunShell("ffmpeg -v error -i '" + path +
                                   "' -vsync passthrough -f rawvideo -pix_fmt bgra -s 320x240 -");
  EXPECT_EQ(raw.errors, "");
  std::vector<int> numbers;
  for (std::size_t at = 0; at + kPicture <= raw.output.size(); at += kPicture) {
    numbers.push_back(test::ReadFrameNumber(reinterpret_cast<const std::uint8_t*>(&raw.output[at]),
                                            320, 240, 320 * 4, 320));
  }
  return numbers;
}

// A digest of each picture.
std::vector<std::string> PicturesOf(const std::string& path) {
  const ShellResult digests =
      RunShell("ffmpeg -v error -i '" + path + "' -map 0:v -vsync passthrough -f framemd5 -");
  EXPECT_EQ(digests.errors, "");
  std::istringstream lines(digests.output);
  std::vector<std::string> pictures;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with('#')) {
      pictures.push_back(line.substr(line.rfind(' ') + 1));
    }
  }
  return pictures;
}

int NumberShown(const std::string& path) {
  const auto numbers = NumbersShown(path);
  return numbers.empty() ? -1 : numbers.front();
}

// Seconds, in the order of presentation.
std::vector<double> TimesShown(const std::string& path) {
  const ShellResult probed = RunShell(
      "ffprobe -v error -select_streams v -show_entries frame=pts_time -of csv=p=0 '" + path + "'");
  std::istringstream lines(probed.output);
  std::vector<double> times;
  for (double time = 0; lines >> time;) {
    times.push_back(time);
    lines.ignore(8, '\n');
  }
  return times;
}

class Export : public testing::Test {
 protected:
  std::string Out(const std::string& name) const { return folder_.File(name); }
  std::string Drv(const DrvRecording& recording) const {
    test::WriteWholeFile(Out("one.drv"), recording.bytes);
    return Out("one.drv");
  }

  test::TemporaryFolder folder_;
};

TEST_F(Export, EveryCodecIntoBothContainers) {
  struct Codec {
    ClipCodec codec;
    const char* name;
  };
  for (const Codec& codec :
       {Codec{ClipCodec::kH264, "h264"}, Codec{ClipCodec::kH265, "hevc"},
        Codec{ClipCodec::kMjpeg, "mjpeg"}, Codec{ClipCodec::kMpeg4, "mpeg4"}}) {
    test::RecordedClipSpec spec;
    spec.clip.codec = codec.codec;
    spec.clip.frames = 80;
    spec.phase = 15;  // the first second has ten pictures, the last five
    const std::string drv = Drv(RecordClip(spec));
    for (const std::string& out : {Out("clip.mp4"), Out("clip.mkv")}) {
      SCOPED_TRACE(out + codec.name);
      const json report = Parsed(RunOrvanta("export --json " + drv + " " + out));
      EXPECT_EQ(report["frames"], 80);
      EXPECT_EQ(report["skipped"], 0);
      EXPECT_NEAR(report["duration"].get<double>(), 80 / 25.0, 0.05);
      const json probe = Probe(out);
      EXPECT_EQ(probe["streams"].size(), 1u);
      EXPECT_EQ(probe["streams"][0]["codec_name"], codec.name);
      EXPECT_EQ(probe["streams"][0]["nb_read_frames"], "80");
      EXPECT_EQ(probe["streams"][0]["width"], 320);
      EXPECT_NEAR(Duration(probe), 80 / 25.0, 0.05);
      EXPECT_FALSE(std::filesystem::exists(out + ".part"));
    }
    const std::string front = test::ReadWholeFile(Out("clip.mp4")).substr(0, 16'384);
    EXPECT_LT(front.find("moov"), front.find("mdat")) << codec.name;
    EXPECT_EQ(front.find("hvc1") != std::string::npos, codec.codec == ClipCodec::kH265);
  }
}

// Each picture decodes to what the camera's own stream decodes to, also where key frames are large.
TEST_F(Export, PicturesAreThoseOfTheStream) {
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kH265}) {
    test::RecordedClipSpec spec;
    spec.clip.codec = codec;
    spec.clip.width = 1280;
    spec.clip.height = 720;
    spec.clip.frames = 6;
    spec.clip.gop = 3;
    spec.clip.noise = true;
    spec.clip.bitrate = 200'000'000;
    const DrvRecording recording = RecordClip(spec);
    std::string stream;
    std::size_t largest = 0;
    for (const auto& frame : recording.frames) {
      stream += frame.spec.payload;
      largest = std::max(largest, frame.spec.payload.size());
    }
    ASSERT_GT(largest, 600'000u);
    const std::string bare = Out(codec == ClipCodec::kH264 ? "bare.h264" : "bare.h265");
    test::WriteWholeFile(bare, stream);
    const std::vector<std::string> expected = PicturesOf(bare);
    ASSERT_EQ(expected.size(), 6u);
    const std::string drv = Drv(recording);
    for (const std::string& out : {Out("clip.mp4"), Out("clip.mkv")}) {
      EXPECT_EQ(Parsed(RunOrvanta("export --json " + drv + " " + out))["frames"], 6);
      EXPECT_EQ(PicturesOf(out), expected) << out;
    }
  }
}

// The recording has them in the order of decoding, with times of arrival.
TEST_F(Export, PicturesOfCamerasWithBFramesAreShownInTheirOrder) {
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kH265, ClipCodec::kMpeg4}) {
    test::RecordedClipSpec spec;
    spec.clip.codec = codec;
    spec.clip.profile = test::ClipProfile::kHigh;
    spec.clip.bframes = codec == ClipCodec::kMpeg4 ? 2 : 4;  // of the others, some refer to some
    spec.clip.openGroups = true;
    spec.clip.frames = 80;
    spec.phase = 15;
    spec.audioCodec = kMuLaw;
    const std::string drv = Drv(RecordClip(spec));
    for (const std::string& out : {Out("clip.mp4"), Out("clip.mkv")}) {
      SCOPED_TRACE(out);
      EXPECT_EQ(Parsed(RunOrvanta("export --json " + drv + " " + out))["frames"], 80);
      const auto numbers = NumbersShown(out);
      const auto times = TimesShown(out);
      ASSERT_EQ(numbers.size(), 80u);
      ASSERT_EQ(times.size(), 80u);
      for (int i = 0; i < 80; ++i) {
        EXPECT_EQ(numbers[static_cast<std::size_t>(i)], i);
        EXPECT_NEAR(times[static_cast<std::size_t>(i)], i / 25.0, 0.001);
      }
      EXPECT_NEAR(Duration(Probe(out)), 80 / 25.0, 0.05);
    }
    // Beginning within: the pictures shown before the key frame need what is not in the clip.
    const json report = Parsed(
        RunOrvanta("export --json --from 2023-11-14T22:13:22Z " + drv + " " + Out("some.mkv")));
    const auto numbers = NumbersShown(Out("some.mkv"));
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(report["frames"], numbers.size());
    EXPECT_EQ(numbers.front() + static_cast<int>(numbers.size()), 80);
    EXPECT_GE(report["skipped_frames"], 2);
    EXPECT_EQ(TimesShown(Out("some.mkv")).front(), 0);
  }
}

// The same tone by every codec: copied where the container takes it, or else made AAC.
TEST_F(Export, SoundIsHeardInBothContainers) {
  struct Sound {
    cms::CMSCodecID codec;
    int rate;
    int channels;
    const char* inMatroska;
  };
  for (const Sound& sound : {Sound{cms::CMS_CODEC_PCM_MULAW, 8000, 1, "pcm_mulaw"},
                             {cms::CMS_CODEC_PCM_S16LE, 8000, 1, "pcm_s16le"},
                             {cms::CMS_CODEC_PCM_S16BE, 44100, 2, "pcm_s16be"},
                             {cms::CMS_CODEC_G726_32, 8000, 1, "aac"},
                             {cms::CMS_CODEC_PCM_ALAW, 14000, 1, "pcm_alaw"},
                             {cms::CMS_CODEC_AAC, 16000, 1, "aac"}}) {
    const std::vector<std::int16_t> tone =
        test::Tone(static_cast<std::size_t>(4 * sound.rate), sound.rate, sound.channels);
    test::RecordedClipSpec spec;
    spec.clip.frames = 100;
    spec.audioCodec = static_cast<std::uint32_t>(sound.codec);
    spec.sound.rate = sound.rate;
    spec.sound.channels = sound.channels;
    spec.sound.blockSamples = sound.codec == cms::CMS_CODEC_AAC ? 1024 : 160;
    spec.sound.blocks = test::EncodeBlocks(sound.codec, sound.rate, sound.channels, tone);
    const std::string drv = Drv(RecordClip(spec));
    for (const std::string& out : {Out("a.mkv"), Out("a.mp4")}) {
      SCOPED_TRACE(std::to_string(sound.codec) + " " + out);
      const ShellResult result = RunOrvanta("export --json " + drv + " " + out);
      EXPECT_EQ(Parsed(result)["audio"], true);
      EXPECT_EQ(result.errors, "");
      const json probe = Probe(out);
      ASSERT_EQ(probe["streams"].size(), 2u);
      EXPECT_EQ(probe["streams"][1]["codec_name"], out.ends_with("mp4") ? "aac" : sound.inMatroska);
      EXPECT_EQ(probe["streams"][0]["nb_read_frames"], "100");
      EXPECT_NEAR(Duration(probe), 4, 0.1);
      const ShellResult heard =
          RunShell("ffmpeg -v error -i '" + out + "' -map 0:a -f s16le -ar " +
                   std::to_string(sound.rate) + " -ac " + std::to_string(sound.channels) + " -");
      std::vector<std::int16_t> samples(heard.output.size() / 2);
      std::memcpy(samples.data(), heard.output.data(), samples.size() * 2);
      // An MP4 tells players to leave out what is in front of the sound that was made AAC.
      const bool made =
          sound.codec != cms::CMS_CODEC_AAC && probe["streams"][1]["codec_name"] == "aac";
      const bool delayed = sound.codec == cms::CMS_CODEC_AAC || (made && out.ends_with("mkv"));
      const std::size_t delay = delayed ? test::kAacDelay : 0;
      ASSERT_GT(samples.size(), tone.size() * 9 / 10);
      EXPECT_GT(test::SignalToNoise(tone, std::span(samples).subspan(delay)), 18);
      if (sound.codec == cms::CMS_CODEC_AAC) {
        std::string blocks;
        for (const auto& block : spec.sound.blocks) {
          blocks.append(block.begin(), block.end());
        }
        const ShellResult copy =
            RunShell("ffmpeg -v error -i '" + out + "' -map 0:a -c copy -f adts -");
        EXPECT_GT(copy.output.size(), blocks.size() * 9 / 10);
        EXPECT_EQ(copy.output, blocks.substr(0, copy.output.size()));
      }
    }
  }
}

// Sound that pauses, and that nobody can decode.
TEST_F(Export, SoundStaysAtItsTimeAndWhatIsUnknownIsTold) {
  test::RecordedClipSpec spec;
  spec.clip.frames = 75;
  spec.audioCodec = kMuLaw;
  const std::string one = Drv(RecordClip(spec));
  spec.start = kExportStart + 20;
  test::WriteWholeFile(Out("two.drv"), RecordClip(spec).bytes);
  for (const std::string& out : {Out("a.mkv"), Out("a.mp4")}) {
    EXPECT_EQ(RunOrvanta("export " + one + " " + Out("two.drv") + " " + out).status, 0);
    const ShellResult times = RunShell(
        "ffprobe -v error -select_streams a -show_entries packet=pts_time -of csv=p=0 " + out);
    std::istringstream lines(times.output);
    int inGap = 0;
    int behind = 0;
    for (double time = 0; lines >> time; lines.ignore(8, '\n')) {
      inGap += time > 3.3 && time < 19.7 ? 1 : 0;
      behind += time >= 19.7 ? 1 : 0;
    }
    EXPECT_EQ(inGap, 0) << out;
    EXPECT_GE(behind, 20) << out;
    EXPECT_NEAR(Duration(Probe(out)), 23, 0.2);
  }
  spec.audioCodec = 0x15001;
  const ShellResult unknown =
      RunOrvanta("export --json " + Drv(RecordClip(spec)) + " " + Out("b.mp4"));
  EXPECT_EQ(Parsed(unknown)["audio"], false);
  EXPECT_THAT(unknown.errors, HasSubstr("left out"));
  EXPECT_EQ(Probe(Out("b.mp4"))["streams"].size(), 1u);
}

TEST_F(Export, SoundThatIsLeftOutIsTold) {
  const struct {
    std::uint32_t first;
    std::uint32_t second;
    std::string says;
  } cases[] = {{kMuLaw, kL16, "the sound changes: 50 blocks (L16) are not in this clip"},
               {0, kMuLaw, "50 blocks (mu-law)"},
               {kMuLaw, kMuLaw, ""}};
  for (const auto& each : cases) {
    test::RecordedClipSpec spec;
    spec.clip.frames = 1010;  // further than is looked ahead
    spec.audioCodec = each.first;
    const std::string one = Drv(RecordClip(spec));
    spec.clip.frames = 50;
    spec.start = kExportStart + 60;
    spec.audioCodec = each.second;
    test::WriteWholeFile(Out("two.drv"), RecordClip(spec).bytes);
    const ShellResult result =
        RunOrvanta("export --json " + one + " " + Out("two.drv") + " " + Out("a.mkv"));
    EXPECT_EQ(Parsed(result)["frames"], 1060);
    EXPECT_THAT(result.errors, HasSubstr(each.says));
    EXPECT_EQ(result.errors.empty(), each.says.empty()) << result.errors;
  }
}

TEST_F(Export, FilesOfASiteFollowEachOtherWithoutLosingAFrame) {
  test::DataFolderMaker data(Out("data"));
  test::RecordedClipSpec spec;
  spec.clip.frames = 60;
  data.Add(2, RecordClip(spec));  // another site, in between
  spec.phase = 10;
  data.Add(1, RecordClip(spec));  // up to the 20th picture of the third second
  spec.start = kExportStart + 2;
  spec.phase = 20;
  data.Add(1, RecordClip(spec));  // goes on from there
  spec.start = kExportStart + 20;
  spec.phase = 0;
  data.Add(1, RecordClip(spec));  // behind a gap
  const std::string command = "export --json --data " + Out("data") + " --site 1 --from ";

  json report =
      Parsed(RunOrvanta(command + "2023-11-14T22:13:00Z --to 2023-11-15 " + Out("all.mp4")));
  EXPECT_EQ(report["frames"], 180);
  EXPECT_EQ(report["skipped"], 0);
  EXPECT_EQ(report["start"], "2023-11-14T22:13:20Z");
  json probe = Probe(Out("all.mp4"));
  EXPECT_EQ(probe["streams"][0]["nb_read_frames"], "180");
  EXPECT_NEAR(Duration(probe), 20 - 0.4 + 2.4, 0.1);

  // From the last key frame in front of second 23 (every tenth frame is one) to the end of 23.
  report = Parsed(
      RunOrvanta(command + "2023-11-14T22:13:23Z --to 2023-11-14T22:13:23Z " + Out("some.mkv")));
  EXPECT_EQ(report["frames"], 30);
  EXPECT_EQ(NumberShown(Out("some.mkv")), 0);
  probe = Probe(Out("some.mkv"));
  EXPECT_EQ(probe["streams"][0]["nb_read_frames"], "30");
  EXPECT_NEAR(Duration(probe), 1.2, 0.1);

  EXPECT_EQ(Parsed(RunOrvanta(command + "2023-11-14T22:13:41Z " + Out("one.jpg")))["frames"], 1);
  EXPECT_EQ(NumberShown(Out("one.jpg")), 49);  // the last of that second

  const ShellResult nothing =
      RunOrvanta(command + "2023-11-15T00:00:00Z --to 2023-11-16 " + Out("none.mp4"));
  EXPECT_EQ(nothing.status, 1);
  EXPECT_THAT(nothing.errors, HasSubstr("site 1"));
}

TEST_F(Export, DamageIsPassedOverAndCounted) {
  test::RecordedClipSpec spec;
  spec.clip.frames = 100;
  DrvRecording recording = RecordClip(spec);
  const auto& broken = recording.frames[34];  // key frames are 30 and 40
  recording.bytes.replace(broken.offset, 40, 40, 'x');
  recording.bytes.resize(recording.bytes.size() - 7);  // the last frame is torn
  const std::string drv = Drv(recording);
  for (const std::string& out : {Out("clip.mp4"), Out("clip.mkv")}) {
    const json report = Parsed(RunOrvanta("export --json " + drv + " " + out));
    EXPECT_EQ(report["frames"], 100 - 6 - 1);
    EXPECT_EQ(report["skipped"], broken.length + recording.frames[99].length - 7);
    EXPECT_EQ(report["skipped_frames"], 5);
    const json probe = Probe(out);
    EXPECT_EQ(probe["streams"][0]["nb_read_frames"], std::to_string(100 - 7));
    EXPECT_NEAR(Duration(probe), 4, 0.1);
  }
}

TEST_F(Export, APictureOfEachCodec) {
  for (const ClipCodec codec :
       {ClipCodec::kH264, ClipCodec::kH265, ClipCodec::kMjpeg, ClipCodec::kMpeg4}) {
    test::RecordedClipSpec spec;
    spec.clip.codec = codec;
    spec.clip.frames = 60;
    const std::string drv = Drv(RecordClip(spec));
    EXPECT_EQ(RunOrvanta("export " + drv + " " + Out("first.jpg")).status, 0);
    EXPECT_EQ(NumberShown(Out("first.jpg")), 0);
    EXPECT_EQ(RunOrvanta("export --from 2023-11-14T22:13:21Z " + drv + " " + Out("at.jpg")).status,
              0);
    EXPECT_EQ(NumberShown(Out("at.jpg")), 49);
  }
}

TEST_F(Export, WhatCannotBeDoneIsSaidInOneLineAndLeavesNothing) {
  const std::string drv = Drv(RecordClip({}));
  struct Case {
    std::string arguments;
    int status;
    const char* word;
  };
  for (const Case& each :
       {Case{drv + " " + Out("clip.avi"), 2, ".mp4"}, Case{Out("clip.mp4"), 2, "--data"},
        Case{"--data " + Out("") + " " + Out("clip.mp4"), 2, "--site"},
        Case{"--from yesterday " + drv + " " + Out("clip.mp4"), 2, "yesterday"},
        Case{Out("missing.drv") + " " + Out("clip.mp4"), 1, "missing.drv"},
        Case{drv + " " + Out("no/clip.mp4"), 1, "no/clip.mp4"},
        Case{"--stream 3 " + drv + " " + Out("clip.mp4"), 1, "stream"}}) {
    const ShellResult result = RunOrvanta("export " + each.arguments);
    EXPECT_EQ(result.status, each.status) << each.arguments;
    EXPECT_THAT(result.errors, HasSubstr(each.word));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  }
  test::WriteWholeFile(Out("noise.drv"), std::string(100'000, '@'));
  EXPECT_EQ(RunOrvanta("export " + Out("noise.drv") + " " + Out("clip.mp4")).status, 1);
  EXPECT_THAT(folder_.Names(), testing::ElementsAre("noise.drv", "one.drv"));
}

}  // namespace
