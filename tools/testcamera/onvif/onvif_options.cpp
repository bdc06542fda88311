#include "tools/testcamera/onvif/onvif_options.h"

#include <utility>

namespace testcamera {
namespace {

constexpr std::pair<std::string_view, bool OnvifStyle::*> kTraits[] = {
    {"prefixes", &OnvifStyle::prefixes},         {"pretty", &OnvifStyle::pretty},
    {"attributes", &OnvifStyle::attributes},     {"sparse", &OnvifStyle::sparse},
    {"addresses", &OnvifStyle::addresses},       {"fault", &OnvifStyle::fault},
    {"unauthorized", &OnvifStyle::unauthorized}, {"truncated", &OnvifStyle::truncated},
    {"endless", &OnvifStyle::endless},           {"silent", &OnvifStyle::silent},
    {"duplicates", &OnvifStyle::duplicates},     {"garbage", &OnvifStyle::garbage},
    {"computer", &OnvifStyle::computer},         {"fisheye", &OnvifStyle::fisheye},
};

}  // namespace

std::string OnvifStyleWords() {
  std::string words = "plain";
  for (const auto& [word, trait] : kTraits) {
    (words += ' ') += word;
  }
  return words;
}

bool AddOnvifStyle(std::string_view word, OnvifStyle* style) {
  for (const auto& [name, trait] : kTraits) {
    if (name == word) {
      style->*trait = true;
      return true;
    }
  }
  return word == "plain";
}

}  // namespace testcamera
