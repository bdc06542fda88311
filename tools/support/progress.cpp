#include "tools/support/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tools {

Progress::Progress(std::uint64_t total) : total_(isatty(STDERR_FILENO) != 0 ? total : 0) {}

void Progress::Show(std::uint64_t done) {
  const int percent =
      total_ == 0 ? -1 : static_cast<int>(std::min<std::uint64_t>(done * 100 / total_, 100));
  if (percent > shown_) {
    shown_ = percent;
    std::fprintf(stderr, "\r%d%%", percent);
  }
}

void Progress::Wipe() {
  if (shown_ >= 0) {
    std::fputs("\r    \r", stderr);
    shown_ = -1;
  }
}

}  // namespace tools
