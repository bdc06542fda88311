#include "tools/serve/random_id.h"

#include <array>
#include <cstdio>
#include <random>

namespace tools {

std::string RandomId() {
  std::random_device random;
  std::string id;
  for (int i = 0; i < 4; ++i) {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", random());
    id += text.data();
  }
  return id;
}

}  // namespace tools
