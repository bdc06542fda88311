#include "cms/streaming/rtcp_instance.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtcp_report.h"
#include "tests/support/wait.h"

namespace {

class TestClock : public cms::Clock {
 public:
  TestClock() { cms::ReplaceClock(this); }
  ~TestClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 0; }

  std::uint64_t now = 100'000;
};

class Statistics : public cms::RTCPStatistics {
 public:
  std::uint16_t LastSequence() const override { return 0xabcd; }
  std::uint8_t FractionLost() const override { return fraction; }
  std::uint32_t CumulativeLost() const override { return 0x01020304; }
  void ResetFraction() override { fraction = 0; }

  std::uint8_t fraction = 77;
};

TEST(ReceiverReport, IsExactToTheByte) {
  cms::ReceiverReportValues values;
  values.receiverSsrc = 0x11223344;
  values.senderSsrc = {0xde, 0xad, 0xbe, 0xef};
  values.fractionLost = 0x5a;
  values.cumulativeLost = 0x01020304;
  values.lastSequence = 0xabcd;
  const std::array<std::uint8_t, 56> expected = {
      0x81, 201, 0,   7,   0x11, 0x22, 0x33, 0x44, 0xde, 0xad, 0xbe, 0xef, 0x5a, 1,
      2,    3,   0,   0,   0xab, 0xcd, 0,    0,    0,    0,    0,    0,    0,    0,
      0,    0,   0,   0,   0x81, 202,  0,    5,    0xde, 0xad, 0xbe, 0xef, 1,    10,
      'O',  'r', 'v', 'a', 'n',  't',  'a',  'C',  'M',  'S',  0,    0,    0,    0};
  EXPECT_EQ(cms::BuildReceiverReport(values), expected);

  values.todaysCameras = true;  // the loss is signed, and the name that of the receiver
  auto todays = expected;
  const std::uint8_t mostLost[] = {0x7f, 0xff, 0xff};
  std::copy(std::begin(mostLost), std::end(mostLost), todays.begin() + 13);
  std::copy_n(expected.begin() + 4, 4, todays.begin() + 36);
  EXPECT_EQ(cms::BuildReceiverReport(values), todays);
}

TEST(ReceiverReport, CumulativeLossDropsItsLowestByte) {
  const auto lost = [](std::uint32_t count) {
    cms::ReceiverReportValues values;
    values.cumulativeLost = count;
    const auto report = cms::BuildReceiverReport(values);
    return report[13] << 16 | report[14] << 8 | report[15];
  };
  EXPECT_EQ(lost(255), 0);
  EXPECT_EQ(lost(256), 1);
  EXPECT_EQ(lost(0xffffffff), 0xffffff);
}

// An RTCP packet of a sender behind its interleaved prefix.
std::string SenderPacket(char ssrcByte = 'S') {
  std::string packet("$\1\0\10\x80\xc9\0\1", 8);
  return packet + std::string(4, ssrcByte);
}

class RTCPInstanceTest : public testing::Test {
 protected:
  RTCPInstanceTest() {
    config_.transportMode = cms::kRTCPInterleaved;
    config_.statistics = &statistics_;
    config_.sendContext = &sent_;
    config_.send = [](void* context, const unsigned char* packet, int length) {
      static_cast<std::vector<std::string>*>(context)->emplace_back(packet, packet + length);
      return length;
    };
  }

  int AddPacket(const std::string& packet) {
    return instance_.RTPOverRTSPAddPacket(packet.data(), static_cast<int>(packet.size()));
  }
  // The queue's first read may return nothing.
  void Process() {
    EXPECT_EQ(instance_.RTCPProcessNB(), 0);
    EXPECT_EQ(instance_.RTCPProcessNB(), 0);
  }

  TestClock clock_;
  Statistics statistics_;
  std::vector<std::string> sent_;
  _RTCP_CONFIG config_;
  RTCPInstance instance_;
};

TEST_F(RTCPInstanceTest, ReportsFromTheFirstPacketOnAndNoMoreThanEvery2001Milliseconds) {
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  ASSERT_EQ(instance_.Play(), 1);
  clock_.now += 10'000;
  Process();
  EXPECT_TRUE(sent_.empty()) << "no report before the sender's first packet";

  EXPECT_EQ(AddPacket(SenderPacket()), 1);
  Process();
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_EQ(sent_[0].size(), 56u);
  EXPECT_EQ(sent_[0].substr(8, 4), "SSSS");
  EXPECT_EQ(sent_[0].substr(36, 4), "SSSS");
  EXPECT_EQ(sent_[0][12], 77);
  EXPECT_EQ(static_cast<std::uint8_t>(sent_[0][7]), getpid() & 0xff);

  clock_.now += 2000;
  Process();
  EXPECT_EQ(sent_.size(), 1u);
  clock_.now += 1;
  Process();
  ASSERT_EQ(sent_.size(), 2u);
  EXPECT_EQ(sent_[1][12], 0) << "the fraction starts anew after each report";

  EXPECT_EQ(AddPacket(SenderPacket('T')), 1);
  clock_.now += 2001;
  Process();
  ASSERT_EQ(sent_.size(), 3u);
  EXPECT_EQ(sent_[2].substr(8, 4), "SSSS") << "the first sender is the one reported on";
}

TEST_F(RTCPInstanceTest, PlayAndStopPlayGateIt) {
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  EXPECT_EQ(AddPacket(SenderPacket()), 0);
  Process();
  ASSERT_EQ(instance_.Play(), 1);
  EXPECT_EQ(AddPacket(SenderPacket()), 1);
  Process();
  EXPECT_EQ(sent_.size(), 1u);
  instance_.StopPlay();
  clock_.now += 5000;
  Process();
  EXPECT_EQ(sent_.size(), 1u);
  instance_.Play();
  Process();
  EXPECT_EQ(sent_.size(), 1u) << "the sender is learned anew";
  AddPacket(SenderPacket('T'));
  Process();
  ASSERT_EQ(sent_.size(), 2u);
  EXPECT_EQ(sent_[1].substr(8, 4), "TTTT");
}

TEST_F(RTCPInstanceTest, PacketsThatDoNotFitOrSayNothingAreDropped) {
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  instance_.Play();
  EXPECT_EQ(AddPacket(std::string(2049, 'x')), 0);
  EXPECT_EQ(AddPacket(""), 0);
  EXPECT_EQ(AddPacket(SenderPacket().substr(0, 11)), 1);
  Process();
  EXPECT_TRUE(sent_.empty()) << "eleven bytes hold no SSRC";
  EXPECT_EQ(AddPacket(std::string(2048, 'y')), 1);
  Process();
  EXPECT_EQ(sent_.size(), 1u);
  int taken = 0;
  while (taken < 1000 && AddPacket(SenderPacket()) == 1) ++taken;
  EXPECT_GT(taken, 0);
  EXPECT_LT(taken, RTCPInstance::kQueueSlots);
}

TEST_F(RTCPInstanceTest, AReadFunctionOfTheOwnersCanEndIt) {
  config_.transportMode = cms::kRTCPOverUDP;
  EXPECT_EQ(instance_.SetConfig(config_), 0) << "nothing to read from";
  EXPECT_EQ(instance_.Play(), 0);
  int result = 12;
  config_.readContext = &result;
  config_.read = [](void* context, unsigned char* buffer, int size) {
    EXPECT_EQ(size, RTCPInstance::kReadBufferSize);
    SenderPacket('U').copy(reinterpret_cast<char*>(buffer), 12);
    return *static_cast<int*>(context);
  };
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  instance_.Play();
  EXPECT_EQ(instance_.RTCPProcessNB(), 0);
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_EQ(sent_[0].substr(8, 4), "UUUU");
  result = -1;
  EXPECT_LT(instance_.RTCPProcessNB(), 0);
}

TEST_F(RTCPInstanceTest, TheLoopRunsUntilStopPlay) {
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  instance_.Play();
  AddPacket(SenderPacket());
  std::atomic<bool> ended{false};
  std::thread loop([&] {
    instance_.RTCPProcessFn();
    ended = true;
  });
  instance_.StopPlay();
  EXPECT_TRUE(test::WaitFor([&] { return ended.load(); }));
  loop.join();
}

TEST_F(RTCPInstanceTest, PacketsStepsAndTheOwnerMeetFromThreeThreads) {
  ASSERT_EQ(instance_.SetConfig(config_), 1);
  instance_.Play();
  std::atomic<bool> done{false};
  std::thread receiver([&] {
    while (!done) AddPacket(SenderPacket());
  });
  std::thread sender([&] {
    while (!done) EXPECT_EQ(instance_.RTCPProcessNB(), 0);
  });
  for (int i = 0; i < 200; ++i) {
    instance_.StopPlay();
    instance_.Play();
    std::this_thread::yield();
  }
  done = true;
  receiver.join();
  sender.join();
  AddPacket(SenderPacket());
  Process();
  EXPECT_EQ(sent_.size(), 1u) << "the clock stood still";
}

}  // namespace
