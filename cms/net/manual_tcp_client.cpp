#include "cms/net/manual_tcp_client.h"

#include <fcntl.h>

ManualTCPClient::ManualTCPClient() = default;

ManualTCPClient::ManualTCPClient(tTcpClientParam param) : TCPClientBase(param) {}

ManualTCPClient::~ManualTCPClient() {
  CloseSocket();
}

int ManualTCPClient::OnConnect(unsigned long address, unsigned long port) {
  if (TCPClientBase::OnConnect(address, port) == 0) {
    return 0;
  }
  const int flags = fcntl(Socket(), F_GETFL);
  if (flags < 0 || fcntl(Socket(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    CloseSocket();
    return 0;
  }
  return 1;
}

int ManualTCPClient::OnStartTCPClient(unsigned long address, unsigned long port, unsigned int) {
  return OnConnect(address, port);
}

int ManualTCPClient::OnStopTCPClient(bool) {
  CloseSocket();
  return 1;
}

int ManualTCPClient::OnSend(char* data, int length) {
  return Send(Socket(), data, length);
}

int ManualTCPClient::OnRecv(char* buffer, int size) {
  return Recv(Socket(), buffer, size);
}
