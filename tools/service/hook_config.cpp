#include "tools/service/hook_config.h"

#include <filesystem>
#include <optional>

#include "cms/streaming/rtsp_url.h"
#include "tools/service/config_secret.h"

namespace tools {
namespace {

constexpr std::int64_t kLongestAttempt = 600;  // seconds

std::vector<HookEventKind> EventsOf(const ConfigTable& table) {
  std::vector<HookEventKind> kinds;
  for (const std::string& word : table.Texts("events")) {
    if (const auto kind = HookEventOf(word)) {
      kinds.push_back(*kind);
      continue;
    }
    std::string known;
    for (const std::string& each : HookEventNames()) {
      known += (known.empty() ? "" : ", ") + each;
    }
    table.Wrong("events", "found \"" + word + "\", expected some of " + known);
  }
  return kinds;
}

// The broker's HOST[:PORT].
void ReadBroker(const ConfigTable& table, HookConfig* hook) {
  const auto text = table.Text("mqtt");
  const auto url = text ? cms::ParseCameraUrl("mqtt://" + *text) : std::nullopt;
  if (!url || url->path != "/" || !url->user.empty()) {
    table.Wrong("mqtt", "found \"" + text.value_or("") + "\", expected HOST or HOST:PORT");
    return;
  }
  hook->host = url->host;
  hook->port = url->portGiven ? url->port : std::uint16_t{0};
}

HookConfig HookOf(const ConfigTable& table, const std::string& folder, bool* plain) {
  HookConfig hook;
  hook.name = table.Text("name").value_or("");
  hook.events = EventsOf(table);
  hook.timeoutSeconds =
      static_cast<unsigned>(table.Number("timeout", 1, kLongestAttempt).value_or(10));
  hook.user = table.Text("user").value_or("");
  hook.password = ReadPassword(table, folder, plain);
  if (const auto file = table.Text("ca-file")) {
    hook.caFile = (std::filesystem::path(folder) / *file).string();
  }
  hook.tls = table.Flag("tls").value_or(false);
  hook.topic = table.Text("topic").value_or("orvanta");
  hook.clientId = table.Text("client-id").value_or("");
  const bool isCommand = table.Has("command");
  const bool isPost = table.Has("post");
  const bool isMqtt = table.Has("mqtt");
  if ((isCommand ? 1 : 0) + (isPost ? 1 : 0) + (isMqtt ? 1 : 0) != 1) {
    table.Wrong("",
                "expected one of command = [\"/PROGRAM\", ...], post = \"http[s]://...\" and "
                "mqtt = \"HOST[:PORT]\"");
  } else if (isCommand) {
    hook.kind = HookConfig::Kind::kCommand;
    hook.command = table.Texts("command");
    if (hook.command.empty() || !hook.command.front().starts_with('/')) {
      table.Wrong("command", "expected a program's whole path and its arguments, a text each");
    }
  } else if (isPost) {
    hook.kind = HookConfig::Kind::kPost;
    hook.url = table.Text("post").value_or("");
    if (!hook.url.starts_with("http://") && !hook.url.starts_with("https://")) {
      table.Wrong("post", "expected http://... or https://...");
    }
  } else {
    hook.kind = HookConfig::Kind::kMqtt;
    ReadBroker(table, &hook);
  }
  if (hook.name.empty()) {
    hook.name = isPost ? "post" : isMqtt ? "mqtt" : "command";
  }
  table.RefuseOthers();
  return hook;
}

}  // namespace

std::vector<HookConfig> ReadHooks(const ConfigTable& file, const std::string& folder, bool* plain) {
  std::vector<HookConfig> hooks;
  for (const ConfigTable& table : file.Tables("hooks")) {
    hooks.push_back(HookOf(table, folder, plain));
  }
  return hooks;
}

}  // namespace tools
