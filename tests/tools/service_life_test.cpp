// The recorder as a service in processes whose clock and disk the tests turn: nights, a place that
// hangs, and what it costs to be watched.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cms/runtime/clock.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/paths.h"
#include "tests/support/recording_reader.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"
#include "tools/service/status_socket.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

class ServiceLife {
 public:
  ~ServiceLife() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
    if (testing::Test::HasFailure()) {
      std::fputs(Log().c_str(), stderr);
    }
  }

  std::string File(const std::string& name) const { return folder_.File(name); }
  std::string Data() const { return File("data"); }

  void Start(const std::string& config, std::int64_t ahead = 0, const std::string& zone = "UTC0") {
    test::WriteWholeFile(File("recorder.toml"), "data = \"data\"\n" + config);
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setenv("TURNED_FOLDER", folder_.Path().c_str(), 1);
      setenv("TURNED_AHEAD", std::to_string(ahead).c_str(), 1);
      setenv("LD_PRELOAD", TURNED_PROCESS, 1);
      const char* options = std::getenv("ASAN_OPTIONS");
      setenv("ASAN_OPTIONS",
             (std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0").c_str(),
             1);
      setenv("TZ", zone.c_str(), 1);
      const int log = open(File("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      dup2(log, STDERR_FILENO);
      execl(test::OrvantaBinary().c_str(), "orvanta", "record", "--config",
            File("recorder.toml").c_str(), nullptr);
      _exit(1);
    }
  }
  int End() {
    kill(process_, SIGTERM);
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  json Status() const {
    try {
      return json::parse(tools::AskRecorder(Data(), "status", 30'000));
    } catch (const std::exception&) {
      return json::object();  // it does not run yet
    }
  }
  json SiteStatus(unsigned number) const {
    for (const json& site : Status().value("sites", json::array())) {
      if (site.at("site") == number) {
        return site;
      }
    }
    return json::object();
  }
  std::uint64_t Recorded(unsigned number) const {
    return SiteStatus(number).value("recorded_bytes", std::uint64_t{0});
  }
  bool Grows(unsigned number, std::uint64_t bytes) const {
    const std::uint64_t until = Recorded(number) + bytes;
    return test::WaitFor([&] { return Recorded(number) >= until; });
  }

  std::int64_t Heap() const {
    test::WriteWholeFile(File("ask-heap"), "");
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(File("ask-heap")); }));
    return std::stoll(test::ReadWholeFile(File("heap")));
  }
  double ProcessorMs() const {
    clockid_t clock{};
    timespec used{};
    EXPECT_EQ(clock_getcpuclockid(process_, &clock), 0);
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) * 1e-6;
  }
  std::string Log() const { return test::ReadWholeFile(File("log")); }

  // Below a folder, in the order of their frames.
  std::vector<test::RecordedFile> Files(unsigned site,
                                        const std::vector<std::string>& folders) const {
    std::vector<test::RecordedFile> files;
    for (const std::string& folder : folders) {
      for (const auto& day : fs::directory_iterator(folder)) {
        for (auto& file : day.is_directory() ? test::ReadRecordings(day.path().string())
                                             : std::vector<test::RecordedFile>()) {
          if (file.name.starts_with("Rec_Site" + std::to_string(site) + "_")) {
            file.name = day.path().string() + "/" + file.name;
            files.push_back(std::move(file));
          }
        }
      }
    }
    std::ranges::sort(files, {}, [](const auto& file) { return file.frames.at(0).sequence; });
    return files;
  }

 private:
  test::TemporaryFolder folder_;
  pid_t process_ = -1;
};

std::string LifeSite(int number, const std::string& url, const std::string& more = "") {
  return "[[sites]]\nnumber = " + std::to_string(number) + "\nurl = \"" + url +
         "\"\nfile-size = \"1 MiB\"\n" + more + "\n";
}

// A file a second or so.
std::vector<std::string> EagerCamera(const std::string& count) {
  return {"--count", count,   "--size", "320x240",    "--fps",
          "10",      "--gop", "10",     "--key-size", "600000"};
}

// Eight seconds before the clock on the wall, or that of UTC, shows another day, or another hour.
TEST(ServiceNights, LoseNothingAndAreFound) {
  constexpr char kNightsZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";
  const struct {
    const char* what;
    const char* zone;
    const char* begin;  // UTC
    const char* month;
    std::vector<std::string> days;  // on which something is recorded
    std::vector<int> marked;        // of the month, by UTC
  } nights[] = {
      {"midnight of the clock",
       kNightsZone,
       "2026-11-09 22:59:52",
       "2026-11",
       {"20261109", "20261110"},
       {9}},
      {"midnight of UTC", kNightsZone, "2026-11-09 23:59:52", "2026-11", {"20261110"}, {9, 10}},
      {"both, and a year", "UTC0", "2026-12-31 23:59:52", "2027-01", {"20261231", "20270101"}, {1}},
      {"02:00 is 03:00", kNightsZone, "2026-03-29 00:59:52", "2026-03", {"20260329"}, {29}},
      {"03:00 is 02:00", kNightsZone, "2026-10-25 00:59:52", "2026-10", {"20261025"}, {25}},
  };
  test::RtspCamera camera(EagerCamera(std::to_string(std::size(nights))));
  std::vector<std::unique_ptr<ServiceLife>> lives;
  std::vector<std::int64_t> begins;
  for (const auto& night : nights) {
    std::tm parts{};
    ASSERT_NE(strptime(night.begin, "%Y-%m-%d %H:%M:%S", &parts), nullptr);
    begins.push_back(timegm(&parts));
    lives.push_back(std::make_unique<ServiceLife>());
    lives.back()->Start(LifeSite(1, camera.Url(lives.size() - 1)),
                        begins.back() - cms::WallSeconds(), night.zone);
  }
  for (std::size_t i = 0; i < lives.size(); ++i) {
    SCOPED_TRACE(nights[i].what);
    ServiceLife& life = *lives[i];
    ASSERT_TRUE(test::WaitFor(
        [&] { return life.Status().value("time", std::int64_t{0}) > begins[i] + 12; }, 60s));
    ASSERT_TRUE(life.Grows(1, 2'000'000));
    EXPECT_EQ(life.End(), 0);

    const auto files = life.Files(1, {life.Data() + "/recordings"});
    ASSERT_GE(files.size(), 4u);
    EXPECT_NO_THROW(test::CheckSeams(files, files[0].frames[0].sequence));
    EXPECT_LT(files[0].frames[0].seconds, begins[i] + 8) << "it came too late: nothing was tried";
    std::set<std::string> names;
    std::set<std::string> days;
    for (const auto& file : files) {
      names.insert(file.name);
      days.insert(fs::path(file.name).parent_path().filename());
    }
    EXPECT_THAT(days, testing::ElementsAreArray(nights[i].days));
    const auto search = [&](const std::string& options) {
      const auto ran =
          test::RunShell("env TZ=" + std::string(nights[i].zone) + " " + test::OrvantaBinary() +
                         " search --json --data " + life.Data() + " " + options);
      EXPECT_EQ(ran.status, 0) << ran.errors;
      return json::parse(ran.output, nullptr, false);
    };
    const json found = search("--from 2026-01-01 --to 2027-12-31");
    std::set<std::string> foundNames;
    for (const json& span : found["spans"]) {
      for (const json& file : span["files"]) {
        foundNames.insert(file.get<std::string>());
      }
    }
    EXPECT_EQ(foundNames, names);
    EXPECT_EQ(found["spans"].size(), 1u) << found["spans"].dump();  // without a hole
    ASSERT_EQ(found["gaps"].size(), 1u) << found["gaps"].dump();
    EXPECT_EQ(found["gaps"][0]["cause"], "stopped by the user");  // the end
    EXPECT_EQ(search("--month " + std::string(nights[i].month))["days"], json(nights[i].marked));
  }
}

// Thirty cameras that are away and two that are recorded.
TEST(ServiceThatIsWatched, CostsLittleAndGrowsByNothing) {
  constexpr int kAsked = 500;  // for its status, and as often for its figures
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr double kSlower = 4;
#else
  constexpr double kSlower = 1;
#endif
  // 1 % of a processor with a status each second and figures each five.
  constexpr double kMostMs = kSlower * 1'000 * 0.01 / (1 + 1.0 / 5);
  test::RtspCamera camera({"--count", "2", "--size", "320x240", "--fps", "5", "--gop", "5"});
  ServiceLife life;
  std::string config =
      "[page]\nport = 0\n" + LifeSite(1, camera.Url(0)) + LifeSite(2, camera.Url(1));
  for (int site = 3; site <= 32; ++site) {
    config += LifeSite(site, "rtsp://127.0.0.1:9/away");
  }
  life.Start(config);
  const std::string page = "the page is at ";
  ASSERT_TRUE(test::WaitFor([&] { return life.Log().find(page) != std::string::npos; }));
  ASSERT_TRUE(life.Grows(1, 10'000) && life.Grows(2, 10'000));
  const std::string log = life.Log();
  const std::size_t at = log.find(page) + page.size();
  const std::string url = log.substr(at, log.find('\n', at) - at);
  const auto ask = [&](int times) {
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(life.Status().at("sites").size(), 32u);
    }
    const auto ran = test::RunShell("curl -sf -o /dev/null '" + url + "metrics?[1-" +
                                    std::to_string(times) + "]'");
    EXPECT_EQ(ran.status, 0) << url;
  };
  ask(100);
  const std::int64_t heap = life.Heap();
  const double before = life.ProcessorMs();
  ask(kAsked);
  const double each = (life.ProcessorMs() - before) / (2 * kAsked);
  RecordProperty("microseconds", static_cast<int>(each * 1'000));
  EXPECT_LT(each, kMostMs);
  EXPECT_LT(life.Heap() - heap, 50'000);  // 50 bytes for each
}

// Its own site waits with what it wants to move, and that is all that anybody sees of it.
TEST(ServiceWithAHangingTarget, LosesNothingAnswersAndEnds) {
  test::RtspCamera camera(EagerCamera("2"));
  ServiceLife life;
  fs::create_directories(life.File("target"));
  const std::string config =
      LifeSite(1, camera.Url(0), "move-to = \"target\"") + LifeSite(2, camera.Url(1));
  life.Start(config);
  ASSERT_TRUE(test::WaitFor([&] { return !fs::is_empty(life.File("target")); }));
  test::WriteWholeFile(life.File("now"), "");
  ASSERT_TRUE(test::WaitFor([&] { return fs::exists(life.File("hanging")); }));
  EXPECT_TRUE(life.Grows(1, 4'000'000) && life.Grows(2, 4'000'000));
  for (const unsigned site : {1u, 2u}) {
    EXPECT_LE(life.SiteStatus(site).at("dropped"), 10) << site;  // in front of the first key frame
  }
  const auto asked = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(life.Status().empty());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 10s);
  const auto stopped = std::chrono::steady_clock::now();
  EXPECT_LE(life.End(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, 45s);

  const std::vector<std::string> folders = {life.Data() + "/recordings", life.File("target")};
  for (const unsigned site : {1u, 2u}) {
    const auto files = life.Files(site, folders);
    ASSERT_GE(files.size(), 4u);
    EXPECT_NO_THROW(test::CheckSeams(files, files[0].frames[0].sequence)) << site;
  }
  // And one that hangs from the beginning holds up nobody's beginning.
  life.Start(config);
  EXPECT_TRUE(life.Grows(1, 2'000'000) && life.Grows(2, 2'000'000));
}

}  // namespace
