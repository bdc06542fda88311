#include "cms/httpserver/internal/http_server.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "cms/httpserver/internal/http_request.h"
#include "cms/net/internal/listening_socket.h"

namespace {

// Where whole requests are read, connections that have sent nothing yet are left with the system
// for about so long: they cost neither a thread nor a descriptor.
constexpr int kSilentSeconds = 10;

}  // namespace

HttpServer::HttpServer(cms::HttpServerOptions options)
    : options_(std::move(options)),
      boundPort_(options_.port),
      stop_(std::make_unique<cms::WakeUp>()) {}

HttpServer::~HttpServer() {
  Close();
}

std::size_t HttpServer::UsualMost() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return std::clamp<std::size_t>(descriptors.rlim_cur / 4, 1, 4096);
}

bool HttpServer::Start() {
  if (!IsStopping()) {
    return false;
  }
  auto stop = std::make_unique<cms::WakeUp>();
  if (stop->Descriptor() < 0) {
    return false;
  }
  const int listening =
      cms::OpenListeningSocket(options_.port, std::numeric_limits<int>::max(), options_.address);
  if (listening < 0) {
    return false;
  }
  fcntl(listening, F_SETFL, fcntl(listening, F_GETFL) & ~O_NONBLOCK);
  if (rules_.wholeRequests) {
    setsockopt(listening, IPPROTO_TCP, TCP_DEFER_ACCEPT, &kSilentSeconds, sizeof kSilentSeconds);
  }
  stop_ = std::move(stop);
  boundPort_ = ntohs(cms::BoundAddress(listening).sin_port);
  const std::size_t most = options_.maxConnections > 0 ? options_.maxConnections : UsualMost();
  pauses_.SetMost(static_cast<int>(most / 4));
  lingers_.SetMost(static_cast<int>(most / 4));
  running_ = true;
  if (!threads_.Start(listening, StopDescriptor(), most,
                      [this](int descriptor, const sockaddr_in& client) {
                        return HttpRequest(*this, descriptor, client).Serve();
                      })) {
    running_ = false;
    boundPort_ = options_.port;
    close(listening);
    return false;
  }
  return true;
}

bool HttpServer::SetTls(cms::ServerCertificate::Files files, std::string* problem) {
  if (!IsStopping()) {
    *problem = "the server runs: TLS is told before it is started";
    return false;
  }
  auto loaded = cms::ServerCertificate::Load(std::move(files), problem);
  if (loaded == nullptr) {
    return false;
  }
  certificate_ = std::move(loaded);
  rules_.wholeRequests = true;
  return true;
}

void HttpServer::Close() {
  if (IsStopping()) {
    return;
  }
  running_ = false;
  stop_->Signal();
  threads_.Close();
  boundPort_ = options_.port;
}

void HttpServer::Register(cms::HttpHandler handler) {
  ScopeLock lock(settingsLock_);
  handlers_.push_back(std::move(handler));
}

const cms::HttpHandler* HttpServer::FindHandler(std::string_view command) const {
  ScopeLock lock(settingsLock_);
  const auto found =
      std::find_if(handlers_.begin(), handlers_.end(),
                   [&](const cms::HttpHandler& handler) { return handler.name == command; });
  return found != handlers_.end() ? &*found : nullptr;
}

void HttpServer::ChangeAccessList(const AccessRange& range, int operation) {
  ScopeLock lock(settingsLock_);
  if (operation == cms::kAccessListAdd) {
    accessList_.Add(range);
  } else if (operation == cms::kAccessListRemove) {
    accessList_.Remove(range);
  }
}

void HttpServer::ClearAccessList() {
  ScopeLock lock(settingsLock_);
  accessList_.Clear();
}

int HttpServer::AllowAccess(std::uint32_t address) const {
  if (!rules_.checksAccess.load(std::memory_order_relaxed)) {
    return cms::kAccessAllowed;
  }
  ScopeLock lock(settingsLock_);
  return accessList_.Answer(address);
}
