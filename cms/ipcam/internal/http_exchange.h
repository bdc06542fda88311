// One HTTP/1.1 exchange over libcurl, bounded in time and size.
#pragma once

#include <string>

#include "cms/ipcam/http_command.h"
#include "cms/ipcam/internal/certificate_rule.h"

namespace cms {

struct HttpExchangeReport {
  bool answered = false;  // a status line came
  int status = 0;         // the answer's, 0 without one
  bool cut = false;       // the body was longer than the answer buffer
  std::string error;      // UTF-8; empty when the result is kHttpCommandOk
  std::string body;       // of an answer that is not "200 OK", its beginning
};

// Sends the request and fills answerLength and result. `interrupt` is a descriptor that ends the
// exchange when it becomes readable. A server that refuses the Basic credentials and asks for
// Digest ones is given these once. Reads no environment variable, follows no redirection.
// Over HTTPS with a rule for certificates, which outlives it.
HttpExchangeReport ExchangeHttp(_SEND_HTTP_COMMAND_PARAM& param, int interrupt,
                                const CertificateRule* tls);

}  // namespace cms
