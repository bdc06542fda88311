// The machine's processor time, and what its processors are called.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace cms {

// Processor time of all processors since the machine started, in the kernel's ticks.
struct CpuTimes {
  std::uint64_t busy = 0;
  std::uint64_t all = 0;
};

// Of the text of /proc/stat. Waiting for a disk is not busy; time that a hypervisor took away is.
CMS_API std::optional<CpuTimes> CpuTimesOf(std::string_view stat);

// How busy the machine is. Nothing runs between the questions. Any thread may call any member.
class CMS_API CpuUsage {
 public:
  // Shorter spans than this say little, as the kernel counts in ticks of 10 ms.
  static constexpr std::uint64_t kShortestSpan = 500;  // milliseconds

  // Begins a span. False when the kernel does not tell its times.
  bool Start();
  void Stop();

  // Percent, 0 to 100, since the last question that was answered anew, or since Start: a question
  // within kShortestSpan gets the last answer again. -1 before Start, after Stop, and until the
  // first span has its length.
  int Percent();

 private:
  static std::optional<CpuTimes> Now();

  CMSCritical lock_;
  std::optional<CpuTimes> since_ CMS_GUARDED_BY(lock_);
  std::uint64_t tick_ CMS_GUARDED_BY(lock_) = 0;  // of since_
  int answer_ CMS_GUARDED_BY(lock_) = -1;
};

// The brand string of the first processor, such as "Intel(R) Atom(TM) CPU D525 @ 1.80GHz"; empty
// when it has none.
CMS_API std::string CpuBrand();

}  // namespace cms
