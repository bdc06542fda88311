// What was read over ONVIF as JSON, named as in the ONVIF schema.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "cms/ipcam/onvif_types.h"

namespace tools {

nlohmann::ordered_json ToJson(const cms::stONVIFDeviceInformation& device);
nlohmann::ordered_json ToJson(const cms::stVideoEncoderConfiguration& encoder);
nlohmann::ordered_json ToJson(const cms::stVideoEncoderOptions& options);
nlohmann::ordered_json ToJson(const cms::stVideoProfile& profile);
nlohmann::ordered_json ToJson(const cms::stImagingSettings& imaging);
nlohmann::ordered_json ToJson(const cms::stImagingOptions& options);
nlohmann::ordered_json ToJson(const cms::stNetworkConfiguration& network);

// An array of what each becomes.
template <typename List>
nlohmann::ordered_json ListJson(const List& list) {
  nlohmann::ordered_json array = nlohmann::ordered_json::array();
  for (const auto& each : list) {
    array.push_back(ToJson(each));
  }
  return array;
}

}  // namespace tools
