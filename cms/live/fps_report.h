// CMSFpsReport: frame rate, smoothed frame rate and bit rate of one stream.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "cms/runtime/api.h"
#include "cms/runtime/stop_watch.h"

// Fed by the one thread that delivers the stream's frames; that thread also owns the setters and
// the title. The rates may be read by any thread at any time; two getters need not be of one
// interval.
class CMS_API CMSFpsReport {
 public:
  // Measures with the high-resolution counter; with useTickCount, or where there is no such
  // counter, with the library's millisecond tick count.
  explicit CMSFpsReport(bool useTickCount = false);
  CMSFpsReport(const CMSFpsReport& other);
  CMSFpsReport& operator=(const CMSFpsReport& other);

  // Accounts one delivery. True when the call came later than the report interval after the last
  // report: the rates are then those of the deliveries before it, and it counts for the next
  // interval.
  bool AddFrameCount(unsigned long bytes, int frames);

  void SetReportInterval(int seconds);  // 1 at start; negative counts as 0

  // The title, formatted printf-style; cut at 1023 bytes.
  void SetReportFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
  const std::string& GetReportTitle() const { return title_; }

  // Stores the channel modulo 65, with the sign of the argument.
  void SetChannel(int channel);
  int GetChannel() const { return channel_; }

  double GetRecentFps() const { return recentFps_.load(std::memory_order_relaxed); }
  double GetRecentAvgFps() const { return averageFps_.load(std::memory_order_relaxed); }
  double GetKbps() const { return kbps_.load(std::memory_order_relaxed); }  // 1 kilobit: 1024 bits

  // Switches kept for the client application; the class does not act on them.
  void TurnOnDebugger() { debugger_ = true; }
  void TurnOffDebugger() { debugger_ = false; }
  bool IsDebuggerOn() const { return debugger_; }
  void TurnOnLog() { log_ = true; }
  void TurnOffLog() { log_ = false; }
  bool IsLogOn() const { return log_; }

 private:
  std::int64_t ElapsedMilliseconds() const;

  std::int32_t frames_ = 0;
  bool debugger_ = false;
  bool log_ = true;
  std::uint32_t bytes_ = 0;
  std::int32_t intervalMs_ = 1000;
  std::int32_t channel_ = 0;
  std::string title_;
  std::atomic<double> recentFps_{30.0};
  std::atomic<double> averageFps_{30.0};
  std::atomic<double> kbps_{0.0};
  StopWatch watch_;
};
