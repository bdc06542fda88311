#include "tools/fleet/demo_engine.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kLongestEngineStart{30};
constexpr std::chrono::milliseconds kEngineLook{100};

std::string UrlOf(const std::string& address, int port) {
  return "http://" + address + ":" + std::to_string(port);
}

}  // namespace

std::vector<int> FreePorts(std::size_t count) {
  std::vector<int> sockets;
  std::vector<int> ports;
  for (std::size_t i = 0; i < count; ++i) {
    sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(sockets.back(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(sockets.back(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error(std::string("127.0.0.1 has no free port: ") + std::strerror(errno));
    }
    ports.push_back(ntohs(address.sin_port));
  }
  for (const int each : sockets) {
    close(each);
  }
  return ports;
}

std::string MakeWorkFolder() {
  std::string path =
      (std::filesystem::temp_directory_path() / "orvanta-fleet-demo-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error(path + ": no folder can be made: " + std::strerror(errno));
  }
  return path;
}

DemoEngine::DemoEngine(std::string folder, std::string address)
    : folder_(std::move(folder)), address_(std::move(address)), ports_(FreePorts(2 * kMembers)) {
  for (std::size_t i = 0; i < kMembers; ++i) {
    access_.members.push_back(UrlOf(address_, ports_[2 * i]));
    members_ += (i == 0 ? "" : ",") + access_.members.back();
  }
  Start();
}

void DemoEngine::StartMember(std::size_t member) {
  const auto peer = [&](std::size_t i) { return UrlOf("127.0.0.1", ports_[2 * i + 1]); };
  std::string cluster;
  for (std::size_t i = 0; i < kMembers; ++i) {
    cluster += (i == 0 ? "m" : ",m") + std::to_string(i) + "=" + peer(i);
  }
  const std::string name = "m" + std::to_string(member);
  const std::string& url = access_.members[member];
  processes_.resize(kMembers);
  processes_[member] =
      std::make_unique<ChildProcess>(std::vector<std::string>{"etcd",
                                                              "--name",
                                                              name,
                                                              "--data-dir",
                                                              folder_ + "/engine/" + name,
                                                              "--listen-client-urls",
                                                              url,
                                                              "--advertise-client-urls",
                                                              url,
                                                              "--listen-peer-urls",
                                                              peer(member),
                                                              "--initial-advertise-peer-urls",
                                                              peer(member),
                                                              "--initial-cluster",
                                                              cluster,
                                                              "--initial-cluster-state",
                                                              "new",
                                                              "--auto-compaction-retention",
                                                              "1h",
                                                              "--logger",
                                                              "zap"},
                                     ChildOptions{true, folder_ + "/" + name + ".log"});
}

void DemoEngine::Start() {
  for (std::size_t i = 0; i < kMembers; ++i) {
    StartMember(i);
  }
  cms::fleet::EngineClient client(access_);
  const auto until = std::chrono::steady_clock::now() + kLongestEngineStart;
  while (!client.Range(cms::fleet::FleetKey())) {
    if (std::chrono::steady_clock::now() > until || StopRequested() ||
        !processes_.front()->Runs()) {
      throw std::runtime_error("the engine does not start (apt-get install etcd-server?): see " +
                               folder_ + "/m0.log");
    }
    std::this_thread::sleep_for(kEngineLook);
  }
}

void DemoEngine::Kill() {
  for (const auto& member : processes_) {
    member->Signal(SIGKILL);
  }
  processes_.clear();
}

void DemoEngine::KillMember(std::size_t member) {
  processes_.at(member)->Signal(SIGKILL);
}

std::size_t DemoEngine::Leader() const {
  for (std::size_t i = 0; i < kMembers; ++i) {
    cms::fleet::EngineAccess one = access_;
    one.members = {access_.members[i]};
    if (cms::fleet::EngineClient(one).Leads().value_or(false)) {
      return i;
    }
  }
  throw std::runtime_error("no member of the engine leads the others");
}

void DemoEngine::Keep() {
  std::filesystem::copy(folder_ + "/engine", folder_ + "/engine.kept",
                        std::filesystem::copy_options::recursive);
}

void DemoEngine::PutBack() {
  Forget();
  std::filesystem::rename(folder_ + "/engine.kept", folder_ + "/engine");
}

void DemoEngine::Forget() {
  std::filesystem::remove_all(folder_ + "/engine");
}

std::vector<pid_t> DemoEngine::Processes() const {
  std::vector<pid_t> ids;
  for (const auto& each : processes_) {
    ids.push_back(each->Pid());
  }
  return ids;
}

}  // namespace tools
