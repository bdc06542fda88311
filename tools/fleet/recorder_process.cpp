#include "tools/fleet/recorder_process.h"

#include <fcntl.h>
#include <signal.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "cms/runtime/log.h"
#include "tools/service/status_socket.h"

namespace tools {
namespace {

using cms::fleet::CameraRecorderStatus;
using cms::fleet::RecordedCamera;
using nlohmann::json;

constexpr int kStatusWait = 300;  // milliseconds
constexpr std::chrono::seconds kStartAgain{1};
constexpr std::chrono::seconds kLongestSilence{10};
constexpr std::int64_t kDiskIsStuck = 2'500;  // milliseconds that something waits to be written

struct DataDisk {
  std::string path;
  std::string mount;  // empty: no disk has to be mounted
};

// Of `extra`, which is judged by the recorder itself.
std::vector<DataDisk> DisksOf(const std::string& extra) {
  std::vector<DataDisk> disks;
  const auto text = [](const toml::table& table, const char* name) {
    const auto path = table[name].value<std::string>();
    return path ? std::filesystem::absolute(*path).lexically_normal().string() : "";
  };
  try {
    const toml::table file = toml::parse(extra);
    if (const toml::array* list = file["disks"].as_array()) {
      for (const toml::node& disk : *list) {
        const auto* table = disk.as_table();
        if (table != nullptr && table->contains("path")) {
          disks.push_back({text(*table, "path"), text(*table, "mount")});
        }
      }
    }
  } catch (const toml::parse_error&) {
    disks.clear();
  }
  return disks;
}

}  // namespace

std::vector<std::string> DataFoldersOf(const std::string& folder, const std::string& extra) {
  std::vector<std::string> folders;
  for (const DataDisk& disk : DisksOf(extra)) {
    folders.push_back(disk.path);
  }
  return folders.empty() ? std::vector<std::string>{folder} : folders;
}

std::string RecorderConfigText(const std::string& folder, const std::string& extra,
                               const std::vector<RecordedCamera>& cameras) {
  toml::array sites;
  for (const RecordedCamera& each : cameras) {
    const auto& camera = each.camera;
    toml::table site{{"number", static_cast<std::int64_t>(camera.site)},
                     {"name", camera.name.empty() ? each.copy.camera : camera.name},
                     {"url", camera.url},
                     {"transport", camera.transport},
                     {"plan", camera.plan}};
    if (!camera.user.empty()) {
      site.insert("user", camera.user);
      site.insert("password", each.password);
    }
    if (camera.keepDays > 0) {
      site.insert("retention", toml::table{{"days", static_cast<std::int64_t>(camera.keepDays)}});
    }
    sites.push_back(std::move(site));
  }
  std::ostringstream text;
  if (DisksOf(extra).empty()) {
    text << toml::table{{"data", folder}} << "\n";
  }
  text << extra << "\n";
  if (!sites.empty()) {
    text << toml::table{{"sites", std::move(sites)}} << "\n";
  }
  return text.str();
}

RecorderProcess::RecorderProcess(std::string folder, std::string extra)
    : folder_(std::move(folder)), extra_(std::move(extra)) {
  probes_.push_back(std::make_unique<DiskProbe>(folder_, "", DiskProbe::Failing::kWaits));
  const std::vector<DataDisk> disks = DisksOf(extra_);
  for (std::size_t i = 1; i < disks.size(); ++i) {
    // From one that fails the recorder has its sites go on on another one.
    probes_.push_back(
        std::make_unique<DiskProbe>(disks[i].path, disks[i].mount, DiskProbe::Failing::kIsNoWait));
  }
  WriteConfig({});
  Start();
}

RecorderProcess::~RecorderProcess() {
  process_.reset();  // before what it reads
}

void RecorderProcess::WriteConfig(const std::vector<RecordedCamera>& cameras) {
  const std::string text = RecorderConfigText(folder_, extra_, cameras);
  const std::string path = config_.Path() + "/recorder.toml";
  const std::string fresh = path + ".new";
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool written =
      file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  close(file);
  if (!written || rename(fresh.c_str(), path.c_str()) != 0) {
    cms::Log(cms::LogLevel::kError, "fleet",
             path + " cannot be written, the cameras stay as they were: " + std::strerror(error));
  }
}

std::int64_t RecorderProcess::LongestWait() const {
  std::int64_t longest = 0;
  for (const auto& probe : probes_) {
    longest = std::max(longest, probe->Waits());
  }
  return longest;
}

void RecorderProcess::Start() {
  started_ = Clock::now();
  lastAnswer_ = started_;
  answered_ = false;
  unread_ = false;
  process_.reset();
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{ProgramBeside("orvanta"), "record", "--config",
                               config_.Path() + "/recorder.toml"},
      ChildOptions{});
}

void RecorderProcess::Record(const std::vector<RecordedCamera>& cameras) {
  WriteConfig(cameras);
  unread_ = !answered_;
  if (answered_) {
    process_->Signal(SIGHUP);
  }
}

CameraRecorderStatus RecorderProcess::Status() {
  CameraRecorderStatus status;
  if (!process_->Runs()) {
    if (Clock::now() - started_ >= kStartAgain) {
      cms::Log(cms::LogLevel::kError, "fleet", "the recorder's process ended: starting it again");
      Start();
    }
    return status;
  }
  json answer;
  try {
    answer = json::parse(AskRecorder(folder_, "status", kStatusWait), nullptr, false);
  } catch (const std::exception&) {
    answer = nullptr;  // it is starting, or has much to do, or hangs
  }
  if (!answer.is_object() || !answer.contains("sites")) {
    status.isStuck = Clock::now() - lastAnswer_ > kLongestSilence || LongestWait() >= kDiskIsStuck;
    return status;
  }
  answered_ = true;
  lastAnswer_ = Clock::now();
  if (std::exchange(unread_, false)) {
    process_->Signal(SIGHUP);
  }
  status.answers = true;
  for (const json& site : answer["sites"]) {
    // By its plan nothing may be wanted at this moment.
    const std::string recording = site.value("recording", "");
    status.records[site.value("site", 0u)] =
        (recording == "recording" && site.value("recorded_frames", std::uint64_t{0}) > 0) ||
        (recording == "idle" && site.value("fps", 0.0) > 0);
    status.oldestWaiting =
        std::max(status.oldestWaiting, site.value("oldest_waiting_ms", std::int64_t{0}));
  }
  // With few cameras nothing is to be written for seconds, and none once others have them.
  status.oldestWaiting = std::max(status.oldestWaiting, LongestWait());
  status.isStuck = status.oldestWaiting >= kDiskIsStuck;
  return status;
}

}  // namespace tools
