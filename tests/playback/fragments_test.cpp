// What VideoFragments and SoundFragments make, read by ffprobe and decoded by ffmpeg.
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/playback/fragments/sound_fragments.h"
#include "cms/playback/fragments/video_fragments.h"
#include "tests/support/audio_codec.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/shell.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int64_t kOriginUs = 1'763'800'000'000'000;

class Fragments : public testing::Test {
 protected:
  // What a player is given, as a file; and what ffprobe says of its packets: begin, length, flags.
  std::string Probe(std::span<const std::uint8_t> header, const Bytes& fragments,
                    const std::string& entries) {
    std::string whole(header.begin(), header.end());
    whole.append(fragments.begin(), fragments.end());
    test::WriteWholeFile(path_, whole);
    const test::ShellResult probed =
        test::RunShell("ffprobe -v error -of csv=p=0 -show_entries " + entries + " " + path_);
    EXPECT_EQ(probed.status, 0);
    EXPECT_EQ(probed.errors, "");
    return probed.output;
  }

  test::TemporaryFolder folder_;
  const std::string path_ = folder_.File("live.mp4");
};

// ffprobe tells lengths of its own: what the fragments say, in seconds.
struct Told {
  double begin = 0;
  double length = 0;
};
std::vector<Told> ToldBy(const Bytes& fragments) {
  const auto number = [&](std::size_t at, std::size_t size) {
    std::uint64_t read = 0;
    for (std::size_t i = 0; i < size; ++i) {
      read = read << 8 | fragments.at(at + i);
    }
    return read;
  };
  std::vector<Told> told;
  for (std::size_t at = 0; at < fragments.size();) {
    told.push_back({double(number(at + 60, 8)) / 90'000, double(number(at + 88, 4)) / 90'000});
    at += number(at, 4);  // moof
    at += number(at, 4);  // mdat
  }
  return told;
}

struct Packet {
  double begin = 0;
  double length = 0;
  bool key = false;
};

std::vector<Packet> PacketsOf(const std::string& text) {
  std::vector<Packet> packets;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    Packet packet;
    char flag = 0;
    if (std::sscanf(line.c_str(), "%lf,%lf,%c", &packet.begin, &packet.length, &flag) == 3) {
      packet.key = flag == 'K';
      packets.push_back(packet);
    }
  }
  return packets;
}

TEST_F(Fragments, PicturesArePlayedWithoutASeamAtTheTimesTheyWereTaken) {
  for (const bool high : {false, true}) {
    test::ClipSpec spec;
    spec.frames = 60;
    spec.gop = 20;
    spec.slices = 3;
    spec.delimiters = true;
    spec.profile = high ? test::ClipProfile::kHigh : test::ClipProfile::kBaseline;
    cms::VideoFragments fragments(kOriginUs);
    Bytes made;
    Bytes none;
    std::int64_t time = kOriginUs + 3'600'000'000;
    const auto clip = test::EncodeClip(spec);
    EXPECT_FALSE(fragments.Append({clip[1].data, false, time, 0, 0}, none))
        << "before a key picture";
    for (std::size_t i = 0; i < clip.size(); ++i) {
      time += 40'000 + (i % 2 == 0 ? 15'000 : -15'000);  // as networks have it
      ASSERT_TRUE(fragments.Append({clip[i].data, clip[i].key, time, 320, 240}, made));
    }
    EXPECT_EQ(fragments.Version(), 1U);
    EXPECT_FALSE(fragments.HasReordering());
    EXPECT_EQ(fragments.Codec().substr(0, 7), high ? "avc1.64" : "avc1.42");

    const auto packets =
        PacketsOf(Probe(fragments.Header(), made, "packet=pts_time,duration_time,flags"));
    ASSERT_EQ(packets.size(), 60U);
    for (std::size_t i = 0; i < packets.size(); ++i) {
      EXPECT_EQ(packets[i].key, i % 20 == 0);
      EXPECT_NEAR(packets[i].begin, 3600 + 0.04 * static_cast<double>(i), 0.08) << i;
    }
    const auto told = ToldBy(made);
    for (std::size_t i = 1; i < told.size(); ++i) {
      EXPECT_NEAR(told[i].begin, told[i - 1].begin + told[i - 1].length, 1e-6) << i;
    }
    const test::ShellResult decoded = test::RunShell("ffmpeg -v error -xerror -i " + path_ +
                                                     " -f rawvideo -pix_fmt gray - | wc -c");
    EXPECT_EQ(decoded.errors, "");
    EXPECT_EQ(std::stol(decoded.output), 60L * 320 * 240);
  }
}

TEST_F(Fragments, NewParameterSetsAPauseAndAClockSetBackAreTold) {
  cms::VideoFragments fragments(kOriginUs);
  Bytes made;
  std::int64_t time = kOriginUs + 100'000'000;
  const auto feed = [&](test::ClipSpec spec) {
    spec.frames = 20;
    for (const auto& frame : test::EncodeClip(spec)) {
      time += 40'000;
      fragments.Append({frame.data, frame.key, time, unsigned(spec.width), unsigned(spec.height)},
                       made);
    }
  };
  feed({});
  time += 30'000'000;  // the camera was away
  feed({});
  EXPECT_EQ(fragments.Version(), 1U);
  const auto packets =
      PacketsOf(Probe(fragments.Header(), made, "packet=pts_time,duration_time,flags"));
  ASSERT_EQ(packets.size(), 40U);
  EXPECT_NEAR(packets[20].begin - packets[19].begin, 30, 0.1);
  time -= 60'000'000;  // the clock was set
  feed({});
  EXPECT_EQ(fragments.Version(), 2U);
  EXPECT_NEAR(static_cast<double>(kOriginUs - fragments.OriginUs()) / 1e6, 60, 0.1);
  const auto told = ToldBy(made);
  ASSERT_EQ(told.size(), 60U);
  EXPECT_NEAR(told[40].begin, told[39].begin + told[39].length, 1e-6);
  test::ClipSpec other;
  other.width = 160;
  other.profile = test::ClipProfile::kHigh;
  other.bframes = 2;
  feed(other);
  EXPECT_EQ(fragments.Version(), 3U);
  EXPECT_TRUE(fragments.HasReordering());
}

TEST_F(Fragments, SoundOfAnyCodecIsAacThatLastsAsLong) {
  for (const cms::CMSCodecID codec :
       {cms::CMS_CODEC_AAC, cms::CMS_CODEC_PCM_MULAW, cms::CMS_CODEC_PCM_S16BE}) {
    const int rate = codec == cms::CMS_CODEC_AAC ? 16000 : 8000;
    const auto samples = test::Tone(static_cast<std::size_t>(rate) * 4, rate, 1);
    tCMSAudioPlayerConfig format;
    format.codecId = codec;
    format.sampleRate = static_cast<std::uint32_t>(rate);
    format.channels = 1;
    cms::SoundFragments fragments(kOriginUs);
    ASSERT_TRUE(fragments.SetFormat(format));
    Bytes made;
    const auto blocks = test::EncodeBlocks(codec, rate, 1, samples);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const auto taken = static_cast<std::int64_t>(i * 4'000'000 / blocks.size());
      fragments.Append(blocks[i], kOriginUs + 3'600'000'000 + taken, made);
    }
    const auto packets =
        PacketsOf(Probe(fragments.Header(), made, "packet=pts_time,duration_time,flags"));
    ASSERT_GT(packets.size(), 20U) << codec;
    EXPECT_NEAR(packets.front().begin, 3600, 0.15);
    EXPECT_NEAR(packets.back().begin + packets.back().length, 3604, 0.3);
    EXPECT_EQ(fragments.Codec(), "mp4a.40.2");
    const test::ShellResult loud =
        test::RunShell("ffmpeg -hide_banner -i " + path_ +
                       " -af volumedetect -f null - 2>&1 | grep -cE 'mean_volume: -[12]?[0-9][.]'");
    EXPECT_EQ(loud.status, 0) << "a tone is heard";
  }
  tCMSAudioPlayerConfig odd;
  odd.codecId = cms::CMS_CODEC_H264;
  EXPECT_FALSE(cms::SoundFragments(kOriginUs).SetFormat(odd));
}

}  // namespace
