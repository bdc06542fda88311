// A timer of a GLib context that is set again and again.
#pragma once

#include <glib.h>

#include <cstdint>
#include <functional>
#include <utility>

namespace testcamera {

// On the thread that runs the context, which runs no more when it is destroyed.
class ReadyTimer {
 public:
  ReadyTimer(GMainContext* context, std::function<void()> run)
      : run_(std::move(run)), source_(g_source_new(&functions_, sizeof(GSource))) {
    g_source_set_callback(
        source_,
        [](gpointer self) -> gboolean {
          static_cast<ReadyTimer*>(self)->run_();
          return G_SOURCE_CONTINUE;
        },
        this, nullptr);
    g_source_attach(source_, context);
  }
  ~ReadyTimer() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }
  ReadyTimer(const ReadyTimer&) = delete;
  ReadyTimer& operator=(const ReadyTimer&) = delete;

  // By g_get_monotonic_time, in microseconds; -1: not at all.
  void SetAt(std::int64_t time) { g_source_set_ready_time(source_, time); }

 private:
  static gboolean Dispatch(GSource* source, GSourceFunc run, gpointer self) {
    g_source_set_ready_time(source, -1);
    return run(self);
  }

  static inline GSourceFuncs functions_{nullptr, nullptr, Dispatch, nullptr, nullptr, nullptr};
  const std::function<void()> run_;
  GSource* const source_;
};

}  // namespace testcamera
