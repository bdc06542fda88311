#include "cms/streaming/internal/h265_parameter_sets.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cms/streaming/internal/nal_unit.h"
#include "tests/support/rtp_packetizer.h"
#include "tests/support/shell.h"

namespace {

using cms::PictureSize;

std::vector<std::uint8_t> SpsOf(const std::string& size, const std::string& options) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("orvanta-sps-" + std::to_string(::getpid()) + ".h265");
  test::RunShell("ffmpeg -v error -y -f lavfi -i testsrc=size=" + size +
                 ":rate=25 -frames:v 1 -c:v libx265 -preset ultrafast " + options + " -f hevc " +
                 path.string());
  std::ifstream file(path, std::ios::binary);
  const std::vector<std::uint8_t> stream((std::istreambuf_iterator<char>(file)), {});
  std::filesystem::remove(path);
  for (const test::Bytes unit : test::SplitAnnexB(stream)) {
    if (cms::NalType(cms::NalCodec::kH265, unit[0]) == cms::kH265Sps) {
      return {unit.begin() + 2, unit.end()};
    }
  }
  return {};
}

TEST(H265ParameterSets, SayWhatTheEncoderWasTold) {
  constexpr std::uint32_t kMain = 1;
  constexpr std::uint32_t kMain10 = 2;
  constexpr std::uint32_t kRangeExtensions = 4;
  const std::string timing = "hrd=1:bitrate=1000:vbv-maxrate=1000:vbv-bufsize=1000";
  struct Case {
    const char* size;
    std::string options;
    PictureSize expected;
    std::uint32_t profile;
    std::uint32_t chromaFormat;
    std::uint32_t bits;
  };
  for (const Case& c :
       {Case{"640x360", "-pix_fmt yuv420p", {640, 360}, kMain, 1, 8},
        Case{"1920x1080", "-pix_fmt yuv420p", {1920, 1080}, kMain, 1, 8},
        Case{"322x242", "-pix_fmt yuv420p -x265-params " + timing, {322, 242}, kMain, 1, 8},
        Case{"640x360", "-pix_fmt yuv420p10le", {640, 360}, kMain10, 1, 10},
        Case{"322x241", "-pix_fmt yuv422p", {322, 241}, kRangeExtensions, 2, 8},
        Case{"321x241", "-pix_fmt yuv444p", {321, 241}, kRangeExtensions, 3, 8},
        Case{"321x241", "-pix_fmt gray", {321, 241}, kRangeExtensions, 0, 8},
        Case{"640x360",
             "-pix_fmt yuv420p -x265-params scaling-list=default:temporal-layers=1:sar=4:"
             "colorprim=bt709:chromaloc=1:display-window=0,0,8,8:overscan=show",
             {640, 360},
             kMain,
             1,
             8}}) {
    SCOPED_TRACE(std::string(c.size) + " " + c.options);
    const auto sps = SpsOf(c.size, c.options);
    const auto set = cms::ReadH265Sps(sps);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->size, c.expected);
    EXPECT_EQ(set->profile, c.profile);
    EXPECT_EQ(set->chromaFormat, c.chromaFormat);
    EXPECT_EQ(set->lumaBits, c.bits);
    EXPECT_EQ(set->timeScale, 25 * set->unitsInTick);
    EXPECT_GT(set->timeScale, 0u);
  }
}

TEST(H265ParameterSets, ASetThatIsCutShortSaysNothing) {
  const auto sps = SpsOf("640x360", "-pix_fmt yuv420p");
  for (std::size_t size = 0; size + 4 < sps.size(); ++size) {
    const std::vector<std::uint8_t> cut(sps.begin(),
                                        sps.begin() + static_cast<std::ptrdiff_t>(size));
    const auto set = cms::ReadH265Sps(cut);
    EXPECT_FALSE(set && set->size != (PictureSize{640, 360})) << size;
  }
  EXPECT_FALSE(cms::ReadH265Sps(test::Bytes(sps).first(16)));
}

}  // namespace
