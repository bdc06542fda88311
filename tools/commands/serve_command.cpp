// orvanta serve: cameras and recordings in a browser.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/log.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"
#include "tools/serve/machine_names.h"
#include "tools/serve/serve_site.h"
#include "tools/serve/web_server.h"
#include "tools/support/camera_site.h"
#include "tools/support/camera_url.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

struct ServeArguments {
  std::vector<std::string> urls;
  std::uint16_t port = 0;
  std::string data;
  std::string user;
  std::string password;
  std::string users;
  std::string audit;
  std::vector<std::string> allow;
  std::vector<std::string> deny;
  std::string bind;
  std::string tlsCertificate;
  std::string tlsKey;
  std::vector<std::string> names;
  bool json = false;
};

constexpr std::uint32_t kBlack = 1;
constexpr std::chrono::seconds kLookAtTheDay{10};

// "192.168.1.10-192.168.1.20", or one address.
AccessRange ReadRange(const std::string& option, const std::string& text, std::uint32_t kind) {
  const std::size_t dash = text.find('-');
  in_addr low{};
  in_addr high{};
  if (inet_pton(AF_INET, text.substr(0, dash).c_str(), &low) != 1 ||
      inet_pton(AF_INET, text.substr(dash == std::string::npos ? 0 : dash + 1).c_str(), &high) !=
          1 ||
      ntohl(low.s_addr) > ntohl(high.s_addr)) {
    throw UsageError(option,
                     "\"" + text + "\" is no address or range such as 192.168.1.10-192.168.1.20");
  }
  return {ntohl(low.s_addr), ntohl(high.s_addr), kind};
}

// Pictures that nobody has to log in for are shown on this machine alone unless --allow says more.
std::vector<AccessRange> ReadAccess(const ServeArguments& arguments) {
  std::vector<AccessRange> access;
  for (const std::string& each : arguments.allow) {
    access.push_back(ReadRange("--allow", each, AccessRange::kWhite));
  }
  if (access.empty() && arguments.user.empty() && arguments.users.empty()) {
    access.push_back(ReadRange("--allow", "127.0.0.0-127.255.255.255", AccessRange::kWhite));
  } else if (access.empty() && !arguments.deny.empty()) {
    access.push_back(ReadRange("--allow", "0.0.0.0-255.255.255.255", AccessRange::kWhite));
  }
  for (const std::string& each : arguments.deny) {
    access.push_back(ReadRange("--deny", each, kBlack));
  }
  return access;
}

class Serve {
 public:
  explicit Serve(const ServeArguments& arguments) : arguments_(arguments) {
    WebServerOptions options;
    options.port = arguments.port;
    if (!arguments.user.empty()) {
      options.users = std::make_shared<Users>(arguments.user, arguments.password);
    } else if (!arguments.users.empty()) {
      options.users = std::make_shared<Users>(AbsolutePath(arguments.users));
    }
    options.audit = arguments.audit.empty() ? "" : AbsolutePath(arguments.audit);
    options.access = ReadAccess(arguments);
    options.names = NamesOfThisMachine(arguments.names);
    if (!arguments.tlsCertificate.empty()) {  // looked at again later, from another folder
      options.certificateFile = std::filesystem::absolute(arguments.tlsCertificate).string();
      options.keyFile = std::filesystem::absolute(arguments.tlsKey).string();
    }
    if (!arguments.bind.empty()) {
      in_addr address{};
      if (inet_pton(AF_INET, arguments.bind.c_str(), &address) != 1) {
        throw UsageError("--bind", "\"" + arguments.bind + "\" is no IPv4 address");
      }
      options.address = ntohl(address.s_addr);
    }
    EnterDataFolder(arguments.data, DataFolderUse::kCreate);
    CRecFolderDBWriter().WriterRecFolderDB(0, kRecordings);  // where searches look
    for (std::size_t i = 0; i < arguments.urls.size(); ++i) {
      LiveOptions site;
      site.url = arguments.urls[i];
      site.decode = false;  // until somebody watches
      site.number = static_cast<int>(i);
      if (IsOnvifUrl(site.url)) {
        AccessOf(site.url, "", "", site.security);  // throws for one that cannot be read
        awaited_.push_back(site);
      } else {
        sites_.push_back(std::make_shared<ServeSite>(site));
      }
    }
    server_ = std::make_unique<WebServer>(options, [this] { return Sites(); });
  }

  ~Serve() {
    server_.reset();
    {
      const ScopeLock lock(sitesLock_);
      sites_.clear();
    }
    StopEachClientNBManager();
  }

  int Run() {
    for (const auto& site : Sites()) {
      site->Open();
    }
    const bool any = arguments_.bind.empty() || arguments_.bind == "0.0.0.0";
    const std::string url = server_->Scheme() + std::string(any ? "127.0.0.1" : arguments_.bind) +
                            ":" + std::to_string(server_->Port()) + "/";
    if (arguments_.json) {
      std::printf("%s\n",
                  nlohmann::ordered_json{{"url", url}, {"port", server_->Port()}}.dump().c_str());
    } else {
      std::printf("%s ready\n", url.c_str());
    }
    std::fflush(stdout);
    const bool shows = !arguments_.json && isatty(STDERR_FILENO) != 0;
    do {
      FindAwaited();
      for (const auto& site : Sites()) {
        site->FollowDay();
      }
      if (shows) {
        Report();
      }
    } while (!WaitForStop(shows ? std::chrono::seconds(1) : kLookAtTheDay));
    if (shows) {
      std::fprintf(stderr, "\n");
    }
    return 0;
  }

 private:
  std::vector<std::shared_ptr<ServeSite>> Sites() const {
    const ScopeLock lock(sitesLock_);
    return sites_;
  }

  // Cameras that tell their streams' addresses themselves, and may be away.
  void FindAwaited() {
    const auto now = std::chrono::steady_clock::now();
    if (now < askAwaited_) {
      return;
    }
    askAwaited_ = now + kLookAtTheDay;
    std::erase_if(awaited_, [this](LiveOptions site) {
      try {
        FindStream(&site);
        auto found = std::make_shared<ServeSite>(site);
        found->Open();
        const ScopeLock lock(sitesLock_);
        sites_.insert(std::ranges::upper_bound(sites_, found->Number(), {}, &ServeSite::Number),
                      found);
        return true;
      } catch (const std::exception& error) {
        cms::Log(cms::LogLevel::kWarning, "page",
                 "site " + std::to_string(site.number + 1) + ": " + error.what() +
                     "; it is asked again");
        return false;
      }
    });
  }

  void Report() const {
    std::size_t playing = 0;
    const auto sites = Sites();
    for (const auto& site : sites) {
      playing += site->Status().state == cms::ConnectionState::kPlaying ? 1 : 0;
    }
    std::fprintf(stderr, "\r%zu of %zu cameras deliver, %d watch ", playing, sites.size(),
                 server_->Watchers());
  }

  const ServeArguments& arguments_;
  std::vector<LiveOptions> awaited_;
  std::chrono::steady_clock::time_point askAwaited_{};
  mutable CMSCritical sitesLock_;
  std::vector<std::shared_ptr<ServeSite>> sites_ CMS_GUARDED_BY(sitesLock_);
  std::unique_ptr<WebServer> server_;
};

}  // namespace

void AddServeCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<ServeArguments>();
  const Command serve = app.Add("serve", "Cameras and recordings as a page for browsers");
  serve.AddOption("urls", arguments->urls, "cameras, as for orvanta live").TypeName("URL");
  serve.AddOption("--port", arguments->port, "port to listen on; 0 takes any").Required().Port();
  AddDataOption(serve, arguments->data);
  const Option user =
      serve.AddOption("--user", arguments->user,
                      "who may log in, and do everything. Without, and without --users, this "
                      "machine alone may watch, and nobody change anything");
  serve.AddOption("--password", arguments->password, "and the password").Needs(user);
  user.Needs("--password");
  serve
      .AddOption("--users", arguments->users,
                 "who may log in, and do what: a file that orvanta user makes")
      .TypeName("FILE")
      .Excludes(user);
  serve.AddOption("--audit", arguments->audit, "a file to which is written who did what")
      .TypeName("FILE");
  serve
      .AddOption("--allow", arguments->allow,
                 "IPv4 addresses that may connect, A-B or A; may be given again")
      .TypeName("A-B")
      .Repeatable();
  serve
      .AddOption("--deny", arguments->deny,
                 "IPv4 addresses that may not, also of those allowed; may be given again")
      .TypeName("A-B")
      .Repeatable();
  serve.AddOption("--bind", arguments->bind, "the IPv4 address to listen on; all unless told")
      .TypeName("A");
  const Option certificate =
      serve
          .AddOption("--tls-cert", arguments->tlsCertificate,
                     "the page by HTTPS: file of the certificate, with those that lead to its "
                     "authority, in PEM")
          .TypeName("FILE");
  serve.AddOption("--tls-key", arguments->tlsKey, "and of its key, without a passphrase")
      .TypeName("FILE")
      .Needs(certificate);
  certificate.Needs("--tls-key");
  serve
      .AddOption("--name", arguments->names,
                 "what this machine is called in browsers, besides localhost, its own name and its "
                 "addresses: where nobody logs in, other names are refused; may be given again")
      .TypeName("NAME")
      .Repeatable();
  serve.AddFlag("--json", arguments->json, "print the page's URL and port as one JSON object");
  serve.Run([arguments, &result] {
    if (arguments->user.find_first_of("\":") != std::string::npos) {
      throw UsageError("--user", "a name with a \" or a : in it cannot log in");
    }
    result.status = Serve(*arguments).Run();
  });
}

}  // namespace tools
