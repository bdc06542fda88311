#include "cms/playback/internal/playback_plan.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using cms::FrameRef;
using cms::GopPlace;
using cms::PlaybackGop;
using cms::PlaybackPlan;
using View = PlaybackPlan::View;
using Place = PlaybackPlan::Place;

constexpr std::int64_t kPlanBegin = 1'000'000;
constexpr std::int64_t kInterval = 40;
constexpr std::size_t kLength = 10;  // frames of a group

// Groups of kLength frames, 25 a second; a pause of ten seconds behind the second one.
class Groups : public cms::PlaybackDataReader {
 public:
  static constexpr std::size_t kCount = 4;
  static std::int64_t TimeOf(std::size_t group, std::size_t index) {
    return kPlanBegin + static_cast<std::int64_t>(group * kLength + index) * kInterval +
           (group > 1 ? 10'000 : 0);
  }

  bool Open(std::string&) override { return true; }
  std::int64_t StartTime() const override { return TimeOf(0, 0); }
  std::int64_t EndTime() const override { return TimeOf(kCount - 1, kLength - 1); }
  std::optional<GopPlace> At(std::int64_t time) override {
    std::optional<GopPlace> found;
    for (std::size_t i = 0; i < kCount && TimeOf(i, 0) <= time; ++i) {
      found = GopPlace{0, i};
    }
    return found;
  }
  std::optional<GopPlace> First() override { return GopPlace{0, 0}; }
  std::optional<GopPlace> After(const GopPlace& place) override {
    return place.key + 1 < kCount ? std::optional(GopPlace{0, place.key + 1}) : std::nullopt;
  }
  std::optional<GopPlace> Before(const GopPlace& place) override {
    return place.key > 0 ? std::optional(GopPlace{0, place.key - 1}) : std::nullopt;
  }
  bool Load(const GopPlace& place, PlaybackGop& gop) override {
    gop.place = place;
    for (std::size_t i = 0; i < kLength; ++i) {
      cms::PlaybackFrame frame;
      frame.time = TimeOf(place.key, i);
      gop.video.push_back(frame);
    }
    return true;
  }
  std::size_t Read(const GopPlace&, const cms::PlaybackFrame&, std::span<std::uint8_t>) override {
    return 0;
  }
  bool Refresh() override { return false; }
  int LookAgainAfter() override { return kNever; }
  cms::PlaybackReaderStatus Status() const override { return {}; }
};

class Plan : public testing::Test {
 protected:
  Plan() {
    view_.running = true;
    view_.working = view_.displayedCount = 1;
  }

  void ClockAt(std::size_t group, std::size_t index, std::int64_t more = 0) {
    view_.position = Groups::TimeOf(group, index) + more;
  }
  FrameRef Frame(std::size_t group, std::size_t index) {
    FrameRef frame = track_.At(Groups::TimeOf(group, index));
    EXPECT_EQ(frame.index, index);
    return frame;
  }
  FrameRef Aim(const FrameRef& staged = {}, const FrameRef& shown = {}) {
    return plan_.Aim(view_, plan_.Locate(view_), staged, shown, [this](const FrameRef& target) {
      return target.index < decoded_ ? 0 : target.index - decoded_ + 1;
    });
  }
  // A frame takes so long to decode, as far as the plan knows.
  void Costs(double milliseconds) {
    for (int i = 0; i < 100; ++i) {
      plan_.Decoded(milliseconds, 0);
    }
  }
  void MissOne() { EXPECT_TRUE(plan_.IsLate(view_, Frame(0, 0), view_.position, view_.position)); }

  // "group.index", or "-" for none.
  static std::string Name(const FrameRef& frame) {
    return frame ? std::to_string(frame.Place().key) + "." + std::to_string(frame.index) : "-";
  }

  Groups reader_;
  cms::PlaybackTrack track_{reader_};
  PlaybackPlan plan_{track_, 2};
  View view_;
  std::size_t decoded_ = 0;  // frames of the clock's group
};

TEST_F(Plan, TheWantedPictureComesFirstThenThoseThatFollow) {
  const struct {
    bool forward, keysOnly;
    std::size_t group, index;
    const char* missing;    // nothing is shown
    const char* shown;      // the wanted one is
    const char* following;  // and the next one is staged
  } cases[] = {
      {true, false, 0, 3, "0.3", "0.4", "0.5"},  {true, false, 0, 8, "0.8", "0.9", "1.0"},
      {true, true, 0, 3, "0.0", "1.0", "2.0"},   {false, false, 1, 1, "1.1", "1.0", "0.9"},
      {false, true, 1, 5, "1.0", "0.0", "-"},    {true, false, 3, 8, "3.8", "3.9", "-"},
      {false, false, 2, 0, "2.0", "1.9", "1.8"},
  };
  for (const auto& each : cases) {
    view_.forward = each.forward;
    view_.keysOnly = each.keysOnly;
    ClockAt(each.group, each.index);
    const FrameRef wanted = plan_.Locate(view_).wanted;
    EXPECT_EQ(Name(wanted), each.missing);
    EXPECT_EQ(Name(Aim()), each.missing);
    const FrameRef next = Aim({}, wanted);
    EXPECT_EQ(Name(next), each.shown) << each.missing;
    EXPECT_EQ(Name(Aim(next, wanted)), each.following) << each.missing;
  }
}

TEST_F(Plan, LostPicturesArePassedOverUntilOneBehindThemIsShown) {
  ClockAt(0, 3);
  plan_.Lose(Frame(0, 3));
  plan_.Lose(Frame(0, 4));
  EXPECT_EQ(Name(Aim()), "0.5");
  plan_.Shown(view_, Frame(0, 3));
  EXPECT_EQ(Name(Aim()), "0.3");
  EXPECT_TRUE(plan_.IsLost(Frame(0, 4)));
  plan_.BeginEpoch(false);
  EXPECT_FALSE(plan_.IsLost(Frame(0, 4)));
}

TEST_F(Plan, InAGapThePictureBehindItIsMadeReady) {
  ClockAt(1, 9, 5000);
  EXPECT_FALSE(plan_.Locate(view_).wanted);
  EXPECT_EQ(Name(Aim()), "2.0");
  plan_.Lose(Frame(2, 0));
  EXPECT_EQ(Name(Aim()), "2.1");
  view_.forward = false;
  EXPECT_EQ(Name(Aim()), "1.9");
  view_.position = kPlanBegin - 500;
  EXPECT_EQ(Name(Aim()), "-");
  view_.forward = true;
  EXPECT_EQ(Name(Aim()), "0.0");
}

// Two channels on two processors: the clock goes on by the cost of each frame at the speed of play.
TEST_F(Plan, ADecoderThatIsBehindAimsAtWhatItCanHaveInTime) {
  const struct {
    double milliseconds, rate;
    std::size_t decoded;  // of the group, when the clock is at its frame 3
    const char* target;
  } cases[] = {
      {9, 1, 3, "0.3"},  {9, 1, 0, "0.3"}, {12, 1, 0, "0.4"}, {21, 1, 0, "0.6"},
      {45, 1, 3, "1.0"}, {9, 4, 3, "0.3"}, {10, 8, 3, "1.0"},
  };
  for (const auto& each : cases) {
    plan_.BeginEpoch(true);
    view_.working = 2;
    view_.rate = each.rate;
    decoded_ = each.decoded;
    ClockAt(0, 3);
    Costs(each.milliseconds);
    EXPECT_EQ(Name(Aim()), "0.3") << "nothing was late yet";
    MissOne();
    EXPECT_EQ(Name(Aim()), each.target)
        << each.milliseconds << " ms at rate " << each.rate << " behind " << each.decoded;
  }
}

TEST_F(Plan, ThreeLatePicturesAreFollowedByTheNextKeyFrame) {
  ClockAt(0, 3);
  decoded_ = 3;
  const FrameRef target = Frame(0, 2);
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(plan_.MustShow());
    EXPECT_EQ(Name(Aim()), "0.3");
    EXPECT_TRUE(plan_.IsOvertaken(view_, plan_.Locate(view_), target));
  }
  EXPECT_TRUE(plan_.MustShow());
  EXPECT_EQ(Name(Aim()), "1.0");
  EXPECT_FALSE(plan_.MustShow()) << "a new beginning";
  EXPECT_FALSE(plan_.IsOvertaken(view_, plan_.Locate(view_), Frame(0, 3)));
  EXPECT_FALSE(plan_.IsOvertaken(view_, plan_.Locate(view_), Frame(1, 0)));
  // Backward a picture of a group that the clock has left behind is overtaken.
  view_.forward = false;
  EXPECT_TRUE(plan_.IsOvertaken(view_, plan_.Locate(view_), Frame(1, 0)));
  EXPECT_FALSE(plan_.IsOvertaken(view_, plan_.Locate(view_), Frame(0, 9)));
}

// A group plays for 360 ms and has ten frames.
TEST_F(Plan, BackwardGroupsThatTakeTooLongAreShownByTheirKeyFrames) {
  const struct {
    double milliseconds, rate;
    int channels;
    std::size_t pixels;
    bool keysOnly;
  } cases[] = {
      {30, 1, 1, 640 * 360, false},   {40, 1, 1, 640 * 360, true},
      {30, 2, 1, 640 * 360, true},    {30, 1, 2, 640 * 360, false},  // a processor for each
      {30, 1, 4, 640 * 360, true},                                   // half of one
      {30, 1, 1, 4000 * 3000, true},  // in parts, so that some are decoded more than once
      {10, 1, 1, 4000 * 3000, false},
  };
  ClockAt(1, 5);
  view_.forward = false;
  for (const auto& each : cases) {
    Costs(each.milliseconds);
    plan_.Decoded(each.milliseconds, each.pixels);
    view_.rate = each.rate;
    view_.displayedCount = each.channels;
    const Place place = plan_.Locate(view_);
    EXPECT_EQ(place.keysOnly, each.keysOnly)
        << each.milliseconds << " ms, rate " << each.rate << ", " << each.channels << " channels";
    EXPECT_EQ(Name(place.wanted), each.keysOnly ? "1.0" : "1.5");
  }
  view_.running = false;
  Costs(1000);
  EXPECT_FALSE(plan_.Locate(view_).keysOnly) << "nothing is late while the clock stands";
}

TEST_F(Plan, WaitsUntilTheNextTurn) {
  cms::PictureStore::Standing none, next, last;
  next.first = Frame(0, 4);
  next.firstEnd = Groups::TimeOf(0, 5);
  last.first = Frame(0, 2);
  last.firstEnd = Groups::TimeOf(0, 3);
  const struct {
    bool forward;
    std::int64_t more;  // behind frame 0.3
    double rate;
    const cms::PictureStore::Standing& stage;
    int wait;
  } cases[] = {
      {true, 10, 1, none, 30},  // up to the end of the picture shown
      {true, 10, 1, next, 30},  {true, 10, 0.25, next, 120},
      {true, 10, 4, next, 8},   {true, 39, 32, next, 1},  // never not at all
      {false, 10, 1, last, 11}, {false, 10, 1, none, 11},
  };
  for (const auto& each : cases) {
    view_.forward = each.forward;
    view_.rate = each.rate;
    ClockAt(0, 3, each.more);
    EXPECT_EQ(plan_.UntilDue(view_, plan_.Locate(view_), each.stage), each.wait)
        << each.more << " rate " << each.rate;
  }
  view_.forward = true;
  view_.rate = 1;
  ClockAt(1, 9, 5000);
  EXPECT_EQ(plan_.UntilDue(view_, plan_.Locate(view_), none), 500) << "in a gap";
}

}  // namespace
