#include "bench/httpserver/web_servers.h"

#include <civetweb.h>

#include <cstdio>

#include "cms/exports/http_server_exports.h"

namespace bench {
namespace {

const std::string& Page() {
  static const std::string page(kPageSize, 'p');
  return page;
}

void RunOurs() {
  const tHttpServerConfig config{0, [](const std::string&, std::string&) { return 0; }};
  HttpServer* const server = CreateHttpServer(&config);
  RegisterEgi(server, "/page", [](HttpRequest* request, const char*, std::uint32_t) {
    return RequestWrite(request, Page().c_str());
  });
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

void RunCivetweb() {
  mg_init_library(0);
  const char* options[] = {"listening_ports", "0", "enable_keep_alive", "no", nullptr};
  mg_callbacks callbacks{};
  mg_context* const server = mg_start(&callbacks, nullptr, options);
  mg_set_request_handler(
      server, "/page",
      [](mg_connection* connection, void*) {
        mg_send_http_ok(connection, "text/html", kPageSize);
        mg_write(connection, Page().data(), Page().size());
        return 200;
      },
      nullptr);
  mg_server_port port{};
  mg_get_server_ports(server, 1, &port);
  ServeUntilInputEnds(port.port);
  mg_stop(server);
  mg_exit_library();
}

}  // namespace

void ServeUntilInputEnds(int port) {
  std::printf("%d\n", port);
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
}

void ServeMicrohttpd(MHD_AccessHandlerCallback answer, const std::function<void()>& ending) {
  MHD_Daemon* const server = MHD_start_daemon(
      MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL, 0, nullptr,
      nullptr, answer, nullptr, MHD_OPTION_END);
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
    ServeMicrohttpd(&AnswerPage);
  } else if (name == "civetweb") {
    RunCivetweb();
  } else {
    return false;
  }
  return true;
}

}  // namespace bench
