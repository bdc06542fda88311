#include "tools/service/recorder_service.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cms/exports/net_exports.h"
#include "cms/recording/data_root.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "tools/serve/machine_names.h"
#include "tools/service/reload_signal.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

constexpr std::chrono::milliseconds kServiceTurn{1'000};
constexpr std::chrono::milliseconds kFirstDiskAnswer{5'000};
constexpr std::chrono::seconds kLongestServiceEnd{32};  // a site's own half a minute, and some
constexpr std::int64_t kDiskIsDead = 10;                // seconds of a disk that fails

void LogInfo(const std::string& text) {
  cms::Log(cms::LogLevel::kInfo, "service", text);
}

void LogError(const std::string& text) {
  cms::Log(cms::LogLevel::kError, "service", text);
}

std::uint32_t AddressOf(const std::string& text) {
  in_addr address{};
  inet_pton(AF_INET, text.c_str(), &address);
  return ntohl(address.s_addr);
}

// A full disk is retention's to mend, and is well again when there is space.
bool IsOfADeadDisk(const SiteFigures& site, std::int64_t now) {
  return site.gap && site.gap->cause == cms::GapCause::kWriteFailed &&
         now - site.gap->from >= kDiskIsDead;
}

}  // namespace

RecorderService::RecorderService(std::string path, RecorderConfig config)
    : path_(std::move(path)), startedAt_(cms::WallSeconds()), log_(config.logLevel) {
  CatchReloadSignal();
  cms::SetDataRoot(config.disks.front().path);  // of what is told no other
  Apply(std::move(config));
}

RecorderService::~RecorderService() {
  page_.reset();
  status_.clear();
  ending_.clear();
  endingKeepers_.clear();
  {
    const ScopeLock lock(lock_);
    sites_.clear();
  }
  StopEachClientNBManager();
}

int RecorderService::Run(bool json) {
  const auto watchdog = manager_.WatchdogInterval();
  const auto turn =
      watchdog ? std::min(kServiceTurn,
                          std::chrono::duration_cast<std::chrono::milliseconds>(*watchdog / 2))
               : kServiceTurn;
  RefuseTakenDisks();
  AnswerQuestions();
  Tell(HookEventKind::kServiceStarted);
  manager_.Ready("records " + std::to_string(Sites().size()) + " sites");
  LogInfo("records " + std::to_string(Sites().size()) + " sites of " + path_);
  pollfd waits[] = {{StopDescriptor(), POLLIN, 0}, {ReloadDescriptor(), POLLIN, 0}};
  while (!StopRequested()) {
    poll(waits, std::size(waits), static_cast<int>(turn.count()));
    manager_.StillThere();
    if (TakeReload()) {
      Reload();
    }
    LookAtDisks();
    AnswerQuestions();
    const auto events = events_.Look(Figures());
    {
      const ScopeLock lock(lock_);
      for (const HookEvent& event : events) {
        if (hooks_) {
          hooks_->Tell(event);
        }
      }
    }
    Forget();
  }
  manager_.Stopping();
  Tell(HookEventKind::kServiceStopped);
  EndHooks();
  const bool ended = End();
  if (json) {
    Print();
  }
  if (!ended) {
    LogError(
        "a disk or a camera did not answer: the last frames may not be stored; when it is "
        "well, run orvanta repair");
    log_.SetLevel(std::nullopt);
    std::fflush(nullptr);
    std::_Exit(1);  // a thread that waits for the disk would hold up the end
  }
  return 0;
}

std::map<unsigned, RecorderService::Site> RecorderService::Sites() const {
  const ScopeLock lock(lock_);
  return sites_;
}

std::vector<std::shared_ptr<ServeSite>> RecorderService::PageSites() const {
  std::vector<std::shared_ptr<ServeSite>> shown;
  for (const auto& [number, site] : Sites()) {
    if (auto page = site->Page()) {
      shown.push_back(std::move(page));
    }
  }
  return shown;
}

void RecorderService::Reload() {
  manager_.Reloading();
  ConfigProblems problems;
  RecorderConfig config = ReadRecorderConfig(path_, &problems);
  for (const std::string& line : LinesOf(path_, problems.warnings)) {
    cms::Log(cms::LogLevel::kWarning, "service", line);
  }
  const std::vector<std::string> errors = LinesOf(path_, problems.errors);
  for (const std::string& line : errors) {
    LogError(line);
  }
  if (errors.empty()) {
    Apply(std::move(config));
    LogInfo("read " + path_ + " again");
  } else {
    LogError(path_ + " is refused: what was read before holds on");
  }
  {
    const ScopeLock lock(lock_);
    reloads_ += errors.empty() ? 1 : 0;
    configProblem_ = errors.empty() ? "" : errors.front();
  }
  manager_.Ready((errors.empty() ? "records " : "the file is refused; records ") +
                 std::to_string(Sites().size()) + " sites");
}

// Sites that are as they were are not touched.
void RecorderService::Apply(RecorderConfig config) {
  const PageConfig pageBefore = config_.page;
  const std::vector<HookConfig> hooksBefore = config_.hooks;
  config_ = std::move(config);
  log_.SetLevel(config_.logLevel);
  {
    const ScopeLock lock(lock_);
    failedDisks_.clear();
  }
  KeepDisks();
  auto places = Places();
  std::map<unsigned, Site> before = Sites();
  for (const SiteConfig& site : config_.sites) {
    if (!site.enabled) {
      continue;
    }
    const Timetable plan = PlanOf(config_, site);
    const auto found = before.find(site.number);
    Site old = found == before.end() ? nullptr : found->second;
    before.erase(site.number);
    const bool diskStays = old && (site.disk.empty() || site.disk == old->Place()->Path()) &&
                           places[old->Place()->Path()] == old->Place();
    if (diskStays && old->Become(site, plan)) {
      continue;
    }
    if (old) {
      old->AskToEnd();
      ending_.push_back(old);
    }
    auto now =
        std::make_shared<ServiceSite>(site, plan, PlaceFor(site), onvifEvents_, std::move(old));
    const ScopeLock lock(lock_);
    sites_[site.number] = std::move(now);
  }
  for (auto& [number, site] : before) {
    site->AskToEnd();
    ending_.push_back(site);
    const ScopeLock lock(lock_);
    sites_.erase(number);
  }
  SetHooks(hooksBefore);
  ShowPage(pageBefore);
}

void RecorderService::SetHooks(const std::vector<HookConfig>& before) {
  if (config_.hooks == before) {
    return;
  }
  std::shared_ptr<Hooks> hooks;
  try {
    hooks = config_.hooks.empty() ? nullptr : std::make_shared<Hooks>(config_.hooks);
  } catch (const std::exception& error) {
    LogError(std::string("there are no hooks: ") + error.what());
  }
  const ScopeLock lock(lock_);
  hooks_.swap(hooks);
}

// While the sites still record: whoever does not answer costs a restart no frame.
void RecorderService::EndHooks() {
  std::shared_ptr<Hooks> hooks;
  const ScopeLock lock(lock_);
  hooks.swap(hooks_);
}

void RecorderService::Tell(HookEventKind kind) {
  HookEvent event;
  event.kind = kind;
  event.time = cms::WallSeconds();
  const ScopeLock lock(lock_);
  if (hooks_) {
    hooks_->Tell(event);
  }
}

std::map<std::string, std::shared_ptr<DiskPlace>> RecorderService::Places() const {
  std::map<std::string, std::shared_ptr<DiskPlace>> places;
  const ScopeLock lock(lock_);
  for (const auto& [path, keeper] : keepers_) {
    places.emplace(path, keeper->Place());
  }
  return places;
}

// Two programs that number their files alike would record into each other's.
void RecorderService::RefuseTakenDisks() const {
  const auto end = Clock::now() + kFirstDiskAnswer;
  for (const auto& [path, place] : Places()) {
    while (place->State() == PlaceState::kUnknown && Clock::now() < end) {
      std::this_thread::sleep_for(kFirstDiskAnswer / 100);
    }
    if (place->State() == PlaceState::kTaken) {
      throw std::runtime_error(place->Problem());
    }
  }
}

void RecorderService::AnswerQuestions() {
  const auto places = Places();
  std::erase_if(status_, [&](const auto& each) {
    const auto place = places.find(each.first);
    return place == places.end() || !place->second->IsReady();
  });
  for (const auto& [path, place] : places) {
    if (!place->IsReady() || status_.contains(path)) {
      continue;
    }
    std::unique_ptr<StatusSocket>& status = status_[path];
    try {
      status = std::make_unique<StatusSocket>(path, [this] { return Figures(); });
    } catch (const std::exception& error) {
      LogError(std::string("orvanta status gets no answer: ") + error.what());
    }
  }
}

void RecorderService::KeepDisks() {
  const ScopeLock lock(lock_);
  std::map<std::string, std::unique_ptr<DiskKeeper>> before = std::move(keepers_);
  keepers_.clear();
  for (const DiskConfig& disk : config_.disks) {
    cms::KeepOptions options = KeepOptionsOf(config_, disk);
    std::unique_ptr<DiskKeeper>& keeper = keepers_[disk.path];
    keeper = std::move(before[disk.path]);
    if (keeper && keeper->Place()->Mount() != disk.mount) {
      keeper->AskToEnd();
      endingKeepers_.push_back(std::exchange(keeper, nullptr));
    }
    if (keeper) {
      keeper->Become(std::move(options));
    } else {
      keeper = std::make_unique<DiskKeeper>(std::make_shared<DiskPlace>(disk.path, disk.mount),
                                            std::move(options));
    }
  }
  for (auto& [path, keeper] : before) {
    if (keeper) {
      keeper->AskToEnd();
      endingKeepers_.push_back(std::move(keeper));
    }
  }
}

std::set<std::string> RecorderService::FailedDisks() const {
  const ScopeLock lock(lock_);
  return failedDisks_;
}

// Its own, or the one with the fewest sites; one that failed only when there is no other.
std::shared_ptr<DiskPlace> RecorderService::PlaceFor(const SiteConfig& site) const {
  const auto places = Places();
  const std::set<std::string> failed = FailedDisks();
  if (!site.disk.empty() && !(config_.moveOnFailure && failed.contains(site.disk))) {
    return places.at(site.disk);
  }
  std::map<std::string, std::size_t> taken;
  for (const auto& [number, other] : Sites()) {
    taken[other->Place()->Path()] += number == site.number ? 0 : 1;
  }
  const auto load = [&](const DiskConfig& disk) {
    return std::pair(failed.contains(disk.path), taken[disk.path]);
  };
  return places.at(
      std::min_element(config_.disks.begin(), config_.disks.end(),
                       [&](const DiskConfig& a, const DiskConfig& b) { return load(a) < load(b); })
          ->path);
}

void RecorderService::ShowPage(const PageConfig& before) {
  const PageConfig& page = config_.page;
  if (page == before) {
    return;
  }
  page_.reset();
  if (!page.on) {
    return;
  }
  WebServerOptions options;
  options.port = page.port;
  options.audit = page.audit;
  options.recorder = path_;
  options.address = AddressOf(page.bind);
  options.names = NamesOfThisMachine(page.names);
  options.certificateFile = page.tlsCertificate;
  options.keyFile = page.tlsKey;
  options.figures = [this] { return Figures(); };
  options.roots = [this] {
    std::vector<std::string> roots;
    for (const auto& [path, place] : Places()) {
      if (place->IsReady()) {
        roots.push_back(path);
      }
    }
    return roots;
  };
  if (page.usersFile.empty()) {
    options.access.push_back(
        {AddressOf("127.0.0.0"), AddressOf("127.255.255.255"), AccessRange::kWhite});
  }
  try {
    if (!page.usersFile.empty()) {
      options.users = std::make_shared<Users>(page.usersFile);
    }
    page_ = std::make_unique<WebServer>(options, [this] { return PageSites(); });
    LogInfo("the page is at " + std::string(page_->Scheme()) + page.bind + ":" +
            std::to_string(page_->Port()) + "/");
  } catch (const std::exception& error) {
    LogError(std::string("there is no page: ") + error.what());
  }
}

void RecorderService::LookAtDisks() {
  if (!config_.moveOnFailure || config_.disks.size() < 2) {
    return;
  }
  const std::int64_t now = cms::WallSeconds();
  for (const SiteConfig& config : config_.sites) {
    const auto sites = Sites();
    const auto site = sites.find(config.number);
    if (site == sites.end() || !IsOfADeadDisk(site->second->Figures(), now)) {
      continue;
    }
    bool isNew = false;
    std::size_t failed = 0;
    {
      const ScopeLock lock(lock_);
      isNew = failedDisks_.insert(site->second->Place()->Path()).second;
      failed = failedDisks_.size();
    }
    if (isNew) {
      LogError("the disk " + site->second->Place()->Path() +
               " fails: its sites go on on another one until the configuration is read again");
    }
    if (failed < config_.disks.size()) {
      GoOnElsewhere(config);
    }
  }
}

// The old one's end may take as long as its disk hangs, and is not waited for.
void RecorderService::GoOnElsewhere(const SiteConfig& site) {
  auto disk = PlaceFor(site);
  LogInfo("site " + std::to_string(site.number) + " goes on on " + disk->Path());
  auto now = std::make_shared<ServiceSite>(site, PlanOf(config_, site), std::move(disk),
                                           onvifEvents_, nullptr);
  const ScopeLock lock(lock_);
  Site& place = sites_[site.number];
  place->AskToEnd();
  ending_.push_back(std::exchange(place, std::move(now)));
}

void RecorderService::Forget() {
  std::erase_if(ending_, [](const Site& site) { return site->WaitEnded(Clock::now()); });
  std::erase_if(endingKeepers_, [](const auto& keeper) { return keeper->HasEnded(); });
}

// All sites are asked before the first is waited for, and one time holds for all of them.
bool RecorderService::End() {
  page_.reset();
  for (const auto& [number, site] : Sites()) {
    site->AskToEnd();
    ending_.push_back(site);
  }
  {
    const ScopeLock lock(lock_);
    for (auto& [path, keeper] : keepers_) {
      keeper->AskToEnd();
      endingKeepers_.push_back(std::move(keeper));
    }
    keepers_.clear();
  }
  const auto until = Clock::now() + kLongestServiceEnd;
  bool ended = true;
  for (const Site& site : ending_) {
    ended &= site->WaitEnded(until);
  }
  for (const auto& keeper : endingKeepers_) {
    ended &= keeper->WaitEnded(until);
  }
  return ended;
}

RecorderFigures RecorderService::Figures() const {
  RecorderFigures figures;
  figures.version = ProgramVersion();
  figures.now = cms::WallSeconds();
  figures.startedAt = startedAt_;
  figures.droppedLogLines = cms::DroppedLogLines();
  figures.process = FiguresOfThisProcess();
  for (const auto& [number, site] : Sites()) {
    figures.sites.push_back(site->Figures());
  }
  const ScopeLock lock(lock_);
  for (const auto& [path, keeper] : keepers_) {
    figures.disks.push_back(keeper->Figures());
    DiskFigures& disk = figures.disks.back();
    if (failedDisks_.contains(path) && disk.usable) {
      disk.usable = false;
      disk.problem = "it cannot be written: its sites go on elsewhere, see the log";
    }
  }
  if (hooks_) {
    figures.hooks = hooks_->Figures();
  }
  figures.reloads = reloads_;
  figures.configProblem = configProblem_;
  return figures;
}

void RecorderService::Print() const {
  ordered_json sites = ordered_json::array();
  for (const auto& [number, site] : Sites()) {
    const SiteFigures figures = site->Figures();
    const cms::RecordingStatus& recorded = figures.recording;
    sites.push_back({{"site", number},
                     {"name", figures.name},
                     {"url", figures.url},
                     {"folder", figures.folder},
                     {"frames", recorded.frames - recorded.lost.frames},
                     {"key_frames", recorded.keyFrames - recorded.lost.keyFrames},
                     {"bytes", recorded.bytes - recorded.lost.bytes},
                     {"dropped", recorded.waitingFrames + recorded.failedFrames +
                                     recorded.refusedFrames + recorded.lost.frames}});
  }
  std::printf("%s\n", ordered_json{{"sites", sites}}
                          .dump(2, ' ', false, ordered_json::error_handler_t::replace)
                          .c_str());
  std::fflush(stdout);
}

}  // namespace tools
