#include "tests/support/scripted_rtsp_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace test {
namespace {

using Lock = std::lock_guard<std::mutex>;

bool SendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// The path of an rtsp or rtsps URL, "" of anything else.
std::string PathOf(const std::string& url) {
  if (!url.starts_with("rtsp://") && !url.starts_with("rtsps://")) {
    return {};
  }
  const std::size_t slash = url.find('/', url.find("://") + 3);
  return slash == std::string::npos ? "/" : url.substr(slash);
}

constexpr std::string_view kControl = "/trackID=";

}  // namespace

struct ScriptedRtspServer::Connection {
  std::size_t number = 0;
  int socket = -1;
  std::thread thread;
  // Held while a message is being written, so that packets never end up inside an answer.
  std::recursive_mutex write;
  // Guarded by the server's mutex_.
  bool open = true;
  bool playing = false;
  bool sessionKnown = false;
  std::map<std::size_t, std::shared_ptr<RtspTrack>> tracks;
};

ScriptedRtspServer::ScriptedRtspServer(ScriptedCamera camera)
    : camera_([&] {
        if (camera.sdp.empty()) {
          camera.sdp = DefaultSdp();
        }
        return std::move(camera);
      }()),
      port_(camera_.port) {
  Start();
}

ScriptedRtspServer::~ScriptedRtspServer() {
  Stop();
}

void ScriptedRtspServer::Start() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!BindLoopback(listener_, port_) || listen(listener_, SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen on port " + std::to_string(port_));
  }
  if (port_ == 0) {
    port_ = LocalPort(listener_);
  }
  stopping_ = false;
  acceptor_ = std::thread([this] { Accept(); });
}

void ScriptedRtspServer::Stop() {
  if (!acceptor_.joinable()) {
    return;
  }
  {
    const Lock lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  CloseConnections();
  std::vector<std::shared_ptr<Connection>> ended;
  {
    const Lock lock(mutex_);
    ended.swap(connections_);
  }
  for (const auto& connection : ended) {
    connection->thread.join();
  }
}

std::string ScriptedRtspServer::Url() const {
  return "rtsp://127.0.0.1:" + std::to_string(port_) + camera_.path;
}

std::string ScriptedRtspServer::UrlFor(std::string_view user, std::string_view password) const {
  return "rtsp://" + std::string(user) + ":" + std::string(password) +
         "@127.0.0.1:" + std::to_string(port_) + camera_.path;
}

void ScriptedRtspServer::On(const std::string& method, Handler handler) {
  const Lock lock(mutex_);
  handlers_[method] = std::move(handler);
}

void ScriptedRtspServer::Once(const std::string& method, Handler handler) {
  const Lock lock(mutex_);
  once_[method].push_back(std::move(handler));
}

void ScriptedRtspServer::OnConnect(Handler handler) {
  const Lock lock(mutex_);
  onConnect_ = std::move(handler);
}

void ScriptedRtspServer::SetNonce(const std::string& nonce) {
  const Lock lock(mutex_);
  nonce_ = nonce;
}

std::vector<RtspRequest> ScriptedRtspServer::Requests() const {
  const Lock lock(mutex_);
  return requests_;
}

std::vector<RtspRequest> ScriptedRtspServer::Requests(std::string_view method) const {
  std::vector<RtspRequest> found = Requests();
  std::erase_if(found, [&](const RtspRequest& request) { return request.method != method; });
  return found;
}

std::size_t ScriptedRtspServer::Count(std::string_view method) const {
  const Lock lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(requests_.begin(), requests_.end(),
                    [&](const RtspRequest& request) { return request.method == method; }));
}

std::vector<ScriptedRtspServer::Clock::time_point> ScriptedRtspServer::Connections() const {
  const Lock lock(mutex_);
  return accepted_;
}

std::size_t ScriptedRtspServer::OpenConnections() const {
  const Lock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [](const auto& each) { return each->open; }));
}

std::size_t ScriptedRtspServer::Playing() const {
  const Lock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                [](const auto& each) { return each->playing; }));
}

std::vector<std::string> ScriptedRtspServer::InterleavedReceived() const {
  const Lock lock(mutex_);
  return interleaved_;
}

std::size_t ScriptedRtspServer::RtcpReceived(std::size_t track) const {
  const Lock lock(mutex_);
  std::size_t received = 0;
  for (const auto& connection : connections_) {
    if (const auto found = connection->tracks.find(track); found != connection->tracks.end()) {
      found->second->CountRtcp();
      received += found->second->rtcpReceived;
    }
  }
  return received;
}

bool ScriptedRtspServer::SendRtp(std::size_t track, std::span<const std::string> packets) {
  return SendPackets(track, packets, false);
}

bool ScriptedRtspServer::SendRtcp(std::size_t track, const std::string& packet) {
  return SendPackets(track, {&packet, 1}, true);
}

bool ScriptedRtspServer::SendPackets(std::size_t track, std::span<const std::string> packets,
                                     bool rtcp) {
  std::shared_ptr<Connection> connection;
  std::shared_ptr<RtspTrack> target;
  {
    const Lock lock(mutex_);
    for (const auto& each : connections_) {
      if (const auto found = each->tracks.find(track); each->open && found != each->tracks.end()) {
        connection = each;
        target = found->second;
      }
    }
  }
  if (target == nullptr) {
    return false;
  }
  if (target->interleaved) {
    const std::lock_guard write(connection->write);
    return std::all_of(packets.begin(), packets.end(), [&](const std::string& packet) {
      return SendAll(connection->socket,
                     InterleavedBlock(rtcp ? target->rtcpChannel : target->rtpChannel, packet));
    });
  }
  for (const std::string& packet : packets) {
    target->SendDatagram(packet, rtcp);
  }
  return true;
}

bool ScriptedRtspServer::SendRaw(std::string_view bytes) {
  std::shared_ptr<Connection> connection;
  {
    const Lock lock(mutex_);
    for (const auto& each : connections_) {
      if (each->open) {
        connection = each;
      }
    }
  }
  if (connection == nullptr) {
    return false;
  }
  const std::lock_guard write(connection->write);
  return SendAll(connection->socket, bytes);
}

void ScriptedRtspServer::CloseConnections() {
  const Lock lock(mutex_);
  for (const auto& connection : connections_) {
    shutdown(connection->socket, SHUT_RDWR);
  }
}

void ScriptedRtspServer::Accept() {
  while (true) {
    const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const Lock lock(mutex_);
    if (stopping_ || socket < 0) {
      close(socket);
      return;
    }
    // A few ended connections are kept, since tests ask what came in on them.
    while (connections_.size() > 256 && !connections_.front()->open) {
      connections_.front()->thread.join();
      connections_.erase(connections_.begin());
    }
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto connection = std::make_shared<Connection>();
    connection->socket = socket;
    connection->number = accepted_.size();
    accepted_.push_back(Clock::now());
    connections_.push_back(connection);
    connection->thread = std::thread([this, raw = connection.get()] { Serve(*raw); });
  }
}

void ScriptedRtspServer::Serve(Connection& connection) {
  Handler greeting;
  {
    const Lock lock(mutex_);
    greeting = onConnect_;
  }
  bool goOn = !greeting || React(connection, greeting(RtspRequest{}));
  std::string bytes;
  char buffer[4096];
  while (goOn) {
    const ssize_t count = recv(connection.socket, buffer, sizeof buffer, 0);
    if (count <= 0) {
      break;
    }
    bytes.append(buffer, static_cast<std::size_t>(count));
    while (goOn && !bytes.empty()) {
      if (bytes.front() == '$') {
        const std::size_t length = bytes.size() < 4
                                       ? bytes.size()
                                       : 4u + static_cast<std::uint8_t>(bytes[2]) * 256u +
                                             static_cast<std::uint8_t>(bytes[3]);
        if (bytes.size() < 4 || bytes.size() < length) {
          break;
        }
        const Lock lock(mutex_);
        interleaved_.push_back(bytes.substr(0, length));
        bytes.erase(0, length);
        continue;
      }
      RtspRequest request;
      if (!TakeRtspRequest(&bytes, &request)) {
        break;
      }
      request.connection = connection.number;
      request.time = Clock::now();
      {
        const Lock lock(mutex_);
        requests_.push_back(request);
      }
      goOn = React(connection, Answer(request));
    }
  }
  // The write lock first: nobody may be sending on a descriptor that is closed and used anew.
  const std::lock_guard write(connection.write);
  const Lock lock(mutex_);
  for (auto& [number, track] : connection.tracks) {
    track->CountRtcp();
  }
  connection.open = false;
  connection.playing = false;
  close(connection.socket);
  connection.socket = -1;
}

// False when the connection is to end.
bool ScriptedRtspServer::React(Connection& connection, const RtspAnswer& answer) {
  using Kind = RtspAnswer::Action::Kind;
  std::unique_lock write(connection.write, std::defer_lock);
  for (const RtspAnswer::Action& action : answer.Actions()) {
    const bool sends = action.kind == Kind::kSend || action.kind == Kind::kEndless;
    if (sends && !write.owns_lock()) {
      write.lock();
    }
    bool sent = true;
    switch (action.kind) {
      case Kind::kSend:
        sent = SendAll(connection.socket, action.bytes);
        break;
      case Kind::kEndless:
        while (sent) {
          sent = SendAll(connection.socket, action.bytes);
        }
        break;
      case Kind::kPause: {
        std::unique_lock lock(mutex_);
        sent = !stopped_.wait_for(lock, action.time, [this] { return stopping_; });
        break;
      }
      case Kind::kDo:
        action.call();
        break;
      case Kind::kReset: {
        const linger atOnce{1, 0};
        setsockopt(connection.socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        return false;
      }
      case Kind::kClose:
        return false;
    }
    if (!sent) {
      return false;
    }
  }
  return true;
}

RtspAnswer ScriptedRtspServer::Answer(const RtspRequest& request) {
  Handler handler;
  {
    const Lock lock(mutex_);
    for (const std::string& key : {request.method, std::string("*")}) {
      auto& queue = once_[key];
      if (!queue.empty()) {
        handler = std::move(queue.front());
        queue.pop_front();
        break;
      }
      if (const auto found = handlers_.find(key); found != handlers_.end()) {
        handler = found->second;
        break;
      }
    }
  }
  return handler ? handler(request) : RtspAnswer(GoodAnswer(request));
}

std::shared_ptr<ScriptedRtspServer::Connection> ScriptedRtspServer::Find(std::size_t number) const {
  const Lock lock(mutex_);
  const auto found = std::find_if(connections_.begin(), connections_.end(),
                                  [&](const auto& each) { return each->number == number; });
  return found == connections_.end() ? nullptr : *found;
}

std::string ScriptedRtspServer::GoodAnswer(const RtspRequest& request) {
  {
    const Lock lock(mutex_);
    if (!HasCredentials(camera_, nonce_, request)) {
      return RtspResponse(request, 401, "Unauthorized",
                          {{"WWW-Authenticate", Challenge(camera_, nonce_)}});
    }
  }
  const std::string path = PathOf(request.url);
  if (request.method == "OPTIONS") {
    return RtspResponse(request, 200, "OK",
                        {{"Public", std::string("OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN") +
                                        (camera_.knowsGetParameter ? ", GET_PARAMETER" : "")}});
  }
  if (path.compare(0, camera_.path.size(), camera_.path) != 0) {
    return RtspResponse(request, 404, "Stream Not Found");
  }
  if (request.method == "DESCRIBE") {
    return RtspResponse(request, 200, "OK",
                        {{"Content-Base", Url() + "/"}, {"Content-Type", "application/sdp"}},
                        camera_.sdp);
  }
  const auto connection = Find(request.connection);
  return connection == nullptr ? "" : SessionAnswer(request, *connection);
}

std::string ScriptedRtspServer::SessionAnswer(const RtspRequest& request, Connection& connection) {
  const std::string session = camera_.session.substr(0, camera_.session.find(';'));
  const std::string given = request.Header("Session");
  const Lock lock(mutex_);
  // PAUSE may come without a session line: its connection tells which one is meant.
  const bool mayOmit =
      request.method == "PAUSE" || (request.method == "SETUP" && !connection.sessionKnown);
  if (given != session && !(given.empty() && mayOmit)) {
    return RtspResponse(request, 454, "Session Not Found");
  }
  if (request.method == "SETUP") {
    return Setup(request, connection);
  }
  if (request.method == "GET_PARAMETER" && camera_.knowsGetParameter) {
    return RtspResponse(request, 200, "OK", {{"Session", session}});
  }
  if (request.method == "PLAY" || request.method == "PAUSE") {
    connection.playing = request.method == "PLAY";
    RtspHeaders headers{{"Session", session}};
    if (connection.playing) {
      headers.emplace_back("Range", "npt=now-");
    }
    return RtspResponse(request, 200, "OK", headers);
  }
  if (request.method == "TEARDOWN") {
    connection.playing = false;
    connection.sessionKnown = false;
    connection.tracks.clear();
    return RtspResponse(request, 200, "OK");
  }
  return RtspResponse(request, 405, "Method Not Allowed");
}

std::string ScriptedRtspServer::Setup(const RtspRequest& request, Connection& connection) {
  std::size_t number = connection.tracks.size();
  if (const std::size_t at = request.url.rfind(kControl); at != std::string::npos) {
    number = std::strtoul(request.url.c_str() + at + kControl.size(), nullptr, 10);
  } else if (camera_.sdp == DefaultSdp()) {
    return RtspResponse(request, 404, "Stream Not Found");
  }
  auto track = std::make_shared<RtspTrack>();
  const std::string transport = track->Agree(camera_, request.Header("Transport"));
  if (transport.empty()) {
    return RtspResponse(request, 461, "Unsupported Transport");
  }
  connection.tracks[number] = std::move(track);
  connection.sessionKnown = true;
  return RtspResponse(request, 200, "OK", {{"Transport", transport}, {"Session", camera_.session}});
}

}  // namespace test
