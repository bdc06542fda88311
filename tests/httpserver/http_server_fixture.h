// An HTTP server of the library's and the plainest client.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

#include "cms/exports/http_server_exports.h"
#include "tests/net/loopback.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"

namespace test {

// Knows "operator" with the password "secret".
inline int OneUser(const std::string& user, std::string& password) {
  password = "secret";
  return user == "operator" ? 1 : 0;
}

inline Descriptor Connected(int port) {
  Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{20, 0};
  setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const sockaddr_in address = Loopback(static_cast<std::uint16_t>(port));
  return connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
             ? std::move(made)
             : Descriptor();
}

inline bool SendText(int descriptor, const std::string& text) {
  return send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(text.size());
}

// Everything until the server closes; "(reset)" at the end when the connection was reset.
inline std::string ReadToEnd(int descriptor) {
  std::string all;
  char buffer[4096];
  while (true) {
    const ssize_t got = recv(descriptor, buffer, sizeof buffer, 0);
    if (got > 0) {
      all.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      return got == 0 ? all : all + "(reset)";
    }
  }
}

inline std::string Request(const std::string& target, const std::string& headers = {},
                           const std::string& method = "GET") {
  return method + " " + target + " HTTP/1.1\r\nHost: test\r\n" + headers + "\r\n";
}

class HttpServerTest : public testing::Test {
 protected:
  void SetUp() override {
    const cms::tHttpServerConfig config{0, OneUser};
    server_ = CreateHttpServer(&config);
    ASSERT_NE(server_, nullptr);
  }
  void TearDown() override { DestroyHttpServer(server_); }

  void On(const char* name, cms::EgiCallback callback) { RegisterEgi(server_, name, callback); }
  void Start() {
    ASSERT_EQ(StartHttpServer(server_), 1);
    ASSERT_NE(GetHttpServerPort(server_), 0);
  }
  int Port() const { return GetHttpServerPort(server_); }
  // The server closes a connection that is silent for 30 ms: whoever was held up longer asks again.
  std::string Ask(const std::string& bytes) const {
    std::string answer;
    bool late = true;
    while (answer.empty() && late) {
      const auto begin = std::chrono::steady_clock::now();
      const Descriptor connection = Connected(Port());
      SendText(connection, bytes);
      late = std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(20);
      answer = ReadToEnd(connection);
    }
    return answer;
  }
  std::string Url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(Port()) + target;
  }

  HttpServer* server_ = nullptr;
};

}  // namespace test
