// Where the frames of recordings lie in time: each once, whichever way and how often one comes by.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cms/playback/internal/drv_data_reader.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/runtime/native_path.h"
#include "tests/support/drv_generator.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/paths.h"
#include "tests/support/recording_reader.h"

namespace {

constexpr std::int64_t kBegin = 1'700'000'000'000;
const std::string kData = test::DataFolder() + "/recordings";

// The millisecond counter of recorders, by the time at which a frame comes.
class Counter {
 public:
  std::uint64_t Of(std::int64_t taken, std::int64_t arrival) {
    if (taken / 1000 != second_) {
      second_ = taken / 1000;
      since_ = arrival;
      count_ = 0;
    } else {
      count_ = std::min<std::int64_t>(std::max(count_ + 1, arrival - since_), 999);
    }
    return static_cast<std::uint64_t>(second_ * 1000 + count_);
  }

 private:
  std::int64_t second_ = 0;
  std::int64_t since_ = 0;
  std::int64_t count_ = 0;
};

// Recordings of one camera, written as its recorder did.
struct Site {
  test::TemporaryFolder folder;
  std::vector<std::wstring> paths;
  std::vector<std::vector<std::uint64_t>> offsets;  // of the pictures, file after file
  std::vector<std::int64_t> taken;                  // when, of all of them
  Counter counter;
  std::int64_t now = kBegin;

  // A file of pictures from `now` on. Those of the first `before` milliseconds come at once, when
  // the event begins.
  struct Part {
    int count = 50;
    int gop = 10;
    std::int64_t interval = 40;
    std::int64_t before = 0;
    bool audio = false;
  };
  test::DrvRecording drv;
  std::string idx;

  void Make(const Part& part) {
    drv = {};
    idx.clear();
    offsets.emplace_back();
    const std::int64_t event = now + part.before;
    for (int i = 0; i < part.count; ++i, now += part.interval) {
      test::DrvFrameSpec spec;
      spec.frameType = i % part.gop == 0 ? 1 : 2;
      spec.seconds = static_cast<std::uint32_t>(now / 1000);
      spec.sequence = static_cast<std::uint32_t>(taken.size() + 1);
      spec.payload = "picture " + std::to_string(taken.size());
      offsets.back().push_back(drv.bytes.size());
      idx += test::MakeIdxRecord(0, static_cast<std::uint32_t>(drv.bytes.size()),
                                 counter.Of(now, std::max(now, event)), spec.frameType);
      drv.Add(spec);
      taken.push_back(now);
      if (part.audio) {
        spec.audio = true;
        drv.Add(spec);
      }
    }
  }

  void Write() {
    const std::string stem =
        folder.File("Rec_Site1_" + std::to_string(20231114221320 + paths.size()));
    test::WriteWholeFile(stem + ".drv", drv.bytes);
    if (!idx.empty()) {
      test::WriteWholeFile(stem + ".idx", idx);
    }
    paths.push_back(cms::SystemPath(stem + ".drv"));
  }
};

struct Picture {
  std::size_t file = 0;
  std::uint64_t offset = 0;
  std::int64_t time = 0;
  bool operator==(const Picture&) const = default;
};

using Pictures = std::vector<Picture>;

Picture PictureOf(const cms::FrameRef& frame) {
  return {frame.Place().file, frame.Frame().offset, frame.Time()};
}

// A reader over a site's recordings, opened.
struct Timeline {
  explicit Timeline(const std::vector<std::wstring>& paths)
      : reader(cms::SystemFileIo(), paths, 0, false) {
    std::string error;
    EXPECT_TRUE(reader.Open(error)) << error;
  }

  Pictures Forward() {
    Pictures pictures;
    for (cms::FrameRef frame = track.First(); frame; frame = track.After(frame)) {
      pictures.push_back(PictureOf(frame));
    }
    return pictures;
  }

  Pictures Backward() {
    Pictures pictures;
    for (cms::FrameRef frame = track.At(INT64_MAX); frame; frame = track.Before(frame)) {
      pictures.push_back(PictureOf(frame));
    }
    std::reverse(pictures.begin(), pictures.end());
    return pictures;
  }

  CPlaybackDRVDataReader reader;
  cms::PlaybackTrack track{reader};
};

std::vector<std::pair<std::size_t, std::uint64_t>> PlacesOf(const Pictures& pictures) {
  std::vector<std::pair<std::size_t, std::uint64_t>> places;
  for (const Picture& picture : pictures) {
    places.emplace_back(picture.file, picture.offset);
  }
  return places;
}

// First pass, second pass and the frames of the files agree, whichever way comes first.
void CheckPasses(const Site& site, bool endsKnown) {
  std::vector<std::pair<std::size_t, std::uint64_t>> all;
  for (std::size_t file = 0; file < site.offsets.size(); ++file) {
    for (const std::uint64_t offset : site.offsets[file]) {
      all.emplace_back(file, offset);
    }
  }
  Timeline one(site.paths);
  const std::int64_t start = one.reader.StartTime();
  const std::int64_t end = one.reader.EndTime();
  const Pictures first = one.Forward();
  ASSERT_EQ(PlacesOf(first), all);
  EXPECT_EQ(one.reader.StartTime(), start);
  EXPECT_EQ(first.front().time, start);
  if (endsKnown) {
    EXPECT_EQ(one.reader.EndTime(), end);
    EXPECT_EQ(first.back().time, end);
  }
  EXPECT_EQ(one.Forward(), first);
  EXPECT_EQ(one.Backward(), first);
  Timeline other(site.paths);
  EXPECT_EQ(other.Backward(), first);
  for (std::size_t i = 0; i < first.size(); ++i) {
    ASSERT_TRUE(i == 0 || first[i - 1].time < first[i].time) << i;
    ASSERT_EQ(PictureOf(other.track.At(first[i].time)), first[i]);
    if (endsKnown) {  // headers tell seconds; pictures of one second share it
      ASSERT_LE(std::abs(first[i].time - site.taken[i]), 1000) << i;
    }
  }
}

enum class Index { kRecorders, kMissing, kNumbered, kFlipped };

TEST(PlaybackTimeline, EachPassShowsEveryPictureOnce) {
  std::vector<unsigned> seeds(120);
  std::iota(seeds.begin(), seeds.end(), 0);
  seeds.insert(seeds.end(), {273, 497, 549, 713, 817});  // wrong records of key frames
  for (const unsigned seed : seeds) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto pick = [&random](int below) {
      return static_cast<int>(random() % static_cast<unsigned>(below));
    };
    Site site;
    site.now += pick(1000);
    constexpr int kIntervals[] = {40, 40, 33, 66, 100, 250, 1000, 1500, 3000};
    const std::int64_t interval = kIntervals[pick(9)];
    bool flipped = false;
    for (int file = 1 + pick(4); file > 0; --file) {
      Site::Part part;
      part.interval = interval;
      part.gop = 1 + pick(12);
      part.count = pick(8) == 0 ? 1 + pick(5) : 20 + pick(interval < 100 ? 200 : 40);
      part.before = pick(3) == 0 ? pick(3000) : 0;
      part.audio = pick(3) == 0;
      site.Make(part);
      const Index index = static_cast<Index>(pick(4));
      if (index == Index::kMissing) {
        site.idx.clear();
      } else if (index == Index::kNumbered) {
        site.idx = site.drv.Idx();
      } else if (index == Index::kFlipped && !flipped) {
        const std::size_t bit = random() % (site.idx.size() * 8);
        site.idx[bit / 8] = static_cast<char>(site.idx[bit / 8] ^ (1 << bit % 8));
        flipped = true;
      }
      site.Write();
      site.now += pick(3) == 0 ? pick(20'000) : 0;  // else its next picture begins the next file
    }
    CheckPasses(site, !flipped);
    if (testing::Test::HasFailure()) {
      return;
    }
  }
}

// Written by an older recorder: what it kept in front of an event that begins in the second in
// which the one before ended has ".999" throughout.
TEST(PlaybackTimeline, RecordingsOfOlderVersionsArePlayedWhole) {
  Site site;
  for (const auto& file : test::ReadRecordings(kData)) {
    site.offsets.emplace_back();
    site.paths.push_back(cms::SystemPath(kData + "/" + file.name));
    for (const auto& frame : file.frames) {
      if (!frame.audio) {
        site.offsets.back().push_back(frame.offset);
      }
    }
  }
  ASSERT_EQ(site.paths.size(), 3u);
  CheckPasses(site, false);
  Timeline timeline(site.paths);
  const Pictures pictures = timeline.Forward();
  ASSERT_EQ(pictures.size(), 352u);
  for (std::size_t i = 1; i < pictures.size(); ++i) {
    EXPECT_LE(pictures[i].time - pictures[i - 1].time, 120) << i;  // 25 a second without a pause
    EXPECT_GE(pictures[i].time - pictures[i - 1].time, 1) << i;
  }
}

// Pictures that come seldom follow each other; where one stays away there is a gap.
TEST(PlaybackTimeline, PicturesThatComeSeldomStayUntilTheNext) {
  for (const std::int64_t interval : {500, 1000, 1500, 2500, 3000, 10'000}) {
    SCOPED_TRACE(interval);
    Site site;
    site.Make({.count = 20, .gop = 1, .interval = interval});
    site.Write();
    site.now += 12 * interval;
    site.Make({.count = 20, .gop = 1, .interval = interval});
    site.Write();
    Timeline timeline(site.paths);
    std::size_t i = 0;
    for (cms::FrameRef frame = timeline.track.First(); frame; ++i) {
      EXPECT_LT(std::abs(frame.Time() - site.taken[i]), 1000);
      const cms::FrameRef next = timeline.track.After(frame);
      if (i == 19 || !next) {
        EXPECT_LE(timeline.track.ValidUntil(frame) - frame.Time(), interval + 1000);
      } else {
        EXPECT_EQ(timeline.track.ValidUntil(frame), next.Time()) << i;
      }
      frame = next;
    }
    EXPECT_EQ(i, 40u);
  }
  // A camera that is away for some seconds, in one file.
  Site site;
  site.Make({.count = 50});
  const test::DrvRecording drv = site.drv;
  const std::string idx = site.idx;
  site.now += 5000;
  site.Make({.count = 50});
  for (std::size_t i = 0; i < site.idx.size(); i += 32) {
    site.idx.replace(i + 4, 4, test::LittleEndian(drv.bytes.size() + site.offsets[1][i / 32], 4));
  }
  site.drv.bytes.insert(0, drv.bytes);
  site.idx.insert(0, idx);
  site.Write();
  Timeline timeline(site.paths);
  const Pictures pictures = timeline.Forward();
  ASSERT_EQ(pictures.size(), 100u);
  EXPECT_EQ(timeline.track.ValidUntil(timeline.track.At(pictures[49].time)),
            pictures[49].time + 40);
}

}  // namespace
