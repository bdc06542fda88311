#include "tools/testcamera/http_camera.h"

#include <stdexcept>

namespace testcamera {
namespace {

constexpr int kMaxClients = 64;
constexpr unsigned kClientTimeout = 10;  // seconds
constexpr std::size_t kMaxRequest = 8192;
constexpr char kBoundary[] = "orvanta";

// The request's head, or nothing when it is too long or the client goes.
std::string ReadHead(GInputStream* in, GCancellable* stop) {
  std::string head;
  char buffer[1024];
  while (head.find("\r\n\r\n") == std::string::npos) {
    const gssize count = g_input_stream_read(in, buffer, sizeof buffer, stop, nullptr);
    if (count <= 0 || head.size() > kMaxRequest) {
      return {};
    }
    head.append(buffer, static_cast<std::size_t>(count));
  }
  return head;
}

std::string HeaderValue(const std::string& head, const std::string& name) {
  for (std::size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at)) {
    at += 2;
    if (g_ascii_strncasecmp(head.c_str() + at, (name + ":").c_str(), name.size() + 1) == 0) {
      const std::size_t start = head.find_first_not_of(' ', at + name.size() + 1);
      return head.substr(start, head.find("\r\n", at) - start);
    }
  }
  return {};
}

std::string Refusal(const std::string& status, const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

}  // namespace

HttpCamera::HttpCamera(const CameraOptions& options, GMainContext* context)
    : options_(options),
      login_(options),
      pictures_(options),
      stop_(g_cancellable_new()),
      service_(g_threaded_socket_service_new(kMaxClients)) {
  const ObjectPtr<GSocketAddress> wanted(
      g_inet_socket_address_new_from_string(options_.bind.c_str(), options_.httpPort));
  GSocketAddress* bound = nullptr;
  GError* error = nullptr;
  // The service accepts in the context that is the thread's default while it is set up.
  g_main_context_push_thread_default(context);
  const bool listening = g_socket_listener_add_address(
                             G_SOCKET_LISTENER(service_.get()), wanted.get(), G_SOCKET_TYPE_STREAM,
                             G_SOCKET_PROTOCOL_TCP, nullptr, &bound, &error) != FALSE;
  if (listening) {
    g_signal_connect(service_.get(), "run", G_CALLBACK(&HttpCamera::OnConnection), this);
    g_socket_service_start(service_.get());
  }
  g_main_context_pop_thread_default(context);
  if (!listening) {
    const ErrorPtr owned(error);
    throw std::runtime_error("cannot listen for HTTP on " + options_.bind + " port " +
                             std::to_string(options_.httpPort) + ": " + owned->message);
  }
  const ObjectPtr<GSocketAddress> address(bound);
  port_ = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
}

HttpCamera::~HttpCamera() {
  g_socket_service_stop(service_.get());
  g_socket_listener_close(G_SOCKET_LISTENER(service_.get()));
  g_signal_handlers_disconnect_by_data(service_.get(), this);
  g_cancellable_cancel(stop_.get());
  pictures_.Stop();
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return clients_ == 0; });
}

std::string HttpCamera::Url() const {
  return "http://" + HostForUrl(options_) + ":" + std::to_string(port_) + kHttpPath;
}

gboolean HttpCamera::OnConnection(GThreadedSocketService*, GSocketConnection* connection, GObject*,
                                  HttpCamera* camera) {
  {
    const std::lock_guard lock(camera->mutex_);
    ++camera->clients_;
  }
  camera->Serve(connection);
  const std::lock_guard lock(camera->mutex_);
  --camera->clients_;
  camera->idle_.notify_all();
  return TRUE;
}

void HttpCamera::Serve(GSocketConnection* connection) {
  g_socket_set_timeout(g_socket_connection_get_socket(connection), kClientTimeout);
  GOutputStream* out = g_io_stream_get_output_stream(G_IO_STREAM(connection));
  const std::string head =
      ReadHead(g_io_stream_get_input_stream(G_IO_STREAM(connection)), stop_.get());
  const std::size_t first = head.find(' ');
  const std::size_t second = head.find(' ', first + 1);
  if (head.empty() || first == std::string::npos || second == std::string::npos) {
    return;
  }
  const std::string method = head.substr(0, first);
  const std::string target = head.substr(first + 1, second - first - 1);
  if (method != "GET") {
    Write(out, Refusal("405 Method Not Allowed", "Allow: GET\r\n"));
  } else if (target.substr(0, target.find('?')) != kHttpPath) {
    Write(out, Refusal("404 Not Found", ""));
  } else if (!login_.Accepts(HeaderValue(head, "Authorization"), method, target)) {
    std::string challenges;
    for (const std::string& each : login_.Challenges()) {
      challenges += "WWW-Authenticate: " + each + "\r\n";
    }
    Write(out, Refusal("401 Unauthorized", challenges));
  } else {
    SendPictures(out);
  }
}

void HttpCamera::SendPictures(GOutputStream* out) {
  PictureSource::Watch watch(pictures_);
  if (!Write(out,
             std::string("HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace;boundary=") +
                 kBoundary + "\r\nCache-Control: no-cache\r\nConnection: close\r\n\r\n")) {
    return;
  }
  while (const PictureSource::Picture picture = watch.Next()) {
    if (!Write(out, std::string("--") + kBoundary +
                        "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                        std::to_string(picture->size()) + "\r\n\r\n" + *picture + "\r\n")) {
      return;
    }
  }
}

bool HttpCamera::Write(GOutputStream* out, const std::string& bytes) const {
  return g_output_stream_write_all(out, bytes.data(), bytes.size(), nullptr, stop_.get(),
                                   nullptr) != FALSE;
}

}  // namespace testcamera
