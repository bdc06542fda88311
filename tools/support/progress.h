// A percentage on the terminal while a job works, if standard error is one.
#pragma once

#include <cstdint>

namespace tools {

class Progress {
 public:
  explicit Progress(std::uint64_t total);
  ~Progress() { Wipe(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(std::uint64_t done);
  void Wipe();  // for a line in its place

 private:
  const std::uint64_t total_;  // 0: nothing is shown
  int shown_ = -1;
};

}  // namespace tools
