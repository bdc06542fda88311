// While somebody talks to a camera nothing is allocated for a packet.
#include <gtest/gtest.h>

#include "cms/runtime/internal/named_thread.h"
#include "tests/allocation/allocation_count.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/wait.h"

namespace {

class TalkAllocation : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, TalkAllocation,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved,
                                         cms::kRtspTransportHttp));

TEST_P(TalkAllocation, NothingIsAllocatedPerPacket) {
  const test::RtspCamera camera({"--talk", "/dev/null"});
  CMSRTSPClient client;
  client.AllocChannelData(1);
  cms::stRTSPClientConfig config = test::ConfigFor(camera.Url(), GetParam());
  config.talkBack = true;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  ASSERT_EQ(client.Play(), 1);
  int taken = 0;
  long allocated = -1;
  cms::NamedThread microphone;  // by whose name allocations are counted
  ASSERT_TRUE(microphone.Start("cms-audio-in", [&] {
    unsigned char block[160] = {};
    const auto talk = [&](int blocks) {
      for (int i = 0; i < blocks; ++i) {
        taken += client.SendAudioData(block, sizeof block) == sizeof block ? 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      return test::Allocations();
    };
    const long before = talk(20);
    allocated = talk(200) - before;
  }));
  microphone.Join();
  EXPECT_EQ(taken, 220);
  EXPECT_LE(allocated, 2) << "what waits for a slow camera gets its room once";
  client.CloseStream();
}

}  // namespace
