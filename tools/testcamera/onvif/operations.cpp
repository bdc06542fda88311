#include "tools/testcamera/onvif/operations.h"

#include <gio/gio.h>

#include <algorithm>
#include <charconv>

namespace testcamera {
namespace {

// xsd:int and xsd:float share the way they are read here; a sign in front is good XML.
template <typename Number>
void ReadAs(const xmlNode* parent, const char* path, Number lowest, Number highest, Number* value) {
  const auto text = TextAt(parent, path);
  if (!text) {
    return;
  }
  const char* first = text->c_str() + (text->starts_with('+') ? 1 : 0);
  Number number{};
  const auto [end, error] = std::from_chars(first, text->c_str() + text->size(), number);
  if (error != std::errc() || *end != '\0' || number < lowest || number > highest) {
    InvalidValue(std::string(path) + " " + *text);
  }
  *value = number;
}

}  // namespace

void InvalidValue(const std::string& what) {
  throw SoapFault{"ter:InvalidArgVal", "ter:ConfigModify", "The camera does not take " + what};
}

void Read(const xmlNode* parent, const char* path, std::string* value) {
  if (const auto text = TextAt(parent, path)) {
    *value = *text;
  }
}

void Read(const xmlNode* parent, const char* path, bool* value) {
  if (const auto text = TextAt(parent, path)) {
    if (*text != "true" && *text != "1" && *text != "false" && *text != "0") {
      InvalidValue(std::string(path) + " " + *text);
    }
    *value = *text == "true" || *text == "1";
  }
}

void ReadNumber(const xmlNode* parent, const char* path, int lowest, int highest, int* value) {
  ReadAs(parent, path, lowest, highest, value);
}

void ReadNumber(const xmlNode* parent, const char* path, double lowest, double highest,
                double* value) {
  ReadAs(parent, path, lowest, highest, value);
}

void ReadWord(const xmlNode* parent, const char* path, const std::vector<std::string>& words,
              std::string* value) {
  const auto text = TextAt(parent, path);
  if (text && std::find(words.begin(), words.end(), *text) == words.end()) {
    InvalidValue(std::string(path) + " " + *text);
  }
  *value = text.value_or(*value);
}

void ReadAddress(const xmlNode* parent, const char* path, std::string* value) {
  const auto text = TextAt(parent, path);
  if (text &&
      (g_hostname_is_ip_address(text->c_str()) == FALSE || text->find(':') < text->size())) {
    InvalidValue(std::string(path) + " " + *text);
  }
  *value = text.value_or(*value);
}

}  // namespace testcamera
