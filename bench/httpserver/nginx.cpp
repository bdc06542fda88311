#include "bench/httpserver/nginx.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kProgram[] = "/usr/sbin/nginx";

}  // namespace

Nginx::Nginx(std::size_t pageSize, const std::string& settings)
    : folder_(fs::temp_directory_path() / ("bench" + std::to_string(getpid()))) {
  if (!fs::exists(kProgram)) {
    return;
  }
  fs::create_directories(folder_);
  std::ofstream(folder_ / "page") << std::string(pageSize, 'p');
  std::ofstream(folder_ / "conf")
      << "daemon off; worker_processes auto; pid " << folder_.string() << "/pid;\n"
      << (geteuid() == 0 ? "user root;\n" : "") << "error_log /dev/null;\n"
      << "events { worker_connections 4096; }\n"
      << "http { access_log off; keepalive_timeout 0; sendfile on; tcp_nopush on;"
      << " open_file_cache max=10; server { listen 127.0.0.1:" << kPort
      << " backlog=4096 deferred; root " << folder_.string() << "; " << settings << " } }\n";
  process_ = std::make_unique<ChildProcess>(
      kProgram, std::vector<std::string>{"-p", folder_, "-c", folder_ / "conf"});
  for (int i = 0; i < 100 && pid_ == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::ifstream(folder_ / "pid") >> pid_;
  }
}

Nginx::~Nginx() {
  if (process_ != nullptr) {
    process_->Terminate();
  }
  process_.reset();
  fs::remove_all(folder_);
}

}  // namespace bench
