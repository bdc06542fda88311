#include "cms/streaming/internal/frame_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Stream = cms::FrameClock::Stream;

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::int64_t kNow = 1'790'000'000;  // s
constexpr std::int64_t kTickAhead = 7'000 * kSecond;
constexpr std::uint64_t kClockNtp1970 = 2'208'988'800;

std::uint64_t NtpOf(std::int64_t us) {
  const auto at = static_cast<std::uint64_t>(us);
  return (at / kSecond + kClockNtp1970) << 32 | ((at % kSecond) << 32) / kSecond;
}

// `us`: of our clock, from kNow on.
cms::FrameMoment Frame(cms::FrameClock& clock, Stream stream, std::uint32_t timestamp,
                       std::int64_t us, std::int64_t lengthUs = 0) {
  return clock.MomentOf(stream, {timestamp, static_cast<std::uint64_t>(us + kTickAhead),
                                 kNow * kSecond + us, lengthUs});
}

bool IsNear(std::int64_t one, std::int64_t other) {
  return std::abs(one - other) <= 2;
}

TEST(SenderReport, IsFoundInACompoundPacketAndReadToTheBit) {
  const std::vector<std::uint8_t> bye = {0x80, 203, 0, 0};
  std::vector<std::uint8_t> packet = {0x80, 200,  0,    6,    0x11, 0x22, 0x33, 0x44, 0x83, 0xAA,
                                      0x7E, 0x82, 0x80, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xF0,
                                      0,    0,    0,    1,    0,    0,    0,    2};
  const auto report = cms::ReadSenderReport(packet);
  ASSERT_TRUE(report);
  EXPECT_EQ(report->source, 0x11223344u);
  EXPECT_EQ(report->timestamp, 0xFFFFFFF0u);
  EXPECT_EQ(cms::MicrosecondsOfNtp(report->ntp, kNow), 2'500'000);  // a camera that was not set
  packet.insert(packet.begin(), bye.begin(), bye.end());
  EXPECT_TRUE(cms::ReadSenderReport(packet));
  EXPECT_FALSE(cms::ReadSenderReport(bye));
  for (std::size_t size = 0; size < packet.size(); ++size) {
    EXPECT_FALSE(cms::ReadSenderReport(std::span(packet).first(size))) << size;
  }
  std::fill(packet.begin() + 12, packet.begin() + 20, std::uint8_t{0});
  EXPECT_FALSE(cms::ReadSenderReport(packet)) << "a sender without a clock";

  for (const std::int64_t seconds : {kNow, std::int64_t{2'085'978'495}, std::int64_t{2'085'978'496},
                                     std::int64_t{2'100'000'000}}) {
    const auto ntp = static_cast<std::uint64_t>(seconds + 2'208'988'800) << 32;
    EXPECT_EQ(cms::MicrosecondsOfNtp(ntp, seconds + 1000), seconds * kSecond) << "behind 2036 too";
  }
}

TEST(FrameClock, GivesTheCamerasTimeFromTheFirstReportOnAcrossWrapsAndWhenTheClockIsSet) {
  cms::FrameClock clock;
  clock.SetRate(Stream::kPictures, 90'000);
  const std::int64_t ahead = 3'600 * kSecond;  // the camera's clock goes before ours
  std::uint32_t timestamp = 0xFFFF0000;
  std::int64_t us = 0;
  const auto next = [&] {
    timestamp += 3'600;
    us += 40'000;
    return Frame(clock, Stream::kPictures, timestamp, us).cameraUs;
  };
  const auto report = [&](std::int64_t cameraUs, std::uint32_t at) {
    clock.TakeReport(Stream::kPictures, {1, NtpOf(cameraUs), at}, kNow);
  };
  EXPECT_EQ(next(), 0) << "nothing is known yet";
  // A report that is itself late by seconds tells the same.
  report(kNow * kSecond + ahead, timestamp - 2 * 90'000);
  EXPECT_TRUE(IsNear(next(), kNow * kSecond + ahead + 2 * kSecond + 40'000));
  std::int64_t last = next();
  for (int frame = 0; frame < 25 * 3600 * 14; ++frame) {  // the RTP time wraps once in 13 h 15 min
    const std::int64_t now = next();
    ASSERT_TRUE(IsNear(now, last + 40'000)) << frame;
    last = now;
  }
  report(last - 1000 * kSecond, timestamp);  // the camera's clock is set back
  EXPECT_TRUE(IsNear(next(), last - 1000 * kSecond + 40'000));
  timestamp += 1'000'000'000;  // a sender that begins anew: what was known of the old one is void
  EXPECT_EQ(next(), 0);
  report(kNow * kSecond, timestamp - 1'000'000'000);
  EXPECT_EQ(next(), 0) << "a report of the old one";
  report(5 * kSecond, timestamp);
  EXPECT_TRUE(IsNear(next(), 5 * kSecond + 40'000)) << "a camera whose clock was never set";
  clock.TakeReport(Stream::kPictures, {1, std::uint64_t{500} << 32, timestamp}, kNow);
  EXPECT_EQ(next(), 0) << "the time since the camera's start is no time of the day";
}

TEST(FrameClock, TimesGrowAndAreNeverAheadOfTheArrival) {
  cms::FrameClock clock;
  clock.SetRate(Stream::kPictures, 90'000);
  std::minstd_rand random(7);
  std::int64_t last = 0;
  std::int64_t us = 0;
  std::uint32_t timestamp = 0;
  for (int i = 0; i < 20'000; ++i) {
    // Stalls, jumps of the sender and pictures out of their order among even ones.
    timestamp += i % 5'000 == 4'999 ? 3'000'000'000u : i > 15'000 && i % 3 == 0 ? -3'600u : 3'600u;
    const int shown = i % 1'000 > 950 ? i / 1'000 * 1'000 + 1'000 : i;  // those of a stall at once
    us = std::max(us, shown * std::int64_t{40'000} + static_cast<std::int64_t>(random() % 30'000));
    const cms::FrameMoment times = Frame(clock, Stream::kPictures, timestamp, us);
    ASSERT_GT(times.timeUs, last) << i;
    ASSERT_LE(times.timeUs, std::max(last + 1, kNow * kSecond + us)) << i;
    last = times.timeUs;
  }
}

// An encoder that starts slowly: its first report says that the pictures are 300 ms older than they
// came.
TEST(FrameClock, WhatAReportTellsIsMadeUpForPictureByPicture) {
  cms::FrameClock clock;
  clock.SetRate(Stream::kPictures, 90'000);
  clock.SetRate(Stream::kSound, 8'000);
  std::int64_t last = 0;
  std::int64_t shortest = kSecond;
  std::int64_t us = 0;
  for (std::uint32_t i = 0; i < 100; ++i, us += 40'000) {
    const std::int64_t slow = i == 0 ? 0 : 300'000;  // the first picture takes no encoding
    Frame(clock, Stream::kSound, i * 320, us, 40'000);
    const std::int64_t time =
        Frame(clock, Stream::kPictures, i * 3'600 + 900'000, us + slow).timeUs - kNow * kSecond;
    if (i > 0) {
      shortest = std::min(shortest, time - last);
    }
    last = time;
    if (i == 10) {
      clock.TakeReport(Stream::kPictures, {1, NtpOf(kNow * kSecond + us), i * 3'600 + 900'000},
                       kNow);
      clock.TakeReport(Stream::kSound, {2, NtpOf(kNow * kSecond + us), i * 320}, kNow);
    }
  }
  EXPECT_GE(shortest, 20'000);
  EXPECT_LE(std::abs(last + 40'000 - us), 45'000) << "and all of it";
}

// An hour of a camera whose clocks all go differently, over a network that holds packets up.
struct Sender {
  const char* name;
  double cameraPpm;   // the clock of its reports, beside ours
  double picturePpm;  // of its RTP times, beside the camera's
  double soundPpm;
  bool reports;
  double apartMs;  // the most that a picture and a sound of the same moment may lie apart
};

class Hour : public testing::TestWithParam<Sender> {};

TEST_P(Hour, KeepsPicturesAndSoundTogether) {
  const Sender& sender = GetParam();
  constexpr double kPicture = 40'000;
  constexpr double kSound = 64'000;  // a block of AAC at 16 kHz
  constexpr double kReport = 5e6;
  cms::FrameClock clock;
  clock.SetRate(Stream::kPictures, 90'000);
  clock.SetRate(Stream::kSound, 16'000);
  std::minstd_rand random(1);
  const auto jitter = [&random](unsigned most) { return static_cast<double>(random() % most); };
  const auto cameraOf = [&](double us) { return us * (1 + sender.cameraPpm / 1e6); };
  const auto timestampOf = [&](double us, double rate, double ppm) {
    const double ticks = cameraOf(us) * (1 + ppm / 1e6) * rate / 1e6 + 4'000'000'000.0;
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(std::llround(ticks)));
  };
  struct Event {
    double arrival;
    double taken;
    Stream stream;
    bool report;
  };
  std::vector<Event> events;
  double before = 0;
  const auto behind = [&before](double arrival) { return before = std::max(before, arrival); };
  for (double taken = 0; taken < 3600e6; taken += kPicture) {
    const bool key = events.size() % 100 == 0;  // as long on its way as it is large
    events.push_back({behind(taken + 15'000 + (key ? 90'000 : 0) + jitter(25'000)), taken,
                      Stream::kPictures, false});
  }
  before = 0;
  for (double taken = 0; taken < 3600e6; taken += kSound) {
    events.push_back(
        {behind(taken + kSound + 5'000 + jitter(25'000)), taken, Stream::kSound, false});
  }
  for (double taken = 1e6; sender.reports && taken < 3600e6; taken += kReport) {
    events.push_back({taken + jitter(900'000), taken, Stream::kPictures, true});
    events.push_back({taken + 1e6 + jitter(900'000), taken + 1e6, Stream::kSound, true});
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const Event& a, const Event& b) { return a.arrival < b.arrival; });
  double least[2] = {1e12, 1e12};
  double most[2] = {-1e12, -1e12};
  for (const Event& event : events) {
    const bool sound = event.stream == Stream::kSound;
    const std::uint32_t timestamp = sound ? timestampOf(event.taken, 16'000, sender.soundPpm)
                                          : timestampOf(event.taken, 90'000, sender.picturePpm);
    if (event.report) {
      const auto camera = kNow * kSecond + std::llround(cameraOf(event.taken));
      clock.TakeReport(event.stream, {1, NtpOf(camera), timestamp}, kNow);
      continue;
    }
    const auto times = Frame(clock, event.stream, timestamp, std::llround(event.arrival),
                             sound ? std::llround(kSound) : 0);
    if (event.taken < 15e6) {
      continue;  // both streams' reports come first
    }
    const double off = static_cast<double>(times.timeUs - kNow * kSecond) - event.taken;
    least[sound ? 1 : 0] = std::min(least[sound ? 1 : 0], off);
    most[sound ? 1 : 0] = std::max(most[sound ? 1 : 0], off);
  }
  const double apart = std::max(most[0], most[1]) - std::min(least[0], least[1]);
  EXPECT_LT(apart / 1000, sender.apartMs) << "pictures " << least[0] << " to " << most[0]
                                          << ", sound " << least[1] << " to " << most[1];
  EXPECT_GE(std::min(least[0], least[1]), -1'000) << "nothing is told to have been before it was";
}

INSTANTIATE_TEST_SUITE_P(, Hour,
                         testing::Values(Sender{"InStep", 0, 0, 0, true, 15},
                                         Sender{"SoundDrifts", 0, 0, 300, true, 15},
                                         Sender{"AllDrift", -200, 150, -300, true, 15},
                                         Sender{"AllDriftTheOtherWay", 200, -150, 300, true, 15},
                                         Sender{"WithoutReports", -200, 150, -300, false, 40}),
                         [](const auto& each) { return each.param.name; });

}  // namespace
