#include "tools/service/reload_signal.h"

#include <signal.h>
#include <sys/eventfd.h>

#include <cerrno>

namespace tools {
namespace {

const int kReloadEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

void OnReloadSignal(int) {
  const int saved = errno;
  AskToReload();
  errno = saved;
}

}  // namespace

void CatchReloadSignal() {
  struct sigaction action {};
  action.sa_handler = OnReloadSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGHUP, &action, nullptr);
}

void AskToReload() {
  [[maybe_unused]] const int result = eventfd_write(kReloadEvent, 1);
}

int ReloadDescriptor() {
  return kReloadEvent;
}

bool TakeReload() {
  eventfd_t count = 0;
  return eventfd_read(kReloadEvent, &count) == 0;
}

}  // namespace tools
