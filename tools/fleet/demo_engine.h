// An engine of three members on this machine.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "fleet/engine_access.h"
#include "tools/fleet/child_process.h"

namespace tools {

// Free TCP ports of the loopback address at this moment; somebody else may take one before it is
// used.
std::vector<int> FreePorts(std::size_t count);

// A new folder below that of temporary files.
std::string MakeWorkFolder();

// For one thread. Its data is below `folder`; its members end with it.
class DemoEngine {
 public:
  // Clients are served at this address of the machine. Throws std::runtime_error where etcd is
  // missing or does not start, as Start does.
  DemoEngine(std::string folder, std::string address);
  ~DemoEngine() { Kill(); }
  DemoEngine(const DemoEngine&) = delete;
  DemoEngine& operator=(const DemoEngine&) = delete;

  void Start();  // and waits until it answers
  void Kill();
  static constexpr std::size_t kMembers = 3;
  void SignalMember(std::size_t member, int signal) { processes_.at(member)->Signal(signal); }
  void KillMember(std::size_t member);
  void StartMember(std::size_t member);  // that was killed; the others answer meanwhile
  std::size_t Leader() const;            // throws std::runtime_error when there is none
  // While it is dead: what it stored is kept aside, comes back as it was then, or is lost.
  void Keep();
  void PutBack();
  void Forget();

  const cms::fleet::EngineAccess& Access() const { return access_; }
  const std::string& Members() const { return members_; }  // as --engine takes them
  std::vector<pid_t> Processes() const;

 private:
  const std::string folder_;
  const std::string address_;
  std::vector<int> ports_;  // two for each member
  std::string members_;
  cms::fleet::EngineAccess access_;
  std::vector<std::unique_ptr<ChildProcess>> processes_;  // of each member
};

}  // namespace tools
