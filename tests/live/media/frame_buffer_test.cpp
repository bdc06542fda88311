#include "cms/live/media/frame_buffer.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr long kSlot = 1000;

template <class Buffer>
long Put(Buffer& buffer, const std::string& frame, int commit = 1) {
  return buffer.Write(frame.data(), static_cast<long>(frame.size()), commit);
}

template <class Buffer>
std::string Get(Buffer& buffer) {
  std::string frame(kSlot, '\0');
  frame.resize(static_cast<std::size_t>(buffer.Read(frame.data(), kSlot)));
  return frame;
}

// Takes the empty first slot off the ring.
template <class Buffer>
void SkipFirst(Buffer& buffer) {
  ASSERT_EQ(Get(buffer), "");
}

}  // namespace

TEST(CFrameBuffer, HoldsOneFrameLessThanSlotsAndDropsTheNewest) {
  CFrameBuffer buffer(4, kSlot);
  // The empty first slot counts, until it is read.
  EXPECT_EQ(Put(buffer, "one"), 3);
  EXPECT_EQ(Put(buffer, "two"), 3);
  EXPECT_TRUE(buffer.IsBufFull());
  EXPECT_EQ(Put(buffer, "refused"), 0);
  SkipFirst(buffer);
  EXPECT_EQ(Put(buffer, "three"), 5);
  EXPECT_EQ(Put(buffer, "refused"), 0);
  EXPECT_EQ(Get(buffer), "one");
  EXPECT_EQ(Get(buffer), "two");
  EXPECT_EQ(Get(buffer), "three");
  EXPECT_TRUE(buffer.IsBufEmpty());
  EXPECT_EQ(Get(buffer), "");
}

TEST(CFrameBuffer, JoinsPiecesAndCutsWhatExceedsTheSlot) {
  CFrameBuffer buffer(4, 10);
  EXPECT_EQ(Put(buffer, "", 1), 0);
  EXPECT_EQ(Put(buffer, "eleven char", 1), 0);
  EXPECT_EQ(Put(buffer, "12345678", 0), 8);
  EXPECT_FALSE(buffer.WaitForFrame(0)) << "not committed yet";
  EXPECT_EQ(Put(buffer, "abcdefgh", 1), 2);
  SkipFirst(buffer);
  EXPECT_EQ(Get(buffer), "12345678ab");
}

TEST(CFrameBuffer, ReadWantsRoomForAWholeSlot) {
  CFrameBuffer buffer(4, kSlot);
  Put(buffer, "frame");
  SkipFirst(buffer);
  std::array<char, kSlot - 1> small{};
  EXPECT_EQ(buffer.Read(small.data(), kSlot - 1), 0);
  EXPECT_EQ(Get(buffer), "frame");
}

TEST(CFrameBuffer, WaitsAboutFifteenMillisecondsUntilItIsStopped) {
  using Clock = std::chrono::steady_clock;
  CFrameBuffer buffer(4, kSlot);
  auto begin = Clock::now();
  EXPECT_EQ(Get(buffer), "");
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(15));
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    buffer.StopBuffer();
  });
  EXPECT_TRUE(buffer.WaitForFrame(-1));
  stopper.join();
  begin = Clock::now();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(Get(buffer), "");
  }
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10)) << "a stopped ring must not wait";
  ASSERT_EQ(buffer.AllocateBuffer(4, kSlot), 1);
  EXPECT_FALSE(buffer.WaitForFrame(0)) << "a new ring waits again";
}

TEST(CFrameBuffer, IsNotSignalledOverAnEmptyRing) {
  CFrameBuffer buffer(4, kSlot);
  Put(buffer, "a");
  Put(buffer, "b");
  SkipFirst(buffer);
  EXPECT_EQ(Get(buffer), "a");
  EXPECT_TRUE(buffer.WaitForFrame(0));
  EXPECT_EQ(Get(buffer), "b");
  EXPECT_FALSE(buffer.WaitForFrame(0));
}

TEST(CFrameBuffer, RefusesEverythingWithoutStorage) {
  CFrameBuffer none;
  CFrameBuffer impossible(std::numeric_limits<long>::max(), 16);
  CFrameBuffer negative(-1, -1);
  CFrameBuffer released(4, kSlot);
  released.ReleaseBuffer();
  CFrameBuffer good(4, kSlot);
  for (CFrameBuffer* buffer : {&none, &impossible, &negative, &released}) {
    EXPECT_EQ(Put(*buffer, "x"), 0);
    EXPECT_EQ(Get(*buffer), "");
    EXPECT_TRUE(buffer->IsBufEmpty());
    EXPECT_TRUE(buffer->IsBufFull());
    EXPECT_EQ(buffer->GetWriteBufPos(), nullptr);
    EXPECT_EQ(buffer->BufferCopy(&good), 0);
    EXPECT_EQ(good.BufferCopy(buffer), 0);
  }
  CFrameBuffer single(1, kSlot);
  EXPECT_EQ(Put(single, "x"), 0) << "a ring of one slot is always full";
  EXPECT_NE(single.GetWriteBufPos(), nullptr);
}

TEST(CFrameBuffer, CopiesFramesFromRingToRing) {
  CFrameBuffer from(4, kSlot);
  CFrameBuffer to(6, kSlot);
  Put(from, "first");
  Put(from, "second");
  EXPECT_EQ(from.BufferCopy(&to), 5);
  EXPECT_EQ(from.BufferCopy(&to), 6);
  for (int empty = 0; empty < 4; ++empty) {
    EXPECT_EQ(from.BufferCopy(&to), 0);
    EXPECT_TRUE(from.IsBufEmpty()) << "no slot is passed that a frame is still to come into";
  }
  SkipFirst(to);
  EXPECT_EQ(Get(to), "first");
  EXPECT_EQ(Get(to), "second");
  EXPECT_FALSE(to.WaitForFrame(0));
  CFrameBuffer narrow(4, 10);
  Put(from, "too wide a slot");
  EXPECT_EQ(from.BufferCopy(&narrow), 0) << "a slot that may not hold the frame gets none";
}

TEST(CFrameBufferNW, NeverWaits) {
  CFrameBufferNW buffer(4, kSlot);
  SkipFirst(buffer);  // signals, reads the empty slot and lowers the event again
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(Get(buffer), "");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  Put(buffer, "a");
  Put(buffer, "b");
  Put(buffer, "c");
  EXPECT_EQ(Put(buffer, "d"), 0);
  EXPECT_EQ(Get(buffer), "a");
}

// Frames carry their number and a content that follows from it, in pieces of a random cut. The
// reader sleeps in WaitForFrame and must see every frame that Write accepted, whole and in order.
TEST(CFrameBuffer, CarriesFramesInOrderAndWholeBetweenTwoThreads) {
  constexpr std::uint32_t kFrames = 30000;
  constexpr std::size_t kNumber = sizeof(std::uint32_t);
  CFrameBuffer buffer(8, 512);
  const auto make = [](std::uint32_t number) {
    std::vector<unsigned char> frame(kNumber + 1 + number * 7919 % 500);
    std::memcpy(frame.data(), &number, kNumber);
    std::iota(frame.begin() + kNumber, frame.end(), static_cast<unsigned char>(number));
    return frame;
  };
  std::thread writer([&] {
    for (std::uint32_t number = 0; number < kFrames; ++number) {
      const auto frame = make(number);
      const auto size = static_cast<long>(frame.size());
      const long cut = size * static_cast<long>(number % 5) / 5;
      // A full ring refuses both pieces of the frame: it cannot become full between them.
      if (cut > 0) {
        while (buffer.Write(frame.data(), cut, 0) == 0) {
          std::this_thread::yield();
        }
      }
      while (buffer.Write(frame.data() + cut, size - cut, 1) == 0) {
        ASSERT_EQ(cut, 0) << "a frame was begun and could not be ended";
        std::this_thread::yield();
      }
    }
  });
  std::uint32_t expected = 0;
  std::uint32_t emptyReads = 0;
  std::vector<unsigned char> read(512);
  while (expected < kFrames && buffer.WaitForFrame(30000)) {
    const long got = buffer.Read(read.data(), 512);
    if (got == 0) {
      ++emptyReads;
      continue;
    }
    const auto frame = make(expected);
    ASSERT_EQ(got, static_cast<long>(frame.size()));
    ASSERT_EQ(std::memcmp(read.data(), frame.data(), frame.size()), 0) << "frame " << expected;
    ++expected;
  }
  writer.join();
  EXPECT_EQ(expected, kFrames);
  EXPECT_EQ(emptyReads, 1u) << "only the first slot is empty; a reader must not spin";
}

TEST(CFrameBuffer, SerialisesSeveralWritersAndReaders) {
  constexpr int kPerWriter = 4000;
  CFrameBuffer buffer(16, 8);
  std::atomic<long> sum{0};
  std::atomic<int> frames{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < 3; ++w) {
    threads.emplace_back([&] {
      for (std::int64_t value = 1; value <= kPerWriter; ++value) {
        while (buffer.Write(&value, 8, 1) == 0) {
          std::this_thread::yield();
        }
      }
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      std::int64_t value = 0;
      while (frames < 3 * kPerWriter) {
        if (buffer.Read(&value, 8) == 8) {
          sum += value;
          ++frames;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(sum, 3L * kPerWriter * (kPerWriter + 1) / 2);
}
