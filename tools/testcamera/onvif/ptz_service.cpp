#include "tools/testcamera/onvif/ptz_service.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {
namespace {

constexpr char kNode[] = "PtzNode0";
constexpr char kConfiguration[] = "PtzConfiguration0";
constexpr std::int64_t kStepUs = 40'000;
constexpr double kGoSpeed = 2;  // of a move to a position, a second
constexpr int kMostPresets = 32;
constexpr int kLongestMove = 60;  // seconds

constexpr char kPanTiltSpaces[] = "http://www.onvif.org/ver10/tptz/PanTiltSpaces/";
constexpr char kZoomSpaces[] = "http://www.onvif.org/ver10/tptz/ZoomSpaces/";

struct SpaceName {
  const char* element;
  const char* space;
  bool zoom;
  double min;
};
constexpr SpaceName kPtzSpaces[] = {
    {"tt:AbsolutePanTiltPositionSpace", "PositionGenericSpace", false, -1},
    {"tt:AbsoluteZoomPositionSpace", "PositionGenericSpace", true, 0},
    {"tt:RelativePanTiltTranslationSpace", "TranslationGenericSpace", false, -1},
    {"tt:RelativeZoomTranslationSpace", "TranslationGenericSpace", true, -1},
    {"tt:ContinuousPanTiltVelocitySpace", "VelocityGenericSpace", false, -1},
    {"tt:ContinuousZoomVelocitySpace", "VelocityGenericSpace", true, -1},
};

void AddSpaceRange(Element parent, const char* name, double min) {
  Element range = parent.Add(name);
  range.Add("tt:Min", min);
  range.Add("tt:Max", 1.0);
}

void AddSpaces(Element parent) {
  for (const SpaceName& each : kPtzSpaces) {
    Element space = parent.Add(each.element);
    space.Add("tt:URI", std::string(each.zoom ? kZoomSpaces : kPanTiltSpaces) + each.space);
    AddSpaceRange(space, "tt:XRange", each.min);
    if (!each.zoom) {
      AddSpaceRange(space, "tt:YRange", each.min);
    }
  }
}

void AddNode(Element parent) {
  Element node = parent.Add("tptz:PTZNode").Attribute("token", kNode);
  node.Add("tt:Name", "Eye");
  AddSpaces(node.Add("tt:SupportedPTZSpaces"));
  node.Add("tt:MaximumNumberOfPresets", kMostPresets);
  node.Add("tt:HomeSupported", true);
}

double NumberAttribute(const xmlNode* node, const char* name, double min, double otherwise) {
  const std::string text = Attribute(node, name);
  if (node == nullptr || text.empty()) {
    return otherwise;
  }
  char* end = nullptr;
  const double number = g_ascii_strtod(text.c_str(), &end);
  if (*end != '\0' || !(number >= min && number <= 1)) {
    throw SoapFault{"ter:InvalidArgVal", "ter:InvalidPosition", "Out of bounds: " + text};
  }
  return number;
}

// Of an element such as Velocity: what stands there, else what was.
PictureDirection DirectionAt(const xmlNode* request, const char* name, double zoomMin,
                             const PictureDirection& otherwise) {
  const xmlNode* vector = Child(request, name);
  if (vector == nullptr) {
    InvalidValue(std::string("no ") + name);
  }
  const xmlNode* panTilt = Child(vector, "PanTilt");
  return {NumberAttribute(panTilt, "x", -1, otherwise.pan),
          NumberAttribute(panTilt, "y", -1, otherwise.tilt),
          NumberAttribute(Child(vector, "Zoom"), "x", zoomMin, otherwise.zoom)};
}

void AddPosition(Element parent, const char* name, const PictureDirection& direction) {
  const auto text = [](double number) { return std::to_string(number); };
  Element position = parent.Add(name);
  position.Add("tt:PanTilt")
      .Attribute("x", text(direction.pan))
      .Attribute("y", text(direction.tilt))
      .Attribute("space", std::string(kPanTiltSpaces) + "PositionGenericSpace");
  position.Add("tt:Zoom")
      .Attribute("x", text(direction.zoom))
      .Attribute("space", std::string(kZoomSpaces) + "PositionGenericSpace");
}

PictureDirection Within(const PictureDirection& direction) {
  return {std::clamp(direction.pan, -1.0, 1.0), std::clamp(direction.tilt, -1.0, 1.0),
          std::clamp(direction.zoom, 0.0, 1.0)};
}

// One coordinate after so many seconds, no further than the target.
double Nearer(double now, double target, double speed, double seconds) {
  const double way = std::fabs(speed) * seconds;
  return std::fabs(target - now) <= way ? target : now + std::copysign(way, target - now);
}

}  // namespace

void AddPtzConfiguration(Element parent, const char* name) {
  Element element = parent.Add(name).Attribute("token", kConfiguration);
  element.Add("tt:Name", "PTZ");
  element.Add("tt:UseCount", 2);
  element.Add("tt:NodeToken", kNode);
  element.Add("tt:DefaultPTZTimeout", "PT5S");
}

PtzService::PtzService(CameraState& state, GMainContext* context,
                       std::function<void(const PictureDirection&)> look)
    : state_(state), look_(std::move(look)), timer_(context, [this] { Step(); }) {}

void PtzService::CheckProfile(const Call& call) const {
  if (state_.settings.FindProfile(TextAt(call.request, "ProfileToken").value_or("")) == nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoProfile", "There is no such profile"};
  }
}

void PtzService::AddOperations(Operations* operations) {
  const auto add = [operations](const char* name, std::function<void(Call&)> run) {
    (*operations)[{kPtzSpace, name}] = {false, std::move(run)};
  };
  const auto addMove = [&](const char* name, void (PtzService::*run)(Call&)) {
    add(name, [this, run](Call& call) {
      CheckProfile(call);
      (this->*run)(call);
    });
  };
  add("GetNodes", [](Call& call) { AddNode(call.answer); });
  add("GetNode", [](Call& call) {
    if (TextAt(call.request, "NodeToken") != kNode) {
      throw SoapFault{"ter:InvalidArgVal", "ter:NoEntity", "There is no such node"};
    }
    AddNode(call.answer);
  });
  add("GetConfigurations",
      [](Call& call) { AddPtzConfiguration(call.answer, "tptz:PTZConfiguration"); });
  add("GetConfiguration",
      [](Call& call) { AddPtzConfiguration(call.answer, "tptz:PTZConfiguration"); });
  add("GetConfigurationOptions", [](Call& call) {
    Element options = call.answer.Add("tptz:PTZConfigurationOptions");
    AddSpaces(options.Add("tt:Spaces"));
    Element timeout = options.Add("tt:PTZTimeout");
    timeout.Add("tt:Min", "PT1S");
    timeout.Add("tt:Max", "PT" + std::to_string(kLongestMove) + "S");
  });
  addMove("GetStatus", &PtzService::GetStatus);
  addMove("ContinuousMove", &PtzService::ContinuousMove);
  addMove("AbsoluteMove", &PtzService::AbsoluteMove);
  addMove("RelativeMove", &PtzService::RelativeMove);
  addMove("Stop", &PtzService::Stop);
  addMove("GetPresets", &PtzService::GetPresets);
  addMove("SetPreset", &PtzService::SetPreset);
  add("GotoPreset", [this](Call& call) { GoTo(PresetOf(call).direction); });
  add("RemovePreset", [this](Call& call) {
    PresetOf(call);
    presets_.erase(TextAt(call.request, "PresetToken").value_or(""));
  });
  add("GotoHomePosition", [this](Call&) { GoTo(home_); });
  add("SetHomePosition", [this](Call&) { home_ = now_; });
}

void PtzService::GetStatus(Call& call) {
  Element status = call.answer.Add("tptz:PTZStatus");
  AddPosition(status, "tt:Position", now_);
  const char* moves = IsMoving() ? "MOVING" : "IDLE";
  Element move = status.Add("tt:MoveStatus");
  move.Add("tt:PanTilt", moves);
  move.Add("tt:Zoom", moves);
  status.Add("tt:UtcTime", TextPtr(g_date_time_format_iso8601(state_.clock.Utc().get())).get());
}

bool PtzService::IsMoving() const {
  return moveEnd_ > g_get_monotonic_time() &&
         (now_.pan != target_.pan || now_.tilt != target_.tilt || now_.zoom != target_.zoom);
}

void PtzService::ContinuousMove(Call& call) {
  const PictureDirection speed = DirectionAt(call.request, "Velocity", -1, {});
  int seconds = 5;
  const std::string timeout = TextAt(call.request, "Timeout").value_or("PT5S");
  if (std::sscanf(timeout.c_str(), "PT%dS", &seconds) != 1 || seconds < 1 ||
      seconds > kLongestMove) {
    InvalidValue("Timeout " + timeout);
  }
  const auto end = [](double part, double now, double min) {
    return part > 0 ? 1.0 : part < 0 ? min : now;
  };
  speed_ = speed;
  target_ = {end(speed.pan, now_.pan, -1), end(speed.tilt, now_.tilt, -1),
             end(speed.zoom, now_.zoom, 0)};
  stepped_ = g_get_monotonic_time();
  moveEnd_ = stepped_ + seconds * G_USEC_PER_SEC;
  timer_.SetAt(stepped_ + kStepUs);
}

void PtzService::GoTo(const PictureDirection& target) {
  target_ = target;
  speed_ = {kGoSpeed, kGoSpeed, kGoSpeed};
  stepped_ = g_get_monotonic_time();
  moveEnd_ = stepped_ + kLongestMove * G_USEC_PER_SEC;
  timer_.SetAt(stepped_ + kStepUs);
}

void PtzService::AbsoluteMove(Call& call) {
  GoTo(DirectionAt(call.request, "Position", 0, now_));
}

void PtzService::RelativeMove(Call& call) {
  const PictureDirection by = DirectionAt(call.request, "Translation", -1, {});
  GoTo(Within({now_.pan + by.pan, now_.tilt + by.tilt, now_.zoom + by.zoom}));
}

void PtzService::Stop(Call&) {
  Step();
  moveEnd_ = 0;
  timer_.SetAt(-1);
}

void PtzService::Step() {
  const std::int64_t now = std::min(g_get_monotonic_time(), moveEnd_);
  const double seconds = static_cast<double>(std::max<std::int64_t>(now - stepped_, 0)) / 1e6;
  now_ = {Nearer(now_.pan, target_.pan, speed_.pan, seconds),
          Nearer(now_.tilt, target_.tilt, speed_.tilt, seconds),
          Nearer(now_.zoom, target_.zoom, speed_.zoom, seconds)};
  stepped_ = now;
  look_(now_);
  timer_.SetAt(IsMoving() ? now + kStepUs : -1);
}

void PtzService::GetPresets(Call& call) {
  for (const auto& [token, preset] : presets_) {
    Element element = call.answer.Add("tptz:Preset").Attribute("token", token);
    element.Add("tt:Name", preset.name);
    AddPosition(element, "tt:PTZPosition", preset.direction);
  }
}

void PtzService::SetPreset(Call& call) {
  std::string token = TextAt(call.request, "PresetToken").value_or("");
  if (token.empty()) {
    if (presets_.size() == kMostPresets) {
      throw SoapFault{"ter:Action", "ter:TooManyPresets", "The camera holds no more presets", true};
    }
    token = "Preset" + std::to_string(++lastPreset_);
  } else if (!presets_.contains(token)) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoToken", "There is no such preset"};
  }
  presets_[token] = {TextAt(call.request, "PresetName").value_or(token), now_};
  call.answer.Add("tptz:PresetToken", token);
}

PtzService::Preset& PtzService::PresetOf(const Call& call) {
  CheckProfile(call);
  const auto found = presets_.find(TextAt(call.request, "PresetToken").value_or(""));
  if (found == presets_.end()) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoToken", "There is no such preset"};
  }
  return found->second;
}

std::string PtzService::State() const {
  return nlohmann::ordered_json{{"pan", now_.pan},
                                {"tilt", now_.tilt},
                                {"zoom", now_.zoom},
                                {"moving", IsMoving()},
                                {"presets", presets_.size()}}
             .dump() +
         "\n";
}

}  // namespace testcamera
