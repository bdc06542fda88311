#include "cms/recording/gap_log.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "cms/recording/internal/database_content.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/gap_record.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/runtime/log.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::int64_t kUpdateSeconds = 60;  // how often a lasting gap's record is refreshed

bool IsSameSite(const GapRecord& a, const GapRecord& b) {
  return a.siteNumber == b.siteNumber && a.port == b.port &&
         std::equal(std::begin(a.siteName), std::end(a.siteName), std::begin(b.siteName)) &&
         std::equal(std::begin(a.address), std::end(a.address), std::begin(b.address));
}

GapRecord RecordOf(const GapSite& site) {
  GapRecord record;
  StoreUtf16(site.name, record.siteName);
  StoreUtf16(site.address, record.address);
  record.port = site.port;
  record.siteNumber = site.number;
  return record;
}

GapRow GapRowOf(const GapRecord& record) {
  GapRow row;
  row.siteName = Utf8FromWide(LoadUtf16(record.siteName));
  row.address = Utf8FromWide(LoadUtf16(record.address));
  row.port = record.port;
  row.siteNumber = record.siteNumber;
  row.cause = static_cast<GapCause>(record.cause);
  row.error = record.error;
  row.from = record.from;
  row.to = record.to;
  row.updated = record.updated;
  return row;
}

// What somebody can do about it; empty where it ends by itself.
const char* AdviceOf(GapCause cause) {
  switch (cause) {
    case GapCause::kPasswordRefused:
      return "; give the site the camera's user name and password";
    case GapCause::kCameraRefuses:
      return "; end other sessions of the camera, or choose a stream that it has";
    case GapCause::kWaitingForKeyFrame:
      return "; if it lasts, shorten the key-frame interval at the camera";
    case GapCause::kDiskFull:
      return "; free space on the disk of the recordings";
    case GapCause::kWriteFailed:
      return "; look after the disk and the rights of the recordings' folder";
    case GapCause::kOutOfResources:
      return "; allow the process more descriptors or memory";
    case GapCause::kNoPictures:
      return "; restart the camera or its encoder";
    default:
      return "";
  }
}

LogLevel LevelOf(GapCause cause) {
  if (cause == GapCause::kStopped || cause == GapCause::kStreamClosed) {
    return LogLevel::kInfo;
  }
  return cause == GapCause::kConnecting || cause == GapCause::kWaitingForKeyFrame
             ? LogLevel::kWarning
             : LogLevel::kError;
}

// As lines of the log name a site.
std::string NameOf(const GapSite& site) {
  std::string name = "site " + std::to_string(site.number);
  if (!site.name.empty()) {
    name += " \"" + Utf8FromWide(site.name) + "\"";
  }
  if (!site.address.empty()) {
    name += " (" + Utf8FromWide(site.address) + ":" + std::to_string(site.port) + ")";
  }
  return name;
}

void LogBegin(const GapSite& site, GapCause cause, int error) {
  const LogLevel level = LevelOf(cause);
  if (IsLogged(level)) {
    Log(level, "gap",
        NameOf(site) + ": nothing is recorded: " + GapCauseName(cause) +
            (error != 0 ? ": " + std::generic_category().message(error) : "") + AdviceOf(cause));
  }
}

void LogEnd(const GapSite& site, GapCause cause, std::int64_t seconds) {
  if (IsLogged(LogLevel::kInfo)) {
    Log(LogLevel::kInfo, "gap",
        NameOf(site) + ": the gap is over after " + std::to_string(seconds) + " s (" +
            GapCauseName(cause) + ")");
  }
}

}  // namespace

std::string GapCauseName(GapCause cause) {
  constexpr const char* kNames[] = {
      "unknown",        "connecting",          "camera gone",           "password refused",
      "camera refuses", "stream closed",       "waiting for key frame", "disk full",
      "writing failed", "stopped by the user", "out of resources",      "camera sends no pictures",
  };
  const auto number = static_cast<std::size_t>(cause);
  return number < std::size(kNames) ? kNames[number] : "cause " + std::to_string(number);
}

DatabaseContent<GapRow> ReadGapLog(int number, const std::string& dataRoot) {
  return ReadDatabase<GapRecord, GapRow>(GapLogPath(number), GapLogLock(), GapRowOf, dataRoot);
}

// A record and, once it is in the file, where and how.
struct GapLogWriter::Entry {
  GapRecord record;
  GapRecord stored;
  std::uint64_t offset = 0;
  bool isStored = false;
};

GapLogWriter::GapLogWriter(int number) : number_(number) {}

GapLogWriter::~GapLogWriter() {
  if (WriteWaiting() && open_ && !open_->isStored) {
    Write(*open_);
  }
}

void GapLogWriter::SetDataRoot(const std::string& folder) {
  dataRoot_ = WholeDataRoot(folder);
}

void GapLogWriter::SetSite(const GapSite& site) {
  site_ = site;
}

std::optional<OpenGap> GapLogWriter::Open() const {
  if (!open_) {
    return std::nullopt;
  }
  const GapRecord& record = open_->record;
  return OpenGap{static_cast<GapCause>(record.cause), record.error, record.from};
}

bool GapLogWriter::HasWaiting() const {
  return !waiting_.empty() || (open_ && !open_->isStored);
}

void GapLogWriter::EndAbandoned(std::int64_t now) {
  ScopeLock hold(GapLogLock());
  DatabaseFile file(GapLogPath(number_), sizeof(GapRecord), DatabaseAccess::kCreate, dataRoot_);
  if (!file) {
    return;
  }
  const GapRecord site = RecordOf(site_);
  std::vector<std::pair<std::uint64_t, GapRecord>> abandoned;
  std::uint64_t offset = 0;
  file.ForEach([&](auto bytes) {
    const auto record = RecordFrom<GapRecord>(bytes);
    const bool own = open_ && open_->isStored && open_->offset == offset;
    if (record.to == 0 && IsSameSite(record, site) && !own) {
      abandoned.emplace_back(offset, record);
    }
    offset += sizeof(GapRecord);
    return true;
  });
  for (auto& [at, record] : abandoned) {
    const bool stopped = static_cast<GapCause>(record.cause) == GapCause::kStopped;
    record.to = std::max(record.from, stopped ? now : record.updated);
    file.Overwrite(at, BytesOf(record));
  }
}

void GapLogWriter::Begin(GapCause cause, std::int64_t from, int error) {
  if (const auto open = Open(); open && open->cause == cause && open->error == error) {
    return;
  }
  End(from);
  open_ = std::make_unique<Entry>();
  open_->record = RecordOf(site_);
  open_->record.cause = static_cast<std::uint8_t>(cause);
  open_->record.error = error;
  open_->record.from = from;
  open_->record.updated = from;
  ++totals_.Of(cause).begun;
  LogBegin(site_, cause, error);
  if (WriteWaiting()) {
    Write(*open_);
  }
}

void GapLogWriter::End(std::int64_t to) {
  if (!open_) {
    return;
  }
  open_->record.to = std::max(to, open_->record.from);
  open_->record.updated = open_->record.to;
  const auto cause = static_cast<GapCause>(open_->record.cause);
  const std::int64_t seconds = open_->record.to - open_->record.from;
  totals_.Of(cause).seconds += seconds;
  LogEnd(site_, cause, seconds);
  if (waiting_.size() == kMostWaiting) {
    waiting_.erase(waiting_.begin());
  }
  waiting_.push_back(*std::exchange(open_, nullptr));
  WriteWaiting();
}

void GapLogWriter::Update(std::int64_t now) {
  if (!WriteWaiting() || !open_) {
    return;
  }
  const bool due = now - open_->record.updated >= kUpdateSeconds;
  if (due || !open_->isStored) {
    open_->record.updated = std::max(now, open_->record.updated);
    Write(*open_);
  }
}

bool GapLogWriter::WriteWaiting() {
  while (!waiting_.empty()) {
    if (!Write(waiting_.front())) {
      return false;
    }
    waiting_.erase(waiting_.begin());
  }
  return true;
}

// In place where its record stands, else as a new one: somebody may have removed the file.
bool GapLogWriter::Write(Entry& entry) {
  ScopeLock hold(GapLogLock());
  DatabaseFile file(GapLogPath(number_), sizeof(GapRecord), DatabaseAccess::kCreate, dataRoot_);
  if (!file) {
    return false;
  }
  GapRecord present;
  const bool there = entry.isStored && file.ReadAt(entry.offset, WritableBytesOf(present)) &&
                     present == entry.stored;
  const std::uint64_t end = file.WholeSize();
  if (there ? !file.Overwrite(entry.offset, BytesOf(entry.record))
            : !file.Append(BytesOf(entry.record))) {
    return false;
  }
  if (!there) {
    entry.offset = end;
  }
  entry.stored = entry.record;
  entry.isStored = true;
  return true;
}

}  // namespace cms
