#include "tools/support/removal_progress.h"

#include <unistd.h>

#include "tools/support/stop_signal.h"

namespace tools {

bool RemovalProgress::IsShown() {
  return isatty(STDERR_FILENO) != 0;
}

void RemovalProgress::Expect(const cms::RemovalReport& would) {
  progress_.emplace(would.removed.size());
}

std::function<bool(const cms::RemovedRecording&)> RemovalProgress::Visit() {
  return [this](const cms::RemovedRecording&) {
    ++done_;
    if (progress_) {
      progress_->Show(done_);
    }
    return !StopRequested();
  };
}

void RemovalProgress::Wipe() {
  progress_.reset();
}

}  // namespace tools
