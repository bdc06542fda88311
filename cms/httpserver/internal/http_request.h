// HttpRequest, one accepted connection and the one request that it brings.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cms/httpserver/internal/http_headers.h"
#include "cms/httpserver/internal/request_parser.h"
#include "cms/net/internal/tls_stream.h"

class HttpServer;

// Belongs to the thread that serves the connection, on which handlers run.
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
  // Who has a thread's handle may have changed it in any way: it serves no other connection.
  pthread_t HandOutThread();

  // Serves the connection from beginning to end. Whether the thread may serve another one.
  bool Serve();

  void Write(std::string_view text) { body_ += text; }
  // Appends at most kFormatSize - 1 characters: 1, or 0 when the output was longer and is cut.
  int WriteFormat(const char* format, va_list arguments);

  // Of the request as it was received.
  std::optional<std::string_view> Header(std::string_view name) const;

  // Once: takes what its Content-Length tells of, `most` bytes at most. False when that cannot be
  // had.
  bool ReadBody(std::size_t most, std::string& body);

  // A handler's flush: the header block unless it went out already, then the bytes unless the
  // method is HEAD. 0 when sending failed or the server is being closed; then disconnect is set.
  int Flush(const char* data, int length);
  int SendFileHeader(std::int64_t length, std::string_view lastModified);

  // Where whole requests are read a status code is told as well as an index; false for what is
  // neither.
  bool SetStatus(std::uint32_t status);
  // False for what no header can say.
  bool SetContentType(std::string_view type);
  // Likewise, and for what is no name of one.
  bool AddHeader(std::string_view name, std::string_view value);
  void SetKeepAlive(bool keep) { keepAlive_ = keep; }
  void Disconnect() { disconnect_ = true; }
  int SetPriority(int priority);

 private:
  enum class Access { kPassed, kDenied, kGone };
  Access CheckAccess();
  Access Deny(std::uint32_t status, std::string_view body);
  bool Secure();
  void RefusePlain();
  bool Receive();
  bool ReceiveOnce();
  bool ReceiveWhole();
  ssize_t ReceiveSome(std::span<char> buffer, std::chrono::steady_clock::time_point deadline);
  std::chrono::steady_clock::time_point ReadLimit(
      std::chrono::steady_clock::time_point start) const;
  bool Parse();
  void Answer();
  bool LogIn();
  void Refuse(std::uint32_t status, std::string_view body);
  void LogRefusal(std::uint32_t status) const;
  void RefuseRead(std::uint32_t status);
  int SendAnswer(std::string_view data);
  ssize_t SendSome(std::string_view head, std::string_view data);
  bool SendAll(std::string_view head, std::string_view data);
  void FillHead(cms::AnswerHead& head) const;
  std::string MakeChallenge(bool stale) const;
  void PauseBeforeClose();
  bool MayStillSend();
  void LingerBeforeClose();

  HttpServer& server_;
  int socket_;
  std::unique_ptr<cms::TlsStream> tls_;  // nullptr: as it is sent
  const sockaddr_in client_;
  const bool whole_;        // whole requests are read
  std::string text_;        // as received: the head and, once it is read, the body
  std::size_t wanted_ = 0;  // of it, where whole requests are read
  cms::ParsedRequest parsed_;
  std::string body_;
  std::string contentType_;
  std::string challenge_;
  std::string otherHeaders_;  // whole lines
  std::uint32_t status_ = 0;  // an index, or a code of at least 200 where whole requests are read
  std::uint64_t sent_ = 0;    // bytes
  bool threadAsMade_ = true;
  bool disconnect_ = false;
  bool keepAlive_ = true;
  bool headersSent_ = false;
};
