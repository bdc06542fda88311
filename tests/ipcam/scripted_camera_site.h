// A camera of prepared answers, and a utility that talks to it without waiting.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "cms/ipcam/config_utility.h"
#include "cms/runtime/clock.h"
#include "tests/support/data_file.h"
#include "tests/support/paths.h"
#include "tests/support/scripted_http_server.h"

namespace test {

class FastUtility : public CIPCAM_Config_Utility {
 public:
  explicit FastUtility(std::uint16_t port, const std::wstring& user = L"admin",
                       const std::wstring& password = L"secret") {
    SetSiteInfo(L"127.0.0.1", port, user, password);
  }

 protected:
  int SignedRequestWait() const override { return 0; }
};

// In force while it lives: a wall clock that stands still.
class FixedClock final : public cms::Clock {
 public:
  explicit FixedClock(std::int64_t seconds) : system_(cms::CurrentClock()), seconds_(seconds) {
    cms::ReplaceClock(this);
  }
  ~FixedClock() override { cms::ReplaceClock(nullptr); }
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;

  std::uint64_t TickMilliseconds() const override { return system_.TickMilliseconds(); }
  std::int64_t WallSeconds() const override { return seconds_; }

 private:
  const cms::Clock& system_;
  const std::int64_t seconds_;
};

// The name of the operation that a request asks for: the last part of its action.
inline std::string OperationOf(const HttpRequestText& request) {
  const std::string type = request.Header("Content-Type");
  const std::size_t slash = type.rfind('/');
  return slash == std::string::npos ? std::string()
                                    : type.substr(slash + 1, type.rfind('"') - slash - 1);
}

// tests/data/onvif/<style>/<operation>.xml as the answer; to operations that only change something,
// an empty envelope.
inline std::string OnvifAnswer(const HttpRequestText& request, const std::string& style) {
  const std::string operation = OperationOf(request);
  const std::string file = "onvif/" + style + "/" + operation + ".xml";
  if (std::filesystem::exists(test::DataFolder() + "/" + file)) {
    return ScriptedHttpServer::Ok(ReadDataFile(file));
  }
  if (operation.starts_with("Get")) {
    return "HTTP/1.1 400 Bad Request\r\n\r\n" + ReadDataFile("onvif/fault.xml");
  }
  return ScriptedHttpServer::Ok(
      "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"><s:Body/></s:Envelope>");
}

inline ScriptedHttpServer::Handler OnvifAnswers(const std::string& style = "plain") {
  return [style](const HttpRequestText& request) { return OnvifAnswer(request, style); };
}

}  // namespace test
