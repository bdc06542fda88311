#include "tools/serve/site_answers.h"

#include <array>
#include <chrono>
#include <optional>
#include <thread>

#include "tools/serve/form_text.h"
#include "tools/serve/live_pictures.h"
#include "tools/service/recorder_config.h"
#include "tools/support/camera_site.h"
#include "tools/support/camera_url.h"
#include "tools/support/stop_signal.h"
#include "tools/support/transport_words.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

constexpr std::uint32_t kLongestSiteForm = 16 * 1024;
// A camera's first key picture may be seconds away.
constexpr std::chrono::seconds kTryFor{12};
constexpr std::chrono::milliseconds kLookForPicture{100};
constexpr long kTriedWidth = 480;
constexpr std::array kSiteKeys = {"name", "url", "user", "transport", "plan", "onvif"};

const SiteConfig* FindSite(const RecorderConfig& config, std::int64_t number) {
  for (const SiteConfig& site : config.sites) {
    if (site.number == number) {
      return &site;
    }
  }
  return nullptr;
}

RecorderConfig ReadConfigOf(const std::string& path) {
  ConfigProblems problems;
  RecorderConfig config = ReadRecorderConfig(path, &problems);
  if (!problems.errors.empty()) {
    throw std::runtime_error(LinesOf(path, problems.errors).front());
  }
  return config;
}

// An empty field takes its key away.
SiteKeys KeysOf(const std::string& form) {
  SiteKeys keys;
  for (const char* const name : kSiteKeys) {
    if (const auto value = FieldOf(form, name)) {
      keys.emplace_back(name, value->empty() ? std::nullopt : std::optional<SiteValue>(*value));
    }
  }
  return keys;
}

}  // namespace

SiteAnswers::SiteAnswers(const std::string& path)
    : path_(path), editor_(path.empty() ? nullptr : std::make_unique<SiteEditor>(path)) {}

void SiteAnswers::List(WebRequest& request) const {
  const RecorderConfig config = ReadConfigOf(path_);
  ordered_json sites = ordered_json::array();
  for (const SiteConfig& site : config.sites) {
    sites.push_back({{"site", site.number},
                     {"name", site.name},
                     {"url", site.url},
                     {"user", site.user},
                     {"password", !site.password.empty()},
                     {"transport", TransportWord(site.transport)},
                     {"plan", site.plan},
                     {"onvif", site.onvif},
                     {"enabled", site.enabled}});
  }
  ordered_json plans = {"always", "events"};
  for (const auto& [name, plan] : config.plans) {
    plans.push_back(name);
  }
  request.Answer({{"sites", sites}, {"plans", plans}, {"transports", TransportWords()}});
}

void SiteAnswers::Sites(WebRequest& request) {
  if (!editor_) {
    throw BadRequest("sites are managed where orvanta record --config shows the page");
  }
  if (request.IsGet()) {
    List(request);
    return;
  }
  const std::string method = request.Method();
  try {
    if (method == "DELETE") {
      const auto number = static_cast<unsigned>(request.Number("site", 1, INT32_MAX));
      editor_->Remove(number);
      request.Answer({{"site", number}});
      return;
    }
    const std::string form = request.Body(kLongestSiteForm);
    const auto password = FieldOf(form, "password");
    unsigned number = 0;
    if (method == "POST") {
      number = editor_->Add(KeysOf(form), password && !password->empty() ? password : std::nullopt);
    } else if (method == "PUT") {
      number = static_cast<unsigned>(request.Number("site", 1, INT32_MAX));
      editor_->Change(number, KeysOf(form), password);
    } else {
      throw BadRequest("expected GET, POST, PUT or DELETE");
    }
    request.Answer({{"site", number}});
  } catch (const std::runtime_error& error) {
    throw BadRequest(error.what());
  }
}

void SiteAnswers::Try(WebRequest& request) {
  if (!editor_ || request.Method() != "POST") {
    throw BadRequest("a camera is tried with POST, at a recorder");
  }
  if (trying_.exchange(true)) {
    throw BadRequest("a camera is being tried already: try again in some seconds");
  }
  struct Done {
    std::atomic<bool>& trying;
    ~Done() { trying = false; }
  } const done{trying_};

  const std::string form = request.Body(kLongestSiteForm);
  LiveOptions options;
  options.transport = TransportOf("tcp");
  if (request.Value("site")) {
    const RecorderConfig config = ReadConfigOf(path_);
    if (const SiteConfig* const site = FindSite(config, request.Number("site", 1, INT32_MAX))) {
      options.url = site->url;
      options.user = site->user;
      options.password = site->password;
      options.transport = site->transport;
      options.security = site->security;
    }
  }
  options.url = FieldOf(form, "url").value_or(options.url);
  options.user = FieldOf(form, "user").value_or(options.user);
  options.password = FieldOf(form, "password").value_or(options.password);
  const auto word = FieldOf(form, "transport");
  for (const std::string& known : TransportWords()) {
    options.transport = word == known ? TransportOf(known) : options.transport;
  }
  try {
    if (IsOnvifUrl(options.url)) {
      FindStream(&options);
    }
    options.decode = false;
    LiveSite site(options);
    LivePictures pictures(site, 0);
    site.Open();
    LivePictures::Watch watch(pictures, kTriedWidth);
    PictureRecord picture;
    for (const auto end = std::chrono::steady_clock::now() + kTryFor;
         !picture && std::chrono::steady_clock::now() < end && !StopRequested();) {
      std::this_thread::sleep_for(kLookForPicture);
      picture = watch.Next();
    }
    if (!picture) {
      throw BadRequest(WhyNothingArrived(site.Status()));
    }
    const ordered_json sends = site.Json();
    request.SendLine({{"codec", sends["codec"]},
                      {"width", sends["width"]},
                      {"height", sends["height"]},
                      {"audio_codec", sends["audio_codec"]}});
    request.Send(*picture);
    request.EndStream();
  } catch (const std::runtime_error& error) {
    throw BadRequest(error.what());
  }
}

}  // namespace tools
