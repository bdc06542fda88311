#include "tools/fleet/demo_network.h"

#include <unistd.h>

#include <stdexcept>

#include "tools/fleet/child_process.h"

namespace tools {
namespace {

constexpr int kNames = 250;  // of networks at a time, by process numbers
constexpr int kFirstAddress = 10;

bool Does(std::vector<std::string> command) {
  command.insert(command.begin(), "ip");
  return RunProgram(command);
}

void Do(const std::vector<std::string>& command) {
  if (!Does(command)) {
    std::string text = "ip";
    for (const std::string& word : command) {
      text += " " + word;
    }
    throw std::runtime_error(text + ": failed; networks can be made by root alone");
  }
}

}  // namespace

DemoNetwork::DemoNetwork(int recorders)
    : recorders_(recorders),
      name_("orv" + std::to_string(getpid() % kNames)),
      net_("10.213." + std::to_string(getpid() % kNames) + ".") {
  Remove();
  try {
    Do({"link", "add", name_, "type", "bridge"});
    Do({"addr", "add", EngineAddress() + "/24", "dev", name_});
    Do({"addr", "add", CameraAddress() + "/24", "dev", name_});
    Do({"link", "set", name_, "up"});
    for (int i = 1; i <= recorders_; ++i) {
      const std::string recorder = "rec" + std::to_string(i);
      const std::string there = Namespace(recorder);
      const std::string outer = name_ + "v" + std::to_string(i);
      Do({"netns", "add", there});
      Do({"link", "add", outer, "type", "veth", "peer", "name", "eth0", "netns", there});
      Do({"link", "set", outer, "master", name_, "up"});
      Do({"-n", there, "addr", "add", AddressOf(recorder) + "/24", "dev", "eth0"});
      Do({"-n", there, "link", "set", "eth0", "up"});
      Do({"-n", there, "link", "set", "lo", "up"});
    }
  } catch (const std::runtime_error&) {
    Remove();
    throw;
  }
}

DemoNetwork::~DemoNetwork() {
  Remove();
}

void DemoNetwork::Remove() const {
  for (int i = 1; i <= recorders_; ++i) {
    Does({"netns", "del", Namespace("rec" + std::to_string(i))});
  }
  Does({"link", "del", name_});
}

std::string DemoNetwork::AddressOf(const std::string& recorder) const {
  return net_ + std::to_string(kFirstAddress + std::stoi(recorder.substr(3)));
}

std::vector<std::string> DemoNetwork::Inside(const std::string& recorder) const {
  return {"ip", "netns", "exec", Namespace(recorder)};
}

void DemoNetwork::Cut(const std::string& recorder,
                      const std::vector<std::string>& addresses) const {
  for (const std::string& each : addresses) {
    Do({"-n", Namespace(recorder), "route", "add", "blackhole", each + "/32"});
  }
}

void DemoNetwork::Mend(const std::string& recorder,
                       const std::vector<std::string>& addresses) const {
  for (const std::string& each : addresses) {
    Do({"-n", Namespace(recorder), "route", "del", "blackhole", each + "/32"});
  }
}

}  // namespace tools
