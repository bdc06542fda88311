// UDPClientBase, one bound IPv4 UDP socket with bounded queues, served by a group's I/O threads.
#pragma once

#include <cstdint>
#include <memory>
#include <thread>

#include "cms/runtime/api.h"

namespace cms {
class IpAddress;
class SocketEndpoint;

// One whole datagram; valid only during the call. Runs on the receive thread with the group's lock
// held; it may unregister or stop clients of its own group, but not destroy its own client.
// Datagrams are taken from the system 16 at a time: a callback that unregisters its own client, or
// moves it to another group, loses those that were taken with this one.
using UdpReceiveCallback = void (*)(void* context, char* data, int length);

}  // namespace cms

// Sizes, addresses and callback of a UDPClientBase; sizes below 1 mean the default. Datagrams are
// queued for OnRecv unless both callback and context are set.
struct _UDPCLIENT_CONFIG {
  int recvQueueDepth = 256;     // datagrams; a queue of fewer than 3 never holds one
  int recvDatagramSize = 2048;  // longer ones are dropped in queue mode
  int sendQueueDepth = 256;     // likewise
  int sendDatagramSize = 2048;  // longer ones are cut
  std::uint16_t localPort = 0;  // 0: the system chooses
  std::uint16_t remotePort = 0;
  std::uint32_t remoteAddress = 0;  // IPv4, host byte order; where OnSend's datagrams go
  void* recvContext = nullptr;
  cms::UdpReceiveCallback recvCallback = nullptr;
};

// Base of every UDP stream: SetConfig, OnStartUDPClient, then registration with
// EachClientGroupTable, whose threads move datagrams between the socket and the queues. OnSend and
// OnRecv never touch the socket.
//
// One owner thread at a time configures, starts, stops and destroys; OnSend, OnRecv and the
// questions may come from any thread. Statuses: non-zero success, 0 failure. A derived class that
// passes its own state to the callback calls OnStopUDPClient in its own destructor.
class CMS_API UDPClientBase {
 public:
  UDPClientBase();
  UDPClientBase(const UDPClientBase&) = delete;
  UDPClientBase& operator=(const UDPClientBase&) = delete;

  // Copied whole, for the next start. Not while registered.
  void SetConfig(_UDPCLIENT_CONFIG& config);

  // Makes the socket and binds it to the local port on any address, or keeps an adopted one.
  virtual int OnCreate();
  // Ends stand-alone threads, shuts the socket down and closes it. Always 1.
  virtual int OnClose();
  // Makes the queues anew, empty. The receive queue only where no callback takes the datagrams, and
  // the send queue's memory at the first OnSend, since most clients only receive.
  virtual int OnAllocateMemory();
  // Wakes the queues' waiters and frees the queues. Always 1.
  virtual int OnReleaseMemory();

  virtual ~UDPClientBase();

  // Queues a datagram for the remote address, cut at the send datagram size: its length, or 0 when
  // the queue is full.
  virtual int OnSend(char* data, int length);

  // Takes the next queued datagram into a buffer of at least the receive datagram size: its length.
  // 0 when none came within about 15 ms, and once for the empty slot that a new queue starts with.
  virtual int OnRecv(char* buffer, int size);
  virtual int OnRecvNB(char* buffer, int size);  // the same without waiting

  // OnAllocateMemory, OnCreate, non-blocking mode.
  virtual int OnStartUDPClient();
  // Unregisters (a step in progress has ended on return), then OnClose and OnReleaseMemory.
  virtual int OnStopUDPClient();

  // Buffer sizes of the open socket in bytes, beyond the system's limit where the process may do
  // that. 0 when there is no socket or the system refused.
  int SetRecvSocketBuffer(int bytes);
  int SetSendSocketBuffer(int bytes);

  // Change nothing; non-zero when that stand-alone thread exists.
  int SetRecvThrdPriority(int priority);
  int SetSendThrdPriority(int priority);

  std::uint16_t BoundPort() const;  // the open socket's local port, 0 without one

 protected:
  int Socket() const;  // -1: none
  // errno of the last bind, receive or send that failed; 0 when none did since the last OnCreate.
  int LastSocketError() const;

  // Takes over an already bound socket, which OnCreate then keeps and OnClose closes. Closes an
  // earlier one.
  void AdoptSocket(int descriptor);
  // Where OnSend's datagrams go from the next OnCreate on, in place of the configuration's address:
  // of the adopted socket's version.
  void SetRemote(const cms::IpAddress& address, std::uint16_t port);

  // The step of the receive thread: bytes taken, -1 when there is no socket or it failed.
  int UDPClientRecv();
  // The step of the send thread, at most 31 ms: bytes sent, -1 when there is no socket or it
  // failed.
  int UDPClientSend();

  // Bodies for threads of a client's own, in place of a group's, until OnClose; a derived class
  // starts them on recvThread_ and sendThread_. The receiver takes datagrams of the configured
  // remote address and port only.
  static void UDPClientRecvThrd(UDPClientBase* client);
  static void UDPClientSendThrd(UDPClientBase* client);
  void UDPClientRecvFn();
  void UDPClientSendFn();
  std::thread recvThread_;
  std::thread sendThread_;

 private:
  friend class EachClientGroupTable;
  class CMS_HIDDEN Impl;
  cms::SocketEndpoint& Endpoint();  // what the I/O threads serve

  const std::unique_ptr<Impl> impl_;
};
