#include "cms/exports/http_server_exports.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <new>

#include "cms/httpserver/internal/http_server.h"

namespace {

int Told(const std::string& text, std::string& out) {
  out = text;
  return text.empty() ? 0 : 1;
}

int Cleared(std::string& out) {
  out.clear();
  return 0;
}

}  // namespace

HttpServer* CreateHttpServer(const tHttpServerConfig* config) {
  if (config == nullptr || config->passwordLookup == nullptr) {
    return nullptr;
  }
  try {
    return new HttpServer(*config);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int StartHttpServer(HttpServer* server) {
  return server != nullptr && server->Start() ? 1 : 0;
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

int RegisterEgi(HttpServer* server, const char* name, EgiCallback callback) {
  if (server == nullptr || name == nullptr || callback == nullptr) {
    return 0;
  }
  server->Register(name, callback);
  return 1;
}

int SetWhiteBlackListInfo(HttpServer* server, std::uint32_t low, std::uint32_t high,
                          std::uint32_t kind, int operation) {
  if (server == nullptr) {
    return 0;
  }
  server->ChangeAccessList({low, high, kind}, operation);
  return 1;
}

int ClearAllWhiteBlackListInfo(HttpServer* server) {
  if (server == nullptr) {
    return 0;
  }
  server->ClearAccessList();
  return 1;
}

int EnableWhiteBlackList(HttpServer* server, int enable) {
  if (server == nullptr) {
    return 0;
  }
  server->CheckAccess(enable != 0);
  return 1;
}

int EnableFirstLineTarget(HttpServer* server, int enable) {
  if (server == nullptr) {
    return 0;
  }
  server->ReadFirstLineOnly(enable != 0);
  return 1;
}

int AllowAccess(HttpServer* server, std::uint32_t address) {
  return server != nullptr ? server->AllowAccess(address) : 0;
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
  return request != nullptr ? Told(request->Parsed().command, command) : Cleared(command);
}

int GetMethod(HttpRequest* request, std::string& method) {
  return request != nullptr ? Told(request->Parsed().method, method) : Cleared(method);
}

int GetUsername(HttpRequest* request, std::string& userName) {
  return request != nullptr ? Told(request->Parsed().userName, userName) : Cleared(userName);
}

int GetQueryData(HttpRequest* request, std::string* query) {
  if (query == nullptr) {
    return request != nullptr ? static_cast<int>(request->Parsed().query.size()) : 0;
  }
  return request != nullptr ? Told(request->Parsed().query, *query) : Cleared(*query);
}

std::uint32_t GetClientAddress(HttpRequest* request) {
  return request != nullptr ? request->Client().sin_addr.s_addr : 0;
}

int GetClientAddressString(HttpRequest* request, std::string& address) {
  char text[INET_ADDRSTRLEN] = "";
  if (request != nullptr) {
    inet_ntop(AF_INET, &request->Client().sin_addr, text, sizeof text);
  }
  return Told(text, address);
}

int GetBindPort(HttpRequest* request) {
  return request != nullptr ? request->Server().Port() : 0;
}

std::uintptr_t GetThreadHandle(HttpRequest* request) {
  return request != nullptr ? request->ThreadHandle() : 0;
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
  if (request == nullptr || text == nullptr) {
    return 0;
  }
  try {
    request->Write(text);
    return 1;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

int RequestWriteFormat(HttpRequest* request, const char* format, ...) {
  if (request == nullptr || format == nullptr) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, format);
  int result = 0;
  try {
    result = request->WriteFormat(format, arguments);
  } catch (const std::bad_alloc&) {
    result = 0;
  }
  va_end(arguments);
  return result;
}

int RequestFlushWrite(HttpRequest* request, const char* data, int length) {
  return request != nullptr ? request->Flush(data, length) : 0;
}

// The interface has the text by value. NOLINTNEXTLINE(performance-unnecessary-value-param)
int SendHeaderForFile(HttpRequest* request, long long length, std::string lastModified) {
  return request != nullptr ? request->SendFileHeader(length, lastModified) : 0;
}

int SetStatusCode(HttpRequest* request, std::uint32_t status) {
  if (request == nullptr) {
    return 0;
  }
  request->SetStatus(status);
  return 1;
}

int SetKeepConnection(HttpRequest* request, int keep) {
  if (request == nullptr) {
    return 0;
  }
  request->SetKeepAlive(keep != 0);
  return 1;
}

int ForceDissconnect(HttpRequest* request) {
  if (request == nullptr) {
    return 0;
  }
  request->Disconnect();
  return 1;
}
