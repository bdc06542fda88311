#include "cms/streaming/rtp_processer.h"

#include <gtest/gtest.h>

#include <numeric>
#include <thread>

#include "cms/runtime/clock.h"
#include "cms/streaming/mp4ves_rtp_processer.h"
#include "cms/streaming/simple_rtp_processer.h"
#include "tests/streaming/frame_collector.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using test::FrameCollector;
using test::RtpPacket;
using test::RtpPacketizer;
using Data = std::vector<std::uint8_t>;

Data Filled(std::size_t size, std::uint8_t first) {
  Data data(size);
  std::iota(data.begin(), data.end(), first);
  return data;
}

class ManualClock final : public cms::Clock {
 public:
  ManualClock() { cms::ReplaceClock(this); }
  ~ManualClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return tick; }
  std::int64_t WallSeconds() const override { return wall; }
  std::uint64_t tick = 5;
  std::int64_t wall = 1000;
};

// Reaches what codec classes use of the base.
class Assembly : public SimpleRTPProcesser {
 public:
  using RTPProcesserBase::AppendDataToFrameBuff;
  using RTPProcesserBase::FrameData;
  using RTPProcesserBase::FrameLength;
  using RTPProcesserBase::GetRTPHeaderSize;
  using RTPProcesserBase::InsertDataToFrameBuff;
  Data Frame() const { return {FrameData(), FrameData() + FrameLength()}; }
};

}  // namespace

TEST(RTPProcesserBase, StartsAfterAFrameEndAndJoinsPayloadsInPlace) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  const Data a = Filled(30, 1);
  const Data b = Filled(40, 100);
  EXPECT_EQ(collector.Feed(rtp.Packet(a, true)), 0) << "only the end of a frame is known";
  EXPECT_EQ(collector.Feed(rtp.Packet(a, false)), 0);
  EXPECT_EQ(collector.Feed(rtp.Packet(b, true)), 1);
  Data joined = a;
  joined.insert(joined.end(), b.begin(), b.end());
  EXPECT_EQ(collector.frames, std::vector<Data>{joined});
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(collector.places[0]) % 64, 0u);
  EXPECT_EQ(collector.types[0], 5) << "audio leaves the type alone";
  EXPECT_FALSE(processer.IsVideo());
  EXPECT_EQ(processer.GetTotalLostCount(), 0u);
}

TEST(RTPProcesserBase, ShortFramesAreDroppedWithoutHarmToTheNext) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  collector.Feed(rtp.Packet(Filled(1, 0), true));
  EXPECT_EQ(collector.Feed(rtp.Packet(Filled(20, 0), true)), 0);
  EXPECT_EQ(collector.Feed(rtp.Packet(Filled(21, 0), true)), 1);
  EXPECT_EQ(processer.GetDroppedFrameCount(), 2u) << "the first, whose start was missed, too";
  processer.SetFrameCallback(nullptr, nullptr);
  EXPECT_EQ(collector.Feed(rtp.Packet(Filled(30, 0), true)), 0);
}

TEST(RTPProcesserBase, GapsCountAndDiscardUpToTheNextFrameEnd) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  const Data data = Filled(30, 0);
  for (int i = 0; i < 9; ++i) {
    collector.Feed(rtp.Packet(data, true));
  }
  collector.Feed(rtp.Packet(data, false));  // 10
  rtp.Skip(2);
  EXPECT_EQ(collector.Feed(rtp.Packet(data, true)), 0);  // 13
  EXPECT_EQ(processer.GetTotalLostCount(), 2u);
  EXPECT_EQ(processer.GetLostCount(), 2u);
  EXPECT_EQ(processer.GetLostFraction(), 2 * 256 / 13);
  EXPECT_EQ(processer.GetLastSeqNum(), 13);
  EXPECT_EQ(collector.Feed(rtp.Packet(data, true)), 1) << "the frame end of 13 was seen";
  EXPECT_EQ(collector.frames.back(), data) << "nothing of the broken frame is left";
  processer.ResetLostCount();
  EXPECT_EQ(processer.GetLostCount(), 0u);
  EXPECT_EQ(processer.GetLostFraction(), 0);
  EXPECT_EQ(processer.GetTotalLostCount(), 2u);
  EXPECT_EQ(processer.GetMissingPacketCount(), 2u);
}

TEST(RTPProcesserBase, LossCountersAcrossTheWrapAndForLatePackets) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  const Data data = Filled(30, 0);
  const auto feed = [&](int sequence) {
    return collector.Feed(RtpPacketizer(static_cast<std::uint16_t>(sequence)).Packet(data, true));
  };
  feed(65534);
  EXPECT_EQ(processer.GetTotalLostCount(), 65533u) << "the random first number counts as a gap";
  EXPECT_EQ(processer.GetMissingPacketCount(), 0u);
  feed(65535);
  EXPECT_EQ(feed(0), 1) << "the wrap is no gap";
  feed(65535);  // late: from 0 to 65535
  EXPECT_EQ(processer.GetTotalLostCount(), 65533u + 65534u);
  feed(2);  // 0 and 1 are missing; the wrapped formula knows of one
  EXPECT_EQ(processer.GetTotalLostCount(), 65533u + 65534u + 1u);
  EXPECT_EQ(processer.GetMissingPacketCount(), 1u) << "1 alone never came";
  feed(2);  // repeated
  EXPECT_EQ(processer.GetTotalLostCount(), 65533u + 65534u + 1u + 65534u);
  EXPECT_EQ(processer.GetMissingPacketCount(), 1u);
  feed(40000);  // the sender starts its numbers anew
  feed(40002);
  EXPECT_EQ(processer.GetMissingPacketCount(), 2u);
}

TEST(RTPProcesserBase, HeadersThatLieFailAndHonestOnesAreSkipped) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  const Data data = Filled(40, 7);
  collector.Feed(rtp.Packet(data, true));

  // Two contributing sources, an extension of one word, three bytes of padding.
  RtpPacket rich = rtp.Packet({}, true);
  rich[0] |= 2 | 0x10 | 0x20;
  rich.insert(rich.end(), {1, 2, 3, 4, 5, 6, 7, 8, 0xBE, 0xDE, 0, 1, 9, 9, 9, 9});
  rich.insert(rich.end(), data.begin(), data.end());
  rich.insert(rich.end(), {0, 0, 3});
  EXPECT_EQ(collector.Feed(rich), 1);
  ASSERT_EQ(collector.frames.size(), 1u);
  EXPECT_EQ(collector.frames[0], data);

  // Padding only: has its sequence number, adds nothing.
  RtpPacket padding = rtp.Packet(Data{0, 0, 0, 4}, false);
  padding[0] |= 0x20;
  EXPECT_EQ(collector.Feed(padding), 0);
  EXPECT_EQ(collector.Feed(rtp.Packet(data, false)), 0);
  RtpPacket lies = rtp.Packet(Data{0, 0, 0, 5}, true);  // more padding than payload
  lies[0] |= 0x20;
  EXPECT_EQ(collector.Feed(lies), 0);
  EXPECT_EQ(collector.Feed(rtp.Packet(data, true)), 1) << "no gap where the padding was";
  EXPECT_EQ(collector.frames.back().size(), 2 * data.size()) << "and no frame end";

  // Cut at every length, and with every length field too long: never more than its own bytes.
  for (std::size_t length = 0; length < rich.size(); ++length) {
    collector.Feed(RtpPacket(rich.begin(), rich.begin() + static_cast<std::ptrdiff_t>(length)));
  }
  for (const unsigned first : {0x8Fu, 0x9Fu, 0x90u, 0xB0u, 0xA0u}) {
    RtpPacket lying = rtp.Packet(Data{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, true);
    lying[0] = static_cast<std::uint8_t>(first);
    EXPECT_EQ(collector.Feed(lying), 0);
  }
  EXPECT_EQ(processer.ProcessData(nullptr, 100), 0);
  EXPECT_EQ(processer.ProcessData(rich.data(), -1), 0);
}

TEST(RTPProcesserBase, CapacityIsExactAndOversizeFramesAreCountedOnce) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  const Data half = Filled(RTPProcesserBase::kFrameCapacity / 8, 3);
  const auto feedFrame = [&](std::size_t extra) {
    for (int i = 0; i < 7; ++i) {
      collector.Feed(rtp.Packet(half, false));
    }
    Data last = half;
    last.resize(half.size() + extra, 1);
    if (extra > 0) {
      collector.Feed(rtp.Packet(last, false));
      return collector.Feed(rtp.Packet(half, true));
    }
    return collector.Feed(rtp.Packet(last, true));
  };
  collector.Feed(rtp.Packet(half, true));
  EXPECT_EQ(feedFrame(0), 1);
  ASSERT_EQ(collector.frames[0].size(), 512000u) << "the zeros behind it fit too";
  EXPECT_EQ(feedFrame(1), 0);
  EXPECT_EQ(processer.GetOversizeFrameCount(), 1u);
  EXPECT_EQ(feedFrame(0), 1) << "the oversize frame's own end was the boundary";
}

TEST(RTPProcesserBase, InsertAtTheFrontMovesNothingWhileThereIsRoom) {
  Assembly assembly;
  const Data body = Filled(100, 0);
  const Data header(611, 0xAB);
  EXPECT_EQ(assembly.InsertDataToFrameBuff(body.data(), 1, 1), 0) << "beyond the data";
  EXPECT_EQ(assembly.AppendDataToFrameBuff(body.data(), 100), 1);
  const auto* place = assembly.FrameData();
  EXPECT_EQ(assembly.InsertDataToFrameBuff(header.data(), 0, 611), 1);
  EXPECT_EQ(assembly.FrameData(), place - 611);
  Data expected = header;
  expected.insert(expected.end(), body.begin(), body.end());
  EXPECT_EQ(assembly.Frame(), expected);

  // What is left is the front room that the callback was promised.
  EXPECT_EQ(assembly.InsertDataToFrameBuff(body.data(), 0, 100), 1);
  EXPECT_EQ(assembly.FrameData(), place - 611);
  expected.insert(expected.begin(), body.begin(), body.end());
  EXPECT_EQ(assembly.Frame(), expected);

  // The room is used up: the same call still does its job.
  EXPECT_EQ(assembly.InsertDataToFrameBuff(header.data(), 0, 611), 1);
  expected.insert(expected.begin(), header.begin(), header.end());
  EXPECT_EQ(assembly.InsertDataToFrameBuff(body.data(), 700, 5), 1);
  expected.insert(expected.begin() + 700, body.begin(), body.begin() + 5);
  EXPECT_EQ(assembly.InsertDataToFrameBuff(body.data(), assembly.FrameLength(), 3), 1);
  expected.insert(expected.end(), body.begin(), body.begin() + 3);
  EXPECT_EQ(assembly.Frame(), expected);

  const Data rest(static_cast<std::size_t>(512000 - assembly.FrameLength()), 1);
  EXPECT_EQ(assembly.AppendDataToFrameBuff(rest.data(), static_cast<int>(rest.size())), 1);
  EXPECT_EQ(assembly.InsertDataToFrameBuff(body.data(), 0, 1), 0) << "full";
  EXPECT_EQ(assembly.GetOversizeFrameCount(), 1u);
  assembly.ResetFrameBuffer();
  EXPECT_EQ(assembly.FrameData(), place);
}

TEST(RTPProcesserBase, StatisticsOfAWholeSecond) {
  ManualClock clock;
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  const Data data = Filled(88, 0);  // packets of 100 bytes
  const auto feed = [&](int sequence) {
    collector.Feed(RtpPacketizer(static_cast<std::uint16_t>(sequence)).Packet(data, true));
  };
  feed(1);
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 0u) << "off by default";
  processer.SetIsBPSCounting(true);
  for (int i = 0; i < 50; ++i) {
    feed(65500 + 2 * i);  // across the wrap
    clock.tick += 20;
  }
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 0u) << "the second is not over for any packet";
  feed(65600);
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 5000u);
  EXPECT_DOUBLE_EQ(processer.GetStreamLossRate(), 50.0);
  clock.tick += 5000;
  feed(65601);
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 100u);
  EXPECT_DOUBLE_EQ(processer.GetStreamLossRate(), 100.0) << "one packet tells nothing";
  processer.SetIsBPSCounting(false);
  clock.tick += 1000;
  feed(65602);
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 100u);
  processer.SetIsBPSCounting(true);
  EXPECT_EQ(processer.GetStreamBytesPerSecond(), 0u);
  EXPECT_DOUBLE_EQ(processer.GetStreamLossRate(), 0.0);
}

TEST(RTPProcesserBase, CountersAreReadWhileThePacketsCome) {
  SimpleRTPProcesser processer;
  FrameCollector collector(processer);
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    unsigned sum = 0;
    while (!stop) {
      sum += processer.GetLastSeqNum() + processer.GetTotalLostCount() +
             processer.GetLostFraction() + processer.GetStreamBytesPerSecond() +
             processer.GetOversizeFrameCount() + processer.GetMissingPacketCount() +
             static_cast<unsigned>(processer.GetStreamLossRate());
      processer.ResetLostCount();
      processer.SetIsBPSCounting(sum % 2 == 0);
    }
  });
  RtpPacketizer rtp;
  for (int i = 0; i < 5000; ++i) {
    rtp.Skip(i % 10 == 0 ? 1 : 0);
    collector.Feed(rtp.Packet(Filled(30, 0), true));
  }
  stop = true;
  reader.join();
  EXPECT_EQ(processer.GetMissingPacketCount(), 499u);
}

TEST(MP4VESRTPProcesser, RealFramesComeBackFromTheSecondKeyFrameOn) {
  const auto clip =
      test::EncodeClip({.codec = test::ClipCodec::kMpeg4, .frames = 30, .gop = 10, .noise = true});
  MP4VESRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp(65520);
  for (const auto& frame : clip) {
    collector.Feed(rtp.Mpeg4(frame.data));
  }
  ASSERT_EQ(collector.frames.size(), 20u);
  for (std::size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(collector.frames[i], clip[i + 10].data) << i;
    EXPECT_EQ(collector.types[i], clip[i + 10].key ? 1 : 2) << i;
  }
}

TEST(MP4VESRTPProcesser, TypeIsToldFromTheFrameAloneAndNotFromWhatLiesBehind) {
  MP4VESRTPProcesser processer;
  FrameCollector collector(processer);
  RtpPacketizer rtp;
  Data key(300, 0x55);
  const Data vop = {0, 0, 1, 0xB6, 0x10};
  std::copy(vop.begin(), vop.end(), key.begin() + 100);
  collector.Feed(rtp.Mpeg4(key));
  collector.Feed(rtp.Mpeg4(key));
  collector.Feed(rtp.Mpeg4(Data(30, 0x55)));  // the key frame's VOP still lies in the buffer
  EXPECT_EQ(collector.types, (std::vector<int>{1, 2}));
  collector.Feed(rtp.Packet(Data{0, 0, 1}, true));  // too short to hold a VOP: asked all the same
  rtp.Skip(1);
  collector.Feed(rtp.Mpeg4(key));
  collector.Feed(rtp.Packet(Data{0, 0, 1}, true));
  EXPECT_EQ(collector.Feed(rtp.Mpeg4(key)), 1);
}
