// Both laws against libavcodec and sox: every code and every sample.
#include "cms/audio/internal/g711.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cms/exports/audio_exports.h"
#include "tests/support/audio_codec.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

struct Law {
  const char* name;
  AVCodecID codec;
  const char* soxName;
  decltype(&g711_aEncoder) encode;
  decltype(&g711_aDecoder) decode;
  int cut;  // what sox adds to round to the law's precision before it cuts
  // Where libavcodec, which looks for the middle between two decoded values, changes over to the
  // next segment later than we do: its codes there are still the last ones of the segment before.
  std::vector<std::pair<int, int>> late;
  int differencesFromLibavcodec;
  int differencesFromSox;
};

const std::array<Law, 2> kLaws = {
    {{"ALaw",
      AV_CODEC_ID_PCM_ALAW,
      "a-law",
      g711_aEncoder,
      g711_aDecoder,
      4,
      {{512, 515}, {1024, 1031}, {2048, 2063}, {4096, 4127}, {8192, 8255}, {16384, 16511}},
      964,
      1020},
     {"MuLaw",
      AV_CODEC_ID_PCM_MULAW,
      "mu-law",
      g711_uEncoder,
      g711_uDecoder,
      2,
      {{124, 127},
       {380, 383},
       {892, 899},
       {1916, 1931},
       {3964, 3995},
       {8060, 8123},
       {16252, 16379}},
      512,
      508}}};

Samples AllSamples() {
  Samples all;
  for (int sample = INT16_MIN; sample <= INT16_MAX; ++sample) {
    all.push_back(static_cast<std::int16_t>(sample));
  }
  return all;
}

Bytes AllCodes() {
  Bytes all;
  for (int code = 0; code < 256; ++code) {
    all.push_back(static_cast<std::uint8_t>(code));
  }
  return all;
}

Bytes Encode(const Law& law, const Samples& samples) {
  Bytes codes(samples.size());
  const int count = static_cast<int>(samples.size());
  EXPECT_EQ(law.encode(samples.data(), count, codes.data(), count), count / 2);
  return codes;
}

int CountDifferences(const Bytes& a, const Bytes& b) {
  int differences = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    differences += a[i] != b[i] ? 1 : 0;
  }
  return differences;
}

template <typename Value>
std::vector<Value> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  std::vector<Value> values(text.size() / sizeof(Value));
  std::copy_n(text.data(), values.size() * sizeof(Value), reinterpret_cast<char*>(values.data()));
  return values;
}

// Raw 16-bit samples to codes, or back, by the sox program. -D: no dither.
template <typename Out, typename In>
std::vector<Out> Sox(const std::string& from, const std::vector<In>& in, const std::string& to) {
  std::string folder = (std::filesystem::temp_directory_path() / "orvanta-sox-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    ADD_FAILURE() << "no temporary folder";
    return {};
  }
  std::ofstream(folder + "/in", std::ios::binary)
      .write(reinterpret_cast<const char*>(in.data()),
             static_cast<std::streamsize>(in.size() * sizeof(In)));
  const std::string command = "sox -V1 -D -t raw -r 8000 -c 1 " + from + " " + folder +
                              "/in -t raw " + to + " " + folder + "/out";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  auto out = ReadFile<Out>(folder + "/out");
  std::filesystem::remove_all(folder);
  return out;
}

const std::string kSoxPcm = "-e signed -b 16";

class G711 : public testing::TestWithParam<Law> {};

TEST_P(G711, DecodesEachCodeAsLibavcodecAndSox) {
  const Law& law = GetParam();
  const Bytes codes = AllCodes();
  Samples ours(codes.size());
  ASSERT_EQ(law.decode(codes.data(), 256, ours.data(), 512), 512);
  EXPECT_EQ(ours, test::DecodeAudio(law.codec, 1, codes));
  EXPECT_EQ(ours, Sox<std::int16_t>(std::string("-b 8 -e ") + law.soxName, codes, kSoxPcm));
}

// libavcodec knows samples to a quarter of their steps, with a sign: a negative one is the mirror
// image of its magnitude.
TEST_P(G711, EncodesEachSampleAsLibavcodecApartFromTheListedOnes) {
  const Law& law = GetParam();
  const Samples samples = AllSamples();
  Bytes expected;
  for (const int sample : samples) {
    const int magnitude = sample < 0 ? std::min(-(sample >> 2) * 4, INT16_MAX & ~3) : sample;
    const auto asShort = static_cast<std::int16_t>(magnitude);
    std::uint8_t code = 0;
    law.encode(&asShort, 1, &code, 1);
    for (const auto& [first, last] : law.late) {
      if (magnitude >= first && magnitude <= last) {
        const std::int16_t before = static_cast<std::int16_t>(first - 1);
        law.encode(&before, 1, &code, 1);
      }
    }
    expected.push_back(static_cast<std::uint8_t>(sample < 0 ? code ^ 0x80 : code));
  }
  const auto packets = test::EncodeAudio(law.codec, 1, 0, samples);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0], expected);
  EXPECT_EQ(CountDifferences(packets[0], Encode(law, samples)), law.differencesFromLibavcodec);
}

// sox rounds to the precision of the law where we cut.
TEST_P(G711, EncodesEachSampleAsSoxDoesTheCutOne) {
  const Law& law = GetParam();
  const Samples samples = AllSamples();
  Samples rounded;
  for (const int sample : samples) {
    rounded.push_back(static_cast<std::int16_t>(std::min(sample + law.cut, INT16_MAX + 0)));
  }
  const auto theirs = Sox<std::uint8_t>(kSoxPcm, samples, std::string("-b 8 -e ") + law.soxName);
  EXPECT_EQ(theirs, Encode(law, rounded));
  EXPECT_EQ(CountDifferences(theirs, Encode(law, samples)), law.differencesFromSox);
}

INSTANTIATE_TEST_SUITE_P(Laws, G711, testing::ValuesIn(kLaws),
                         [](const auto& law) { return std::string(law.param.name); });

}  // namespace
