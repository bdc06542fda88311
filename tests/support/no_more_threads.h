// A process that is out of threads.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace test {

// While it lives, the platform can give no new thread the stack that it asks for.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
    pthread_setattr_default_np(&huge);
    pthread_attr_destroy(&huge);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;
  ~NoMoreThreads() {
    pthread_setattr_default_np(&before_);
    pthread_attr_destroy(&before_);
  }

 private:
  pthread_attr_t before_;
};

}  // namespace test
