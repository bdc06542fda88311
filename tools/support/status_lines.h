// What works at this moment, a line each: renewed in place on a terminal, added elsewhere.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace tools {

class StatusLines {
 public:
  explicit StatusLines(std::FILE* out);

  // On a terminal in place of the lines shown last, cut to its width and height.
  void Show(const std::vector<std::string>& lines);

 private:
  std::FILE* const out_;
  const bool terminal_;
  std::size_t shown_ = 0;
};

}  // namespace tools
