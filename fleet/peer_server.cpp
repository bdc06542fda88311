#include "fleet/peer_server.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "cms/runtime/clock.h"

namespace cms::fleet {
namespace {

using nlohmann::ordered_json;

constexpr std::size_t kSendAtOnce = 256 * 1024;

class BadPeerRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Only names and numbers that need no escapes are asked for, but for the "/" of a path.
std::string QueryText(HttpRequest* request, std::string_view name) {
  std::string query;
  GetQueryData(request, &query);
  const std::string key = std::string(name) + "=";
  for (std::size_t begin = 0; begin < query.size();) {
    const std::size_t end = std::min(query.find('&', begin), query.size());
    if (query.compare(begin, key.size(), key) == 0) {
      std::string value = query.substr(begin + key.size(), end - begin - key.size());
      for (std::size_t at = 0; (at = value.find("%2F", at)) != std::string::npos; ++at) {
        value.replace(at, 3, "/");
      }
      return value;
    }
    begin = end + 1;
  }
  throw BadPeerRequest(std::string(name) + " is missing");
}

std::int64_t QueryNumber(HttpRequest* request, std::string_view name) {
  const std::string text = QueryText(request, name);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0) {
    throw BadPeerRequest(std::string(name) + " is no number");
  }
  return number;
}

void AnswerJson(HttpRequest* request, const ordered_json& value) {
  RequestSetContentType(request, "application/json");
  RequestWrite(request, value.dump(-1, ' ', false, ordered_json::error_handler_t::replace).c_str());
}

// From a byte to another, both included, or to what is there.
void SendBytes(HttpRequest* request, const std::string& path, std::uint64_t from,
               std::uint64_t to) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) {
    throw std::runtime_error("it is gone");
  }
  const auto size = static_cast<std::uint64_t>(file.tellg());
  from = std::min(from, size);
  std::uint64_t left = std::min(to, size - 1) + 1 - from;
  left = size == 0 || to < from ? 0 : left;
  file.seekg(static_cast<std::streamoff>(from));
  RequestSetContentType(request, "application/octet-stream");
  std::vector<char> part(kSendAtOnce);
  bool more = SendHeaderForFile(request, static_cast<long long>(left), "") == 1;
  while (more && left > 0) {
    file.read(part.data(),
              static_cast<std::streamsize>(std::min<std::uint64_t>(left, part.size())));
    const auto got = file.gcount();
    more = got > 0 && RequestFlushWrite(request, part.data(), static_cast<int>(got)) == 1;
    left -= static_cast<std::uint64_t>(got);
  }
  ForceDissconnect(request);
}

}  // namespace

template <PeerServer::Handler handler>
int PeerServer::Call(void* server, HttpRequest* request, const char*) {
  try {
    (static_cast<PeerServer*>(server)->*handler)(request);
  } catch (const BadPeerRequest& error) {
    SetStatusCode(request, kHttpBadRequest);
    AnswerJson(request, {{"error", error.what()}});
  } catch (const std::exception& error) {
    SetStatusCode(request, kHttpNotFound);
    AnswerJson(request, {{"error", error.what()}});
  }
  return 0;
}

int PeerServer::Password(void* server, const std::string& user, std::string& password) {
  const auto known = static_cast<PeerServer*>(server)->keys_.PeerPassword(user);
  password = known.value_or("");
  return known ? 1 : 0;
}

PeerServer::PeerServer(PeerServerOptions options, const SecretKeys& keys,
                       HeldRecordings& recordings, const TokenLog& tokens,
                       std::function<FleetFigures()> figures)
    : options_(std::move(options)),
      keys_(keys),
      recordings_(recordings),
      tokens_(tokens),
      figures_(std::move(figures)) {
  const tHttpServerConfigEx config{options_.port, &PeerServer::Password, this, options_.address};
  server_ = CreateHttpServerEx(&config);
  if (server_ == nullptr) {
    throw std::runtime_error("out of memory");
  }
  EnableWholeRequests(server_, 1);
  EnableStrictDigest(server_, 1);
  EnableSha256Digest(server_, 1);
  std::string problem;
  if (!options_.certificateFile.empty() &&
      SetHttpServerTls(server_, options_.certificateFile, options_.keyFile, options_.authorityFile,
                       problem) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("no TLS: " + problem);
  }
  RegisterEgiEx(server_, "/auth/metrics", &Call<&PeerServer::Metrics>, this);
  if (options_.openMetrics) {
    RegisterEgiEx(server_, "/metrics", &Call<&PeerServer::Metrics>, this);
  }
  RegisterEgiEx(server_, "/auth/claims", &Call<&PeerServer::Claims>, this);
  RegisterEgiEx(server_, "/auth/recordings", &Call<&PeerServer::Recordings>, this);
  RegisterEgiEx(server_, "/auth/index", &Call<&PeerServer::Index>, this);
  RegisterEgiEx(server_, "/auth/file", &Call<&PeerServer::File>, this);
  if (StartHttpServer(server_) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("cannot listen on port " + std::to_string(options_.port) +
                             ": it is in use, or may not be used; choose another with --port");
  }
}

PeerServer::~PeerServer() {
  DestroyHttpServer(server_);
}

int PeerServer::Port() const {
  return GetHttpServerPort(server_);
}

void PeerServer::Metrics(HttpRequest* request) {
  RequestSetContentType(request, "text/plain; version=0.0.4; charset=utf-8");
  RequestWrite(request, FleetMetrics(figures_()).c_str());
}

void PeerServer::Claims(HttpRequest* request) {
  const FleetFigures figures = figures_();
  ordered_json claims = ordered_json::array();
  for (const HeldCamera& camera : figures.cameras) {
    claims.push_back({{"camera", camera.copy.camera},
                      {"copy", camera.copy.copy},
                      {"claim", camera.claim},
                      {"up", camera.up}});
  }
  AnswerJson(request, {{"recorder", figures.recorder},
                       {"confirmed", figures.standing == Standing::kConfirmed},
                       {"time", WallMicroseconds() / 1'000},
                       {"claims", claims}});
}

void PeerServer::Recordings(HttpRequest* request) {
  const std::int64_t site = QueryNumber(request, "site");
  recordings_.Look();
  ordered_json files = ordered_json::array();
  for (const HeldFile& file :
       recordings_.Between(static_cast<std::uint32_t>(site), QueryNumber(request, "from"),
                           QueryNumber(request, "to"))) {
    ordered_json spans = ordered_json::array();
    for (const HeldSpan& span : file.spans) {
      spans.push_back({span.from, span.to});
    }
    files.push_back({{"name", file.name}, {"spans", spans}});
  }
  ordered_json tokens = ordered_json::array();
  for (const TokenLog::Since& since : tokens_.Of(static_cast<std::uint32_t>(site))) {
    tokens.push_back({since.from, since.token});
  }
  AnswerJson(request, {{"files", files}, {"tokens", tokens}});
}

// Nothing but recordings is given: the name is looked for among those that are held.
std::string PeerServer::PathOf(HttpRequest* request) const {
  const std::string name = QueryText(request, "name");
  std::string path = recordings_.PathOf(name);
  if (path.empty()) {
    throw std::runtime_error("there is no such recording");
  }
  return path;
}

void PeerServer::Index(HttpRequest* request) {
  std::string path = PathOf(request);
  path.replace(path.rfind('.'), std::string::npos, ".idx");
  SendBytes(request, path, 0, UINT64_MAX - 1);
}

void PeerServer::File(HttpRequest* request) {
  SendBytes(request, PathOf(request), static_cast<std::uint64_t>(QueryNumber(request, "from")),
            static_cast<std::uint64_t>(QueryNumber(request, "to")));
}

}  // namespace cms::fleet
