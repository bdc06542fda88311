// What client applications and the embedded HTTP server tell each other.
#pragma once

#include <cstdint>
#include <string>

class HttpServer;   // opaque
class HttpRequest;  // opaque; valid only while its handler runs

namespace cms {

// The password of a user name: non-zero when the user is known. Called from connection threads,
// several at once. The name comes from the network.
using HttpPasswordLookup = int (*)(const std::string& user, std::string& password);

// Answers one request, on the connection's own thread, for as long as it likes; several run at
// once. `marker` is "IE" or null (see RegisterEgi), `reserved` is 0, the result is ignored. A
// std::exception that leaves it, or a password lookup, ends the connection.
using EgiCallback = int (*)(HttpRequest* request, const char* marker, std::uint32_t reserved);

// What a login guard is told of a Digest login: it is about to be looked at, it was good, it was
// wrong.
enum class HttpLoginStep { kAsked, kGood, kWrong };

// The result counts for kAsked: 0 has the client told to come later (429) without looking. Called
// on connection threads, several at once. The name comes from the network and is proven with kGood.
using HttpLoginGuard = int (*)(void* context, HttpRequest* request, const std::string& user,
                               HttpLoginStep step);

struct tHttpServerConfig {
  std::uint16_t port = 0;                       // 0: the system chooses, see GetHttpServerPort
  HttpPasswordLookup passwordLookup = nullptr;  // required
};

// The same with what the client application gave along with them.
using HttpPasswordLookupEx = int (*)(void* context, const std::string& user, std::string& password);
using EgiCallbackEx = int (*)(void* context, HttpRequest* request, const char* marker);

struct tHttpServerConfigEx {
  std::uint16_t port = 0;                         // 0: the system chooses, see GetHttpServerPort
  HttpPasswordLookupEx passwordLookup = nullptr;  // required
  void* context = nullptr;                        // for the look-up
  // The address to listen on, as a number of AccessRange (127.0.0.1 is 0x7F000001); 0: all.
  std::uint32_t bindAddress = 0;
  // Connections served at once, each with a thread and a descriptor; others wait in the system's
  // backlog. 0: a quarter of the descriptors that the process may have when the server is started
  // (RLIMIT_NOFILE), 4,096 at most.
  std::uint32_t maxConnections = 0;
};

}  // namespace cms

// A handler under its name.
struct EgiHandler {
  static constexpr int kNameSize = 96;  // with the terminator
  char name[kNameSize];
  cms::EgiCallback callback;
};

// IPv4 addresses from low to high, both included, as numbers: a.b.c.d is a*2^24 + b*2^16 + c*2^8 +
// d.
struct AccessRange {
  static constexpr std::uint32_t kWhite = 2;  // allowed; every other kind is black: denied
  std::uint32_t low;
  std::uint32_t high;
  std::uint32_t kind;
};

namespace cms {

// Operations of SetWhiteBlackListInfo; others do nothing.
inline constexpr int kAccessListAdd = 3;
inline constexpr int kAccessListRemove = 4;

// Answers of AllowAccess.
inline constexpr int kAccessBlack = 0;
inline constexpr int kAccessNotWhite = 1;
inline constexpr int kAccessAllowed = 2;

// Indices of SetStatusCode.
enum HttpStatusIndex : std::uint32_t {
  kHttpStatusOk = 0,
  kHttpBadRequest = 1,
  kHttpAuthorizationRequired = 2,  // 401 with a Digest challenge
  kHttpAuthenticationError = 3,    // 401 with a Digest challenge
  kHttpForbidden = 4,
  kHttpNotFound = 5,
  kHttpServiceUnavailable = 6,
  kHttpNotInWhiteList = 7,  // 901
  kHttpInBlackList = 8      // 902
};

}  // namespace cms
