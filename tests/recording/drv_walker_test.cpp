#include "cms/recording/drv_walker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "tests/support/drv_generator.h"
#include "tests/support/faulty_file_io.h"

namespace {

using cms::DrvTail;

struct Walk {
  std::vector<cms::DrvFrame> frames;
  cms::DrvWalkReport report;
};

class DrvWalker : public testing::Test {
 protected:
  Walk WalkThrough(const std::string& bytes) {
    test::WriteWholeFile(path_, bytes);
    const cms::ScopedFile file(io_, path_, cms::kFileRead);
    cms::DrvWalker walker(io_, file.Handle());
    Walk walk;
    while (const auto frame = walker.Next()) {
      walk.frames.push_back(*frame);
    }
    walk.report = walker.Report();
    // What holds for every file: nothing is counted twice, nothing is left out.
    EXPECT_EQ(walk.report.frameBytes + walk.report.skippedBytes, bytes.size());
    EXPECT_EQ(walk.report.frames, walk.frames.size());
    return walk;
  }

  static std::vector<std::uint64_t> Offsets(const Walk& walk) {
    std::vector<std::uint64_t> offsets;
    for (const auto& frame : walk.frames) {
      offsets.push_back(frame.offset);
    }
    return offsets;
  }
  static std::vector<std::uint64_t> Offsets(const test::DrvRecording& recording) {
    std::vector<std::uint64_t> offsets;
    for (const auto& frame : recording.frames) {
      offsets.push_back(frame.offset);
    }
    return offsets;
  }

  test::TemporaryFolder folder_;
  test::FaultyFileIo io_;
  const std::string path_ = folder_.File("a.drv");
};

TEST_F(DrvWalker, FindsEveryFrameOfASoundFile) {
  // Small frames, and frames larger than the walker's buffer.
  for (const std::size_t largest : {40u, 3000u, 200'000u}) {
    const auto recording = test::MakeRecording(60, 7, largest, 1);
    const Walk walk = WalkThrough(recording.bytes);
    ASSERT_EQ(Offsets(walk), Offsets(recording));
    for (std::size_t i = 0; i < walk.frames.size(); ++i) {
      const auto& spec = recording.frames[i].spec;
      EXPECT_EQ(walk.frames[i].payloadLength, spec.payload.size());
      EXPECT_EQ(walk.frames[i].End(), recording.frames[i].offset + recording.frames[i].length);
      EXPECT_EQ(walk.frames[i].header.IsAudio(), spec.audio);
    }
    EXPECT_EQ(walk.report.audioFrames, 15u);
    EXPECT_EQ(walk.report.keyFrames, 7u);  // of the nine at the step, two are audio
    EXPECT_EQ(walk.report.tail, DrvTail::kNone);
    EXPECT_EQ(walk.report.skippedBytes + walk.report.badChecks, 0u);
  }
  EXPECT_TRUE(WalkThrough("").frames.empty());
}

TEST_F(DrvWalker, ForeignBytesBetweenFramesAreSkippedAndReported) {
  const auto recording = test::MakeRecording(12, 4, 500, 2);
  const std::string junk = "@2 no header @8" + std::string(100'000, '@');
  std::string bytes = junk;
  std::vector<std::uint64_t> expected;
  for (const auto& frame : recording.frames) {
    expected.push_back(bytes.size());
    bytes += recording.bytes.substr(frame.offset, frame.length);
    bytes += &frame == &recording.frames[5] ? junk : "";
  }
  const Walk walk = WalkThrough(bytes + junk);
  EXPECT_EQ(Offsets(walk), expected);
  EXPECT_EQ(walk.report.skippedBytes, 3 * junk.size());
  ASSERT_EQ(walk.report.skipped.size(), 2u);
  EXPECT_EQ(walk.report.skipped[1].offset, expected[6] - junk.size());
  EXPECT_EQ(walk.report.skipped[1].length, junk.size());
  EXPECT_EQ(walk.report.badChecks, 3u);
  EXPECT_EQ(walk.report.tail, DrvTail::kForeign);
  EXPECT_EQ(walk.report.tailLength, junk.size());
}

TEST_F(DrvWalker, ADamagedHeaderCostsItsFrameAlone) {
  const auto recording = test::MakeRecording(10, 3, 300, 3);
  for (std::size_t i = 0; i < recording.frames.size(); ++i) {
    for (const std::size_t byte : {0u, 1u, 4u, 15u, 18u, 31u}) {
      std::string bytes = recording.bytes;
      char& damaged = bytes[recording.frames[i].offset + byte];
      damaged = static_cast<char>(damaged ^ 0x08);
      auto expected = Offsets(recording);
      expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(i));
      const Walk walk = WalkThrough(bytes);
      ASSERT_EQ(Offsets(walk), expected) << "frame " << i << " byte " << byte;
      EXPECT_EQ(walk.report.skippedBytes, recording.frames[i].length);
      EXPECT_EQ(walk.report.badChecks, byte > 1 ? 1u : 0u);
    }
  }
}

// A hole: the end of one frame and the beginning of a later one are missing.
TEST_F(DrvWalker, AFrameThatWasCutShortDoesNotSwallowTheNextOnes) {
  const auto recording = test::MakeRecording(12, 4, 4000, 4);
  for (std::size_t i = 0; i + 1 < recording.frames.size(); ++i) {
    const auto& frame = recording.frames[i];
    const std::uint64_t keep = frame.length > 40 ? frame.length - 8 : 33;
    if (keep >= frame.length) {
      continue;
    }
    std::string bytes = recording.bytes;
    bytes.erase(frame.offset + keep, frame.length - keep);
    std::vector<std::uint64_t> expected;
    for (const auto& other : recording.frames) {
      if (&other != &frame) {
        expected.push_back(other.offset - (other.offset > frame.offset ? frame.length - keep : 0));
      }
    }
    ASSERT_EQ(Offsets(WalkThrough(bytes)), expected) << i;
  }
}

// A recording within a payload (someone films a screen of bytes) must not be taken for frames.
TEST_F(DrvWalker, HeadersInsideAWholePayloadStayPayload) {
  const std::string inner = test::MakeRecording(5, 2, 100, 5).bytes;
  test::DrvRecording outer;
  outer.Add({.payload = inner});
  outer.Add({.frameType = 2, .payload = "x" + inner + "y"});
  EXPECT_EQ(Offsets(WalkThrough(outer.bytes)), Offsets(outer));
}

// Cut anywhere, the file gives all frames in front of the cut, and says what the rest is.
TEST_F(DrvWalker, EveryTornEndIsNamed) {
  const auto recording = test::MakeRecording(5, 2, 60, 6);
  for (std::size_t size = 0; size <= recording.bytes.size(); ++size) {
    const Walk walk = WalkThrough(recording.bytes.substr(0, size));
    std::uint64_t end = 0;
    std::size_t whole = 0;
    for (const auto& frame : recording.frames) {
      if (frame.offset + frame.length <= size) {
        end = frame.offset + frame.length;
        ++whole;
      }
    }
    ASSERT_EQ(walk.frames.size(), whole) << size;
    ASSERT_EQ(walk.report.endOfFrames, end);
    ASSERT_EQ(walk.report.tailLength, size - end);
    ASSERT_EQ(walk.report.tail, size == end       ? DrvTail::kNone
                                : size - end < 32 ? DrvTail::kPartialHeader
                                                  : DrvTail::kTornFrame)
        << size;
  }
  const Walk zeros = WalkThrough(recording.bytes + std::string(200'000, '\0'));
  EXPECT_EQ(zeros.report.tail, DrvTail::kZeros);
  EXPECT_EQ(zeros.frames.size(), 5u);
}

TEST_F(DrvWalker, FollowsAFileThatGrows) {
  const auto recording = test::MakeRecording(20, 5, 700, 7);
  test::WriteWholeFile(path_, "");
  const cms::ScopedFile file(io_, path_, cms::kFileRead);
  cms::DrvWalker walker(io_, file.Handle());
  std::vector<std::uint64_t> found;
  for (std::size_t size = 0; size < recording.bytes.size();) {
    size = std::min(size + 333, recording.bytes.size());
    test::WriteWholeFile(path_, recording.bytes.substr(0, size));
    walker.Refresh();
    while (const auto frame = walker.Next()) {
      found.push_back(frame->offset);
    }
    ASSERT_EQ(walker.Report().frameBytes + walker.Report().skippedBytes, size);
  }
  EXPECT_EQ(found, Offsets(recording));
  EXPECT_EQ(walker.Report().badChecks, 0u);
  walker.Seek(recording.frames[7].offset);
  const auto frame = walker.Next();
  ASSERT_TRUE(frame);
  std::vector<std::uint8_t> bytes(recording.frames[7].length + 10);
  EXPECT_EQ(walker.Read(*frame, bytes), recording.frames[7].length);
  EXPECT_TRUE(
      std::equal(bytes.begin(), bytes.end() - 10,
                 recording.bytes.begin() + static_cast<std::ptrdiff_t>(recording.frames[7].offset),
                 [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }));
}

TEST_F(DrvWalker, AFailingReadEndsTheWalkAndIsTold) {
  const auto recording = test::MakeRecording(30, 5, 9000, 8);
  test::WriteWholeFile(path_, recording.bytes);
  for (std::uint64_t n = 0;; ++n) {
    const cms::ScopedFile file(io_, path_, cms::kFileRead);
    io_.FailOperation(n, EIO);
    cms::DrvWalker walker(io_, file.Handle());
    std::size_t frames = 0;
    while (walker.Next()) {
      ++frames;
    }
    if (io_.Operations() <= n) {
      EXPECT_EQ(frames, 30u);
      EXPECT_GT(n, 10u);
      break;
    }
    EXPECT_EQ(walker.Report().error, EIO) << n;
    EXPECT_EQ(walker.Report().tail, DrvTail::kNone);
    io_.FailOperation(test::FaultyFileIo::kNever, 0);
  }
}

// Sparse: frames around the 4 GiB border, one of them with a payload of nearly 4 GiB.
TEST_F(DrvWalker, FilesPast4GiBAreWalked) {
  const std::uint64_t large = 0xFFFF'FF00;
  std::string first = test::MakeDrvFrame({});
  first.replace(4, 4, test::LittleEndian(large + 32, 4));
  test::Seal(first);
  const std::string second = test::MakeDrvFrame({.frameType = 2, .payload = "end"});
  const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(pwrite(file, first.data(), first.size(), 0), static_cast<ssize_t>(first.size()));
  const auto at = static_cast<off_t>(first.size() + large);
  ASSERT_EQ(pwrite(file, second.data(), second.size(), at), static_cast<ssize_t>(second.size()));
  cms::DrvWalker walker(io_, file);
  EXPECT_EQ(walker.Next()->payloadLength, large);
  EXPECT_EQ(walker.Next()->offset, static_cast<std::uint64_t>(at));
  EXPECT_FALSE(walker.Next());
  EXPECT_EQ(walker.Report().tail, DrvTail::kNone);
  close(file);
}

}  // namespace
