#include "cms/streaming/internal/rtsp_demultiplexer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/data_file.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What was cut out: "0".."5" and a frame, or "m" and a message.
class Recorder : public cms::RTSPDemultiplexer::Sink {
 public:
  void OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) override {
    events.push_back(std::to_string(type) + std::string(frame.begin(), frame.end()));
    lastData = frame.data();
  }
  void OnMessage(std::string_view message) override {
    events.push_back("m" + std::string(message));
    lastData = message.data();
  }
  void OnUnendedMessage(std::string_view message, bool grown) override {
    if (grown) {
      ASSERT_FALSE(events.empty());
      ASSERT_TRUE(("u" + std::string(message)).starts_with(events.back()));
      events.pop_back();
    }
    events.push_back("u" + std::string(message));
  }

  std::vector<std::string> events;
  const void* lastData = nullptr;
};

std::string InterleavedFrame(int channel, const std::string& payload) {
  return {'$', static_cast<char>(channel), static_cast<char>(payload.size() >> 8),
          static_cast<char>(payload.size())};
}
std::string Whole(int channel, const std::string& payload) {
  return InterleavedFrame(channel, payload) + payload;
}

std::string DemuxAnswer(int cseq, const std::string& body = "") {
  std::string text = "RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(cseq) + "\r\n";
  if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return text + "\r\n" + body;
}

class RTSPDemultiplexerTest : public testing::Test {
 protected:
  RTSPDemultiplexerTest() { demultiplexer_.SetChannels({0, 1, 2, 3, -1, -1}); }

  void Add(const std::string& bytes) {
    demultiplexer_.Add({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  }
  void AddByByte(const std::string& bytes) {
    for (const char c : bytes) Add(std::string(1, c));
  }

  Recorder recorder_;
  cms::RTSPDemultiplexer demultiplexer_{recorder_};
};

TEST_F(RTSPDemultiplexerTest, AFrameWaitsForTheNextHeader) {
  const std::string first = Whole(0, "video");
  Add(first + "$\x02");
  EXPECT_THAT(recorder_.events, IsEmpty());
  Add(std::string("\0\1", 2));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + first));
  Add("a" + Whole(3, ""));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + first, "2" + Whole(2, "a")));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
}

TEST_F(RTSPDemultiplexerTest, PromptAFrameBehindWhichNothingCameIsDeliveredAtOnce) {
  demultiplexer_.SetPrompt(true);
  const std::string first = Whole(0, "video");
  Add(first);
  EXPECT_EQ(recorder_.events.size(), 1u);
  AddByByte(first + DemuxAnswer(5));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + first, "0" + first, "m" + DemuxAnswer(5)));
  Add(first + "$\x02");
  EXPECT_EQ(recorder_.events.size(), 3u) << "what follows is looked at where it is there";
  Add(std::string("\0\1a", 3) + first);
  EXPECT_EQ(recorder_.events.size(), 6u);
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
  Add("lost" + first);
  EXPECT_EQ(recorder_.events.size(), 6u) << "out of step the next header has to be there";
  Add(first);
  EXPECT_EQ(recorder_.events.size(), 8u);
}

TEST_F(RTSPDemultiplexerTest, AnAnswerBehindTheLastPacketIsDeliveredAtOnce) {
  const std::string frame = Whole(1, "rtcp");
  Add(frame + DemuxAnswer(5));
  EXPECT_THAT(recorder_.events, ElementsAre("1" + frame, "m" + DemuxAnswer(5)));

  const std::string request = "SET_PARAMETER * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  AddByByte(frame + request + frame + DemuxAnswer(6));
  EXPECT_EQ(recorder_.events.size(), 6u);
  EXPECT_EQ(recorder_.events[3], "m" + request);
  EXPECT_EQ(recorder_.events[5], "m" + DemuxAnswer(6));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
}

TEST_F(RTSPDemultiplexerTest, FramesAreParsedInPlace) {
  const std::string frame = Whole(0, std::string(1400, '$'));
  std::string segment = frame.substr(700) + frame + frame + frame.substr(0, 4);
  Add(frame.substr(0, 700));
  Add(segment);
  ASSERT_EQ(recorder_.events.size(), 3u);
  EXPECT_EQ(recorder_.lastData, segment.data() + 704 + frame.size())
      << "only the frame that was cut may be put together elsewhere";
}

TEST_F(RTSPDemultiplexerTest, AFalseFrameStartInLostDataIsSkipped) {
  // The first "$" describes a frame that does not end at a header.
  const std::string lost = "xx" + InterleavedFrame(0, "12345678") + "yy";
  const std::string good = Whole(0, "good");
  Add(lost + good + good + DemuxAnswer(1));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "0" + good, "m" + DemuxAnswer(1)));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), lost.size());
}

TEST_F(RTSPDemultiplexerTest, StreamsThatNobodySetUpCostNothing) {
  const std::string good = Whole(0, "good");
  const std::string stray = Whole(8, "metadata");
  Add(good + stray + good + stray + stray + good + stray + DemuxAnswer(1) + stray + good +
      DemuxAnswer(2));
  EXPECT_THAT(recorder_.events,
              ElementsAre("0" + good, "0" + good, "0" + good, "m" + DemuxAnswer(1), "0" + good,
                          "m" + DemuxAnswer(2)));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
  EXPECT_EQ(demultiplexer_.StrayFrames(), 5u);
}

TEST_F(RTSPDemultiplexerTest, TheTalkStreamsChannelsAreItsOwn) {
  demultiplexer_.SetChannels({0, 1, 2, 3, 40, 41});
  const std::string good = Whole(0, "good");
  const std::string report = Whole(41, "report");
  Add("lost" + good + report + good + DemuxAnswer(1));
  EXPECT_THAT(recorder_.events,
              ElementsAre("0" + good, "5" + report, "0" + good, "m" + DemuxAnswer(1)));
}

TEST_F(RTSPDemultiplexerTest, AForeignChannelIsNoHeaderOutOfStepNorWithALargeNumber) {
  const std::string good = Whole(0, "good");
  const std::string stray = Whole(8, "stray");
  // In lost data a "$" with some small number behind it is no frame.
  Add("lost" + stray + good + good + DemuxAnswer(1));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "0" + good, "m" + DemuxAnswer(1)));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 4 + stray.size());
  // In step, 200 is a number that no server gives a stream.
  recorder_.events.clear();
  const std::string falseStart = Whole(200, "false");
  Add(good + falseStart + good + DemuxAnswer(2));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "m" + DemuxAnswer(2)));
}

TEST_F(RTSPDemultiplexerTest, BlankLinesBehindAPacketCostNothing) {
  const std::string good = Whole(0, "good");
  for (const std::string blank : {"\r\n", "\r\n\r\n", "\n", "\n\n\n"}) {
    recorder_.events.clear();
    AddByByte(good + blank + DemuxAnswer(1) + blank + good + blank + good + DemuxAnswer(2));
    EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "m" + DemuxAnswer(1), "0" + good,
                                              "0" + good, "m" + DemuxAnswer(2)));
  }
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
}

TEST_F(RTSPDemultiplexerTest, ADescriptionWithoutALengthLastsUntilTheNextMessage) {
  demultiplexer_.SetChannels(cms::kNoChannels);
  const std::string head = "RTSP/1.0 200 OK\r\nCSeq: 2\r\n\r\n";
  const std::string text = "v=0\r\nOPTIONAL\r\nm=video 0 RTP/AVP 96\r\n";
  for (const bool byByte : {false, true}) {
    recorder_.events.clear();
    demultiplexer_.ExpectDescription(true);
    byByte ? AddByByte(head + text) : Add(head + text);
    EXPECT_THAT(recorder_.events, ElementsAre("u" + head + text));
    demultiplexer_.ExpectDescription(false);
    byByte ? AddByByte(DemuxAnswer(3)) : Add(DemuxAnswer(3));
    EXPECT_THAT(recorder_.events, ElementsAre("u" + head + text, "m" + DemuxAnswer(3)));
  }
  // Only where one is expected, and not an endless one.
  Add(DemuxAnswer(4) + DemuxAnswer(5));
  EXPECT_EQ(recorder_.events.size(), 4u);
  demultiplexer_.ExpectDescription(true);
  Add(head);
  for (int i = 0; i < 300; ++i) Add(std::string(1023, 'x') + "\n");
  Add(DemuxAnswer(6, "body"));
  EXPECT_EQ(recorder_.events.back(), "m" + DemuxAnswer(6, "body"));
  EXPECT_LE(recorder_.events[4].size(), head.size() + 262144 + 1);
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 300 * 1024u - 262144);
}

TEST_F(RTSPDemultiplexerTest, AnAnswerAmongLostDataIsFound) {
  Add("garbage RTSP/ RTSP/1" + DemuxAnswer(7, "body") + Whole(0, "x") + DemuxAnswer(8));
  EXPECT_THAT(recorder_.events,
              ElementsAre("m" + DemuxAnswer(7, "body"), "0" + Whole(0, "x"), "m" + DemuxAnswer(8)));
}

TEST_F(RTSPDemultiplexerTest, AHeadWithoutBlankLineCostsNoPacket) {
  const std::string good = Whole(0, "good");
  Add("RTSP/1.0 200 OK\r\nCSeq: 1\r\n" + good + good + DemuxAnswer(2));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "0" + good, "m" + DemuxAnswer(2)));
}

TEST_F(RTSPDemultiplexerTest, ABodyLengthThatLiesIsResynchronised) {
  const std::string good = Whole(0, "good");
  const std::string low = "RTSP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nbo";
  Add(low + "dy" + good + DemuxAnswer(2));
  EXPECT_THAT(recorder_.events, ElementsAre("m" + low, "0" + good, "m" + DemuxAnswer(2)));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 2u);

  recorder_.events.clear();
  Add("RTSP/1.0 200 OK\r\nContent-Length: 262145\r\n\r\n" + good + DemuxAnswer(3));
  EXPECT_THAT(recorder_.events, ElementsAre("0" + good, "m" + DemuxAnswer(3)));
  EXPECT_EQ(demultiplexer_.OversizeMessages(), 1u);
}

TEST_F(RTSPDemultiplexerTest, TheLargestMessageAndFrameComeThroughByteByByte) {
  const std::string frame = Whole(2, std::string(65535, '$'));
  std::string message = "RTSP/1.0 200 OK\r\nContent-Length: 262144\r\nX: ";
  message += std::string(65536 - 4 - message.size(), 'x') + "\r\n\r\n";
  message += std::string(262144, '\n');
  AddByByte(frame + message + frame + DemuxAnswer(1));
  EXPECT_THAT(recorder_.events,
              ElementsAre("2" + frame, "m" + message, "2" + frame, "m" + DemuxAnswer(1)));
}

TEST_F(RTSPDemultiplexerTest, AnEndlessHeadIsCountedAndLeftBehind) {
  demultiplexer_.SetChannels(cms::kNoChannels);
  const std::string endless = "RTSP/1.0 200 OK\r\nX: " + std::string(200000, 'x') + "\r\n";
  for (int i = 0; i < 10; ++i) Add(endless);
  Add(DemuxAnswer(3));
  EXPECT_EQ(demultiplexer_.OversizeMessages(), 10u);
  ASSERT_FALSE(recorder_.events.empty());
  EXPECT_EQ(recorder_.events.back(), "m" + DemuxAnswer(3));
}

TEST_F(RTSPDemultiplexerTest, WithoutChannelsTheStreamIsMessagesOnly) {
  demultiplexer_.SetChannels(cms::kNoChannels);
  const std::string described = test::ReadDataFile("rtsp/describe_ok.txt");
  const std::string bare = test::ReadDataFile("rtsp/options_lower_case_bare_line_feeds.txt");
  const std::string asked = test::ReadDataFile("rtsp/server_options_request.txt");
  const std::string stream = "\r\n\n" + bare + described + "\r\n" + asked + described;
  Add(stream);
  EXPECT_THAT(recorder_.events,
              ElementsAre("m" + bare, "m" + described, "m" + asked, "m" + described));
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
  recorder_.events.clear();
  AddByByte("$ noise" + stream);
  EXPECT_EQ(recorder_.events.size(), 4u);
}

TEST_F(RTSPDemultiplexerTest, ResetForgetsTheTailAndTheChannels) {
  Add(InterleavedFrame(0, "half of a frame") + "half");
  demultiplexer_.Reset();
  Add(DemuxAnswer(1) + Whole(0, "x") + DemuxAnswer(2));
  EXPECT_THAT(recorder_.events, ElementsAre("m" + DemuxAnswer(1), "m" + DemuxAnswer(2)));
}

TEST_F(RTSPDemultiplexerTest, ChannelsAndCountersAreForAnyThread) {
  std::thread owner([this] {
    for (int i = 0; i < 1000; ++i) {
      demultiplexer_.SetChannels({0, 1, i % 2 ? 2 : -1, 3, -1, -1});
      EXPECT_EQ(demultiplexer_.OversizeMessages(), 0u);
    }
  });
  const std::string frame = Whole(0, "x");
  for (int i = 0; i < 1000; ++i) Add(frame);
  owner.join();
  EXPECT_EQ(recorder_.events.size(), 999u);
  EXPECT_EQ(demultiplexer_.SkippedBytes(), 0u);
}

// A camera may send before the answer to SETUP was worked off: what the owner made ready for the
// packets is seen by them without any lock (ThreadSanitizer watches it).
TEST(RTSPDemultiplexer, WhatWasDoneBeforeSetChannelsIsSeenByTheirFrames) {
  class Prepared : public Recorder {
   public:
    void OnInterleavedPacket(int, std::span<const std::uint8_t>) override { seen = ready; }
    int ready = 0;
    int seen = 0;
  } prepared;
  cms::RTSPDemultiplexer demultiplexer(prepared);
  demultiplexer.SetPrompt(true);
  std::thread owner([&] {
    prepared.ready = 1;
    demultiplexer.SetChannels({0, 1, 2, 3, -1, -1});
  });
  const std::string frame = Whole(0, "x");
  while (prepared.seen == 0) {
    demultiplexer.Add({reinterpret_cast<const std::uint8_t*>(frame.data()), frame.size()});
  }
  owner.join();
}

// Streams of frames and messages whose payloads look like the framing.
class Streams {
 public:
  explicit Streams(unsigned seed) : random_(seed) {}

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string Payload(std::size_t max) {
    static const std::string kPieces[] = {"$",
                                          std::string("$\0\0\4", 4),
                                          std::string("$\1\0\0", 4),
                                          "RTSP/1.0 200 OK\r\n\r\n",
                                          "RTSP/",
                                          "OPTIONS * RTSP/1.0\r\n",
                                          "\r\n\r\n",
                                          "Content-Length: 99\r\n",
                                          "x"};
    std::string payload;
    const std::size_t size = Below(4) == 0 ? Below(max) : Below(100);
    while (payload.size() < size) payload += kPieces[Below(std::size(kPieces))];
    return payload;
  }

  void AddElement(std::string& stream, std::vector<std::string>& events) {
    if (Below(5) != 0) {
      const int type = static_cast<int>(Below(4));
      const std::string frame = Whole(type * 2 + 30, Payload(60000));
      stream += frame;
      events.push_back(std::to_string(type) + frame);
      return;
    }
    std::string body = Payload(3000);
    std::string message = Below(3) == 0 ? "GET_PARAMETER * RTSP/1.0\r\n" : "RTSP/1.0 200 OK\r\n";
    if (!body.empty()) message += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    message += "CSeq: 1\r\n\r\n" + body;
    stream += message;
    events.push_back("m" + message);
  }

  std::size_t SegmentSize() {
    switch (Below(4)) {
      case 0:
        return 1 + Below(3);
      case 1:
        return 1 + Below(100);
      case 2:
        return 1 + Below(1500);
      default:
        return 1 + Below(20000);
    }
  }

 private:
  std::mt19937 random_;
};

struct Outcome {
  std::vector<std::string> events;
  std::uint64_t skipped = 0;
  std::uint64_t oversize = 0;
  bool operator==(const Outcome&) const = default;
};

// Adds the stream in segments of the sizes that `next` gives.
template <typename Next>
Outcome Demultiplex(const std::string& stream, Next next) {
  Recorder recorder;
  cms::RTSPDemultiplexer demultiplexer(recorder);
  demultiplexer.SetChannels({30, 32, 34, 36, -1, -1});
  for (std::size_t at = 0; at < stream.size();) {
    // A segment of its own, so that reading past its end is noticed.
    const std::string segment = stream.substr(at, next());
    demultiplexer.Add({reinterpret_cast<const std::uint8_t*>(segment.data()), segment.size()});
    at += segment.size();
  }
  return {recorder.events, demultiplexer.SkippedBytes(), demultiplexer.OversizeMessages()};
}

TEST(RTSPDemultiplexerStreams, ComeOutIdenticalHoweverTheyAreCut) {
  for (unsigned seed = 0; seed < 150; ++seed) {
    SCOPED_TRACE(seed);
    Streams streams(seed);
    std::string stream;
    Outcome expected;
    for (int i = 0; i < 40; ++i) streams.AddElement(stream, expected.events);
    stream += DemuxAnswer(99);
    expected.events.push_back("m" + DemuxAnswer(99));
    ASSERT_TRUE(Demultiplex(stream, [&] { return streams.SegmentSize(); }) == expected);
  }
}

TEST(RTSPDemultiplexerStreams, LossesDoNotDependOnTheCutsAndEnd) {
  std::uint64_t skipped = 0;
  std::uint64_t oversize = 0;
  for (unsigned seed = 0; seed < 150; ++seed) {
    SCOPED_TRACE(seed);
    Streams streams(seed);
    std::string stream;
    std::vector<std::string> events;
    for (int i = 0; i < 30; ++i) {
      const std::size_t start = stream.size();
      streams.AddElement(stream, events);
      if (streams.Below(6) == 0) stream.erase(start + streams.Below(stream.size() - start), 7);
      if (streams.Below(20) == 0) stream += "RTSP/1.0 200 OK\r\n" + std::string(70000, 'x');
    }
    // Longer than any frame or head that the losses may have left open: what follows is in step
    // again.
    const std::string good = Whole(30, std::string(1000, '-'));
    for (int i = 0; i < 400; ++i) stream += good;
    stream += DemuxAnswer(99);

    const Outcome whole = Demultiplex(stream, [&] { return stream.size(); });
    ASSERT_TRUE(Demultiplex(stream, [&] { return streams.SegmentSize(); }) == whole);
    ASSERT_EQ(whole.events.back(), "m" + DemuxAnswer(99));
    ASSERT_EQ(whole.events[whole.events.size() - 2], "0" + good);
    skipped += whole.skipped;
    oversize += whole.oversize;
  }
  EXPECT_GT(skipped, 100000u);
  EXPECT_GT(oversize, 10u);
}

}  // namespace
