// A folder in memory to work in, as the databases want it: "..\" is theirs too.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/support/check.h"

namespace fuzz {

// The folder that the process works in while an input runs; the fuzzer's own paths are relative to
// the one that it was started in.
class WorkFolder {
 public:
  WorkFolder() {
    static const std::string folder = Make();
    std::filesystem::current_path(folder + "/work");
  }
  ~WorkFolder() { std::filesystem::current_path(started_); }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

 private:
  static std::string Make() {
    static char made[] = "/dev/shm/orvanta_fuzz_XXXXXX";
    CHECK(mkdtemp(made) != nullptr);
    std::filesystem::create_directories(std::string(made) + "/work/rec");
    std::atexit([] { std::filesystem::remove_all(made); });
    return made;
  }
  const std::filesystem::path started_ = std::filesystem::current_path();
};

inline void Put(const char* path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string Get(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace fuzz
