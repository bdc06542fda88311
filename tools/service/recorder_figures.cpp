#include "tools/service/recorder_figures.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tools {
namespace {

double SecondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::uint64_t EntriesOf(const char* folder) {
  std::error_code failed;
  const std::filesystem::directory_iterator entries(folder, failed);
  return failed ? 0 : static_cast<std::uint64_t>(std::distance(begin(entries), end(entries)));
}

std::uint64_t ResidentPages() {
  std::uint64_t all = 0;
  std::uint64_t resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident;
}

}  // namespace

SiteFigures FiguresOf(CMSClientBase& client) {
  SiteFigures figures;
  figures.connection = client.GetConnectionStatus();
  client.GetFrameData(&figures.frames, sizeof figures.frames);
  figures.recording = client.GetRecordingStatus();
  figures.gaps = client.GetRecordingGapTotals();
  figures.gap = client.GetRecordingGap();
  unsigned decoded = 0;
  unsigned skipped = 0;
  unsigned errors = 0;
  client.GetDecodeStatus(0, &decoded, &skipped, &errors);
  figures.decoder = {decoded, skipped, errors};
  return figures;
}

const char* ProgramVersion() {
  return ORVANTA_VERSION;
}

ProcessFigures FiguresOfThisProcess() {
  ProcessFigures figures;
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) == 0) {
    figures.cpuSeconds = SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime);
  }
  figures.residentBytes = ResidentPages() * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  // Without the one that counts.
  figures.openDescriptors = std::max<std::uint64_t>(EntriesOf("/proc/self/fd"), 1) - 1;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    figures.mostDescriptors = limit.rlim_cur;
  }
  figures.threads = EntriesOf("/proc/self/task");
  return figures;
}

}  // namespace tools
