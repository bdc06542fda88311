#include "tools/service/recorder_config.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "cms/net/tls_parameters.h"
#include "cms/recording/recording_names.h"
#include "cms/streaming/rtsp_url.h"
#include "tools/serve/users_file.h"
#include "tools/service/config_secret.h"
#include "tools/service/hook_config.h"
#include "tools/support/camera_events.h"
#include "tools/support/camera_url.h"
#include "tools/support/transport_words.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMiB = 1ULL << 20;
constexpr std::int64_t kMostSites = 999'999;  // the number is part of file names
constexpr std::int64_t kMostDays = 36'500;
constexpr std::int64_t kLongestPreAlarm = 255;
constexpr std::int64_t kLongestAfterEvent = 86'400;
constexpr std::uint64_t kLargestFileMiB = 4'000;  // recordings end before 4 GiB
constexpr std::uint64_t kKeptFree = 2'000'000'000;

// In the order of PlanMode.
const std::vector<std::string> kPlanModes = {"never", "events", "always"};

// In the order of cms::LogLevel.
const std::vector<std::string> kLogLevels = {"error", "warning", "info", "trace"};

class ConfigReader {
 public:
  ConfigReader(const std::string& path, ConfigProblems* problems)
      : path_(path), folder_(fs::absolute(path).parent_path().string()), problems_(problems) {}

  RecorderConfig Read(const std::string& text) {
    const auto file = ConfigTable::Parse(text, problems_);
    if (file) {
      ReadDisks(*file);
      ReadRetention(*file);
      ReadPage(*file);
      ReadLog(*file);
      config_.hooks = ReadHooks(*file, folder_, &hasPassword_);
      ReadPlans(*file);
      for (const ConfigTable& site : file->Tables("sites")) {
        ReadSite(site);
      }
      if (config_.sites.empty()) {
        file->Warn("", "there is no site: expected [[sites]]");
      }
      file->RefuseOthers();
    }
    WarnOfReaders();
    KeepNamedPlans();
    const auto byNumber = [](const SiteConfig& a, const SiteConfig& b) {
      return a.number < b.number;
    };
    std::stable_sort(config_.sites.begin(), config_.sites.end(), byNumber);
    const auto byPlace = [](const ConfigProblem& a, const ConfigProblem& b) {
      return std::tie(a.line, a.column) < std::tie(b.line, b.column);
    };
    std::stable_sort(problems_->errors.begin(), problems_->errors.end(), byPlace);
    std::stable_sort(problems_->warnings.begin(), problems_->warnings.end(), byPlace);
    return std::move(config_);
  }

  std::vector<DiskConfig> ReadDisksOf(const std::string& text) {
    if (const auto file = ConfigTable::Parse(text, problems_)) {
      ReadDisks(*file);
    }
    return std::move(config_.disks);
  }

 private:
  std::string PathOf(const std::string& path) const {
    fs::path whole = (fs::path(folder_) / path).lexically_normal();
    return (whole.has_filename() ? whole : whole.parent_path()).string();
  }

  void ReadDisks(const ConfigTable& file) {
    config_.moveOnFailure = file.Flag("move-on-failure").value_or(true);
    const auto data = file.Text("data");
    const std::vector<ConfigTable> disks = file.Tables("disks");
    if (data && !disks.empty()) {
      file.Wrong("data", "expected either data or [[disks]]");
    } else if (data) {
      RequireRecordable(file, "data", PathOf(*data));
      config_.disks.push_back({PathOf(*data), 0, kKeptFree, ""});
    } else if (disks.empty() && !file.Has("data")) {
      file.Wrong("", "it is not said where recordings go: expected data = \"FOLDER\" or [[disks]]");
    }
    for (const ConfigTable& table : disks) {
      ReadDisk(table);
    }
  }

  void ReadDisk(const ConfigTable& table) {
    DiskConfig disk;
    const auto path = table.Text("path");
    disk.path = PathOf(path.value_or(""));
    disk.bytes = table.Size("limit").value_or(0);
    disk.freeBytes = table.Size("free").value_or(kKeptFree);
    if (!table.Has("path")) {
      table.Wrong("", "path is missing: expected path = \"FOLDER\"");
    } else if (path && DiskAt(disk.path) != nullptr) {
      table.Wrong("path", disk.path + " is given twice");
    }
    RequireRecordable(table, "path", disk.path);
    if (const auto mount = table.Text("mount")) {
      disk.mount = PathOf(*mount);
      if (disk.path != disk.mount && !disk.path.starts_with(disk.mount + "/")) {
        table.Wrong("mount", "found \"" + *mount + "\", expected path or a folder above it");
      }
    }
    table.RefuseOthers();
    config_.disks.push_back(disk);
  }

  // What records can hold of a path reads back as the same one.
  static void RequireRecordable(const ConfigTable& table, std::string_view key,
                                const std::string& path) {
    constexpr std::size_t kLongest = cms::kLongestRecordedPath - 100;  // a day and a file behind it
    if (path.find('\\') != std::string::npos || path.size() > kLongest) {
      table.Wrong(key, "found \"" + path + "\", expected a path without \"\\\" of at most " +
                           std::to_string(kLongest) + " bytes");
    }
  }

  const DiskConfig* DiskAt(const std::string& path) const {
    const auto found = std::find_if(config_.disks.begin(), config_.disks.end(),
                                    [&](const DiskConfig& each) { return each.path == path; });
    return found == config_.disks.end() ? nullptr : &*found;
  }

  static RetentionConfig RetentionOf(const ConfigTable& table, const RetentionConfig& otherwise) {
    RetentionConfig kept;
    kept.days = static_cast<unsigned>(table.Number("days", 0, kMostDays).value_or(otherwise.days));
    kept.bytes = table.Size("bytes").value_or(otherwise.bytes);
    return kept;
  }

  void ReadRetention(const ConfigTable& file) {
    if (const auto table = file.Table("retention")) {
      config_.retention = RetentionOf(*table, {});
      table->RefuseOthers();
    }
  }

  void ReadPage(const ConfigTable& file) {
    const auto table = file.Table("page");
    if (!table) {
      return;
    }
    PageConfig& page = config_.page;
    page.on = true;
    page.bind = table->Text("bind").value_or("127.0.0.1");
    in_addr address{};
    if (inet_pton(AF_INET, page.bind.c_str(), &address) != 1) {
      table->Wrong("bind", "found \"" + page.bind +
                               "\", expected an IPv4 address of this machine, or 0.0.0.0");
    }
    page.port = static_cast<std::uint16_t>(table->Number("port", 0, 65'535).value_or(8080));
    if (const auto name = table->Text("users-file")) {
      page.usersFile = (std::filesystem::path(folder_) / *name).string();
      try {
        ReadUsersFile(page.usersFile);
      } catch (const std::exception& error) {
        table->Wrong("users-file", error.what());
      }
    }
    if (const auto name = table->Text("audit")) {
      page.audit = (std::filesystem::path(folder_) / *name).string();
    }
    page.names = table->Texts("names");
    const auto certificate = table->Text("tls-cert");
    const auto key = table->Text("tls-key");
    if (certificate.has_value() != key.has_value()) {
      table->Wrong(certificate ? "tls-cert" : "tls-key", "tls-cert and tls-key go together");
    } else if (certificate) {
      page.tlsCertificate = (std::filesystem::path(folder_) / *certificate).string();
      page.tlsKey = (std::filesystem::path(folder_) / *key).string();
    }
    table->RefuseOthers();
  }

  void ReadLog(const ConfigTable& file) {
    if (const auto table = file.Table("log")) {
      const auto level = table->OneOf("level", kLogLevels);
      config_.logLevel = level ? static_cast<cms::LogLevel>(*level) : cms::LogLevel::kInfo;
      table->RefuseOthers();
    }
  }

  void ReadPlans(const ConfigTable& file) {
    std::vector<Holiday> holidays;
    for (const std::string& text : file.Texts("holidays")) {
      if (const auto holiday = ReadHoliday(text)) {
        holidays.push_back(*holiday);
      } else {
        file.Wrong("holidays",
                   "found \"" + text + "\", expected \"2026-12-24\" or, every year, \"12-25\"");
      }
    }
    for (std::size_t mode = 0; mode < kPlanModes.size(); ++mode) {
      plans_.emplace(kPlanModes[mode], Timetable(static_cast<PlanMode>(mode)));
    }
    if (const auto plans = file.Table("plans")) {
      for (const auto& [name, table] : plans->NamedTables()) {
        ReadPlan(name, table, holidays);
      }
    }
  }

  void ReadPlan(const std::string& name, const ConfigTable& table,
                const std::vector<Holiday>& holidays) {
    const auto otherwise = static_cast<PlanMode>(table.OneOf("otherwise", kPlanModes).value_or(0));
    std::vector<PlanSpan> spans;
    bool holidaysHaveSpans = false;
    for (const ConfigTable& each : table.Tables("spans")) {
      spans.push_back(SpanOf(each));
      holidaysHaveSpans |= (spans.back().days & 1u << kHolidayBit) != 0;
    }
    if (spans.empty() && !table.Has("spans")) {
      table.Wrong("",
                  "spans are missing: expected spans = [{ days = \"mon-fri\", from = \"08:00\","
                  " to = \"18:00\", record = \"always\" }]");
    }
    if (!spans.empty() && !holidays.empty() && !holidaysHaveSpans) {
      table.Warn("spans", "on holidays none of them holds: name \"holidays\" or \"daily\" in one");
    }
    table.RefuseOthers();
    if (!plans_.emplace(name, Timetable(otherwise, std::move(spans), holidays)).second) {
      table.Wrong("", "this name has its meaning already, expected another one");
    }
  }

  static PlanSpan SpanOf(const ConfigTable& table) {
    PlanSpan span;
    DaySet days = 0;
    for (const std::string& text : table.Texts("days")) {
      const auto some = ReadDays(text);
      if (!some) {
        table.Wrong("days", "found \"" + text +
                                "\", expected days such as \"mon-fri, sun\", \"daily\" or "
                                "\"holidays\"");
      }
      days = static_cast<DaySet>(days | some.value_or(0));
    }
    span.days = days == 0 ? kEveryDay : days;
    span.from = TimeOf(table, "from", span.from);
    span.to = TimeOf(table, "to", span.to);
    if (!table.Has("record")) {
      table.Wrong("", "record is missing: expected record = \"always\", \"events\" or \"never\"");
    }
    span.mode = static_cast<PlanMode>(table.OneOf("record", kPlanModes).value_or(0));
    table.RefuseOthers();
    return span;
  }

  static int TimeOf(const ConfigTable& table, std::string_view key, int otherwise) {
    const auto text = table.Text(key);
    const auto time = text ? ReadTimeOfDay(*text) : std::nullopt;
    if (text && !time) {
      table.Wrong(key, "found \"" + *text + "\", expected a time from \"00:00\" to \"24:00\"");
    }
    return time.value_or(otherwise);
  }

  void ReadSite(const ConfigTable& table) {
    SiteConfig site;
    if (!table.Has("number")) {
      table.Wrong("", "number is missing: expected number = N, which stays the site's for good");
    }
    site.number = static_cast<unsigned>(table.Number("number", 1, kMostSites).value_or(0));
    if (site.number != 0 && !numbers_.insert(site.number).second) {
      table.Wrong("number", "another site has the number " + std::to_string(site.number));
    }
    site.name = table.Text("name").value_or("Site " + std::to_string(site.number));
    site.enabled = table.Flag("enabled").value_or(true);
    ReadCamera(table, &site);
    ReadRecording(table, &site);
    table.RefuseOthers();
    config_.sites.push_back(std::move(site));
  }

  void ReadCamera(const ConfigTable& table, SiteConfig* site) {
    site->user = table.Text("user").value_or("");
    site->password = ReadPassword(table, folder_, &hasPassword_);
    site->url = UrlOf(table, "url", {"rtsp", "rtsps", "http", "onvif", "onvifs"}, site);
    if (!table.Has("url")) {
      table.Wrong("", "url is missing: expected url = \"rtsp://HOST/PATH\"");
    }
    if (IsOnvifUrl(site->url) && site->user.empty()) {
      table.Wrong("url", "ONVIF needs a user: expected user = \"...\" and its password");
    }
    site->secondUrl = UrlOf(table, "second-url", {"rtsp", "rtsps", "http"}, site);
    const std::vector<std::string> words = TransportWords();
    const auto word = table.OneOf("transport", words);
    site->transport = TransportOf(word ? words[*word] : "tcp");
    site->security.allowBasic = table.Flag("allow-basic").value_or(false);
    site->security.insecure = table.Flag("insecure").value_or(false);
    site->security.fingerprint = table.Text("fingerprint").value_or("");
    if (!site->security.fingerprint.empty() &&
        cms::PlainFingerprint(site->security.fingerprint).empty()) {
      table.Wrong("fingerprint", "found \"" + site->security.fingerprint +
                                     "\", expected 32 bytes in hexadecimal (SHA-256)");
    } else if (site->security.insecure && !site->security.fingerprint.empty()) {
      table.Wrong("insecure", "expected either insecure or fingerprint");
    }
  }

  // Without user and password, which go to the site unless it has its own.
  std::string UrlOf(const ConfigTable& table, std::string_view key,
                    const std::vector<std::string>& schemes, SiteConfig* site) {
    const auto text = table.Text(key);
    if (!text) {
      return "";
    }
    std::string why;
    const auto url = cms::ParseCameraUrl(*text, &why);
    if (!url || std::find(schemes.begin(), schemes.end(), url->scheme) == schemes.end()) {
      std::string forms;
      for (const std::string& each : schemes) {
        forms += (forms.empty() ? "" : ", ") + each + "://";
      }
      // What cannot be read may have a password in it.
      table.Wrong(key, (url ? "found " + url->scheme + "://" : why) +
                           ", expected SCHEME://HOST[:PORT]/PATH with one of " + forms);
      return "";
    }
    hasPassword_ |= !url->password.empty();
    if (!url->user.empty() && site->user.empty()) {
      site->user = url->user;
      site->password = site->password.empty() ? url->password : site->password;
    } else if (!url->user.empty() && url->user != site->user) {
      table.Wrong(key, "it names another user than the key user");
    }
    return url->plain;
  }

  void ReadRecording(const ConfigTable& table, SiteConfig* site) {
    site->plan = table.Text("plan").value_or("always");
    if (!plans_.contains(site->plan)) {
      std::string known;
      for (const auto& [name, plan] : plans_) {
        known += (known.empty() ? "" : ", ") + name;
      }
      table.Wrong("plan", "found \"" + site->plan + "\", expected one of " + known);
    }
    if (const auto name = table.Text("time-zone")) {
      const auto zone = TimeZone::Named(*name);
      if (!zone) {
        table.Wrong("time-zone", "found \"" + *name +
                                     "\", expected a name of the time zone database, such as "
                                     "\"Europe/Berlin\"");
      }
      site->timeZone = zone.value_or(TimeZone());
    }
    ReadEvents(table, site);
    site->preAlarm =
        static_cast<unsigned>(table.Number("pre-alarm", 0, kLongestPreAlarm).value_or(5));
    site->afterEvent =
        static_cast<unsigned>(table.Number("after-event", 0, kLongestAfterEvent).value_or(10));
    const std::uint64_t fileSize = table.Size("file-size").value_or(256 * kMiB) / kMiB;
    if (fileSize < 1 || fileSize > kLargestFileMiB) {
      table.Wrong("file-size", "expected 1 MiB to " + std::to_string(kLargestFileMiB) + " MiB");
    }
    site->fileSizeMiB = static_cast<int>(std::min(fileSize, kLargestFileMiB));
    if (const auto disk = table.Text("disk")) {
      site->disk = PathOf(*disk);
      if (DiskAt(site->disk) == nullptr) {
        table.Wrong("disk", "found \"" + *disk + "\", expected the path of one of [[disks]]");
      }
    }
    if (const auto target = table.Text("move-to")) {
      site->moveTo = PathOf(*target);
    }
    site->retention = config_.retention;
    if (const auto retention = table.Table("retention")) {
      site->retention = RetentionOf(*retention, config_.retention);
      retention->RefuseOthers();
    }
  }

  // A plan by events records nothing where nobody tells of any.
  void ReadEvents(const ConfigTable& table, SiteConfig* site) {
    const std::vector<std::string>& known = CameraEventWords();
    site->onvif = UrlOf(table, "onvif", {"onvif", "onvifs"}, site);
    if (site->onvif.empty() && IsOnvifUrl(site->url)) {
      site->onvif = site->url;
    }
    if (!site->onvif.empty() && site->user.empty() && table.Has("onvif")) {
      table.Wrong("onvif", "ONVIF needs a user: expected user = \"...\" and its password");
    }
    site->events = table.Has("events") ? table.Texts("events") : known;
    for (const std::string& word : site->events) {
      if (std::find(known.begin(), known.end(), word) == known.end()) {
        std::string words;
        for (const std::string& each : known) {
          words += (words.empty() ? "" : ", ") + each;
        }
        table.Wrong("events", "found \"" + word + "\", expected some of " + words);
      }
    }
    if (site->onvif.empty()) {
      if (table.Has("events") || site->plan == "events") {
        table.Warn("", "nobody tells of its events: expected onvif = \"onvif://HOST\"");
      }
      site->events.clear();
    }
  }

  void WarnOfReaders() {
    struct stat about {};
    if (hasPassword_ && stat(path_.c_str(), &about) == 0 && (about.st_mode & S_IROTH) != 0) {
      problems_->warnings.push_back(
          {0, 0,
           "everybody on this machine can read it, and there are passwords in it: chmod o-r, or "
           "password-file"});
    }
  }

  void KeepNamedPlans() {
    for (const SiteConfig& site : config_.sites) {
      if (const auto plan = plans_.find(site.plan); plan != plans_.end()) {
        config_.plans.insert(*plan);
      }
    }
  }

  const std::string path_;
  const std::string folder_;
  ConfigProblems* const problems_;
  RecorderConfig config_;
  std::map<std::string, Timetable> plans_;
  std::set<unsigned> numbers_;
  bool hasPassword_ = false;
};

std::optional<std::string> TextOf(const std::string& path, ConfigProblems* problems) {
  errno = 0;
  std::ifstream file(path);
  std::ostringstream text;
  if (!file || !fs::is_regular_file(path) || !(text << file.rdbuf())) {
    const std::string why = errno != 0 ? std::strerror(errno) : "it is no file with text in it";
    problems->errors.push_back({0, 0, "cannot be read: " + why});
    return std::nullopt;
  }
  return text.str();
}

}  // namespace

Timetable PlanOf(const RecorderConfig& config, const SiteConfig& site) {
  return config.plans.at(site.plan).In(site.timeZone);
}

RecorderConfig ParseRecorderConfig(const std::string& text, const std::string& path,
                                   ConfigProblems* problems) {
  return ConfigReader(path, problems).Read(text);
}

RecorderConfig ReadRecorderConfig(const std::string& path, ConfigProblems* problems) {
  const std::optional<std::string> text = TextOf(path, problems);
  return text ? ParseRecorderConfig(*text, path, problems) : RecorderConfig();
}

std::vector<std::string> ReadDataFolders(const std::string& path, ConfigProblems* problems) {
  std::vector<std::string> folders;
  if (const std::optional<std::string> text = TextOf(path, problems)) {
    for (const DiskConfig& disk : ConfigReader(path, problems).ReadDisksOf(*text)) {
      folders.push_back(disk.path);
    }
  }
  return folders;
}

std::vector<std::string> LinesOf(const std::string& path,
                                 const std::vector<ConfigProblem>& problems) {
  std::vector<std::string> lines;
  for (const ConfigProblem& each : problems) {
    std::string line = path + ":";
    if (each.line > 0) {
      line += std::to_string(each.line) + ":" + std::to_string(each.column) + ":";
    }
    lines.push_back(line + " " + each.what);
  }
  return lines;
}

}  // namespace tools
