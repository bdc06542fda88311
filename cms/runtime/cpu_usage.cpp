#include "cms/runtime/cpu_usage.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <array>
#include <charconv>

#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"

namespace cms {
namespace {

// The beginning of a file of /proc, whose size is not known before it is read.
std::string BeginningOf(const std::string& path) {
  FileIo& io = CurrentFileIo();
  const ScopedFile file(io, path, kFileRead);
  std::array<char, 8192> bytes;
  return file ? std::string(bytes.data(), io.ReadAll(file.Handle(), bytes.data(), bytes.size()))
              : std::string();
}

#if defined(__x86_64__) || defined(__i386__)
// AMD64 Architecture Programmer's Manual, volume 3, E.4.2: three leaves of 16 characters.
std::string BrandOfProcessor() {
  constexpr unsigned kFirstLeaf = 0x80000002;
  constexpr unsigned kLastLeaf = 0x80000004;
  std::string brand;
  for (unsigned leaf = kFirstLeaf; leaf <= kLastLeaf; ++leaf) {
    std::array<unsigned, 4> words{};
    if (__get_cpuid(leaf, &words[0], &words[1], &words[2], &words[3]) == 0) {
      return {};
    }
    for (const unsigned word : words) {
      for (unsigned shift = 0; shift < 32; shift += 8) {
        brand.push_back(static_cast<char>(word >> shift));
      }
    }
  }
  return brand.substr(0, brand.find('\0'));
}
#else
std::string BrandOfProcessor() {
  return {};
}
#endif

}  // namespace

std::optional<CpuTimes> CpuTimesOf(std::string_view stat) {
  // proc(5): "cpu user nice system idle iowait irq softirq steal ..."; what a guest gets is in
  // user.
  constexpr std::size_t kCounters = 8;
  constexpr std::size_t kIdle = 3;
  constexpr std::size_t kWaiting = 4;
  constexpr std::size_t kFewest = 4;
  if (!stat.starts_with("cpu ")) {
    return std::nullopt;
  }
  stat = stat.substr(4, stat.find('\n') - 4);
  CpuTimes times;
  for (std::size_t i = 0; i < kCounters; ++i) {
    stat.remove_prefix(std::min(stat.find_first_not_of(' '), stat.size()));
    std::uint64_t ticks = 0;
    const auto [end, error] = std::from_chars(stat.data(), stat.data() + stat.size(), ticks);
    if (error != std::errc()) {
      return i < kFewest ? std::nullopt : std::optional(times);
    }
    stat.remove_prefix(static_cast<std::size_t>(end - stat.data()));
    times.all += ticks;
    times.busy += i == kIdle || i == kWaiting ? 0 : ticks;
  }
  return times;
}

std::optional<CpuTimes> CpuUsage::Now() {
  return CpuTimesOf(BeginningOf("/proc/stat"));
}

bool CpuUsage::Start() {
  ScopeLock lock(lock_);
  since_ = Now();
  tick_ = TickMilliseconds();
  answer_ = -1;
  return since_.has_value();
}

void CpuUsage::Stop() {
  ScopeLock lock(lock_);
  since_.reset();
  answer_ = -1;
}

int CpuUsage::Percent() {
  ScopeLock lock(lock_);
  if (!since_ || TickMilliseconds() - tick_ < kShortestSpan) {
    return answer_;
  }
  const auto now = Now();
  // The kernel's counters of waiting may go back a little.
  if (now && now->all > since_->all) {
    const std::uint64_t all = now->all - since_->all;
    const std::uint64_t busy = now->busy - std::min(now->busy, since_->busy);
    answer_ = static_cast<int>((std::min(busy, all) * 100 + all / 2) / all);
    since_ = now;
    tick_ = TickMilliseconds();
  }
  return answer_;
}

std::string CpuBrand() {
  std::string brand = BrandOfProcessor();
  if (brand.empty()) {
    const std::string text = BeginningOf("/proc/cpuinfo");
    constexpr std::string_view kLine = "model name\t: ";
    if (const auto at = text.find(kLine); at != std::string::npos) {
      const auto begin = at + kLine.size();
      brand = text.substr(begin, text.find('\n', begin) - begin);
    }
  }
  const auto first = std::min(brand.find_first_not_of(' '), brand.size());
  return brand.substr(first, brand.find_last_not_of(' ') + 1 - first);
}

}  // namespace cms
