#include "cms/exports/http_server_exports.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <new>
#include <utility>

#include "cms/httpserver/internal/http_request.h"
#include "cms/httpserver/internal/http_server.h"

namespace {

// What `work` returns, or 0 without a handle or when memory is short.
template <class Handle, class Work>
int With(Handle* handle, Work work) {
  if (handle == nullptr) {
    return 0;
  }
  try {
    return work(*handle);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

template <class Part>
int Tell(HttpRequest* request, std::string& out, Part part) {
  out.clear();
  return With(request, [&](const HttpRequest& of) {
    out = part(of);
    return out.empty() ? 0 : 1;
  });
}

HttpServer* Create(cms::HttpServerOptions options) {
  try {
    return new HttpServer(std::move(options));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

template <class Callback>
int Register(HttpServer* server, const char* name, Callback callback) {
  return With(server, [&](HttpServer& at) {
    at.Register({std::string(name).substr(0, EgiHandler::kNameSize - 1), callback});
    return 1;
  });
}

int Enable(HttpServer* server, std::atomic<bool> HttpServer::Rules::*rule, int enable) {
  return With(server, [&](HttpServer& at) {
    at.GetRules().*rule = enable != 0;
    return 1;
  });
}

}  // namespace

HttpServer* CreateHttpServer(const cms::tHttpServerConfig* config) {
  if (config == nullptr || config->passwordLookup == nullptr) {
    return nullptr;
  }
  return Create({.port = config->port, .passwordLookup = config->passwordLookup});
}

HttpServer* CreateHttpServerEx(const cms::tHttpServerConfigEx* config) {
  if (config == nullptr || config->passwordLookup == nullptr) {
    return nullptr;
  }
  const auto lookup = [look = config->passwordLookup, context = config->context](
                          const std::string& user, std::string& password) {
    return look(context, user, password);
  };
  return Create({config->port, config->bindAddress, config->maxConnections, lookup});
}

int SetHttpServerTls(HttpServer* server, const std::string& certificateFile,
                     const std::string& keyFile, const std::string& clientAuthorityFile,
                     std::string& problem) {
  problem.clear();
  return With(server, [&](HttpServer& at) {
    return at.SetTls({certificateFile, keyFile, clientAuthorityFile}, &problem) ? 1 : 0;
  });
}

int StartHttpServer(HttpServer* server) {
  return With(server, [](HttpServer& at) { return at.Start() ? 1 : 0; });
}

int CloseHttpServer(HttpServer* server) {
  if (server != nullptr) {
    server->Close();
  }
  return 1;
}

int DestroyHttpServer(HttpServer* server) {
  delete server;
  return 1;
}

int GetHttpServerPort(HttpServer* server) {
  return server != nullptr ? server->Port() : 0;
}

int RegisterEgi(HttpServer* server, const char* name, cms::EgiCallback callback) {
  if (name == nullptr || callback == nullptr) {
    return 0;
  }
  return Register(server, name, [callback](HttpRequest* request, const char* marker) {
    return callback(request, marker, 0);
  });
}

int RegisterEgiEx(HttpServer* server, const char* name, cms::EgiCallbackEx callback,
                  void* context) {
  if (name == nullptr || callback == nullptr) {
    return 0;
  }
  return Register(server, name, [callback, context](HttpRequest* request, const char* marker) {
    return callback(context, request, marker);
  });
}

int EnableWholeRequests(HttpServer* server, int enable) {
  return Enable(server, &HttpServer::Rules::wholeRequests, enable);
}

int EnableStrictDigest(HttpServer* server, int enable) {
  return Enable(server, &HttpServer::Rules::strictDigest, enable);
}

int EnableSha256Digest(HttpServer* server, int enable) {
  return Enable(server, &HttpServer::Rules::sha256Digest, enable);
}

int EnableFirstLineTarget(HttpServer* server, int enable) {
  return Enable(server, &HttpServer::Rules::firstLineOnly, enable);
}

int SetHttpLoginGuard(HttpServer* server, cms::HttpLoginGuard guard, void* context) {
  return With(server, [&](HttpServer& at) {
    at.GuardLogins(guard == nullptr
                       ? cms::LoginGuard()
                       : [guard, context](HttpRequest* request, const std::string& user,
                                          cms::HttpLoginStep step) {
                           return guard(context, request, user, step);
                         });
    return 1;
  });
}

int EnableWhiteBlackList(HttpServer* server, int enable) {
  return Enable(server, &HttpServer::Rules::checksAccess, enable);
}

int SetWhiteBlackListInfo(HttpServer* server, std::uint32_t low, std::uint32_t high,
                          std::uint32_t kind, int operation) {
  return With(server, [&](HttpServer& at) {
    at.ChangeAccessList({low, high, kind}, operation);
    return 1;
  });
}

int ClearAllWhiteBlackListInfo(HttpServer* server) {
  return With(server, [](HttpServer& at) {
    at.ClearAccessList();
    return 1;
  });
}

int AllowAccess(HttpServer* server, std::uint32_t address) {
  return With(server, [&](const HttpServer& at) { return at.AllowAccess(address); });
}

int StopListen(HttpServer* server) {
  return server != nullptr ? server->StopListening() : -1;
}

const char* GetBindIP() {
  static thread_local char text[INET_ADDRSTRLEN];
  text[0] = '\0';
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &wanted, &found) == 0) {
    const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    freeaddrinfo(found);
  }
  return text;
}

void CloseAllRequest() {}

int GetCGICommand(HttpRequest* request, std::string& command) {
  return Tell(request, command, [](const HttpRequest& of) { return of.Parsed().command; });
}

int GetMethod(HttpRequest* request, std::string& method) {
  return Tell(request, method, [](const HttpRequest& of) { return of.Parsed().method; });
}

int GetUsername(HttpRequest* request, std::string& userName) {
  return Tell(request, userName, [](const HttpRequest& of) { return of.Parsed().userName; });
}

int GetQueryData(HttpRequest* request, std::string* query) {
  if (query == nullptr) {
    return request != nullptr ? static_cast<int>(request->Parsed().query.size()) : 0;
  }
  return Tell(request, *query, [](const HttpRequest& of) { return of.Parsed().query; });
}

int RequestGetHeader(HttpRequest* request, const char* name, std::string& value) {
  value.clear();
  return name == nullptr ? 0 : With(request, [&](const HttpRequest& of) {
    const auto found = of.Header(name);
    value = found.value_or("");
    return found ? 1 : 0;
  });
}

int RequestReadBody(HttpRequest* request, std::uint32_t mostBytes, std::string& body) {
  body.clear();
  return With(request, [&](HttpRequest& of) { return of.ReadBody(mostBytes, body) ? 1 : 0; });
}

std::uint32_t GetClientAddress(HttpRequest* request) {
  return request != nullptr ? request->Client().sin_addr.s_addr : 0;
}

int GetClientAddressString(HttpRequest* request, std::string& address) {
  return Tell(request, address, [](const HttpRequest& of) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &of.Client().sin_addr, text, sizeof text);
    return std::string(text);
  });
}

int GetBindPort(HttpRequest* request) {
  return request != nullptr ? request->Server().Port() : 0;
}

std::uintptr_t GetThreadHandle(HttpRequest* request) {
  return request != nullptr ? request->HandOutThread() : 0;
}

int SetRequestThreadPriority(HttpRequest* request, int priority) {
  return request != nullptr ? request->SetPriority(priority) : 0;
}

int SetSendSocketBuufer(HttpRequest* request, int size) {
  return request != nullptr
             ? setsockopt(request->Socket(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size)
             : -1;
}

int RequestWrite(HttpRequest* request, const char* text) {
  return text == nullptr ? 0 : With(request, [&](HttpRequest& to) {
    to.Write(text);
    return 1;
  });
}

int RequestWriteFormat(HttpRequest* request, const char* format, ...) {
  if (format == nullptr) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, format);
  const int result =
      With(request, [&](HttpRequest& to) { return to.WriteFormat(format, arguments); });
  va_end(arguments);
  return result;
}

int RequestFlushWrite(HttpRequest* request, const char* data, int length) {
  return With(request, [&](HttpRequest& to) { return to.Flush(data, length); });
}

// The interface has the text by value. NOLINTNEXTLINE(performance-unnecessary-value-param)
int SendHeaderForFile(HttpRequest* request, long long length, std::string lastModified) {
  return With(request, [&](HttpRequest& to) { return to.SendFileHeader(length, lastModified); });
}

int SetStatusCode(HttpRequest* request, std::uint32_t status) {
  return With(request, [&](HttpRequest& of) { return of.SetStatus(status) ? 1 : 0; });
}

int RequestSetContentType(HttpRequest* request, const char* type) {
  return type == nullptr
             ? 0
             : With(request, [&](HttpRequest& of) { return of.SetContentType(type) ? 1 : 0; });
}

int RequestAddHeader(HttpRequest* request, const char* name, const char* value) {
  return name == nullptr || value == nullptr
             ? 0
             : With(request, [&](HttpRequest& of) { return of.AddHeader(name, value) ? 1 : 0; });
}

int SetKeepConnection(HttpRequest* request, int keep) {
  return With(request, [&](HttpRequest& of) {
    of.SetKeepAlive(keep != 0);
    return 1;
  });
}

int ForceDissconnect(HttpRequest* request) {
  return With(request, [](HttpRequest& of) {
    of.Disconnect();
    return 1;
  });
}
