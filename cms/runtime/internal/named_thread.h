// NamedThread, a thread that top -H shows by its name.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <string_view>

namespace cms {

// What a thread is called: "cms-" first, which tells it from the host program's own, and at most 15
// bytes, which is what the system shows. The compiler checks both.
class ThreadName {
 public:
  template <std::size_t Size>
  consteval ThreadName(const char (&text)[Size]) : text_(text) {
    static_assert(Size <= 16, "the system shows 15 bytes of a thread's name");
    if (!std::string_view(text).starts_with("cms-")) {
      throw "a thread's name begins with cms-";
    }
  }
  const char* Text() const { return text_; }

 private:
  const char* text_;
};

// Started and joined by one owner at a time; what it runs ends by itself, or because the owner has
// told it to. docs/architecture.md has the table of all names.
class NamedThread {
 public:
  using Body = std::function<void()>;

  NamedThread() = default;
  ~NamedThread() { Join(); }
  NamedThread(const NamedThread&) = delete;
  NamedThread& operator=(const NamedThread&) = delete;

  // Runs the body, which lets no exception out, on a new thread. False, with the reason in errno,
  // when the system refuses one. Not while started. 0 bytes of stack: as many as usual.
  bool Start(ThreadName name, Body body, std::size_t stackBytes = 0);
  // The same for a thread that nobody waits for.
  static bool StartDetached(ThreadName name, Body body);

  // Waits for the end of a started thread; it can be started again then. Not on the thread itself.
  void Join();
  bool IsStarted() const { return started_; }  // and not joined since

 private:
  pthread_t handle_{};
  bool started_ = false;
};

}  // namespace cms
