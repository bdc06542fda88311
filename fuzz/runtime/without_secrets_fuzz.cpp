// Any text, with a password in all the places where logs and traces meet one: it is in none of what
// may be shown.
#include <string>

#include "cms/runtime/internal/without_secrets.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kSecret = "s3cr3t:/w0rd";
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find(kSecret) != std::string::npos) {
    return 0;
  }
  const std::string all = text + " rtsp://user:" + kSecret + "@host/path\r\nAuthorization: Basic " +
                          kSecret + "\r\nGET /x?password=" + kSecret +
                          "&y=1 HTTP/1.1\r\n<Password>" + kSecret + "</Password>" + text;
  const std::string shown = cms::WithoutSecrets(all);
  CHECK(shown.find(kSecret) == std::string::npos);
  CHECK(shown.size() <= 4 * all.size());
  return 0;
}
