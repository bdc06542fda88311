#include "cms/recording/idx_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "cms/exports/recording_exports.h"
#include "tests/support/drv_generator.h"
#include "tests/support/faulty_file_io.h"

namespace {

constexpr std::size_t kRecord = 32;

class IdxFile : public testing::Test {
 protected:
  void Write(const std::string& drv, const std::string& idx) {
    test::WriteWholeFile(drv_, drv);
    test::WriteWholeFile(idx_, idx);
  }
  cms::IdxRebuild Rebuild() { return cms::RebuildIdx(io_, drv_, idx_); }
  std::string Idx() const { return test::ReadWholeFile(idx_); }

  test::TemporaryFolder folder_;
  test::FaultyFileIo io_;
  const std::string drv_ = folder_.File("a.drv");
  const std::string idx_ = folder_.File("a.idx");
  const test::DrvRecording recording_ = test::MakeRecording(40, 6, 400, 1);
};

// Two records at known places, byte by byte.
TEST_F(IdxFile, GoldenBytes) {
  test::DrvRecording recording;
  recording.Add({.stream = 2, .seconds = 0x10, .payload = "key"});
  recording.Add({.audio = true, .payload = "sound"});
  recording.Add({.frameType = 2, .stream = 2, .seconds = 0x10, .payload = "other"});
  test::WriteWholeFile(drv_, recording.bytes);
  EXPECT_TRUE(Rebuild().done);
  const unsigned char golden[] = {0,    0,    0, 0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //
                                  0x80, 0x3E, 0, 0, 0,    0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,
                                  0,    0,    0, 0, 0x9C, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //
                                  0x81, 0x3E, 0, 0, 0,    0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Idx(), std::string(reinterpret_cast<const char*>(golden), sizeof golden));
}

TEST_F(IdxFile, ASoundIndexIsLeftAlone) {
  for (const bool keyFramesOnly : {false, true}) {
    Write(recording_.bytes, recording_.Idx(keyFramesOnly));
    const auto before = std::filesystem::last_write_time(idx_);
    const auto result = Rebuild();
    EXPECT_TRUE(result.done);
    EXPECT_FALSE(result.changed);
    EXPECT_EQ(result.keyFramesOnly, keyFramesOnly);
    EXPECT_EQ(result.records * kRecord, recording_.Idx(keyFramesOnly).size());
    EXPECT_EQ(std::filesystem::last_write_time(idx_), before);
  }
}

// A crash leaves any part of an index; what is left keeps its recorder's words.
TEST_F(IdxFile, AnIndexCutAnywhereIsCompleted) {
  std::string whole = recording_.Idx();
  for (std::size_t at = 0; at < whole.size(); at += kRecord) {
    whole.replace(at + 8, 4, test::LittleEndian(at, 4));  // the recorder's own words
    whole.replace(at + 28, 4, test::LittleEndian(~at, 4));
  }
  for (std::size_t size = 0; size <= whole.size(); size += 13) {
    Write(recording_.bytes, whole.substr(0, size));
    const auto result = Rebuild();
    ASSERT_TRUE(result.done);
    const std::size_t kept = size - size % kRecord;
    const std::string idx = Idx();
    ASSERT_EQ(idx.substr(0, kept), whole.substr(0, kept));
    ASSERT_EQ(idx.substr(kept).size(), whole.size() - kept);
    ASSERT_EQ(result.added * kRecord, whole.size() - kept);
    for (std::size_t at = kept; at < whole.size(); at += kRecord) {
      ASSERT_EQ(idx.substr(at + 4, 4), whole.substr(at + 4, 4));      // offset
      ASSERT_EQ(idx.substr(at + 16, 12), whole.substr(at + 16, 12));  // time and type
    }
    ASSERT_EQ(result.changed, size != whole.size());
    ASSERT_FALSE(Rebuild().changed);  // once is enough
  }
  EXPECT_EQ(folder_.Names(), (std::vector<std::string>{"a.drv", "a.idx"}));
}

TEST_F(IdxFile, RecordsThatPointNowhereGoAndTheOthersStay) {
  const std::string whole = recording_.Idx();
  const auto record = [&](std::size_t i) { return whole.substr(i * kRecord, kRecord); };
  const struct {
    std::string idx;
    std::uint64_t added, dropped;
  } cases[] = {
      {test::MakeIdxRecord(0, 0xFFFFFFF0, 1, 1) + whole, 0, 1},  // an outlier hides nothing
      {record(0) + test::MakeIdxRecord(0, 0, 1, 1) + whole.substr(kRecord), 0, 1},
      {record(0) + record(0) + whole.substr(kRecord), 0, 1},
      {record(0) + test::MakeIdxRecord(0, 5, 1, 1) + whole.substr(2 * kRecord), 1, 1},
      {whole + test::MakeIdxRecord(0, 0xFFFFFFF0, 1, 1), 0, 1},
      {whole.substr(kRecord), 1, 0},
      {whole.substr(0, 2 * kRecord) + whole.substr(9 * kRecord), 7, 0},
      {std::string(whole.size(), '\x5A'), whole.size() / kRecord, whole.size() / kRecord},
  };
  for (const auto& c : cases) {
    Write(recording_.bytes, c.idx);
    const auto result = Rebuild();
    SCOPED_TRACE(&c - cases);
    EXPECT_TRUE(result.done && result.changed);
    EXPECT_EQ(result.added, c.added);
    EXPECT_EQ(result.dropped, c.dropped);
    if (c.added == 0) {
      EXPECT_EQ(Idx(), whole);
    }
    EXPECT_EQ(Idx().size(), whole.size());
  }
}

TEST_F(IdxFile, CompletionGoesOnWithKeyFramesAloneAndWithTheChannelsOfTheStreams) {
  Write(recording_.bytes, recording_.Idx(true).substr(0, 3 * kRecord));
  EXPECT_TRUE(Rebuild().keyFramesOnly);
  EXPECT_EQ(Idx(), recording_.Idx(true));

  test::DrvRecording two;
  for (unsigned i = 0; i < 8; ++i) {
    two.Add({.frameType = 2, .stream = i % 2, .payload = "x"});
  }
  std::string idx;
  for (std::uint32_t i = 0; i < 2; ++i) {
    idx += test::MakeIdxRecord(i == 0 ? 9 : 4, static_cast<std::uint32_t>(two.frames[i].offset),
                               1'700'000'000'000, 2);
  }
  Write(two.bytes, idx);
  EXPECT_TRUE(Rebuild().done);
  for (std::size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(Idx()[i * kRecord], i % 2 == 0 ? 9 : 4) << i;
  }
}

// Whatever fails, and even if the power goes at that moment: the old index or the whole new one.
TEST_F(IdxFile, NothingIsLostWhicheverOperationFails) {
  const std::string whole = recording_.Idx();
  const std::string old = whole.substr(0, 5 * kRecord + 7);
  for (std::uint64_t n = 0;; ++n) {
    Write(recording_.bytes, old);
    io_.FailOperation(n, ENOSPC, n % 2 == 0);
    const auto result = Rebuild();
    const bool reached = io_.Operations() > n;
    io_.FailOperation(test::FaultyFileIo::kNever, 0);
    ASSERT_EQ(io_.OpenHandles(), 0) << n;
    io_.CutPower();
    ASSERT_TRUE(Idx() == (result.done ? whole : old) || (!result.done && Idx() == whole)) << n;
    ASSERT_EQ(test::ReadWholeFile(drv_), recording_.bytes);
    if (!reached) {
      ASSERT_TRUE(result.done);
      EXPECT_GT(n, 15u);
      break;
    }
    // One operation may fail in closing what was only read.
    ASSERT_TRUE(result.done || result.error == ENOSPC) << n;
    std::filesystem::remove(folder_.File("a.idx.new"));
  }
}

TEST_F(IdxFile, ARecordingInProgressIsRefused) {
  Write(recording_.bytes, "");
  const cms::ScopedFile recorder(io_, drv_, cms::kFileReadWrite | cms::kFileExclusive);
  EXPECT_EQ(Rebuild().error, EWOULDBLOCK);
  EXPECT_EQ(cms::CutTornTail(io_, drv_).error, EWOULDBLOCK);
  EXPECT_EQ(Idx(), "");
}

TEST_F(IdxFile, FramesPast4GiBGetNoRecord) {
  std::string first = test::MakeDrvFrame({});
  const std::uint64_t large = 0xFFFF'FFFF - 116;
  first.replace(4, 4, test::LittleEndian(large + 32, 4));
  test::Seal(first);
  const std::string next = test::MakeDrvFrame({.payload = "x"});
  const int file = open(drv_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const auto at = static_cast<off_t>(116 + large);  // the last place that a record can tell
  ASSERT_EQ(pwrite(file, first.data(), first.size(), 0), static_cast<ssize_t>(first.size()));
  ASSERT_EQ(pwrite(file, (next + next).data(), 2 * next.size(), at),
            static_cast<ssize_t>(2 * next.size()));
  close(file);
  const auto result = Rebuild();
  EXPECT_EQ(result.records, 2u);
  EXPECT_EQ(result.beyond, 1u);
  EXPECT_EQ(Idx().substr(kRecord + 4, 4), "\xFF\xFF\xFF\xFF");
}

TEST_F(IdxFile, TheTornEndIsCutAndNothingElse) {
  const auto& last = recording_.frames.back();
  const auto cutTo = [&](const std::string& drv) {
    test::WriteWholeFile(drv_, drv);
    const auto cut = cms::CutTornTail(io_, drv_);
    const std::string left = test::ReadWholeFile(drv_);
    EXPECT_EQ(left.size() + cut.bytes, drv.size());
    EXPECT_EQ(left, drv.substr(0, left.size()));
    EXPECT_EQ(cut.done, left.size() != drv.size() || cut.tail == cms::DrvTail::kNone);
    return left.size();
  };
  EXPECT_EQ(cutTo(recording_.bytes), recording_.bytes.size());
  EXPECT_EQ(cutTo(recording_.bytes.substr(0, last.offset + last.length - 1)), last.offset);
  EXPECT_EQ(cutTo(recording_.bytes.substr(0, last.offset + 20)), last.offset);
  EXPECT_EQ(cutTo(recording_.bytes + std::string(5000, '\0')), recording_.bytes.size());
  EXPECT_EQ(cutTo(test::MakeDrvFrame({.payload = "torn"}).substr(0, 100)), 0u);
  const std::string foreign(300, 'x');
  EXPECT_EQ(cutTo(recording_.bytes + foreign), recording_.bytes.size() + foreign.size());
  EXPECT_EQ(cutTo("a note, no recording"), 20u);
  EXPECT_EQ(cms::CutTornTail(io_, folder_.File("none")).error, ENOENT);

  const std::string torn = recording_.bytes.substr(0, last.offset + 40);
  for (std::uint64_t n = 0; n < 40; ++n) {
    test::WriteWholeFile(drv_, torn);
    io_.FailOperation(n, EIO);
    const auto cut = cms::CutTornTail(io_, drv_);
    const std::string left = test::ReadWholeFile(drv_);
    ASSERT_TRUE(left == torn || left == torn.substr(0, last.offset));
    ASSERT_TRUE(!cut.done || left.size() == last.offset);
    io_.FailOperation(test::FaultyFileIo::kNever, 0);
    ASSERT_EQ(io_.OpenHandles(), 0);
  }
}

TEST_F(IdxFile, ExportsWorkOnTheSystemsPaths) {
  test::WriteWholeFile(drv_, recording_.bytes);
  const std::wstring drv = folder_.SystemFile("a.drv");
  EXPECT_EQ(ModifyDrvIdxFile(drv.c_str()), 1);
  EXPECT_EQ(Idx().size(), recording_.Idx().size());
  EXPECT_EQ(ModifyDrvIdxFile(folder_.SystemFile("a.idx").c_str()), 0);  // an index is no data file
  EXPECT_EQ(RemoveDrvIdxFile(folder_.SystemFile("a.idx").c_str()), 0);
  EXPECT_EQ(Idx().size(), recording_.Idx().size());
  EXPECT_EQ(RemoveDrvIdxFile(drv.c_str()), 1);
  EXPECT_EQ(RemoveDrvIdxFile(drv.c_str()), 0);
  EXPECT_EQ(folder_.Names(), std::vector<std::string>{"a.drv"});
  EXPECT_EQ(ModifyDrvIdxFile(folder_.SystemFile("none.drv").c_str()), 0);
  EXPECT_EQ(ModifyDrvIdxFile(nullptr) + RemoveDrvIdxFile(nullptr) + RemoveDrvIdxFile(L""), 0);
}

TEST_F(IdxFile, TheFirstHeaderOfADamagedHeadIsFound) {
  const std::string header = test::MakeDrvFrame({}).substr(0, 32);
  std::string secondCheckWrong = header;
  secondCheckWrong[31] = static_cast<char>(~secondCheckWrong[31]);
  std::string firstCheckWrong = header;
  firstCheckWrong[15] = static_cast<char>(~firstCheckWrong[15]);
  const auto position = [&](const std::string& head, std::size_t size) {
    std::string file = head + std::string(5000, 'x');
    file.resize(size);
    test::WriteWholeFile(drv_, file);
    return GetFirstDrvBaiscPos(folder_.SystemFile("a.drv").c_str());
  };
  EXPECT_EQ(position(header, 4096), 0u);
  EXPECT_EQ(position("x" + header, 4096), 1u);
  EXPECT_EQ(position("x" + header, 4095), 0u);
  EXPECT_EQ(position("x" + secondCheckWrong, 9000), 1u);
  EXPECT_EQ(position(std::string(4079, '@') + header, 4096), 4079u);
  EXPECT_EQ(position(std::string(4080, '@') + header, 8192), 0u);
  // A wrong check moves the scan on by one byte: the next header may begin inside the false one.
  EXPECT_EQ(position("x" + firstCheckWrong + header, 4096), 33u);
  EXPECT_EQ(position("x" + firstCheckWrong.substr(0, 5) + header, 4096), 6u);
  for (const char kind : {'6', '8', 'v'}) {
    EXPECT_EQ(position("x" + test::MakeDrvFrame({.kind = kind}), 4096), 1u);
  }
  EXPECT_EQ(position("x" + test::MakeDrvFrame({.kind = '3'}), 4096), 0u);
  EXPECT_EQ(GetFirstDrvBaiscPos(folder_.SystemFile("none").c_str()), 0u);
  EXPECT_EQ(GetFirstDrvBaiscPos(nullptr), 0u);
}

}  // namespace
