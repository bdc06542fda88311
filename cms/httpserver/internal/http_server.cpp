#include "cms/httpserver/internal/http_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

#include "cms/net/internal/listening_socket.h"
#include "cms/net/internal/wait_ready.h"

namespace {

// How long to wait for a descriptor, a thread or memory to come back.
constexpr std::chrono::milliseconds kExhaustedPause{10};
// How long an ended connection's thread may wait to be joined where no other connection comes.
constexpr std::chrono::microseconds kJoinPause{100000};
// As much as handlers have on other platforms. Only what they use is ever committed.
constexpr std::size_t kConnectionStack = std::size_t{1} << 20;

}  // namespace

// What a connection's thread is given; with it the memory that its end will need.
struct HttpServer::ConnectionStart {
  HttpServer* server;
  Connections::iterator connection;
  std::list<pthread_t> end;
};

HttpServer::HttpServer(const tHttpServerConfig& config)
    : config_(config), bound_port_(config.port), stop_(std::make_unique<cms::WakeUp>()) {
  idle_.Set();
}

HttpServer::~HttpServer() {
  Close();
}

bool HttpServer::Start() {
  if (accept_thread_.joinable()) {
    return false;
  }
  auto stop = std::make_unique<cms::WakeUp>();
  if (stop->Descriptor() < 0) {
    return false;
  }
  const int listening = cms::OpenListeningSocket(config_.port, std::numeric_limits<int>::max());
  if (listening < 0) {
    return false;
  }
  stop_ = std::move(stop);
  bound_port_ = ntohs(cms::BoundAddress(listening).sin_port);
  listening_ = listening;
  running_ = true;
  try {
    accept_thread_ = std::thread(&HttpServer::AcceptLoop, this);
  } catch (const std::system_error&) {
    running_ = false;
    listening_ = -1;
    bound_port_ = config_.port;
    close(listening);
    return false;
  }
  return true;
}

void HttpServer::Close() {
  if (!accept_thread_.joinable()) {
    return;
  }
  running_ = false;
  stop_->Signal();
  accept_thread_.join();
  idle_.Wait();
  std::list<pthread_t> ended;
  {
    ScopeLock lock(connections_lock_);
    ended.swap(ended_);
  }
  for (const pthread_t thread : ended) {
    pthread_join(thread, nullptr);
  }
  bound_port_ = config_.port;
}

int HttpServer::StopListening() {
  const int listening = listening_;
  return listening < 0 ? -1 : shutdown(listening, SHUT_RDWR);
}

void HttpServer::AcceptLoop() {
  pthread_setname_np(pthread_self(), "cms-http");  // connection threads inherit it
  const int listening = listening_;
  while (!IsStopping()) {
    const std::size_t left = JoinEnded();
    if (left >= kMaxConnections) {
      cms::WaitReady(-1, 0, StopDescriptor(), kExhaustedPause);
      continue;
    }
    sockaddr_in client{};
    socklen_t size = sizeof client;
    const int accepted =
        accept4(listening, reinterpret_cast<sockaddr*>(&client), &size, SOCK_CLOEXEC);
    if (accepted >= 0) {
      Adopt(accepted, client);
      continue;
    }
    switch (cms::WhyAcceptFailed(errno)) {
      case cms::AcceptFailure::kTryAgain:
        cms::WaitReady(listening, POLLIN, StopDescriptor(), left > 0 ? kJoinPause : cms::kNoLimit);
        break;
      case cms::AcceptFailure::kExhausted:
        cms::WaitReady(-1, 0, StopDescriptor(), kExhaustedPause);
        break;
      case cms::AcceptFailure::kClosed:  // by StopListening
        cms::WaitReady(-1, 0, StopDescriptor(), left > 0 ? kJoinPause : cms::kNoLimit);
        break;
    }
  }
  listening_ = -1;
  close(listening);
}

// Returns how many connections there are, with those whose threads have not quite ended.
std::size_t HttpServer::JoinEnded() {
  ScopeLock lock(connections_lock_);
  ended_.remove_if([](pthread_t thread) { return pthread_tryjoin_np(thread, nullptr) == 0; });
  return connections_.size() + ended_.size();
}

// The record is listed before its thread exists, so that the thread always finds it.
void HttpServer::Adopt(int descriptor, const sockaddr_in& client) {
  std::unique_ptr<ConnectionStart> start;
  Connections made;
  try {
    made.push_back(nullptr);
    made.back() = std::make_unique<HttpRequest>(*this, descriptor, client);
    start.reset(new ConnectionStart{this, made.begin(), std::list<pthread_t>(1)});
  } catch (const std::bad_alloc&) {
    if (made.empty() || made.back() == nullptr) {
      close(descriptor);
    }
    return;
  }
  {
    ScopeLock lock(connections_lock_);
    connections_.splice(connections_.end(), made);
    idle_.Reset();
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kConnectionStack);
  pthread_t thread{};
  const bool created =
      pthread_create(&thread, &attributes, &HttpServer::ConnectionThread, start.get()) == 0;
  pthread_attr_destroy(&attributes);
  if (created) {
    static_cast<void>(start.release());  // the thread's now
    return;
  }
  {
    ScopeLock lock(connections_lock_);
    made.splice(made.end(), connections_, start->connection);
    if (connections_.empty()) {
      idle_.Set();
    }
  }
}

void* HttpServer::ConnectionThread(void* start) {
  const std::unique_ptr<ConnectionStart> own(static_cast<ConnectionStart*>(start));
  (*own->connection)->Serve();
  own->end.front() = pthread_self();
  own->server->Finish(*own);
  return nullptr;
}

// The record goes when the lock is released; whoever joins this thread waits for that.
void HttpServer::Finish(ConnectionStart& own) {
  Connections finished;
  ScopeLock lock(connections_lock_);
  finished.splice(finished.end(), connections_, own.connection);
  ended_.splice(ended_.end(), own.end);
  if (connections_.empty()) {
    idle_.Set();
  }
  lock.UnLock();
}

bool HttpServer::BeginLinger() {
  if (lingering_.fetch_add(1, std::memory_order_relaxed) < kMaxLingering) {
    return true;
  }
  EndLinger();
  return false;
}

void HttpServer::Register(std::string_view name, EgiCallback callback) {
  EgiHandler handler{};
  name.copy(handler.name, EgiHandler::kNameSize - 1);
  handler.callback = callback;
  ScopeLock lock(settings_lock_);
  handlers_.push_back(handler);
}

std::optional<EgiHandler> HttpServer::FindHandler(std::string_view command) const {
  ScopeLock lock(settings_lock_);
  const auto found =
      std::find_if(handlers_.begin(), handlers_.end(),
                   [&](const EgiHandler& handler) { return handler.name == command; });
  return found != handlers_.end() ? std::optional(*found) : std::nullopt;
}

void HttpServer::ChangeAccessList(const AccessRange& range, int operation) {
  ScopeLock lock(settings_lock_);
  if (operation == kAccessListAdd) {
    access_list_.Add(range);
  } else if (operation == kAccessListRemove) {
    access_list_.Remove(range);
  }
}

void HttpServer::ClearAccessList() {
  ScopeLock lock(settings_lock_);
  access_list_.Clear();
}

int HttpServer::AllowAccess(std::uint32_t address) const {
  if (!ChecksAccess()) {
    return kAccessAllowed;
  }
  ScopeLock lock(settings_lock_);
  return access_list_.Answer(address);
}
