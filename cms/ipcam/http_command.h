// One HTTP exchange with a camera: what is asked, how long it may take, and what came back.
#pragma once

#include <string>

namespace cms {

// The numbers of _SEND_HTTP_COMMAND_PARAM::verb.
inline constexpr int kHttpVerbPost = 0;
inline constexpr int kHttpVerbGet = 1;

// The numbers of _SEND_HTTP_COMMAND_PARAM::result.
inline constexpr int kHttpCommandOk = 0;            // the status said "200 OK"
inline constexpr int kHttpCommandUnauthorized = 1;  // the status said "401 Unauthorized"
inline constexpr int kHttpCommandFailed = 2;        // another status, or no usable answer

}  // namespace cms

// Times in milliseconds. Each bounds its whole step, so that no camera can hold the caller longer
// than their sum (with the connect time taken once more for each retry).
struct _SEND_HTTP_COMMAND_PARAM {
  unsigned connectTimeout = 5000;
  unsigned controlSendTimeout = 10000;     // to get the request's header out
  unsigned controlReceiveTimeout = 20000;  // until the answer's header is there
  unsigned dataSendTimeout = 10000;        // to get the request's body out
  unsigned dataReceiveTimeout = 20000;     // until the answer's body is there
  unsigned connectRetries = 1;             // further attempts when a connection could not be made
  int verb = cms::kHttpVerbGet;
  std::wstring serverAddress;  // a host name or an address
  std::wstring userName;
  int port = 80;
  std::wstring password;
  std::wstring objectPath;      // path and query as they travel: escaped
  std::wstring headers;         // further header lines, each ended by CR LF
  std::wstring body;            // sent as UTF-8
  char* answer = nullptr;       // the caller's; gets the body of a "200 OK" and a zero behind it
  unsigned answerCapacity = 0;  // bytes; a longer body is cut to one byte less
  unsigned answerLength = 0;    // out: bytes without the zero
  int result = cms::kHttpCommandFailed;  // out
};
