#include "bench/httpserver/web_servers.h"

#include <civetweb.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "cms/exports/http_server_exports.h"

namespace bench {
namespace {

const std::string& Page() {
  static const std::string page(kPageSize, 'p');
  return page;
}

void RunOurs() {
  const cms::tHttpServerConfig config{0, [](const std::string&, std::string&) { return 0; }};
  HttpServer* const server = CreateHttpServer(&config);
  RegisterEgi(server, "/page", [](HttpRequest* request, const char*, std::uint32_t) {
    return RequestWrite(request, Page().c_str());
  });
  EnableWholeRequests(server, 1);
  StartHttpServer(server);
  ServeUntilInputEnds(GetHttpServerPort(server));
  DestroyHttpServer(server);
}

MHD_Result AnswerPage(void*, MHD_Connection* connection, const char*, const char*, const char*,
                      const char*, std::size_t*, void**) {
  MHD_Response* const response = MHD_create_response_from_buffer(
      Page().size(), const_cast<char*>(Page().data()), MHD_RESPMEM_PERSISTENT);
  MHD_add_response_header(response, "Connection", "close");
  const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return result;
}

// As many threads as its manual has by default, and the answer in one write.
void RunCivetweb() {
  mg_init_library(0);
  const char* options[] = {"listening_ports",   "0",  "num_threads", "50", "tcp_nodelay", "1",
                           "enable_keep_alive", "no", nullptr};
  mg_callbacks callbacks{};
  mg_context* const server = mg_start(&callbacks, nullptr, options);
  static const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: " + std::to_string(kPageSize) +
      "\r\nConnection: close\r\n\r\n" + Page();
  mg_set_request_handler(
      server, "/page",
      [](mg_connection* connection, void*) {
        mg_write(connection, answer.data(), answer.size());
        return 200;
      },
      nullptr);
  mg_server_port port{};
  mg_get_server_ports(server, 1, &port);
  ServeUntilInputEnds(port.port);
  mg_stop(server);
  mg_exit_library();
}

// What its manual recommends where many are served: a pool of threads with epoll each.
void RunMicrohttpdPool() {
  ServeMicrohttpd(&AnswerPage, MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_TURBO,
                  std::max(2U, std::thread::hardware_concurrency()));
}

}  // namespace

void ServeUntilInputEnds(int port) {
  std::printf("%d\n", port);
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
}

void ServeMicrohttpd(MHD_AccessHandlerCallback answer, unsigned flags, unsigned threads,
                     const std::function<void()>& ending) {
  const MHD_OptionItem pool[] = {
      {threads > 0 ? MHD_OPTION_THREAD_POOL_SIZE : MHD_OPTION_END, threads, nullptr},
      {MHD_OPTION_END, 0, nullptr}};
  MHD_Daemon* const server = MHD_start_daemon(flags, 0, nullptr, nullptr, answer, nullptr,
                                              MHD_OPTION_ARRAY, pool, MHD_OPTION_END);
  ServeUntilInputEnds(MHD_get_daemon_info(server, MHD_DAEMON_INFO_BIND_PORT)->port);
  if (ending) {
    ending();
  }
  MHD_stop_daemon(server);
}

bool RunWebServer(const std::string& name) {
  if (name == "ours") {
    RunOurs();
  } else if (name == "microhttpd") {
    ServeMicrohttpd(&AnswerPage, kMicrohttpdThreads, 0);
  } else if (name == "mhd-pool") {
    RunMicrohttpdPool();
  } else if (name == "civetweb") {
    RunCivetweb();
  } else {
    return false;
  }
  return true;
}

}  // namespace bench
