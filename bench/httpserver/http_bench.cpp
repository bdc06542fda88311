// Requests a second and processor time a request: a new connection for each, 1 KiB answers, asked
// by ab (apache2-utils). Ours beside libmicrohttpd with a thread for each connection, civetweb, and
// nginx with one worker where it is installed.
//
//   http_bench [REQUESTS [CONCURRENCY...]]        30000 at 16 and 256 unless told
//
// Times are milliseconds as ab tells them; "cpu" is microseconds of the server's processes a
// request.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/httpserver/web_servers.h"
#include "bench/support/child_process.h"

namespace {

namespace fs = std::filesystem;

// User and system time of a process and its children that run, in microseconds.
double ProcessorTime(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), {});
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) {
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  fields >> user >> system;
  double sum = (user + system) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
  const std::string task = std::to_string(pid);
  std::ifstream children("/proc/" + task + "/task/" + task + "/children");
  for (int child = 0; children >> child;) {
    sum += ProcessorTime(child);
  }
  return sum;
}

struct Measured {
  double rate = 0;
  double cpu = 0;
};

Measured Measure(const std::string& name, int pid, int port, int requests, int concurrency) {
  const std::string command = "ab -q -n " + std::to_string(requests) + " -c " +
                              std::to_string(concurrency) +
                              " http://127.0.0.1:" + std::to_string(port) + "/page 2>&1";
  const double before = ProcessorTime(pid);
  std::map<std::string, std::string> told;
  std::FILE* const output = popen(command.c_str(), "r");
  char line[512];
  while (std::fgets(line, sizeof line, output) != nullptr) {
    std::istringstream words(line);
    std::string key, word;
    while (words >> word && word.back() != ':' && word.back() != '%') {
      key += word + ' ';
    }
    std::string value;
    words >> value;
    told[key + word] = value;
  }
  pclose(output);
  const double cpu = (ProcessorTime(pid) - before) / requests;
  const double rate = std::atof(told["Requests per second:"].c_str());
  std::printf("%-12s %5d %10.0f %8.1f %8s %8s %8s %8s\n", name.c_str(), concurrency, rate, cpu,
              told["50%"].c_str(), told["99%"].c_str(), told["100%"].c_str(),
              told["Failed requests:"].c_str());
  std::fflush(stdout);
  return {rate, cpu};
}

// One worker, no log, the page from a file.
class Nginx {
 public:
  Nginx() : folder_(fs::temp_directory_path() / ("http_bench" + std::to_string(getpid()))) {
    if (!fs::exists(kProgram)) {
      return;
    }
    fs::create_directories(folder_);
    std::ofstream(folder_ / "page") << std::string(bench::kPageSize, 'p');
    std::ofstream(folder_ / "conf")
        << "daemon off; worker_processes 1; pid " << folder_.string() << "/pid;\n"
        << (geteuid() == 0 ? "user root;\n" : "") << "error_log /dev/null;\n"
        << "events { worker_connections 4096; }\n"
        << "http { access_log off; keepalive_timeout 0; server { listen 127.0.0.1:" << kPort
        << " backlog=4096; root " << folder_.string() << "; } }\n";
    process_ = std::make_unique<bench::ChildProcess>(
        kProgram, std::vector<std::string>{"-p", folder_, "-c", folder_ / "conf"});
    for (int i = 0; i < 100 && pid_ == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      std::ifstream(folder_ / "pid") >> pid_;
    }
  }
  ~Nginx() {
    if (process_ != nullptr) {
      process_->Terminate();
    }
    process_.reset();
    fs::remove_all(folder_);
  }
  int Pid() const { return pid_; }
  static constexpr int kPort = 18080;

 private:
  static constexpr char kProgram[] = "/usr/sbin/nginx";
  fs::path folder_;
  std::unique_ptr<bench::ChildProcess> process_;
  int pid_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--serve") {
    return bench::RunWebServer(argv[2]) ? 0 : 2;
  }
  if (std::system("ab -V >/dev/null 2>&1") != 0) {
    std::fputs("http_bench: ab is missing (apache2-utils)\n", stderr);
    return 1;
  }
  const int requests = argc > 1 ? std::atoi(argv[1]) : 30000;
  std::vector<int> concurrencies;
  for (int i = 2; i < argc; ++i) {
    concurrencies.push_back(std::atoi(argv[i]));
  }
  if (concurrencies.empty()) {
    concurrencies = {16, 256};
  }
  std::printf("%-12s %5s %10s %8s %8s %8s %8s %8s\n", "server", "conc", "requests/s", "cpu us",
              "median", "99%", "longest", "failed");
  for (const int concurrency : concurrencies) {
    std::map<std::string, Measured> results;
    for (const std::string name : {"ours", "microhttpd", "civetweb"}) {
      bench::ChildProcess server({"--serve", name});
      const int port = std::atoi(server.ReadLine().c_str());
      // The server is the only child that this program has now.
      std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
      int pid = 0;
      children >> pid;
      results[name] = Measure(name, pid, port, requests, concurrency);
    }
    const Nginx nginx;
    if (nginx.Pid() != 0) {
      results["nginx"] = Measure("nginx", nginx.Pid(), Nginx::kPort, requests, concurrency);
    }
    for (const auto& [name, result] : results) {
      if (name != "ours") {
        std::printf("  ours / %-12s rate %.2f, processor time %.2f\n", name.c_str(),
                    results["ours"].rate / result.rate, results["ours"].cpu / result.cpu);
      }
    }
  }
  return 0;
}
