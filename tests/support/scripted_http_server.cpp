#include "tests/support/scripted_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace test {
namespace {

bool IsReadable(int descriptor) {
  pollfd waited{.fd = descriptor, .events = POLLIN, .revents = 0};
  return poll(&waited, 1, 20) > 0;
}

bool SendWhole(int connection, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

}  // namespace

std::string HttpRequestText::Target() const {
  const std::size_t begin = head.find(' ') + 1;
  return head.substr(begin, head.find(' ', begin) - begin);
}

std::string HttpRequestText::Header(std::string_view name) const {
  const std::string line = "\r\n" + std::string(name) + ": ";
  const std::size_t found = head.find(line);
  if (found == std::string::npos) {
    return {};
  }
  const std::size_t begin = found + line.size();
  return head.substr(begin, head.find("\r\n", begin) - begin);
}

ScriptedHttpServer::ScriptedHttpServer(Handler handler) : handler_(std::move(handler)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      listen(listener_, 16) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::abort();
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
  stopping_ = true;
  thread_.join();
  close(listener_);
}

std::vector<HttpRequestText> ScriptedHttpServer::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void ScriptedHttpServer::KeepOpen(std::string block, std::chrono::milliseconds pause) {
  const std::lock_guard lock(mutex_);
  keepOpen_ = true;
  block_ = std::move(block);
  pause_ = pause;
}

std::string ScriptedHttpServer::Ok(std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         std::string(body);
}

void ScriptedHttpServer::Serve() {
  while (!stopping_) {
    if (!IsReadable(listener_)) {
      continue;
    }
    const int connection = accept(listener_, nullptr, nullptr);
    ServeConnection(connection);
    close(connection);
  }
}

void ScriptedHttpServer::ServeConnection(int connection) {
  std::string bytes;
  std::size_t wanted = std::string::npos;  // with the body, once the header is there
  HttpRequestText request;
  while (bytes.size() < wanted) {
    char block[4096];
    while (!IsReadable(connection)) {
      if (stopping_) {
        return;
      }
    }
    const ssize_t size = recv(connection, block, sizeof block, 0);
    if (size <= 0) {
      return;
    }
    bytes.append(block, static_cast<std::size_t>(size));
    const std::size_t end = bytes.find("\r\n\r\n");
    if (wanted == std::string::npos && end != std::string::npos) {
      request.head = bytes.substr(0, end + 2);
      wanted = end + 4 + std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10);
    }
  }
  request.body = bytes.substr(request.head.size() + 2);
  std::string block;
  std::chrono::milliseconds pause{};
  bool keepOpen = false;
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
    block = block_;
    pause = pause_;
    keepOpen = keepOpen_;
  }
  bool open = SendWhole(connection, handler_(request));
  while (keepOpen && open && !stopping_) {
    char byte = 0;
    if (!block.empty()) {
      std::this_thread::sleep_for(pause);
      open = SendWhole(connection, block);
    } else if (IsReadable(connection)) {
      open = recv(connection, &byte, 1, 0) > 0;
    }
  }
}

}  // namespace test
