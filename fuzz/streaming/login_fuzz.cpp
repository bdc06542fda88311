// Challenges of any server: an answer that is one header line whatever the server, the user and the
// URL put into it, or a problem that fits on a line.
#include <string>

#include "cms/streaming/login.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  cms::Login login;
  login.SetCredentials(text, text);
  const bool answers = login.ReadChallenges(text);
  CHECK(answers == login.Problem().empty());
  CHECK(login.Problem().size() < 300);
  CHECK(login.Problem().find_first_of("\r\n") == std::string::npos);
  const std::string line = login.AuthorizationLine("PLAY", text);
  CHECK(answers || line.empty());
  if (!line.empty()) {
    CHECK(line.starts_with("Authorization: "));
    CHECK(line.find_first_of("\r\n") == line.size() - 2);
  }
  return 0;
}
