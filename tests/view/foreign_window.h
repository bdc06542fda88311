// A window system of a test's own, and a window in it that somebody else made. Last of the
// includes: its macros have names of everybody's.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace test {

class Screen {
 public:
  Screen() {
    constexpr int kAnswer = 9;
    int ends[2] = {};
    if (pipe(ends) != 0) {
      return;
    }
    process_ = fork();
    if (process_ == 0) {
      dup2(ends[1], kAnswer);
      execlp("setpriv", "setpriv", "--pdeathsig", "KILL", "Xvfb", "-displayfd", "9", "-screen", "0",
             "640x480x24", "-nolisten", "tcp", nullptr);
      _exit(1);
    }
    close(ends[1]);
    char digit = 0;
    while (read(ends[0], &digit, 1) == 1 && digit != '\n') {
      name_ += digit;
    }
    close(ends[0]);
  }
  ~Screen() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  bool IsThere() const { return !name_.empty(); }
  std::string Name() const { return ":" + name_; }

 private:
  pid_t process_ = 0;
  std::string name_;
};

class ForeignWindow {
 public:
  ForeignWindow(const std::string& screen, unsigned width, unsigned height)
      : display_(XOpenDisplay(screen.c_str())) {
    if (display_ == nullptr) {
      throw std::runtime_error(screen + " does not answer");
    }
    window_ =
        XCreateSimpleWindow(display_, DefaultRootWindow(display_), 0, 0, width, height, 0, 0, 0);
    XMapWindow(display_, window_);
    XSync(display_, 0);
  }
  ~ForeignWindow() { XCloseDisplay(display_); }
  ForeignWindow(const ForeignWindow&) = delete;
  ForeignWindow& operator=(const ForeignWindow&) = delete;

  std::uintptr_t Number() const { return window_; }
  void Resize(unsigned width, unsigned height) const {
    XResizeWindow(display_, window_, width, height);
    XSync(display_, 0);
  }
  int Width() const {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display_, window_, &attributes);
    return attributes.width;
  }
  std::uint32_t At(int x, int y) const {
    XImage* const image = XGetImage(display_, window_, x, y, 1, 1, AllPlanes, ZPixmap);
    const auto pixel = static_cast<std::uint32_t>(XGetPixel(image, 0, 0));
    XDestroyImage(image);
    return pixel & 0xFFFFFF;
  }

 private:
  Display* display_;
  Window window_ = 0;
};

}  // namespace test
