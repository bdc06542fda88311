#include "tools/serve/picture_record.h"

#include <string_view>

namespace tools {

// The server calls every answer text/html. "<", ">" and "&" only occur inside of texts.
std::string HarmlessJson(const nlohmann::ordered_json& value) {
  std::string harmless;
  for (const char each :
       value.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace)) {
    switch (each) {
      case '<':
        harmless += "\\u003c";
        break;
      case '>':
        harmless += "\\u003e";
        break;
      case '&':
        harmless += "\\u0026";
        break;
      default:
        harmless += each;
    }
  }
  return harmless;
}

PictureRecord MakePictureRecord(nlohmann::ordered_json about, const std::string& jpeg) {
  about["bytes"] = jpeg.size();
  return std::make_shared<const std::string>(HarmlessJson(about) + "\n" + jpeg);
}

}  // namespace tools
