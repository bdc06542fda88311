#include "tools/fleet/camera_list.h"

#include <charconv>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tools {
namespace {

constexpr char kColumns[] =
    "camera,name,url,user,transport,group,spill,weight,copies,plan,keep_days,on";

using CsvRow = std::vector<std::string>;

struct CsvFault : std::runtime_error {
  CsvFault(std::size_t line, const std::string& text)
      : std::runtime_error("line " + std::to_string(line) + ": " + text) {}
};

// Fields may be quoted, with "" for a quote within; a quoted one may hold line ends.
std::vector<CsvRow> ReadRows(const std::string& text) {
  std::vector<CsvRow> rows;
  CsvRow row{""};
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char sign = text[i];
    if (quoted) {
      if (sign == '"' && i + 1 < text.size() && text[i + 1] == '"') {
        row.back() += text[++i];
      } else if (sign == '"') {
        quoted = false;
      } else {
        row.back() += sign;
      }
    } else if (sign == '"' && row.back().empty()) {
      quoted = true;
    } else if (sign == ',') {
      row.emplace_back();
    } else if (sign == '\n') {
      rows.push_back(std::exchange(row, {""}));
    } else if (sign != '\r') {
      row.back() += sign;
    }
  }
  if (quoted) {
    throw CsvFault(rows.size() + 1, "a quote is not closed");
  }
  if (row.size() > 1 || !row.front().empty()) {
    rows.push_back(std::move(row));
  }
  return rows;
}

unsigned NumberIn(const std::string& text, std::size_t line) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw CsvFault(line, "\"" + text + "\" is no number");
  }
  return number;
}

bool FlagIn(const std::string& text, std::size_t line) {
  if (text != "true" && text != "false") {
    throw CsvFault(line, "\"" + text + "\" is neither true nor false");
  }
  return text == "true";
}

void TakeField(ListedCamera& listed, const std::string& column, const std::string& text,
               std::size_t line) {
  auto& camera = listed.camera;
  const std::map<std::string, std::string*> texts{
      {"camera", &listed.name}, {"name", &camera.name},           {"url", &camera.url},
      {"user", &camera.user},   {"transport", &camera.transport}, {"group", &camera.group},
      {"plan", &camera.plan},   {"password", &listed.password}};
  const std::map<std::string, unsigned*> numbers{
      {"weight", &camera.weight}, {"copies", &camera.copies}, {"keep_days", &camera.keepDays}};
  const std::map<std::string, bool*> flags{{"spill", &camera.spill}, {"on", &camera.on}};
  if (const auto found = texts.find(column); found != texts.end()) {
    *found->second = text;
  } else if (const auto number = numbers.find(column); number != numbers.end()) {
    *number->second = NumberIn(text, line);
  } else if (const auto flag = flags.find(column); flag != flags.end()) {
    *flag->second = FlagIn(text, line);
  } else {
    throw CsvFault(
        1, "there is no column \"" + column + "\"; those there are: " + kColumns + ",password");
  }
}

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) {
    return text;
  }
  std::string quoted = "\"";
  for (const char sign : text) {
    quoted += sign == '"' ? "\"\"" : std::string(1, sign);
  }
  return quoted + "\"";
}

}  // namespace

std::vector<ListedCamera> ParseCameraList(const std::string& text) {
  const std::vector<CsvRow> rows = ReadRows(text);
  std::vector<ListedCamera> cameras;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    ListedCamera listed;
    for (std::size_t column = 0; column < rows[i].size() && column < rows[0].size(); ++column) {
      if (!rows[i][column].empty()) {
        TakeField(listed, rows[0][column], rows[i][column], i + 1);
      }
    }
    if (!cms::fleet::IsFleetName(listed.name)) {
      throw CsvFault(i + 1, "\"" + listed.name + "\" is no name of a camera");
    }
    if (listed.camera.url.find("://") == std::string::npos ||
        listed.camera.url.find('@') != std::string::npos) {
      throw CsvFault(i + 1, "the url is none, or has a login in it");
    }
    if (listed.camera.weight == 0 || listed.camera.copies == 0 ||
        listed.camera.copies > cms::fleet::kMostCopies) {
      throw CsvFault(i + 1, "weight is 1 at least, copies are 1 to " +
                                std::to_string(cms::fleet::kMostCopies));
    }
    cameras.push_back(std::move(listed));
  }
  return cameras;
}

std::vector<ListedCamera> ReadCameraList(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  if (!(text << file.rdbuf())) {
    throw std::runtime_error(path + ": it cannot be read, or is empty");
  }
  try {
    return ParseCameraList(text.str());
  } catch (const CsvFault& fault) {
    throw std::runtime_error(path + ": " + fault.what());
  }
}

std::string CameraListText(const cms::fleet::FleetView& view) {
  std::string text = std::string(kColumns) + "\n";
  for (const auto& [name, camera] : view.cameras) {
    const auto flag = [](bool value) { return std::string(value ? "true" : "false"); };
    text += name;
    for (const std::string& field :
         {camera.name, camera.url, camera.user, camera.transport, camera.group, flag(camera.spill),
          std::to_string(camera.weight), std::to_string(camera.copies), camera.plan,
          std::to_string(camera.keepDays), flag(camera.on)}) {
      text += "," + CsvField(field);
    }
    text += "\n";
  }
  return text;
}

}  // namespace tools
