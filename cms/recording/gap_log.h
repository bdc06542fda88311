// The gap log: when a site should have recorded and did not, and why.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/runtime/api.h"

namespace cms {

// As it stands in the log; numbers are never given another meaning.
enum class GapCause : std::uint8_t {
  kUnknown = 0,
  kConnecting = 1,          // the stream is being opened, no fault is known yet
  kCameraGone = 2,          // no connection, no answer, or the camera ended it
  kPasswordRefused = 3,     // the camera wants other credentials
  kCameraRefuses = 4,       // the camera is full, or does not offer this stream
  kStreamClosed = 5,        // the client application closed or paused the stream, or gave up on it
  kWaitingForKeyFrame = 6,  // frames arrive, but none that a file may begin with
  kDiskFull = 7,
  kWriteFailed = 8,      // a file could not be opened or written: `error`
  kStopped = 9,          // the user stopped recording
  kOutOfResources = 10,  // this host has no descriptor, port or memory left
  kNoPictures = 11,      // the camera is connected and sends no video
};

// A short English name such as "disk full"; "cause <number>" for numbers that are not known.
CMS_API std::string GapCauseName(GapCause cause);

// Whose gap it is, in the words of the record and event lists.
struct GapSite {
  std::uint32_t number = 0;
  std::wstring name;
  std::wstring address;
  std::uint16_t port = 0;
};

// A gap that lasts.
struct OpenGap {
  GapCause cause = GapCause::kUnknown;
  int error = 0;
  std::int64_t from = 0;
};

// The gaps of one site, by their cause's number, since its client was made; those of causes that
// are not known count as kUnknown.
struct GapTotals {
  struct Cause {
    std::uint64_t begun = 0;
    std::int64_t seconds = 0;  // of those that are over
  };
  static constexpr std::size_t kCauses = 12;
  std::array<Cause, kCauses> causes;

  Cause& Of(GapCause cause) {
    const auto number = static_cast<std::size_t>(cause);
    return causes[number < kCauses ? number : 0];
  }
};

struct GapRow {
  std::string siteName;
  std::string address;
  std::uint16_t port = 0;
  std::uint32_t siteNumber = 0;
  GapCause cause = GapCause::kUnknown;
  int error = 0;             // errno with kDiskFull and kWriteFailed, else 0
  std::int64_t from = 0;     // seconds since 1970-01-01 UTC
  std::int64_t to = 0;       // 0: it lasts, or its process ended without ending it
  std::int64_t updated = 0;  // the last time that it was known to last, at most a minute old
};

// "..\GapLog<number>", in the order in which the gaps began. Takes the log's lock of the process
// while it reads and waits for no other process. Without a root (cms/recording/data_root.h) that of
// the process counts.
CMS_API DatabaseContent<GapRow> ReadGapLog(int number, const std::string& dataRoot = {});

// Writes the gaps of one site, one after the other. A gap is in the file from its beginning on, so
// that a killed process leaves it there without an end. What cannot be written, for example because
// the disk is full, is kept (the latest kMostWaiting gaps of it) and written by a later call.
//
// One thread at a time. Every call may wait for the disk.
class CMS_API GapLogWriter {
 public:
  static constexpr std::size_t kMostWaiting = 100;

  explicit GapLogWriter(int number = 0);
  ~GapLogWriter();  // tries once more to write what waits; a gap that lasts stays open in the file
  GapLogWriter(const GapLogWriter&) = delete;
  GapLogWriter& operator=(const GapLogWriter&) = delete;

  void SetDataRoot(const std::string& folder);  // first; without it that of the process counts
  void SetSite(const GapSite& site);            // of gaps begun from now on

  // Recording begins: ends the gaps that earlier processes left open for this site. A stop lasted
  // until now, any other gap until it was last known to last. Makes the log if there is none, so
  // that a disk without room for another file can still take a gap.
  void EndAbandoned(std::int64_t now);

  // A gap with another cause ends where this one begins; the same one goes on.
  void Begin(GapCause cause, std::int64_t from, int error = 0);
  void End(std::int64_t to);      // not before its beginning; nothing when none lasts
  void Update(std::int64_t now);  // about once a second while a gap lasts or something waits

  std::optional<OpenGap> Open() const;
  bool HasWaiting() const;
  const GapTotals& Totals() const { return totals_; }

 private:
  struct Entry;
  bool Write(Entry& entry);
  bool WriteWaiting();

  const int number_;
  std::string dataRoot_;
  GapSite site_;
  std::unique_ptr<Entry> open_;
  std::vector<Entry> waiting_;  // ended, not in the file as such yet
  GapTotals totals_;
};

}  // namespace cms
