#include "cms/recording/control_write_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/faulty_file_io.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

constexpr unsigned kNew = cms::kFileReadWrite | cms::kFileCreateNew;
constexpr std::uint32_t kSlotSize = ControlWriteFile::kSlotSize;
constexpr int kSlots = ControlWriteFile::kSlots;

bool Add(ControlWriteFile& queue, int handle, const std::string& text, bool close = false,
         std::shared_ptr<cms::WriteStatus> status = nullptr) {
  return queue.AddToQueue(handle, text.data(), static_cast<std::uint32_t>(text.size()), close,
                          std::move(status));
}

// A pipe that nobody reads holds the writing thread up.
class Pipe {
 public:
  explicit Pipe(int flags = 0) { EXPECT_EQ(pipe2(ends_, O_CLOEXEC | flags), 0); }
  ~Pipe() { close(ends_[0]); }
  int WriteEnd() const { return ends_[1]; }
  std::string ReadAll() const {
    std::string all;
    std::vector<char> part(65536);
    for (;;) {
      pollfd ready{ends_[0], POLLIN, 0};
      poll(&ready, 1, -1);
      const ssize_t count = read(ends_[0], part.data(), part.size());
      if (count <= 0) {
        return all;
      }
      all.append(part.data(), static_cast<std::size_t>(count));
    }
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST(ControlWriteFile, ManyProducersEachFileInItsOrder) {
  constexpr int kProducers = 4;
  constexpr int kFiles = 3;  // for each producer
  constexpr int kBuffers = 150;
  const test::TemporaryFolder folder;
  const auto descriptors = test::OpenDescriptors();
  std::map<std::string, std::string> expected;
  for (int p = 0; p < kProducers; ++p) {
    for (int f = 0; f < kFiles; ++f) {
      expected[folder.File(std::to_string(p) + "_" + std::to_string(f))];
    }
  }
  ControlWriteFile queue;
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      std::mt19937 random(static_cast<unsigned>(p));
      std::vector<std::string> names;
      std::vector<int> handles;
      for (int f = 0; f < kFiles; ++f) {
        names.push_back(folder.File(std::to_string(p) + "_" + std::to_string(f)));
        handles.push_back(cms::SystemFileIo().Open(names.back(), kNew));
      }
      for (int b = 0; b < kBuffers; ++b) {
        const std::size_t f = random() % kFiles;
        const std::string text(random() % 3 == 0 ? kSlotSize : random() % 900,
                               static_cast<char>(random()));
        EXPECT_TRUE(Add(queue, handles[f], text));
        expected.at(names[f]) += text;
      }
      for (const int handle : handles) {
        EXPECT_TRUE(queue.AddToQueue(handle, nullptr, 0, true));
      }
    });
  }
  for (auto& producer : producers) {
    producer.join();
  }
  EXPECT_TRUE(queue.WaitWritten(30'000));
  EXPECT_EQ(queue.QueuedSlots(), 0u);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
  for (const auto& [name, content] : expected) {
    EXPECT_TRUE(test::ReadWholeFile(name) == content) << name;
  }
}

TEST(ControlWriteFile, The201stBufferWaitsUntilOneIsWritten) {
  ControlWriteFile queue;
  Pipe pipe;
  std::string expected(kSlotSize, 'a');  // more than the pipe holds
  ASSERT_TRUE(Add(queue, pipe.WriteEnd(), expected));
  for (int i = 1; i < kSlots; ++i) {
    ASSERT_TRUE(Add(queue, pipe.WriteEnd(), std::to_string(i)));
    expected += std::to_string(i);
  }
  EXPECT_EQ(queue.QueuedSlots(), ControlWriteFile::kSlots);
  EXPECT_FALSE(queue.WaitWritten(20));
  std::atomic<int> through{0};
  std::vector<std::thread> late;
  for (int i = 0; i < 2; ++i) {
    late.emplace_back([&] {
      EXPECT_TRUE(Add(queue, pipe.WriteEnd(), "late"));
      ++through;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(through, 0);
  std::string got;
  std::thread reader([&] { got = pipe.ReadAll(); });
  for (auto& thread : late) {
    thread.join();
  }
  ASSERT_TRUE(queue.AddToQueue(pipe.WriteEnd(), nullptr, 0, true));
  reader.join();
  EXPECT_TRUE(got == expected + "latelate");
}

TEST(ControlWriteFile, StopDrainsAlsoWhatABlockedProducerOffers) {
  auto queue = std::make_unique<ControlWriteFile>();
  Pipe pipe;
  std::string expected(kSlotSize, 'a');
  ASSERT_TRUE(Add(*queue, pipe.WriteEnd(), expected));
  for (int i = 1; i < kSlots; ++i) {
    ASSERT_TRUE(Add(*queue, pipe.WriteEnd(), "x"));
    expected += 'x';
  }
  std::promise<int> begins;
  std::thread producer([&] {
    begins.set_value(gettid());
    EXPECT_TRUE(Add(*queue, pipe.WriteEnd(), "last", true));
  });
  test::WaitUntilItWaits(begins.get_future().get());  // for room
  std::thread stopper([&] { queue->stop(); });
  const std::string got = pipe.ReadAll();  // ends with the close
  stopper.join();
  producer.join();
  EXPECT_TRUE(got == expected + "last");
  EXPECT_FALSE(Add(*queue, 1, "x"));
  queue->stop();
}

TEST(ControlWriteFile, RefusesWhatItCannotTake) {
  const test::TemporaryFolder folder;
  ControlWriteFile queue;
  const int handle = cms::SystemFileIo().Open(folder.File("a"), kNew);
  EXPECT_FALSE(Add(queue, -1, "x"));
  EXPECT_FALSE(Add(queue, handle, std::string(kSlotSize + 1, 'x'), true));
  const auto status = std::make_shared<cms::WriteStatus>();
  EXPECT_TRUE(queue.AddToQueue(handle, nullptr, 0, false));
  EXPECT_TRUE(queue.AddToQueue(handle, nullptr, 0, true, status));
  EXPECT_TRUE(queue.WaitWritten(-1));
  EXPECT_TRUE(status->closed && status->error == 0);
  EXPECT_EQ(fcntl(handle, F_GETFD), -1);
  EXPECT_EQ(status.use_count(), 1);
}

TEST(ControlWriteFile, RetriesWhatTimeMends) {
  const test::TemporaryFolder folder;
  test::FaultyFileIo io;
  ControlWriteFile queue(&io);
  const std::string text(5000, 't');
  for (const int error : {EINTR, EAGAIN}) {
    const std::string name = folder.File(std::to_string(error));
    const auto status = std::make_shared<cms::WriteStatus>();
    const int handle = io.Open(name, kNew);
    io.LimitWrite(999);
    io.FailWrites(5, error);
    EXPECT_TRUE(Add(queue, handle, text, true, status));
    EXPECT_TRUE(queue.WaitWritten(-1));
    EXPECT_EQ(test::ReadWholeFile(name), text);
    EXPECT_EQ(status->writtenBytes, text.size());
    EXPECT_TRUE(status->error == 0 && status->lostBytes == 0 && status->closed);
  }
  // A descriptor that does not block, with a reader that comes late.
  Pipe pipe(O_NONBLOCK);
  const std::string much(kSlotSize, 'm');
  EXPECT_TRUE(Add(queue, pipe.WriteEnd(), much, true));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_TRUE(pipe.ReadAll() == much);
}

// Write N of two files fails; for every N.
TEST(ControlWriteFile, BehindAFailedWriteNothingOfThatFileIsWritten) {
  constexpr std::size_t kBuffers = 6;
  const test::TemporaryFolder folder;
  test::FaultyFileIo io;
  ControlWriteFile queue(&io);
  for (std::uint64_t n = 0; n <= 2 * kBuffers; ++n) {
    std::vector<std::string> names;
    std::vector<int> handles;
    std::vector<std::shared_ptr<cms::WriteStatus>> statuses;
    for (int f = 0; f < 2; ++f) {
      names.push_back(folder.File(std::to_string(n) + "_" + std::to_string(f)));
      handles.push_back(io.Open(names.back(), kNew));
      statuses.push_back(std::make_shared<cms::WriteStatus>());
    }
    const std::uint64_t lostBefore = queue.LostBytes();
    io.FailOperation(n, EIO);
    std::string whole;
    for (std::size_t b = 0; b < kBuffers; ++b) {
      const std::string text(100 + b, static_cast<char>('a' + b));
      whole += text;
      for (std::size_t f = 0; f < 2; ++f) {
        EXPECT_TRUE(Add(queue, handles[f], text, false, statuses[f]));
      }
    }
    EXPECT_TRUE(queue.WaitWritten(-1));
    io.FailOperation(test::FaultyFileIo::kNever, 0);
    for (std::size_t f = 0; f < 2; ++f) {
      const bool fails = n < 2 * kBuffers && n % 2 == f;
      const std::string left = test::ReadWholeFile(names[f]);
      ASSERT_EQ(left.empty() || whole.starts_with(left), true) << n;
      ASSERT_EQ(left.size() < whole.size(), fails) << n;
      ASSERT_EQ(statuses[f]->error, fails ? EIO : 0);
      ASSERT_EQ(statuses[f]->writtenBytes, left.size());
      ASSERT_EQ(statuses[f]->lostBytes, whole.size() - left.size());
      EXPECT_TRUE(queue.AddToQueue(handles[f], nullptr, 0, true, statuses[f]));
    }
    EXPECT_TRUE(queue.WaitWritten(-1));
    ASSERT_TRUE(statuses[0]->closed && statuses[1]->closed);
    ASSERT_EQ(queue.LostBytes() - lostBefore, statuses[0]->lostBytes + statuses[1]->lostBytes);
  }
  EXPECT_EQ(io.OpenHandles(), 0);
}

TEST(ControlWriteFile, AFullDiskKeepsEveryEarlierByteAndTheNextFileGoesOnWithSpace) {
  const test::TemporaryFolder folder;
  test::FaultyFileIo io;
  ControlWriteFile queue(&io);
  io.LimitSpace(1234);
  const auto status = std::make_shared<cms::WriteStatus>();
  int handle = io.Open(folder.File("full"), kNew);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(Add(queue, handle, std::string(1000, static_cast<char>('a' + i)), false, status));
  }
  EXPECT_TRUE(queue.WaitWritten(-1));
  EXPECT_EQ(status->error, ENOSPC);
  io.LimitSpace(test::FaultyFileIo::kNever);
  // Space alone does not heal a file with a hole; its close does, and the number may come again.
  EXPECT_TRUE(Add(queue, handle, "d", true, status));
  EXPECT_TRUE(queue.WaitWritten(-1));
  EXPECT_EQ(test::ReadWholeFile(folder.File("full")),
            std::string(1000, 'a') + std::string(234, 'b'));
  EXPECT_EQ(status->lostBytes, 1767u);
  const int again = io.Open(folder.File("next"), kNew);
  EXPECT_EQ(again, handle);
  EXPECT_TRUE(Add(queue, again, "whole", true));
  EXPECT_TRUE(queue.WaitWritten(-1));
  EXPECT_EQ(test::ReadWholeFile(folder.File("next")), "whole");
}

TEST(ControlWriteFile, AFailingCloseIsToldAndLeaksNothing) {
  const test::TemporaryFolder folder;
  test::FaultyFileIo io;
  ControlWriteFile queue(&io);
  const auto status = std::make_shared<cms::WriteStatus>();
  const int handle = io.Open(folder.File("a"), kNew);
  io.FailOperation(1, EDQUOT);
  EXPECT_TRUE(Add(queue, handle, "text", true, status));
  EXPECT_TRUE(queue.WaitWritten(-1));
  EXPECT_TRUE(status->error == EDQUOT && status->closed && status->writtenBytes == 4);
  EXPECT_EQ(io.OpenHandles(), 0);
}

// The queue of the process: one, and drained when the process ends in an orderly way.
TEST(ControlWriteFileDeathTest, TheProcessEndsWithItsQueueWritten) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* kept = getenv("ORVANTA_TEST_QUEUE_FILE");  // the same in the child
  const std::unique_ptr<test::TemporaryFolder> folder(kept == nullptr ? new test::TemporaryFolder
                                                                      : nullptr);
  if (kept == nullptr) {
    setenv("ORVANTA_TEST_QUEUE_FILE", folder->File("a").c_str(), 1);
  }
  const std::string name = getenv("ORVANTA_TEST_QUEUE_FILE");
  EXPECT_EXIT(
      {
        ControlWriteFile* queue = ControlWriteFile::GetInstance();
        const int handle = cms::SystemFileIo().Open(name, kNew);
        const std::string text(kSlotSize, 'e');
        bool added = queue == ControlWriteFile::GetInstance();
        for (int i = 0; i < 100; ++i) {
          added = added && Add(*queue, handle, text);
        }
        std::exit(added ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  unsetenv("ORVANTA_TEST_QUEUE_FILE");
  EXPECT_EQ(test::ReadWholeFile(name).size(), 100u * kSlotSize);
}

}  // namespace
