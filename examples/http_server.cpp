// A web server with a page, a protected page and a stream.
//
//   http_server PORT USER PASSWORD        runs until its input ends
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "cms/exports/http_server_exports.h"

namespace {

struct Login {
  std::string user, password;
};

int Password(void* login, const std::string& user, std::string& password) {
  const auto& known = *static_cast<Login*>(login);
  password = known.password;
  return user == known.user ? 1 : 0;
}

// As the text of a JSON string.
std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    char code[8];
    std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned char>(c));
    const bool plain = static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\';
    quoted += plain ? std::string(1, c) : code;
  }
  return quoted + '"';
}

int Welcome(HttpRequest* request, const char*, std::uint32_t) {
  return RequestWrite(request, "<html><a href=/clock>clock</a> <a href=/auth/me>log in</a></html>");
}

int Me(HttpRequest* request, const char*, std::uint32_t) {
  std::string user;
  GetUsername(request, user);
  RequestSetContentType(request, "application/json");
  return RequestWriteFormat(request, "{\"user\": %s}\n", Quoted(user).c_str());
}

// A line a second, for as long as the client listens and the server is open.
int Clock(HttpRequest* request, const char*, std::uint32_t) {
  std::string line;
  do {
    line = std::to_string(std::time(nullptr)) + '\n';
  } while (RequestFlushWrite(request, line.data(), static_cast<int>(line.size())) && !sleep(1));
  return ForceDissconnect(request);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return std::fputs("usage: http_server PORT USER PASSWORD\n", stderr), 2;
  Login login{argv[2], argv[3]};
  const cms::tHttpServerConfigEx config{static_cast<std::uint16_t>(std::atoi(argv[1])), Password,
                                        &login};
  HttpServer* const server = CreateHttpServerEx(&config);
  EnableWholeRequests(server, 1);
  EnableStrictDigest(server, 1);
  RegisterEgi(server, "/", Welcome);
  RegisterEgi(server, "/auth/me", Me);
  RegisterEgi(server, "/clock", Clock);
  const bool started = StartHttpServer(server) != 0;
  std::printf(started ? "http://127.0.0.1:%d/\n" : "port %d is taken\n",
              started ? GetHttpServerPort(server) : config.port);
  std::fflush(stdout);
  while (started && std::getchar() != EOF) {
  }
  DestroyHttpServer(server);
  return started ? 0 : 1;
}
