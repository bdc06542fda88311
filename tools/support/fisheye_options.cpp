#include "tools/support/fisheye_options.h"

#include <algorithm>
#include <cstdio>

namespace tools {
namespace {

const std::vector<std::string> kMounts = {"ceiling", "wall", "floor"};
const std::vector<std::string> kLenses = {"equidistant", "equisolid"};

int NumberOf(const std::string& word, const std::vector<std::string>& words) {
  return static_cast<int>(std::ranges::find(words, word) - words.begin());
}

void ReadCircle(const std::string& text, stFisheyeParameter* parameter) {
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5d,%5d,%5d%c", &parameter->centerX, &parameter->centerY,
                  &parameter->radius, &rest) != 3 ||
      parameter->radius <= 0) {
    throw UsageError("--circle", "\"" + text + "\" is not of the form 960,540,530");
  }
}

cms::stDewarpCamera ReadLook(const std::string& text) {
  cms::stDewarpCamera camera;
  char rest = 0;
  const int read = std::sscanf(text.c_str(), "%f,%f,%f%c", &camera.position.pan,
                               &camera.position.tilt, &camera.zoom, &rest);
  if ((read != 2 && read != 3) || !(camera.zoom > 0)) {
    throw UsageError("--look", "\"" + text + "\" is not of the form PAN,TILT or PAN,TILT,ZOOM");
  }
  return camera;
}

}  // namespace

const std::vector<std::string>& FisheyeViewWords() {
  static const std::vector<std::string> words = {"original",      "panorama", "double-panorama",
                                                 "wall-panorama", "camera",   "2-cameras",
                                                 "3-cameras",     "4-cameras"};
  return words;
}

void AddFisheyeOptions(Command command, FisheyeArguments& arguments) {
  command.AddOption("--dewarp", arguments.view, "the view of a fisheye camera's pictures")
      .OneOf(FisheyeViewWords());
  command.AddOption("--mount", arguments.mount, "where the fisheye camera is").OneOf(kMounts);
  command.AddOption("--lens", arguments.lens, "its projection").OneOf(kLenses);
  command.AddOption("--field-of-view", arguments.fieldOfView, "of its lens, from edge to edge")
      .TypeName("DEGREES")
      .InRange(1, 359);
  command
      .AddOption("--circle", arguments.circle,
                 "what the lens shows, in pixels; without it looked for in the picture")
      .TypeName("X,Y,RADIUS");
  command
      .AddOption("--look", arguments.look,
                 "where a virtual camera looks, in degrees; once for each of them")
      .Repeatable()
      .TypeName("PAN,TILT[,ZOOM]");
}

cms::FisheyeSettings FisheyeOf(const FisheyeArguments& arguments) {
  cms::FisheyeSettings settings;
  stFisheyeParameter& parameter = settings.parameter;
  if (!arguments.view.empty()) {
    parameter.viewMode = NumberOf(arguments.view, FisheyeViewWords());
  }
  parameter.mount = NumberOf(arguments.mount, kMounts);
  parameter.lens = NumberOf(arguments.lens, kLenses);
  parameter.fieldOfView = arguments.fieldOfView;
  if (!arguments.circle.empty()) {
    ReadCircle(arguments.circle, &parameter);
  }
  if (arguments.look.size() > settings.positions.size()) {
    throw UsageError("--look", "there are four virtual cameras at most");
  }
  for (std::size_t i = 0; i < arguments.look.size(); ++i) {
    cms::stDewarpCamera camera = ReadLook(arguments.look[i]);
    camera.camera = static_cast<int>(i);
    settings.Move(camera);
  }
  return settings;
}

}  // namespace tools
