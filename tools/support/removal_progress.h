// How far a removal is, on the terminal.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "cms/recording/keep/remove_recordings.h"
#include "tools/support/progress.h"

namespace tools {

class RemovalProgress {
 public:
  static bool IsShown();                         // then it is worth asking first what will go
  void Expect(const cms::RemovalReport& would);  // of the same removal as a dry run
  // For the removal's options: shows, and stops when a stop is asked for. This outlives it.
  std::function<bool(const cms::RemovedRecording&)> Visit();
  void Wipe();

 private:
  std::optional<Progress> progress_;
  std::uint64_t done_ = 0;
};

}  // namespace tools
