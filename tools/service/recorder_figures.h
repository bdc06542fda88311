// What a running recorder, or the page's program, knows of itself at one moment: what is shown at
// /metrics, by `orvanta status`, and what the hooks judge by. Plain numbers and texts; whoever runs
// the sites fills them in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/live/client_base.h"
#include "cms/live/connection_status.h"
#include "cms/recording/gap_log.h"
#include "cms/recording/recording_status.h"

namespace tools {

struct DecoderFigures {
  std::uint64_t decoded = 0;
  std::uint64_t skipped = 0;
  std::uint64_t errors = 0;
};

struct SiteFigures {
  unsigned number = 0;
  std::string name;
  std::string url;      // without user and password
  std::string folder;   // of its recordings; one of the disks' paths, empty: not recorded at all
  bool enabled = true;  // by the configuration
  bool wanted = false;  // its plan wants something recorded now, if only events
  bool event = false;   // an event is being recorded

  // Of the site's client: FiguresOf fills these in.
  cms::ConnectionStatus connection;
  cms::CMSFrameData frames;
  cms::RecordingStatus recording;
  cms::GapTotals gaps;
  std::optional<cms::OpenGap> gap;  // that lasts
  DecoderFigures decoder;           // of channel 0

  // Wanted, and missing at this moment.
  bool IsMissing() const { return enabled && wanted && gap.has_value(); }
};

struct DiskFigures {
  std::string path;
  std::uint64_t totalBytes = 0;
  std::uint64_t freeBytes = 0;
  std::uint64_t recordedBytes = 0;  // of recordings with their indexes
  std::uint64_t protectedBytes = 0;
  std::uint64_t limitBytes = 0;     // what retention keeps the recordings within, 0: no such limit
  std::uint64_t keepFreeBytes = 0;  // what retention keeps free
  std::int64_t fullAt = 0;  // when it will be full as it fills now, seconds since 1970; 0: not
  bool keepsUp = true;      // retention frees as fast as it fills
  bool usable = true;
  std::string problem;  // one line: why not, or what retention could not do
  std::uint64_t removedFiles = 0;
  std::uint64_t removedBytes = 0;
};

struct HookFigures {
  std::string name;
  std::uint64_t told = 0;
  std::uint64_t failed = 0;   // attempts
  std::uint64_t dropped = 0;  // events that nobody was told of
  std::uint64_t waiting = 0;
  std::string problem;  // of the last attempt, empty when it went well
};

struct ProcessFigures {
  double cpuSeconds = 0;  // user and system
  std::uint64_t residentBytes = 0;
  std::uint64_t openDescriptors = 0;
  std::uint64_t mostDescriptors = 0;
  std::uint64_t threads = 0;
};

struct RecorderFigures {
  std::string version;
  std::int64_t now = 0;        // seconds since 1970-01-01 UTC
  std::int64_t startedAt = 0;  // likewise
  std::uint64_t reloads = 0;   // of the configuration
  std::string configProblem;   // why the last one was refused, one line; empty when it was not
  int watchers = 0;            // of the page
  std::uint64_t droppedLogLines = 0;
  ProcessFigures process;
  std::vector<SiteFigures> sites;
  std::vector<DiskFigures> disks;
  std::vector<HookFigures> hooks;
};

// What the client knows of its site; number, name and the other fields are the caller's. Waits for
// nobody.
SiteFigures FiguresOf(CMSClientBase& client);
ProcessFigures FiguresOfThisProcess();
const char* ProgramVersion();

}  // namespace tools
