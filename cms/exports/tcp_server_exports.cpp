#include "cms/exports/tcp_server_exports.h"

#include <new>

CTcpServer* CreateTcpServer(cms::tTcpServerConfig* config) {
  if (config == nullptr) {
    return nullptr;
  }
  return new (std::nothrow) CTcpServer(config);
}

void DestroyTcpServer(CTcpServer* server) {
  delete server;
}

int StartTcpServer(CTcpServer* server) {
  return server != nullptr && server->Start() ? 1 : 0;
}

void StopTcpServer(CTcpServer* server) {
  if (server != nullptr) {
    server->Stop();
  }
}

int TotalClientCnt(CTcpServer* server) {
  return server != nullptr ? server->TotalClients() : 0;
}

int EnableSendData(CTcpServer* server, std::uint32_t address, int enable) {
  if (server == nullptr) {
    return 0;
  }
  server->EnableSend(address, enable != 0);
  return 1;
}

int SendTcpData(CTcpServer* server, const char* data, int length) {
  try {
    return server != nullptr ? server->Send(data, length) : 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}
