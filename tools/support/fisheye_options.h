// The options by which commands look at a fisheye camera's pictures.
#pragma once

#include <string>
#include <vector>

#include "cms/live/media/fisheye.h"
#include "tools/support/options.h"

namespace tools {

struct FisheyeArguments {
  std::string view;
  std::string mount = "ceiling";
  std::string lens = "equidistant";
  int fieldOfView = 180;
  std::string circle;
  std::vector<std::string> look;
};

// --dewarp VIEW, --mount, --lens, --field-of-view, --circle and --look.
void AddFisheyeOptions(Command command, FisheyeArguments& arguments);

// Throws UsageError for what cannot be read. Without --dewarp nothing is dewarped.
cms::FisheyeSettings FisheyeOf(const FisheyeArguments& arguments);

// The words of --dewarp, in the order of the view modes from 0 ("original") on.
const std::vector<std::string>& FisheyeViewWords();

}  // namespace tools
