// orvanta serve: cameras and recordings in a browser.
#include <arpa/inet.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"
#include "tools/serve/serve_site.h"
#include "tools/serve/web_server.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

struct Arguments {
  std::vector<std::string> urls;
  std::uint16_t port = 0;
  std::string data;
  std::string user;
  std::string password;
  std::vector<std::string> allow;
  std::vector<std::string> deny;
  std::string bind;
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
std::vector<AccessRange> ReadAccess(const Arguments& arguments) {
  std::vector<AccessRange> access;
  for (const std::string& each : arguments.allow) {
    access.push_back(ReadRange("--allow", each, AccessRange::kWhite));
  }
  if (access.empty() && arguments.user.empty()) {
    access.push_back(ReadRange("--allow", "127.0.0.0-127.255.255.255", AccessRange::kWhite));
  } else if (access.empty() && !arguments.deny.empty()) {
    access.push_back(ReadRange("--allow", "0.0.0.0-255.255.255.255", AccessRange::kWhite));
  }
  for (const std::string& each : arguments.deny) {
    access.push_back(ReadRange("--deny", each, kBlack));
  }
  return access;
}

// What browsers on this machine and beside it call it.
std::vector<std::string> Names(std::vector<std::string> names) {
  names.emplace_back("localhost");
  char own[256] = "";
  if (gethostname(own, sizeof own - 1) == 0 && own[0] != '\0') {
    names.emplace_back(own);
    names.push_back(std::string(own) + ".local");
  }
  return names;
}

class Serve {
 public:
  explicit Serve(const Arguments& arguments) : arguments_(arguments) {
    WebServerOptions options{
        arguments.port,        arguments.user, arguments.password, ReadAccess(arguments), 0,
        Names(arguments.names)};
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
      sites_.push_back(std::make_unique<ServeSite>(site));
    }
    server_ = std::make_unique<WebServer>(options, sites_);
  }

  ~Serve() {
    server_.reset();
    sites_.clear();
    StopEachClientNBManager();
  }

  int Run() {
    for (const auto& site : sites_) {
      site->Open();
    }
    const bool any = arguments_.bind.empty() || arguments_.bind == "0.0.0.0";
    const std::string url = "http://" + (any ? "127.0.0.1" : arguments_.bind) + ":" +
                            std::to_string(server_->Port()) + "/";
    if (arguments_.json) {
      std::printf("%s\n",
                  nlohmann::ordered_json{{"url", url}, {"port", server_->Port()}}.dump().c_str());
    } else {
      std::printf("%s ready\n", url.c_str());
    }
    std::fflush(stdout);
    const bool shows = !arguments_.json && isatty(STDERR_FILENO) != 0;
    while (!WaitForStop(shows ? std::chrono::seconds(1) : kLookAtTheDay)) {
      for (const auto& site : sites_) {
        site->FollowDay();
      }
      if (shows) {
        Report();
      }
    }
    if (shows) {
      std::fprintf(stderr, "\n");
    }
    return 0;
  }

 private:
  void Report() const {
    std::size_t playing = 0;
    for (const auto& site : sites_) {
      playing += site->Status().state == ConnectionState::kPlaying ? 1 : 0;
    }
    std::fprintf(stderr, "\r%zu of %zu cameras deliver, %d watch ", playing, sites_.size(),
                 server_->Watchers());
  }

  const Arguments& arguments_;
  std::vector<std::unique_ptr<ServeSite>> sites_;
  std::unique_ptr<WebServer> server_;
};

}  // namespace

void AddServeCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<Arguments>();
  const Command serve = app.Add("serve", "Cameras and recordings as a page for browsers");
  serve.AddOption("urls", arguments->urls, "cameras, as for orvanta live").TypeName("URL");
  serve.AddOption("--port", arguments->port, "port to listen on; 0 takes any").Required().Port();
  AddDataOption(serve, arguments->data);
  const Option user = serve.AddOption(
      "--user", arguments->user,
      "who may log in (Digest). Without, this machine alone may watch, and nobody change anything");
  serve.AddOption("--password", arguments->password, "and the password").Needs(user);
  user.Needs("--password");
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
