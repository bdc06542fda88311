// TCPClientBase, one IPv4 TCP connection with bounded queues, served by a group's I/O threads.
#pragma once

#include <cstdint>
#include <memory>
#include <thread>

#include "cms/runtime/api.h"
#include "cms/runtime/wake_up.h"

namespace cms {
class IpAddress;
class SocketEndpoint;
struct TlsParameters;
struct TlsResult;

// Bytes as they arrived; valid only during the call. Runs on the receive thread with the group's
// lock held; it may unregister or stop clients of its own group, but not destroy its own client.
using TcpReceiveCallback = void (*)(char* data, int length, void* context);

}  // namespace cms

// Sizes and callback of a TCPClientBase. Sizes below 1 mean the default.
struct tTcpClientParam {
  int recvQueueDepth = 128;  // frames; a queue of fewer than 3 never holds one
  int recvChunkSize = 1024;  // bytes read per call, and the size of a queued frame
  int sendQueueDepth = 128;  // the send ring holds one byte less than depth * chunk
  int sendChunkSize = 1024;  // bytes handed to the system per call
  cms::TcpReceiveCallback recvCallback = nullptr;  // nullptr: received bytes are queued for OnRecv
  void* recvContext = nullptr;
  std::intptr_t reserved = 0;  // not used
};

namespace cms {

// The group that no I/O thread serves.
inline constexpr unsigned int kNoIoGroup = 0xFFFFFFFFu;

}  // namespace cms

// Base of every TCP stream. Its owner connects it with OnStartTCPClient, whose group key chooses
// the pair of threads that from then on moves bytes between the socket and the queues. OnSend and
// OnRecv never touch the socket. A connection whose peer closed stays registered and silent; the
// owner learns of it through OnPeerClosed or its own watchdog.
//
// One owner thread at a time starts, stops and destroys; OnSend, OnRecv and the questions may come
// from any thread. Statuses: 1 success, 0 failure. Addresses are IPv4 in host byte order.
//
// A derived class that overrides OnPeerClosed or passes its own state to the callback calls
// OnStopTCPClient(true) in its own destructor, before that state goes.
class CMS_API TCPClientBase {
 public:
  TCPClientBase();
  explicit TCPClientBase(tTcpClientParam param);
  TCPClientBase(const TCPClientBase&) = delete;
  TCPClientBase& operator=(const TCPClientBase&) = delete;

  // Connects, with the system's own time-out of minutes; leaves the socket non-blocking. On failure
  // there is no socket and LastSocketError tells why: EINVAL for a port above 65535.
  virtual int OnConnect(unsigned long address, unsigned long port);

  // Makes the queues and scratch buffers anew, empty. 0 when memory is short. Not while registered.
  virtual int OnAllocateMemory();
  // Wakes the receive queue's readers and frees both queues and the scratch buffers: what was not
  // read is gone. Not while registered.
  virtual int OnReleaseMemory();

  // Called by the constructors: sizes, cleared state, OnAllocateMemory.
  virtual int OnInitialVariable();
  virtual int OnInitialVariable(tTcpClientParam param);

  virtual ~TCPClientBase();

  // Queues bytes for sending. Returns how many fitted; the rest is the caller's to offer again.
  virtual int OnSend(char* data, int length);

  // Takes the next queued frame: its length, cut at size. 0 when none came within about 15 ms, and
  // once for the empty frame that a new queue starts with.
  virtual int OnRecv(char* buffer, int size);

  // OnConnect, then registration with the group's threads; kNoIoGroup leaves that out.
  virtual int OnStartTCPClient(unsigned long address, unsigned long port, unsigned int group);

  // Unregisters (a step in progress has ended on return), closes the socket if told to, and waits
  // for stand-alone threads. Always 1.
  virtual int OnStopTCPClient(bool closeSocket);

  virtual int IsConnecting();  // non-zero from a successful connect until the socket is closed

  // Called once per connection, on the receive thread and last in the receive step, when the peer
  // closed or the socket failed. Same rules as for the receive callback, except that the client may
  // be destroyed here. The base does nothing.
  virtual void OnPeerClosed();

  int IsDataAvail();  // non-zero when the receive queue is not empty

  // Waits until OnRecv has something to take (true) or the milliseconds are over; a negative limit
  // is none. OnReleaseMemory ends every wait, with true.
  bool WaitForData(int milliseconds);

  // Change nothing; non-zero when that stand-alone thread exists.
  int SetRecvThrdPriority(int priority);
  int SetSendThrdPriority(int priority);

  unsigned long RemoteAddress() const;
  unsigned long RemotePort() const;

 protected:
  int Socket() const;  // -1: none
  // errno of the last connect, receive or send that failed; 0 when none did since the last connect.
  int LastSocketError() const;

  // OnConnect's work with a limit in milliseconds (-1: the system's own) and an optional signal
  // that ends it at once; the signal stays set. LastSocketError is ETIMEDOUT or ECANCELED then.
  int ConnectSocket(unsigned long address, unsigned long port, int timeoutMilliseconds,
                    const cms::WakeUp* cancel);
  // The same to an address of either version. RemoteAddress is 0 for an IPv6 one.
  int ConnectSocket(const cms::IpAddress& address, unsigned long port, int timeoutMilliseconds,
                    const cms::WakeUp* cancel);
  // Puts TLS under the connection that ConnectSocket has just made: all bytes go through it until
  // the socket is closed. The limit and the signal are those of the handshake; unless it is secured
  // the connection is of no use any more.
  cms::TlsResult SecureSocket(const cms::TlsParameters& parameters, int timeoutMilliseconds,
                              const cms::WakeUp* cancel);

  // The step of the receive thread: bytes taken (0 as well when the peer closed or the queue is
  // full), -1 when there is no socket or it failed.
  int TCPClientRecv();
  // The step of the send thread: one call into the system. 0, or -1 without a socket; what a failed
  // or partial send leaves is kept.
  int TCPClientSend();

  // Bytes sent, 0 when it would block, -1 on another error.
  int NBLSend(int descriptor, const char* data, int length);
  // Sends all, waiting as long as that takes: 0, or -1 on an error.
  int Send(int descriptor, const char* data, int length);
  // The result of one receive call.
  int Recv(int descriptor, char* buffer, int length);
  // 0 when there was no socket, else whether closing it succeeded. Not while registered.
  int CloseSocket();

  // Bodies for threads of a client's own, in place of a group's. A derived class starts them on
  // recvThread_ and sendThread_ once connected with kNoIoGroup; OnStopTCPClient ends them.
  static void TCPClientRecvThrd(TCPClientBase* client);
  static void TCPClientSendThrd(TCPClientBase* client);
  std::thread recvThread_;
  std::thread sendThread_;

 private:
  friend class EachClientGroupTable;
  class CMS_HIDDEN Impl;
  cms::SocketEndpoint& Endpoint();  // what the I/O threads serve

  const std::unique_ptr<Impl> impl_;
};
