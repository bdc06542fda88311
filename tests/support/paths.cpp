#include "tests/support/paths.h"

namespace test {

const std::string& OrvantaBinary() {
  static const std::string path = ORVANTA_BINARY;
  return path;
}

const std::string& DataFolder() {
  static const std::string path = PROJECT_DIR "/tests/data";
  return path;
}

const std::string& ProjectFolder() {
  static const std::string path = PROJECT_DIR;
  return path;
}

}  // namespace test
