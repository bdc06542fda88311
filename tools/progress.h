// A percentage on the terminal while a job works, if standard error is one.
#pragma once

#include <cstdint>

namespace tools {

class Progress {
 public:
  explicit Progress(std::uint64_t total);
  ~Progress();  // wipes it away
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(std::uint64_t done);

 private:
  const std::uint64_t total_;  // 0: nothing is shown
  int shown_ = -1;
};

}  // namespace tools
