// Pictures on their way to a browser: one line of JSON, then as many bytes of JPEG as it says.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace tools {

// JSON as text that is harmless also where a browser takes it for a page.
std::string HarmlessJson(const nlohmann::ordered_json& value);

// A whole record, shared by everybody whom it is sent to. `about` gets the member "bytes".
using PictureRecord = std::shared_ptr<const std::string>;
PictureRecord MakePictureRecord(nlohmann::ordered_json about, const std::string& jpeg);

}  // namespace tools
