// Any bytes as a circular log: a foreign file is left as it is, and a log can be gone on with: what
// is written then is its newest entry, and reading and opening agree on what came before.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "cms/runtime/circular_log.h"
#include "fuzz/support/check.h"

namespace {

const std::string& Path() {
  static const std::string path = [] {
    char name[] = "/dev/shm/circular_log_fuzz_XXXXXX";
    const int descriptor = mkstemp(name);
    CHECK(descriptor >= 0);
    close(descriptor);
    static std::string kept;
    kept = name;
    std::atexit([] { unlink(kept.c_str()); });
    return kept;
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::ofstream(Path(), std::ios::binary) << bytes;
  std::vector<cms::CircularLogEntry> before;
  const bool isLog = cms::ReadCircularLog(Path(), before);
  int error = 0;
  auto writer = cms::CCircularLogWriter::Open(Path(), cms::CCircularLogWriter::kMinimumSize, error);
  if (writer == nullptr) {
    CHECK(!isLog);
    std::ifstream file(Path(), std::ios::binary);
    CHECK(std::string(std::istreambuf_iterator<char>(file), {}) == bytes);
    return 0;
  }
  CHECK(writer->Write("fuzzed"));
  std::vector<cms::CircularLogEntry> after;
  CHECK(cms::ReadCircularLog(Path(), after) && !after.empty());
  CHECK(after.back().text == "fuzzed");
  CHECK(after.back().number == (before.empty() ? 0 : before.back().number + 1));
  return 0;
}
