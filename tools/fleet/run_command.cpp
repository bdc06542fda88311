// orvanta fleet run: one recorder of the fleet.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "fleet/catalogue_writer.h"
#include "fleet/fleet_run.h"
#include "fleet/held_recordings.h"
#include "fleet/peer_server.h"
#include "fleet/token_log.h"
#include "tools/fleet/fleet_command.h"
#include "tools/fleet/recorder_process.h"
#include "tools/support/log_output.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kLongestLock{45};  // a recorder that ends writes what it has
constexpr unsigned kUsualCapacity = 100;

struct RunArguments {
  FleetArguments fleet;
  LogArguments log;
  std::string name;
  std::string data;
  std::string group;
  std::string config;
  unsigned capacity = kUsualCapacity;
  int ttl = 4;
  int port = -1;
  std::string url;
  bool openMetrics = false;
  bool tls = false;
};

// The recorder's process inherits it: it is free when both have ended.
class FolderLock {
 public:
  explicit FolderLock(const std::string& folder)
      : file_(open((folder + "/fleet.lock").c_str(), O_RDWR | O_CREAT, 0600)) {
    if (file_ < 0) {
      throw std::runtime_error(folder + ": it cannot be written: " + std::strerror(errno));
    }
    const auto until = std::chrono::steady_clock::now() + kLongestLock;
    while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() > until || StopRequested()) {
        close(file_);
        throw std::runtime_error(folder + ": another recorder of a fleet uses this folder");
      }
      WaitForStop(std::chrono::milliseconds(100));
    }
  }
  ~FolderLock() { close(file_); }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  const int file_;
};

std::string ReadExtra(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  if (!path.empty() && !(text << file.rdbuf())) {
    throw std::runtime_error(path + ": it cannot be read");
  }
  return text.str();
}

int RunRecorder(const RunArguments& arguments, bool settingsGiven) {
  CheckFleetName("--name", arguments.name);
  if ((arguments.port < 0) != arguments.url.empty()) {
    throw UsageError("--url", "goes with --port");
  }
  const FleetArguments& fleet = arguments.fleet;
  if (arguments.tls && (arguments.port < 0 || fleet.ca.empty() || fleet.certificate.empty() ||
                        fleet.key.empty() || !arguments.url.starts_with("https://"))) {
    throw UsageError("--tls", "goes with --port, --url https://..., --ca, --cert and --key");
  }
  cms::fleet::FleetRunOptions options;
  options.engine = AccessOf(arguments.fleet);
  options.engine.waitsLong = false;
  options.name = arguments.name;
  options.folder = std::filesystem::absolute(arguments.data).lexically_normal().string();
  options.settings = {arguments.group, arguments.capacity, false};
  options.settingsGiven = settingsGiven;
  options.ttlSeconds = arguments.ttl;
  options.url = arguments.url;
  options.engine.counts = std::make_shared<cms::fleet::EngineCounts>();
  const cms::fleet::SecretKeys keys = cms::fleet::SecretKeys::Read(arguments.fleet.secretKey);
  const std::string extra = ReadExtra(arguments.config);
  const std::vector<std::string> folders = DataFoldersOf(options.folder, extra);
  if (folders.front() != options.folder) {
    throw UsageError("--data", "is to be the first of [[disks]] in " + arguments.config + ", " +
                                   folders.front());
  }
  const LogOutput log(LogLevelOf(arguments.log, "info"));
  std::filesystem::create_directories(options.folder);
  const FolderLock lock(options.folder);
  RecorderProcess recorder(options.folder, extra);
  cms::fleet::HeldRecordings recordings(folders);
  cms::fleet::TokenLog tokens(options.folder);
  const cms::fleet::CatalogueWriter catalogue(options.engine, options.name, recordings, tokens);
  cms::fleet::FleetRun run(std::move(options), keys, recorder, tokens);
  std::unique_ptr<cms::fleet::PeerServer> server;
  if (arguments.port >= 0) {
    const bool tls = arguments.tls;
    server = std::make_unique<cms::fleet::PeerServer>(
        cms::fleet::PeerServerOptions{static_cast<std::uint16_t>(arguments.port), 0,
                                      arguments.openMetrics, tls ? fleet.certificate : "",
                                      tls ? fleet.key : "", tls ? fleet.ca : ""},
        keys, recordings, tokens, [&run] { return run.Figures(); });
  }
  run.Run(StopDescriptor());
  return 0;
}

}  // namespace

void AddRunCommand(Command app, FleetResult& result) {
  auto arguments = std::make_shared<RunArguments>();
  const Command command =
      app.Add("run", "Be a recorder of the fleet: record what it gives, until SIGTERM");
  AddEngineOptions(command, arguments->fleet);
  command.AddOption("--name", arguments->name, "of this recorder, the same for good").Required();
  command.AddOption("--data", arguments->data, "folder of recordings and databases")
      .TypeName("DIR")
      .Required();
  command
      .AddOption("--secret-key", arguments->fleet.secretKey,
                 "file of the key of cameras' passwords")
      .Required();
  command.AddOption("--group", arguments->group, "cameras of this group come here first");
  command.AddOption("--capacity", arguments->capacity, "cameras that it may have, by weight")
      .ShowDefault();
  command.AddOption(
      "--config", arguments->config,
      "TOML that its recorder reads besides: [[disks]], [page], [[hooks]], [retention], [plans]");
  command.AddOption("--ttl", arguments->ttl, "seconds until it counts as dead")
      .InRange(2, 60)
      .ShowDefault();
  command
      .AddOption("--port", arguments->port,
                 "answer other recorders, those who look for recordings, and /auth/metrics here")
      .InRange(1, 65'535);
  command.AddOption("--url", arguments->url,
                    "where they reach that, such as https://10.0.0.7:8443; with --port");
  command.AddFlag("--tls", arguments->tls,
                  "answer there by TLS, with --cert and --key, only those with a certificate of "
                  "--ca");
  command.AddFlag("--open-metrics", arguments->openMetrics,
                  "answer /metrics without a login, for Prometheus");
  AddLogOptions(command, arguments->log);
  RunFleetJob(command, result, [arguments, command] {
    return RunRecorder(*arguments, command.Has("--group") || command.Has("--capacity"));
  });
}

}  // namespace tools
