// CTcpServer, a TCP server that broadcasts to those of its peers whose addresses are enabled.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/runtime/api.h"

namespace cms {

// Bytes that a peer sent; valid only during the call, and unread by anybody without a callback.
// Runs on the connection's own thread, so for several connections at once.
using TcpServerReceiveCallback = void (*)(void* context, const char* data, int length);
// A peer that was just accepted. Runs on the accept thread, before the peer's address is disabled
// for sending.
using TcpServerAcceptCallback = void (*)(const sockaddr_in* peer, int addressLength);

// Belongs to the caller and outlives the server, which writes the two members marked "out".
struct tTcpServerConfig {
  TcpServerReceiveCallback recvCallback = nullptr;  // nullptr: received bytes are thrown away
  void* recvContext = nullptr;
  int recvFrameSize = 1024;  // bytes received per call, and that each connection keeps for it
  int recvQueueDepth = 128;  // a connection's send queue holds depth * size bytes
  TcpServerAcceptCallback acceptCallback = nullptr;
  std::uint32_t localAddress = 0;  // out: IPv4, host byte order; 0 is any
  std::uint16_t localPort = 0;     // out: as the system chose it
  // Served at once; further peers wait in the system's queue until one leaves. 0: any number.
  int maximumConnections = 0;
};

}  // namespace cms

// One accept thread, and a send and a receive thread for each connection. Sending only queues: a
// peer that reads slowly delays nobody, and what does not fit its queue is dropped for it, in whole
// blocks. One controlling thread starts, stops and destroys; the other members are for any thread.
// Callbacks may send, but not stop.
class CMS_API CTcpServer {
 public:
  // Sizes below 1 mean the default.
  explicit CTcpServer(cms::tTcpServerConfig* config);
  ~CTcpServer();  // stops
  CTcpServer(const CTcpServer&) = delete;
  CTcpServer& operator=(const CTcpServer&) = delete;

  // Listens on a port of the system's choice and tells it in the configuration. False when it runs
  // already or the system refuses.
  bool Start();
  // Closes every connection, also those in the middle of sending, and forgets all permissions.
  void Stop();

  int TotalClients();
  // Whether the peers behind an address (IPv4, host byte order) get what is sent. A new connection
  // from an address disables it, and so does the end of one.
  void EnableSend(std::uint32_t address, bool enable);
  // Queues the bytes for every enabled connection. The result is that of the last one in the order
  // of acceptance: the length, or 0 when its queue had no room; 0 when none was enabled.
  int Send(const char* data, int length);
  // Bytes that wait in the queues of all connections, the blocks that are being sent included. Who
  // stops only when it is 0 lets everything reach the system first.
  std::size_t QueuedBytes();

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};
