// The TCP server as plain functions: it broadcasts to the peers whose addresses are enabled.
// cms/net/tcp_server.h tells what runs on which thread. Null handles are refused with 0.
#pragma once

#include <cstdint>

#include "cms/net/tcp_server.h"
#include "cms/runtime/api.h"

extern "C" {

// The record stays the caller's and outlives the server. Null when it is null or memory is short.
CMS_API CTcpServer* CreateTcpServer(cms::tTcpServerConfig* config);
CMS_API void DestroyTcpServer(CTcpServer* server);  // stops it first

// Listens, and tells address and port in the record: 1, or 0 on failure.
CMS_API int StartTcpServer(CTcpServer* server);
// Closes every connection; returns when their threads have ended. Not from a callback.
CMS_API void StopTcpServer(CTcpServer* server);

CMS_API int TotalClientCnt(CTcpServer* server);
// Lets the peers behind an address (IPv4, host byte order) have what is sent, or not: always 1. A
// new connection from an address disables it again, and so does the end of one.
CMS_API int EnableSendData(CTcpServer* server, std::uint32_t address, int enable);
// Queues the bytes for the peers that are enabled and returns what the last of them did with it:
// the length, or 0 when its queue was full.
CMS_API int SendTcpData(CTcpServer* server, const char* data, int length);

}  // extern "C"
