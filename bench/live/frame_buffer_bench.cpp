// What a packet costs on its way through CFrameBuffer, beside the two plain copies that it
// contains.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "cms/live/media/frame_buffer.h"

namespace {

constexpr long kSlot = 2048;

void WriteAndRead(benchmark::State& state) {
  const long size = state.range(0);
  CFrameBuffer buffer(64, kSlot);
  std::vector<char> in(kSlot, 'x');
  std::vector<char> out(kSlot);
  buffer.Write(in.data(), size, 1);
  buffer.Read(out.data(), kSlot);  // the empty first slot
  for (auto _ : state) {
    buffer.Write(in.data(), size, 1);
    benchmark::DoNotOptimize(buffer.Read(out.data(), kSlot));
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(WriteAndRead)->Arg(200)->Arg(1400);

// The same copies over as much memory, without a ring.
void TwoCopies(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  std::vector<char> slots(64 * kSlot);
  std::vector<char> in(kSlot, 'x');
  std::vector<char> out(kSlot);
  std::size_t slot = 0;
  for (auto _ : state) {
    char* const place = slots.data() + slot++ % 64 * kSlot;
    std::memcpy(place, in.data(), size);
    benchmark::ClobberMemory();
    std::memcpy(out.data(), place, size);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(TwoCopies)->Arg(200)->Arg(1400);

// A second thread reads; refused packets are offered again, so this is the pace of both together.
void BetweenTwoThreads(benchmark::State& state) {
  CFrameBuffer buffer(64, kSlot);
  std::vector<char> in(kSlot, 'x');
  std::atomic<bool> over{false};
  std::thread reader([&] {
    std::vector<char> out(kSlot);
    while (!over) {
      buffer.WaitForFrame(100);
      buffer.Read(out.data(), kSlot);
    }
  });
  for (auto _ : state) {
    while (buffer.Write(in.data(), 1400, 1) == 0) {
      std::this_thread::yield();
    }
  }
  over = true;
  buffer.StopBuffer();
  reader.join();
  state.SetBytesProcessed(state.iterations() * 1400);
}
BENCHMARK(BetweenTwoThreads)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
