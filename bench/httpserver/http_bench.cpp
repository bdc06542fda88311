// Requests a second and processor time a request: a new connection for each, 1 KiB answers, asked
// by ab (apache2-utils). Ours beside libmicrohttpd with a thread for each connection and with a
// pool of threads that use epoll, civetweb with 50 threads, and nginx with a worker for each core.
//
//   http_bench [REQUESTS [CONCURRENCY...]]        30000 at 16 and 256 unless told
//
// Times are milliseconds as ab tells them; "cpu" is microseconds of the server's processes a
// request.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/httpserver/nginx.h"
#include "bench/httpserver/web_servers.h"
#include "bench/support/child_process.h"
#include "bench/support/processor_time.h"

namespace {

struct Measured {
  double rate = 0;
  double cpu = 0;
};

Measured Measure(const std::string& name, int pid, int port, int requests, int concurrency) {
  const std::string command = "ab -q -n " + std::to_string(requests) + " -c " +
                              std::to_string(concurrency) +
                              " http://127.0.0.1:" + std::to_string(port) + "/page 2>&1";
  const double before = bench::ProcessorTime(pid);
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
  const double cpu = (bench::ProcessorTime(pid) - before) / requests;
  const double rate = std::atof(told["Requests per second:"].c_str());
  std::printf("%-12s %5d %10.0f %8.1f %8s %8s %8s %8s\n", name.c_str(), concurrency, rate, cpu,
              told["50%"].c_str(), told["99%"].c_str(), told["100%"].c_str(),
              told["Failed requests:"].c_str());
  std::fflush(stdout);
  return {rate, cpu};
}

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
    for (const std::string name : {"ours", "microhttpd", "mhd-pool", "civetweb"}) {
      bench::ChildProcess server({"--serve", name});
      const int port = std::atoi(server.ReadLine().c_str());
      results[name] = Measure(name, server.Pid(), port, requests, concurrency);
    }
    const bench::Nginx nginx(bench::kPageSize, "");
    if (nginx.Pid() != 0) {
      results["nginx"] = Measure("nginx", nginx.Pid(), bench::Nginx::kPort, requests, concurrency);
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
