#include "tools/commands/onvif_ptz_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_ptz.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct PtzArguments {
  std::string what;
  std::vector<std::string> values;
  std::string profile;
  double speed = 0.5;
  double seconds = 1;
};

// A movement by its word: which way for each of pan, tilt and zoom.
struct Way {
  const char* word;
  int pan;
  int tilt;
  int zoom;
};
constexpr Way kWays[] = {{"left", -1, 0, 0}, {"right", 1, 0, 0}, {"up", 0, 1, 0},
                         {"down", 0, -1, 0}, {"in", 0, 0, 1},    {"out", 0, 0, -1}};

Json VectorJson(const cms::PtzVector& vector) {
  const auto number = [](const std::optional<double>& value) {
    return value ? Json(*value) : Json(nullptr);
  };
  return {
      {"pan", number(vector.pan)}, {"tilt", number(vector.tilt)}, {"zoom", number(vector.zoom)}};
}

Json RangeJson(const cms::PtzRange& range, bool both) {
  if (range.space.empty()) {
    return nullptr;
  }
  Json json{{"space", range.space}, {"x", {range.x.min, range.x.max}}};
  if (both) {
    json["y"] = {range.y.min, range.y.max};
  }
  return json;
}

double Number(const std::string& text) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0' || !std::isfinite(number)) {
    throw UsageError("ptz", "\"" + text + "\" is no number");
  }
  return number;
}

class PtzCommand {
 public:
  PtzCommand(const SiteArguments& site, const PtzArguments& arguments)
      : arguments_(arguments), ptz_(AccessOf(site)) {
    ptz_.SetProfile(arguments.profile);
  }

  Json Run() {
    const std::string& what = arguments_.what;
    const auto* way =
        std::ranges::find_if(kWays, [&](const Way& each) { return what == each.word; });
    if (way != std::end(kWays)) {
      return Move(*way);
    }
    const CameraWait wait([this] { ptz_.Interrupt(); });
    if (what == "stop") {
      Require(ptz_.Stop());
    } else if (what == "home") {
      Require(ptz_.GoHome());
    } else if (what == "set-home") {
      Require(ptz_.SetHome());
    } else if (what == "to") {
      Require(ptz_.MoveTo(Vector(), Speed()));
    } else if (what == "by") {
      Require(ptz_.MoveBy(Vector(), Speed()));
    } else if (what == "preset") {
      Require(ptz_.GoToPreset(Find(Value("the preset's name or token"))));
    } else if (what == "set-preset") {
      return SetPreset();
    } else if (what == "remove-preset") {
      Require(ptz_.RemovePreset(Find(Value("the preset's name or token"))));
    } else if (what == "presets") {
      return Presets();
    } else if (what == "limits") {
      return Limits();
    }
    return Status();
  }

 private:
  void Require(bool done) const {
    if (!done) {
      throw std::runtime_error(StopRequested() ? "stopped" : ptz_.LastError());
    }
  }

  std::string Value(const char* meaning) const {
    if (arguments_.values.size() != 1) {
      throw UsageError("ptz " + arguments_.what, std::string("say ") + meaning);
    }
    return arguments_.values.front();
  }

  std::optional<double> Speed() const { return arguments_.speed; }

  // "PAN TILT [ZOOM]" or "- - ZOOM".
  cms::PtzVector Vector() const {
    const auto& values = arguments_.values;
    if (values.size() < 2 || values.size() > 3) {
      throw UsageError("ptz " + arguments_.what, "say PAN TILT [ZOOM], with - for what stays");
    }
    const auto number = [&](std::size_t i) {
      return i < values.size() && values[i] != "-" ? std::optional(Number(values[i]))
                                                   : std::nullopt;
    };
    return {number(0), number(1), number(2)};
  }

  // Whatever happens in between, the camera is stopped: it would go on for its time.
  Json Move(const Way& way) {
    cms::PtzVector speed;
    if (way.pan != 0 || way.tilt != 0) {
      speed.pan = way.pan * arguments_.speed;
      speed.tilt = way.tilt * arguments_.speed;
    } else {
      speed.zoom = way.zoom * arguments_.speed;
    }
    const int longest = static_cast<int>(std::ceil(arguments_.seconds)) + 1;
    bool moved = false;
    {
      const CameraWait wait([this] { ptz_.Interrupt(); });
      cms::PtzFeatures features;
      Require(ptz_.ReadFeatures(features));
      moved = ptz_.Move(speed, longest);
    }
    const std::string error = ptz_.LastError();
    if (moved) {
      WaitForStop(std::chrono::milliseconds(static_cast<std::int64_t>(arguments_.seconds * 1000)));
    }
    ptz_.ResumeAfterInterrupt();
    const bool stopped = ptz_.Stop();
    if (!moved) {
      throw std::runtime_error(StopRequested() ? "stopped" : error);
    }
    if (!stopped) {
      throw std::runtime_error(ptz_.LastError());
    }
    return Status();
  }

  // By its token or, if there is none of that, by its name.
  std::string Find(const std::string& wanted) {
    std::vector<cms::PtzPreset> presets;
    Require(ptz_.ReadPresets(presets));
    for (const auto member : {&cms::PtzPreset::token, &cms::PtzPreset::name}) {
      const auto found = std::ranges::find(presets, wanted, member);
      if (found != presets.end()) {
        return found->token;
      }
    }
    throw std::runtime_error("the camera has no preset " + wanted);
  }

  Json SetPreset() {
    const std::string name = Value("the preset's name");
    std::vector<cms::PtzPreset> presets;
    Require(ptz_.ReadPresets(presets));
    const auto found = std::ranges::find(presets, name, &cms::PtzPreset::name);
    std::string token = found == presets.end() ? "" : found->token;
    Require(ptz_.SetPreset(name, token));
    return {{"PresetToken", token}, {"Name", name}};
  }

  Json Presets() {
    std::vector<cms::PtzPreset> presets;
    Require(ptz_.ReadPresets(presets));
    Json list = Json::array();
    for (const cms::PtzPreset& each : presets) {
      list.push_back(
          {{"token", each.token}, {"Name", each.name}, {"PTZPosition", VectorJson(each.position)}});
    }
    return {{"Presets", list}};
  }

  Json Limits() {
    cms::PtzFeatures features;
    Require(ptz_.ReadFeatures(features));
    return {{"ProfileToken", features.profileToken},
            {"AbsolutePanTilt", RangeJson(features.panTiltPosition, true)},
            {"AbsoluteZoom", RangeJson(features.zoomPosition, false)},
            {"RelativePanTilt", RangeJson(features.panTiltTranslation, true)},
            {"RelativeZoom", RangeJson(features.zoomTranslation, false)},
            {"ContinuousPanTilt", RangeJson(features.panTiltSpeed, true)},
            {"ContinuousZoom", RangeJson(features.zoomSpeed, false)},
            {"MaximumNumberOfPresets", features.mostPresets},
            {"HomeSupported", features.home}};
  }

  Json Status() {
    cms::PtzStatus status;
    Require(ptz_.ReadStatus(status));
    return {{"Position", VectorJson(status.position)}, {"Moving", status.moving}};
  }

  const PtzArguments& arguments_;
  cms::OnvifPtz ptz_;
};

}  // namespace

void AddOnvifPtzCommand(Command onvif, const SiteArguments& site, CommandResult& result) {
  constexpr double kSlowest = 0.01;
  constexpr double kLongest = 3600;
  auto arguments = std::make_shared<PtzArguments>();
  const Command ptz = onvif.Add("ptz", "Moves the camera and prints where it looks");
  ptz.AddOption("what", arguments->what,
                "left, right, up, down, in, out: for --seconds; stop, home, set-home, status, "
                "limits, presets; preset NAME, set-preset NAME, remove-preset NAME; to and by PAN "
                "TILT [ZOOM]")
      .Required()
      .OneOf({"left", "right", "up", "down", "in", "out", "stop", "home", "set-home", "status",
              "limits", "presets", "preset", "set-preset", "remove-preset", "to", "by"});
  ptz.AddOption("values", arguments->values, "A preset's name or token, or numbers; - leaves one")
      .TypeName("VALUE");
  ptz.AddOption("--speed", arguments->speed, "Part of its highest speed")
      .ShowDefault()
      .InRange(kSlowest, 1.0);
  ptz.AddOption("--seconds", arguments->seconds, "How long it moves; Ctrl-C stops it")
      .ShowDefault()
      .InRange(kSlowest, kLongest);
  ptz.AddOption("--profile", arguments->profile, "Token of the media profile that is moved");
  ptz.RunWithParent([&site, arguments, &result] {
    PrintAnswer(PtzCommand(site, *arguments).Run(), site.json);
    result.status = 0;
  });
}

}  // namespace tools
