// Once a microphone runs nothing is allocated for a block.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "cms/exports/audio_player_exports.h"
#include "tests/allocation/allocation_count.h"
#include "tests/support/faulty_file_io.h"

namespace {

TEST(MicrophoneAllocation, NothingIsAllocatedPerBlock) {
  const test::TemporaryFolder folder;
  std::ofstream(folder.File("asound.conf")) << "pcm.silence { type null }\n";
  ASSERT_EQ(setenv("ALSA_CONFIG_PATH", folder.File("asound.conf").c_str(), 1), 0);
  const tCMSAudioPlayerConfig config;
  const cms::CMSAudioPlayerHandle microphone =
      CreateCMSAudioPlayer(&config, cms::kCMSAudioInput, "silence");
  ASSERT_EQ(StartAudioPlayer(microphone), 1);
  unsigned char block[160];
  const auto fetch = [&](int blocks) {
    for (int i = 0; i < blocks; ++i) {
      EXPECT_EQ(GetEncodeAudioData(microphone, block, sizeof block, 30'000), 160);
    }
    return test::Allocations();
  };
  const long before = fetch(10);
  EXPECT_EQ(fetch(500), before);
  DestroyAudioPlayer(microphone);
}

}  // namespace
