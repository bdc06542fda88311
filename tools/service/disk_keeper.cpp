#include "tools/service/disk_keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <utility>

#include "cms/recording/database_reader.h"
#include "cms/recording/recording_repair.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/wide_text.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;

constexpr milliseconds kKeeperTurn{30'000};
constexpr milliseconds kDiskLook{2'000};
constexpr milliseconds kMovedTurn{60'000};
constexpr int kUntilSpaceIsMade = 5;  // seconds
constexpr const char* kDoubted =
    "the clock is far ahead of when this recorder last ran: for a day, nothing is removed for its "
    "age that was not too old before; see to the clock";
constexpr const char* kClockFile = "/recorder.clock";
constexpr std::ptrdiff_t kMendedDays = 2;
constexpr int kNoLimitOfDays = 36'500;  // where others have one

const char* LimitName(cms::RemovalReason limit) {
  switch (limit) {
    case cms::RemovalReason::kSiteBytes:
      return "a site's bytes";
    case cms::RemovalReason::kFreeSpace:
      return "free space";
    default:
      return "the disk's limit";
  }
}

// Of the figures' one line.
std::string ProblemOf(const cms::KeepReport& report) {
  if (!report.removal.errors.empty()) {
    return report.removal.errors.front();
  }
  if (!report.storage.errors.empty()) {
    return report.storage.errors.front();
  }
  if (!report.left.empty()) {
    return std::string(LimitName(report.left.front().limit)) +
           " cannot be kept: " + std::to_string(report.left.front().over) +
           " bytes are over it and protected, running or not to be removed";
  }
  return report.warnings.empty() ? "" : report.warnings.front().text;
}

// When a keeper of the folder last had a turn, by the clock that it went by, is the time of a file,
// and that it was read so much earlier is for how long the computer's clock had been doubted: both
// change in one step, also on a full disk. Whoever reads the file has it doubted anew.
DaysClock ClockOfLastTurn(const std::string& root) {
  struct stat file {};
  if (stat((root + kClockFile).c_str(), &file) != 0) {
    return DaysClock(0);
  }
  const std::int64_t time = file.st_mtim.tv_sec;
  return DaysClock(time,
                   std::clamp<std::int64_t>(time - file.st_atim.tv_sec, 0, DaysClock::kDoubt));
}

void KeepClock(const std::string& root, std::int64_t time, std::int64_t doubted) {
  const int file = open((root + kClockFile).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (file >= 0) {
    const timespec times[] = {{time - doubted, 0}, {time, 0}};
    futimens(file, times);
    close(file);
  }
}

std::int64_t PassedSeconds() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

}  // namespace

cms::KeepOptions KeepOptionsOf(const RecorderConfig& config, const DiskConfig& disk) {
  cms::KeepOptions options;
  options.root = disk.path;
  options.days = static_cast<int>(config.retention.days);
  options.bytes = disk.bytes;
  options.freeBytes = disk.freeBytes;
  options.everySeconds =
      options.freeBytes > 0
          ? kUntilSpaceIsMade
          : static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(kKeeperTurn).count());
  for (const SiteConfig& site : config.sites) {
    cms::SiteLimits limits;
    limits.site = site.number;
    limits.days = site.retention.days > 0 ? static_cast<int>(site.retention.days)
                  : options.days > 0      ? kNoLimitOfDays
                                          : 0;
    limits.bytes = site.retention.bytes;
    options.perSite.push_back(limits);
  }
  return options;
}

DiskKeeper::DiskKeeper(std::shared_ptr<DiskPlace> place, cms::KeepOptions options)
    : place_(std::move(place)), root_(options.root), daysClock_(0), options_(std::move(options)) {
  figures_.path = options_.root;
  figures_.limitBytes = options_.bytes;
  figures_.keepFreeBytes = options_.freeBytes;
  thread_ = std::thread([this] { Run(); });
  movedThread_ = std::thread([this] { KeepMoved(); });
}

DiskKeeper::~DiskKeeper() {
  AskToEnd();
  thread_.join();
  movedThread_.join();
}

void DiskKeeper::Become(cms::KeepOptions options) {
  {
    const ScopeLock lock(lock_);
    options.now = options_.now;
    options_ = std::move(options);
    figures_.limitBytes = options_.bytes;
    figures_.keepFreeBytes = options_.freeBytes;
  }
  wake_.Signal();
}

void DiskKeeper::AskToEnd() {
  {
    const ScopeLock lock(lock_);
    endAsked_ = true;
  }
  wake_.Signal();
  wakeMoved_.Signal();
}

bool DiskKeeper::WaitEnded(Clock::time_point until) const {
  const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
  pollfd ended{ended_.Descriptor(), POLLIN, 0};
  return poll(&ended, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) > 0;
}

DiskFigures DiskKeeper::Figures() const {
  const ScopeLock lock(lock_);
  return figures_;
}

void DiskKeeper::Run() {
  pthread_setname_np(pthread_self(), "recorder-keep");
  while (!IsToEnd()) {
    if (!place_->Look()) {
      const ScopeLock lock(lock_);
      figures_.usable = false;
      figures_.problem = place_->Problem();
      isMended_ = false;
    } else if (!std::exchange(isMended_, true)) {
      daysClock_ = ClockOfLastTurn(root_);
      Mend();
    }
    if (isMended_) {
      Turn();
      WaitForTurn();
    } else {
      Wait(wake_, kDiskLook);
    }
  }
  TellEnd();
}

// True when somebody woke it.
bool DiskKeeper::Wait(cms::WakeUp& wake, milliseconds time) const {
  pollfd wait{wake.Descriptor(), POLLIN, 0};
  const bool woken = poll(&wait, 1, static_cast<int>(time.count())) > 0;
  wake.Clear();
  return woken;
}

void DiskKeeper::WaitForTurn() {
  const auto end = Clock::now() + kKeeperTurn;
  while (Clock::now() < end && !Wait(wake_, kDiskLook)) {
    if (!place_->Look() || (isAllRemoved_ && IsShortOfSpace())) {
      return;
    }
  }
}

bool DiskKeeper::IsToEnd() const {
  const ScopeLock lock(lock_);
  return endAsked_;
}

bool DiskKeeper::IsShortOfSpace() const {
  const std::uint64_t least = OptionsNow().freeBytes / 2;
  struct statvfs disk {};
  return least > 0 && statvfs(root_.c_str(), &disk) == 0 &&
         std::uint64_t{disk.f_bavail} * disk.f_frsize < least;
}

cms::KeepOptions DiskKeeper::OptionsNow() const {
  const ScopeLock lock(lock_);
  return options_;
}

// A kill tears files of its own day alone, or of two around midnight. What is recorded meanwhile is
// left alone.
void DiskKeeper::Mend() {
  std::vector<std::string> days;
  std::error_code failed;
  for (fs::directory_iterator at(root_ + "/recordings", failed), end; !failed && at != end;
       at.increment(failed)) {
    std::error_code ignored;
    if (at->is_directory(ignored)) {  // the days' spans lie beside them
      days.push_back(at->path().filename().string());
    }
  }
  std::sort(days.begin(), days.end());
  days.erase(days.begin(), days.end() - std::min<std::ptrdiff_t>(kMendedDays, std::ssize(days)));
  std::vector<std::wstring> folders;
  folders.reserve(days.size());
  for (const std::string& day : days) {
    folders.push_back(L"..\\recordings\\" + cms::WideFromUtf8(day));
  }
  cms::RepairOptions options;
  options.dataRoot = root_;
  const auto report = cms::RepairRecordings(
      folders, [this](const cms::RepairedRecording&) { return !IsToEnd(); }, options);
  if (report.repaired + report.removed + report.failed > 0) {
    cms::Log(report.failed > 0 ? cms::LogLevel::kError : cms::LogLevel::kInfo, "repair",
             root_ + ": of " + std::to_string(report.files) + " recordings " +
                 std::to_string(report.repaired) + " were mended, " +
                 std::to_string(report.removed) + " empty ones removed, " +
                 std::to_string(report.failed) + " could not be mended");
  }
}

// By the days' clock, which a clock that went ahead does not hurry.
std::int64_t DiskKeeper::DaysNow() {
  const bool before = daysClock_.IsInDoubt();
  const std::int64_t now = daysClock_.Now(cms::WallSeconds(), PassedSeconds());
  if (daysClock_.IsInDoubt() && !before) {
    cms::Log(cms::LogLevel::kError, "retention", root_ + ": " + kDoubted);
  }
  KeepClock(root_, now, daysClock_.Doubted());
  return now;
}

void DiskKeeper::Turn() {
  const std::int64_t now = DaysNow();
  cms::KeepOptions options;
  {
    const ScopeLock lock(lock_);
    options_.now = now;
    options = options_;
  }
  options.moved = false;
  options.visit = [this](const cms::RemovedRecording&) { return !IsToEnd(); };
  Take(cms::KeepRecordings(options));
}

bool DiskKeeper::LeadsElsewhere() const {
  const auto folders = cms::ReadFolderList(0, root_).rows;
  return std::any_of(folders.begin(), folders.end(),
                     [](const cms::FolderRow& row) { return row.folder != R"(..\recordings)"; });
}

// The disk's own limit does not count what was moved away from it.
void DiskKeeper::KeepMoved() {
  pthread_setname_np(pthread_self(), "recorder-moved");
  while (!IsToEnd()) {
    Wait(wakeMoved_, kMovedTurn);
    cms::KeepOptions options = OptionsNow();
    if (IsToEnd() || options.now == 0 || !place_->IsReady() || !LeadsElsewhere()) {
      continue;
    }
    options.bytes = 0;
    options.visit = [this](const cms::RemovedRecording&) { return !IsToEnd(); };
    const cms::KeepReport report = cms::KeepRecordings(options);
    const ScopeLock lock(lock_);
    figures_.removedFiles += report.removal.removed.size();
    figures_.removedBytes += report.removal.removedBytes;
  }
  TellEnd();
}

void DiskKeeper::TellEnd() {
  if (--running_ == 0) {
    ended_.Signal();
  }
}

// What was removed, and what could not be, the library's log has told.
void DiskKeeper::Take(const cms::KeepReport& report) {
  for (const std::string& error : report.storage.errors) {
    cms::Log(cms::LogLevel::kError, "retention", error);
  }
  for (const cms::FullWarning& warning : report.warnings) {
    cms::Log(cms::LogLevel::kWarning, "retention", warning.text);
  }
  isAllRemoved_ = report.left.empty();
  const ScopeLock lock(lock_);
  figures_.recordedBytes = report.storage.bytes;
  figures_.protectedBytes = report.storage.protectedBytes;
  figures_.keepsUp = report.warnings.empty() && report.left.empty();
  figures_.usable = report.storage.errors.empty();
  figures_.problem = ProblemOf(report);
  if (figures_.problem.empty() && daysClock_.IsInDoubt()) {
    figures_.problem = kDoubted;
  }
  figures_.removedFiles += report.removal.removed.size();
  figures_.removedBytes += report.removal.removedBytes;
  figures_.fullAt = report.warnings.empty() ? 0 : report.warnings.front().fullAt;
  if (!report.storage.disks.empty()) {
    figures_.totalBytes = report.storage.disks.front().total;
    figures_.freeBytes = report.storage.disks.front().free;
  }
}

}  // namespace tools
