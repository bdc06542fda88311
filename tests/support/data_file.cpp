#include "tests/support/data_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "tests/support/paths.h"

namespace test {

std::string ReadDataFile(const std::string& path) {
  std::ifstream file(test::DataFolder() + "/" + path, std::ios::binary);
  if (!file) ADD_FAILURE() << "cannot read " << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace test
