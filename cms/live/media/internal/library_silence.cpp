#include "cms/live/media/internal/library_silence.h"

#include <cstdarg>

extern "C" {
#include <libavutil/log.h>
}

namespace cms {
namespace {

thread_local int silences = 0;

void Report(void* context, int level, const char* format, va_list arguments) {
  if (silences == 0) {
    av_log_default_callback(context, level, format, arguments);
  }
}

}  // namespace

LibrarySilence::LibrarySilence() {
  [[maybe_unused]] static const bool installed = (av_log_set_callback(&Report), true);
  ++silences;
}

LibrarySilence::~LibrarySilence() {
  --silences;
}

}  // namespace cms
