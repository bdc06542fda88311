// `orvanta record --config` as a process: test cameras, signals and kills, and what is recorded
// then.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/faulty_file_io.h"
#include "tests/support/paths.h"
#include "tests/support/recording_reader.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::RtspCamera;
using testing::HasSubstr;

// What the service tells the program that started it.
class ManagerSocket {
 public:
  explicit ManagerSocket(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~ManagerSocket() { close(socket_); }
  ManagerSocket(const ManagerSocket&) = delete;
  ManagerSocket& operator=(const ManagerSocket&) = delete;

  // Whether it has told that since the last time that this was asked with success.
  bool Heard(const std::string& what) {
    char text[512];
    for (ssize_t got; (got = recv(socket_, text, sizeof text, 0)) > 0;) {
      heard_ += std::string(text, static_cast<std::size_t>(got)) + "\n";
    }
    const std::size_t at = heard_.find(what);
    if (at != std::string::npos) {
      heard_.erase(0, at + what.size());
    }
    return at != std::string::npos;
  }
  bool WaitFor(const std::string& what) {
    return test::WaitFor([&] { return Heard(what); });
  }

 private:
  int socket_;
  std::string heard_;
};

class RecordService : public testing::Test {
 protected:
  void TearDown() override {
    if (process_ > 0) {
      End(SIGKILL);
    }
    if (HasFailure()) {
      std::fputs(Log().c_str(), stderr);
    }
  }

  std::string Data() const { return folder_.File("data"); }
  std::string ConfigFile() const { return folder_.File("recorder.toml"); }
  void Write(const std::string& config) const {
    test::WriteWholeFile(ConfigFile(), "data = \"data\"\n" + config);
  }
  static std::string Site(int number, const std::string& url, const std::string& more = "") {
    return "[[sites]]\nnumber = " + std::to_string(number) + "\nurl = \"" + url + "\"\n" + more +
           "\n";
  }

  void Start(bool watchdog = false) {
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int log = open(LogFile().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      const int output = open(OutputFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(log, STDERR_FILENO);
      dup2(output, STDOUT_FILENO);
      setenv("NOTIFY_SOCKET", folder_.File("notify").c_str(), 1);
      if (watchdog) {
        setenv("WATCHDOG_USEC", "600000", 1);
      }
      execl(test::OrvantaBinary().c_str(), test::OrvantaBinary().c_str(), "record", "--json",
            "--config", ConfigFile().c_str(), nullptr);
      _exit(127);
    }
    ASSERT_TRUE(manager_.WaitFor("READY=1"));
  }
  void Reload(const std::string& config) {
    Write(config);
    ReloadAsWritten();
  }
  void ReloadAsWritten() {
    kill(process_, SIGHUP);
    ASSERT_TRUE(manager_.WaitFor("RELOADING=1"));
    ASSERT_TRUE(manager_.WaitFor("READY=1"));
  }
  int End(int signal) {
    kill(process_, signal);
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string Log() const { return test::ReadWholeFile(LogFile()); }
  json Output() const { return json::parse(test::ReadWholeFile(OutputFile()), nullptr, false); }

  std::uint64_t BytesOf(int site, const std::string& data) const {
    std::uint64_t bytes = 0;
    std::error_code none;
    for (const auto& entry : fs::recursive_directory_iterator(data, none)) {
      const bool its =
          entry.path().filename().string().starts_with("Rec_Site" + std::to_string(site) + "_");
      bytes += its && entry.path().extension() == ".drv" ? entry.file_size(none) : 0;
    }
    return bytes;
  }
  // Whether something more of each of them gets onto the disk.
  bool Grow(const std::vector<int>& sites, const std::string& data) const {
    std::vector<std::uint64_t> before;
    for (const int site : sites) {
      before.push_back(BytesOf(site, data));
    }
    return test::WaitFor([&] {
      std::size_t at = 0;
      return std::all_of(sites.begin(), sites.end(),
                         [&](int site) { return BytesOf(site, data) > before[at++]; });
    });
  }
  bool Grow(const std::vector<int>& sites) const { return Grow(sites, Data()); }
  std::vector<test::RecordedFile> FilesOf(int site) const {
    std::vector<test::RecordedFile> files;
    for (const auto& day : fs::directory_iterator(Data() + "/recordings")) {
      if (!day.is_directory()) {
        continue;
      }
      for (auto& file : test::ReadRecordings(day.path().string())) {
        if (file.name.starts_with("Rec_Site" + std::to_string(site) + "_")) {
          files.push_back(std::move(file));
        }
      }
    }
    return files;
  }

  test::TemporaryFolder folder_;
  ManagerSocket manager_{folder_.File("notify")};

 private:
  std::string LogFile() const { return folder_.File("log"); }
  std::string OutputFile() const { return folder_.File("output"); }
  pid_t process_ = -1;
};

// Site 1 is there all the time: its frames are numbered from its only opening on.
TEST_F(RecordService, AChangedFileTouchesOnlyTheSitesThatChanged) {
  RtspCamera camera({"--count", "3"});
  const std::string one = Site(1, camera.Url(0), "name = \"Yard\"");
  Write(one + Site(2, camera.Url(1)));
  Start();
  EXPECT_TRUE(Grow({1, 2}));
  Reload(one + Site(2, camera.Url(2)) + Site(30, camera.Url(1)));
  EXPECT_TRUE(Grow({30, 2}));

  Reload(one + "[[sites]]\nnumbr = 4\n");  // refused
  EXPECT_TRUE(test::WaitFor([&] {
    return Log().find("has no key \"numbr\"; is \"number\" meant?") != std::string::npos;
  }));
  EXPECT_TRUE(Grow({30, 2}));

  Reload(one + Site(2, camera.Url(2)));
  ASSERT_TRUE(test::WaitFor([&] {
    const std::uint64_t before = BytesOf(30, Data());
    usleep(300'000);
    return BytesOf(30, Data()) == before;
  }));
  EXPECT_TRUE(Grow({1, 2}));
  EXPECT_EQ(End(SIGTERM), 0);
  EXPECT_TRUE(manager_.Heard("STOPPING=1"));

  const auto files = FilesOf(1);
  ASSERT_FALSE(files.empty());
  const std::uint32_t behind = test::CheckSeams(files, files[0].frames[0].sequence);
  const json output = Output();
  ASSERT_EQ(output["sites"].size(), 2u) << output.dump();
  EXPECT_EQ(output["sites"][0]["site"], 1);
  EXPECT_EQ(output["sites"][0]["frames"], behind - files[0].frames[0].sequence);
  EXPECT_EQ(output["sites"][1]["site"], 2);
  EXPECT_FALSE(FilesOf(30).empty());
  const json found =
      json::parse(test::RunOrvanta("db --json --data " + Data()).output, nullptr, false);
  EXPECT_THAT(found["records"].dump(), HasSubstr("Yard"));
}

TEST_F(RecordService, GoesOnAfterAKill) {
  RtspCamera camera;
  Write(Site(1, camera.Url()));
  Start();
  EXPECT_TRUE(Grow({1}));
  EXPECT_EQ(End(SIGKILL), -SIGKILL);
  const std::uint64_t before = BytesOf(1, Data());
  Start(true);
  EXPECT_TRUE(manager_.WaitFor("WATCHDOG=1"));
  EXPECT_TRUE(Grow({1}));
  EXPECT_EQ(End(SIGTERM), 0);
  EXPECT_GT(BytesOf(1, Data()), before);
  test::RunOrvanta("repair --data " + Data());
  EXPECT_GE(FilesOf(1).size(), 2u);  // each of them sound
}

// Without another opening: what is recorded is numbered from where the camera was then.
TEST_F(RecordService, ANewPlanIsFollowedWithoutAnotherOpening) {
  RtspCamera camera;
  Write(Site(1, camera.Url(), "plan = \"never\""));
  Start();
  usleep(3'000'000);
  EXPECT_EQ(BytesOf(1, Data()), 0u);
  Reload(Site(1, camera.Url(), "plan = \"always\""));
  EXPECT_TRUE(Grow({1}));
  Reload(Site(1, camera.Url(), "plan = \"never\""));
  EXPECT_EQ(End(SIGTERM), 0);
  const auto files = FilesOf(1);
  ASSERT_FALSE(files.empty());
  EXPECT_GT(files[0].frames[0].sequence, 10u);
}

// Nothing can be made below /proc, as on a disk that is gone.
TEST_F(RecordService, TheSitesOfADeadDiskGoOnOnAnotherOne) {
  RtspCamera camera({"--count", "2"});
  test::WriteWholeFile(ConfigFile(),
                       "[[disks]]\npath = \"/proc/none\"\n[[disks]]\npath = \"other\"\n" +
                           Site(1, camera.Url(0), "disk = \"/proc/none\"") +
                           Site(2, camera.Url(1), "disk = \"other\""));
  Start();
  EXPECT_TRUE(Grow({1, 2}, folder_.File("other")));
  EXPECT_THAT(Log(), HasSubstr("/proc/none fails"));
  EXPECT_EQ(End(SIGTERM), 0);
  const json output = Output();
  EXPECT_EQ(output["sites"][0]["folder"], folder_.File("other"));
}

// A site goes on on another disk, and a browser sees one site with all that it has.
TEST_F(RecordService, ThePageShowsWhatAllDisksHold) {
  RtspCamera camera({"--gop", "25", "--size", "320x240", "--key-size", "600000"});
  const auto write = [&](const std::string& disk) {
    test::WriteWholeFile(
        ConfigFile(), "[[disks]]\npath = \"one\"\n[[disks]]\npath = \"two\"\n[page]\nport = 0\n" +
                          Site(1, camera.Url(), "disk = \"" + disk + "\"\nfile-size = \"1 MiB\""));
  };
  write("one");
  Start();
  EXPECT_TRUE(Grow({1}, folder_.File("one")));
  write("two");
  ReloadAsWritten();
  EXPECT_TRUE(Grow({1}, folder_.File("two")));
  const std::string told = "the page is at ";
  ASSERT_TRUE(test::WaitFor([&] { return Log().find(told) != std::string::npos; }));
  const std::string log = Log();
  const std::size_t at = log.find(told) + told.size();
  const std::string page = log.substr(at, log.find('\n', at) - at);
  const auto get = [&](const std::string& what) {
    return test::RunShell("curl -sf '" + page + what + "'");
  };
  json spans;
  const std::string soon = std::to_string(time(nullptr) + 3'600);
  ASSERT_TRUE(test::WaitFor([&] {  // what runs is known once its file is on the disk
    spans = json::parse(get("recordings?from=1000&to=" + soon).output, nullptr, false);
    return spans.contains("spans") && spans["spans"].size() == 2;
  })) << spans.dump();
  const std::int64_t first = spans["spans"][0]["start"];
  const std::int64_t second = spans["spans"][1]["start"];
  EXPECT_LE(spans["spans"][0]["end"].get<std::int64_t>(), second + 1);
  for (const json& gap : spans["gaps"]) {
    EXPECT_TRUE(gap.contains("end")) << gap.dump();  // it goes on elsewhere
  }
  EXPECT_EQ(spans["complete"], true);
  for (const std::int64_t moment : {first, second}) {
    const std::string text = std::to_string(moment);
    EXPECT_TRUE(get("thumbnail?site=1&at=" + text).output.starts_with("\xFF\xD8")) << page;
    const std::string stretch = get("stretch?site=1&ms=" + text + "000&origin=" + text).output;
    const json about = json::parse(stretch.substr(0, stretch.find('\n')), nullptr, false);
    ASSERT_TRUE(about.is_object()) << stretch.substr(0, 200);
    EXPECT_GT(about["video_bytes"], 1'000);
    EXPECT_LT(about["begin"].get<std::int64_t>() / 1'000, moment + 2);
  }
  EXPECT_EQ(End(SIGTERM), 0);
}

// And before it has touched anything of the folder, whatever the first one is doing.
TEST_F(RecordService, TwoOfThemOnOneFolderAreRefused) {
  RtspCamera camera;
  Write(Site(1, camera.Url()));
  Start();
  EXPECT_TRUE(Grow({1}));
  const std::string other = folder_.File("other.toml");
  test::WriteWholeFile(other, "data = \"data\"\n" + Site(1, camera.Url()));
  const auto ran = test::RunOrvanta("record --config " + other);
  EXPECT_EQ(ran.status, 1);
  EXPECT_THAT(ran.errors, HasSubstr(Data() + ": another recorder records into this folder"));
  // One of several disks is enough.
  test::WriteWholeFile(other, "[[disks]]\npath = \"data\"\n[[disks]]\npath = \"more\"\n" +
                                  Site(2, camera.Url(), "disk = \"more\""));
  EXPECT_EQ(test::RunOrvanta("record --config " + other).status, 1);
  EXPECT_TRUE(Grow({1}));
  EXPECT_EQ(End(SIGTERM), 0);
}

}  // namespace
