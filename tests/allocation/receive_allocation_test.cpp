// On a frame's way from the socket to the client nothing is allocated. The program replaces the
// global operator new, so it stands alone.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace {

std::atomic<long> allocations{0};

// Whether the calling thread is one of the library's receiving threads.
bool OnReceiveThread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return std::strncmp(name, "cms-recv", 8) == 0;
}

void* Counted(std::size_t size) {
  static thread_local const bool counted = OnReceiveThread();
  if (counted) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  if (void* const memory = std::malloc(size != 0 ? size : 1)) {
    return memory;
  }
  throw std::bad_alloc();
}

}  // namespace

// Where g++ inlines only one half of a replaced pair, it takes the pair for new and free.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
  return Counted(size);
}
void* operator new[](std::size_t size) {
  return Counted(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Counted(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Counted(size);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

class ReceiveAllocation : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, ReceiveAllocation,
                         testing::Values(kRtspTransportUdp, kRtspTransportInterleaved));

TEST_P(ReceiveAllocation, NothingIsAllocatedPerPacketOrFrame) {
  test::ScriptedRtspServer server;
  CMSRTSPClient client;
  client.AllocChannelData(1);
  stRTSPClientConfig config = test::ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  ASSERT_EQ(client.Play(), 1);
  test::H264Packets packets;
  CMSFrameData data;
  const auto sendUntil = [&](std::uint64_t frames) {
    return test::WaitFor([&] {
      server.SendRtp(0, packets.Picture());
      server.SendRtp(0, packets.KeyFrame(5'000));
      server.SendRtp(1, test::RtpPacket({.payload_type = 0}, std::string(160, 'a')));
      client.GetFrameData(&data, sizeof data);
      return data.videoFrames >= frames;
    });
  };
  ASSERT_TRUE(sendUntil(10));  // the threads' own scratch areas exist from here on
  const long before = allocations.load();
  ASSERT_TRUE(sendUntil(500));
  EXPECT_EQ(allocations.load(), before);
  EXPECT_GT(data.audioFrames, 100u);
}

}  // namespace
