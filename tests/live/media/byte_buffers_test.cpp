// The buffers of bytes: one slot, the raw array, the byte ring and the ring of slots.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "cms/live/media/auto_buffer.h"
#include "cms/live/media/buffer.h"
#include "cms/live/media/circular_buffer.h"
#include "cms/live/media/raw_buffer.h"
#include "cms/live/media/simple_buffer.h"

namespace {

std::string Text(CRawBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.Data()), static_cast<std::size_t>(buffer.Length())};
}

template <class Buffer>
std::string Take(Buffer& buffer, int len) {
  std::string bytes(static_cast<std::size_t>(len), '\0');
  bytes.resize(static_cast<std::size_t>(buffer.Read(bytes.data(), len)));
  return bytes;
}

}  // namespace

TEST(CBuffer, AppendsUntilFullAndReadsOn) {
  CBuffer slot(10);
  EXPECT_EQ(slot.WriteBuffer("abcdef", 6), 6);
  EXPECT_EQ(slot.WriteBuffer("ghijkl", 6), 4);
  slot.SetWriteRemnantSize(100);
  EXPECT_EQ(slot.WriteBuffer("x", 1), 0) << "the storage is full, whatever the remnant says";
  long got = 0;
  EXPECT_EQ(std::string(static_cast<char*>(slot.ReadBuffer(4, got)), 4), "abcd");
  EXPECT_EQ(got, 4);
  EXPECT_EQ(slot.GetReadRemnantSize(), 6);
  EXPECT_EQ(*static_cast<char*>(slot.ReadBuffer(0, got)), 'e');
  EXPECT_EQ(got, 6);
  slot.ReadBuffer(1, got);
  EXPECT_EQ(got, 0);
  const CBuffer copy = slot;  // shares the storage and does not free it twice
  slot.ResetWriteInfo();
  slot.WriteBuffer("Z", 1);
  EXPECT_EQ(*(copy.GetWriteBufPos() - 10), 'Z');
}

TEST(CRawBuffer, GrowsByExactlyWhatIsAppendedUpToItsMaximum) {
  CRawBuffer buffer(1024, 10240);
  ASSERT_EQ(buffer.Append(std::string(1000, 'a').data(), 1000), 1);
  EXPECT_EQ(buffer.Capacity(), 1024);
  ASSERT_EQ(buffer.Append(std::string(100, 'b').data(), 100), 1);
  EXPECT_EQ(buffer.Capacity(), 1124);
  const std::string large(9141, 'c');
  EXPECT_EQ(buffer.Append(large.data(), 9141), 0);
  EXPECT_EQ(Text(buffer), std::string(1000, 'a') + std::string(100, 'b'));
  EXPECT_EQ(buffer.Append(large.data(), 9140), 1);
  EXPECT_EQ(buffer.Length(), 10240);
  EXPECT_EQ(buffer.Append("x", 1), 0);
  EXPECT_EQ(buffer.Append("x", -1), 0);
  EXPECT_EQ(buffer.Clear(), 1);
  EXPECT_EQ(buffer.Length(), 0);

  CRawBuffer lazy;
  EXPECT_EQ(lazy.Data(), nullptr);
  EXPECT_EQ(lazy.Append("first", 5), 1);
  EXPECT_EQ(lazy.Capacity(), 1024);
  EXPECT_EQ(Text(lazy), "first");
}

TEST(CRawBuffer, ErasesWithinItsLength) {
  CRawBuffer buffer(16, 16);
  buffer.Append("0123456789", 10);
  EXPECT_EQ(buffer.Erase(2, 3), 1);
  EXPECT_EQ(Text(buffer), "0156789");
  EXPECT_EQ(buffer.Erase(6, 1), 1);
  EXPECT_EQ(buffer.Erase(0, 2), 1);
  EXPECT_EQ(Text(buffer), "5678");
  EXPECT_EQ(buffer.Erase(-1, 1), 0);
  EXPECT_EQ(buffer.Insert(0, nullptr, 1), 0);
}

// Nobody can ever release that lock, so the buffer and the blocked thread outlive the test.
TEST(CRawBuffer, AnEraseBeyondTheLengthKeepsTheLock) {
  static CRawBuffer& buffer = *new CRawBuffer(16, 16);
  buffer.Append("abc", 3);
  EXPECT_EQ(buffer.Erase(2, 2), 0);
  EXPECT_EQ(buffer.Append("d", 1), 1) << "the lock is recursive";
  static std::atomic<bool> changed{false};
  std::thread([] {
    buffer.Clear();
    changed = true;
  }).detach();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(changed);
  EXPECT_EQ(Text(buffer), "abcd");
}

TEST(CAutoBuffer, ChangesItsSize) {
  CAutoBuffer buffer(4);
  EXPECT_NE(buffer.GetBuffer(), nullptr);
  buffer.SetBufferSize(1 << 20);
  buffer.GetBuffer()[(1 << 20) - 1] = 1;
  EXPECT_EQ(buffer.GetBufferSize(), 1 << 20);
  buffer.SetBufferSize(-1);
  EXPECT_EQ(buffer.GetBuffer(), nullptr);
  EXPECT_EQ(buffer.GetBufferSize(), 0);
}

TEST(CSimpleBuffer, WrapsAroundAndKeepsOneByteFree) {
  CSimpleBuffer ring(10);
  EXPECT_TRUE(ring.IsBufEmpty());
  EXPECT_EQ(ring.Write("012345", 6), 6);
  EXPECT_EQ(Take(ring, 4), "0123");
  EXPECT_EQ(ring.Write("abcdefgh", 8), 7);  // 4 to the end, 3 of the 4 before the read index
  EXPECT_TRUE(ring.IsBufFull());
  EXPECT_EQ(ring.Write("x", 1), 0);
  EXPECT_EQ(Take(ring, 100), "45abcdefg");
  EXPECT_TRUE(ring.IsBufEmpty());
}

TEST(CSimpleBuffer, AWriteToTheEndWithTheReadIndexAtZeroReadsAsEmpty) {
  CSimpleBuffer ring(4);
  EXPECT_EQ(ring.Write("abcdef", 6), 4);
  EXPECT_TRUE(ring.IsBufEmpty());
  EXPECT_EQ(Take(ring, 4), "");
}

TEST(CSimpleBuffer, NewStorageKeepsTheIndicesThatLieWithinIt) {
  CSimpleBuffer ring;
  char byte = 0;
  EXPECT_EQ(ring.Write("a", 1), 0);
  EXPECT_EQ(ring.Read(&byte, 1), 0);
  EXPECT_FALSE(ring.IsBufFull());
  EXPECT_EQ(ring.AllocateBuffer(65536, 65536), 0);
  ASSERT_EQ(ring.AllocateBuffer(5, 20), 1);
  EXPECT_EQ(ring.Write(std::string(90, 'a').data(), 90), 90);
  ASSERT_EQ(ring.AllocateBuffer(1, 200), 1);
  EXPECT_EQ(Take(ring, 200).size(), 90u);
  ASSERT_EQ(ring.AllocateBuffer(1, 10), 1);
  EXPECT_EQ(ring.Write("abc", 3), 3);
  EXPECT_EQ(Take(ring, 10), "abc");
}

// Against a plain string: whatever is accepted comes out once and in order.
TEST(CSimpleBuffer, IsAQueueOfBytes) {
  std::mt19937 random(7);
  CSimpleBuffer ring(64);
  ring.Write("x", 1);
  Take(ring, 1);  // off index 0, where a write to the end loses what the ring holds
  std::string model;
  unsigned char next = 0;
  for (int step = 0; step < 20000; ++step) {
    const int len = static_cast<int>(random() % 40);
    if (random() % 2 == 0) {
      std::string bytes;
      for (int i = 0; i < len; ++i) {
        bytes.push_back(static_cast<char>(next + i));
      }
      const int put = ring.Write(bytes.data(), len);
      next = static_cast<unsigned char>(next + put);
      model += bytes.substr(0, static_cast<std::size_t>(put));
    } else {
      const std::string got = Take(ring, len);
      ASSERT_EQ(got, model.substr(0, got.size()));
      ASSERT_EQ(got.size(), std::min(model.size(), static_cast<std::size_t>(len)));
      model.erase(0, got.size());
    }
    if (ring.IsBufEmpty()) {
      // Both indices could now be 0 or reach it; start over away from it.
      model.clear();
      ring.AllocateBuffer(1, 1);
      ring.AllocateBuffer(1, 64);
      ring.Write("x", 1);
      Take(ring, 1);
    }
  }
}

TEST(CCircularBuffer, CarriesAStreamAcrossSlotsOnceTheWriterHasMovedOn) {
  CCircularBuffer ring(4, 4);
  EXPECT_TRUE(ring.IsWriteReadSameBuf());
  EXPECT_EQ(ring.Write("abcdefghij", 10), 10);  // slots 1, 2 and half of 3
  EXPECT_EQ(ring.GetWriteIdx(), 3);
  EXPECT_EQ(Take(ring, 5), "abcde");
  EXPECT_EQ(Take(ring, 100), "fgh") << "the slot being written is not read";
  EXPECT_EQ(Take(ring, 100), "");
  EXPECT_EQ(ring.Write("klm", 3), 3);  // fills slot 3 and goes on in slot 0
  EXPECT_EQ(ring.GetWriteIdx(), 0);
  EXPECT_EQ(Take(ring, 100), "ijkl");
}

TEST(CCircularBuffer, OverwritesAllButTheSlotBeingReadAndRefusesNothing) {
  CCircularBuffer ring(3, 2);
  ring.Write("abcd", 4);
  EXPECT_EQ(Take(ring, 1), "a");  // the read slot holds "b" still
  EXPECT_EQ(ring.Write("efghijkl", 8), 8);
  EXPECT_EQ(Take(ring, 1), "b");
  CCircularBuffer tooSmall(1, 16);
  EXPECT_EQ(tooSmall.Write("a", 1), 0);
  EXPECT_EQ(Take(tooSmall, 1), "");
}
