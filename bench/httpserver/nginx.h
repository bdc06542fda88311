// nginx as a peer.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "bench/support/child_process.h"

namespace bench {

// A worker for each core that is woken by whole requests, no log, "/page" of so many bytes from an
// open file. Runs while it lives, where it is installed.
class Nginx {
 public:
  // `settings` go into the server block, such as "limit_rate 125k;".
  Nginx(std::size_t pageSize, const std::string& settings);
  ~Nginx();
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  int Pid() const { return pid_; }  // 0 where there is no nginx
  static constexpr int kPort = 18080;

 private:
  std::filesystem::path folder_;
  std::unique_ptr<ChildProcess> process_;
  int pid_ = 0;
};

}  // namespace bench
