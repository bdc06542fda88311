// The files under tests/data.
#pragma once

#include <string>

namespace test {

// The bytes of tests/data/<path>; the running test fails when it cannot be read.
std::string ReadDataFile(const std::string& path);

}  // namespace test
