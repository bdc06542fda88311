// HttpRequest, one accepted connection and the one request that it brings.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "cms/httpserver/internal/request_parser.h"

class HttpServer;

// Belongs to the connection's own thread, on which handlers run.
class HttpRequest {
 public:
  // Output of one WriteFormat, with the terminator.
  static constexpr int kFormatSize = 40960;

  // Owns the socket.
  HttpRequest(HttpServer& server, int descriptor, const sockaddr_in& client);
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  HttpServer& Server() const { return server_; }
  int Socket() const { return socket_; }
  const sockaddr_in& Client() const { return client_; }
  const cms::ParsedRequest& Parsed() const { return parsed_; }
  pthread_t ThreadHandle() const { return thread_; }

  // Serves the connection from beginning to end, on its own thread.
  void Serve();

  void Write(std::string_view text) { body_ += text; }
  // Appends at most kFormatSize - 1 characters: 1, or 0 when the output was longer and is cut.
  int WriteFormat(const char* format, va_list arguments);

  // A handler's flush: the header block unless it went out already, then the bytes unless the
  // method is HEAD. 0 when sending failed or the server is being closed; then disconnect is set.
  int Flush(const char* data, int length);
  int SendFileHeader(std::int64_t length, std::string_view lastModified);

  void SetStatus(std::uint32_t status) { status_ = status; }
  void SetKeepAlive(bool keep) { keep_alive_ = keep; }
  void Disconnect() { disconnect_ = true; }
  int SetPriority(int priority) const;

 private:
  enum class Access { kPassed, kDenied, kGone };
  Access CheckAccess();
  bool Receive();
  void Answer();
  void Refuse(std::uint32_t status, std::string_view body);
  int SendAnswer(std::string_view data);
  bool SendAll(std::string_view head, std::string_view data);
  void LingerBeforeClose();

  HttpServer& server_;
  int socket_;
  const sockaddr_in client_;
  pthread_t thread_{};
  std::string text_;  // as received
  cms::ParsedRequest parsed_;
  std::string body_;
  std::uint32_t status_ = 0;
  bool disconnect_ = false;
  bool keep_alive_ = true;
  bool headers_sent_ = false;
};
