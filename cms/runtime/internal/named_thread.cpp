#include "cms/runtime/internal/named_thread.h"

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

namespace cms {
namespace {

struct NamedWork {
  ThreadName name;
  NamedThread::Body body;
};

void* RunNamed(void* given) {
  const std::unique_ptr<NamedWork> work(static_cast<NamedWork*>(given));
  pthread_setname_np(pthread_self(), work->name.Text());
  work->body();
  return nullptr;
}

}  // namespace

bool NamedThread::Start(ThreadName name, Body body, std::size_t stackBytes) {
  std::unique_ptr<NamedWork> work(new (std::nothrow) NamedWork{name, std::move(body)});
  if (work == nullptr) {
    errno = ENOMEM;
    return false;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stackBytes > 0) {
    pthread_attr_setstacksize(&attributes, stackBytes);
  }
  const int error = pthread_create(&handle_, &attributes, &RunNamed, work.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    errno = error;
    return false;
  }
  static_cast<void>(work.release());  // the thread's from here on
  started_ = true;
  return true;
}

bool NamedThread::StartDetached(ThreadName name, Body body) {
  NamedThread thread;
  if (!thread.Start(name, std::move(body))) {
    return false;
  }
  thread.started_ = false;
  pthread_detach(thread.handle_);
  return true;
}

void NamedThread::Join() {
  if (started_) {
    pthread_join(handle_, nullptr);
    started_ = false;
  }
}

}  // namespace cms
