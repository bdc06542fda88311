#include "tools/testcamera/onvif/param_cgi.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <optional>
#include <utility>
#include <vector>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {
namespace {

constexpr char kResolution[] = "Image.I0.Appearance.Resolution";
constexpr char kDisable[] = "disable";

// Numbers that an encoder holds, so that ONVIF clients see them as well: of the first or second
// encoder of that encoding.
constexpr struct {
  const char* name;
  const char* encoding;
  int nth;
  int Encoder::*member;
  int lowest;
  int highest;
} kOfEncoders[] = {
    {"Image.I0.Appearance.Mpeg4Bitrate", "MPEG4", 0, &Encoder::bitrate, 16, 20000},
    {"Image.I0.Appearance.Mpeg4VideoKeyFrameInterval", "MPEG4", 0, &Encoder::gop, 1, 300},
    {"Image.I0.Appearance.H264Bitrate", "H264", 0, &Encoder::bitrate, 16, 20000},
    {"Image.I0.Appearance.H264VideoKeyFrameInterval", "H264", 0, &Encoder::gop, 1, 300},
    {"Image.I0.Appearance.H264_2Bitrate", "H264", 1, &Encoder::bitrate, 16, 20000},
    {"Image.I0.Appearance.H264_2VideoKeyFrameInterval", "H264", 1, &Encoder::gop, 1, 300},
    {"Framerate.Mjpeg", "JPEG", 0, &Encoder::fps, 1, 60},
    {"Framerate.H264", "H264", 0, &Encoder::fps, 1, 60},
    {"Framerate.H264_2", "H264", 1, &Encoder::fps, 1, 60},
};

// What the CGI's option list names; such a parameter takes nothing else.
constexpr std::pair<const char*, const char*> kChoices[] = {
    {"AudioSource.A0.BitRate", "alaw,ulaw,16000,24000,32000,40000"},
    {"Image.I0.Appearance.Rotation", "0,180,mirror,flip"},
    {"Image.I0.RateControl.H264Mode", "cbr,vbr"},
    {"Image.I0.RateControl.H264_2Mode", "cbr,vbr"},
    {"Image.I0.RateControl.Mpeg4Mode", "cbr,vbr"},
    {"ImageSource.I0.Sensor.3DNR", "off,low,middle,high"},
    {"ImageSource.I0.Sensor.Exposure", "auto,hold,flickerfree50,flickerfree60"},
};

using Query = std::vector<std::pair<std::string, std::string>>;

std::string Decoded(std::string text) {
  std::replace(text.begin(), text.end(), '+', ' ');
  const TextPtr decoded(g_uri_unescape_string(text.c_str(), nullptr));
  return decoded == nullptr ? std::string() : decoded.get();
}

std::vector<std::string> Split(const std::string& text, char at) {
  std::vector<std::string> parts{""};
  for (const char each : text) {
    if (each == at) {
      parts.emplace_back();
    } else {
      parts.back() += each;
    }
  }
  return parts;
}

Query ParseQuery(const std::string& text) {
  Query query;
  for (const std::string& item : Split(text, '&')) {
    const std::size_t equals = item.find('=');
    if (equals != std::string::npos) {
      query.emplace_back(Decoded(item.substr(0, equals)), Decoded(item.substr(equals + 1)));
    }
  }
  return query;
}

bool SameName(const std::string& a, const std::string& b) {
  return g_ascii_strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The name, or a group that holds it.
bool InGroup(const std::string& name, std::string group) {
  if (group.starts_with("root.")) {
    group.erase(0, 5);
  }
  return SameName(name, group) ||
         g_ascii_strncasecmp(name.c_str(), (group + ".").c_str(), group.size() + 1) == 0;
}

std::optional<int> Number(const std::string& text, int lowest, int highest) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < lowest ||
      number > highest) {
    return std::nullopt;
  }
  return number;
}

Encoder* NthEncoder(CameraSettings& settings, const std::string& encoding, int nth) {
  for (Encoder& each : settings.encoders) {
    if (each.encoding == encoding && nth-- == 0) {
      return &each;
    }
  }
  return nullptr;
}

// The keyword of a stream's size, or "640x360" and the like where there is none.
std::string Keyword(const Encoder& encoder, const std::vector<FrameSize>& sizes) {
  const auto size = std::find_if(sizes.begin(), sizes.end(), [&](const FrameSize& each) {
    return each.width == encoder.width && each.height == encoder.height;
  });
  return size != sizes.end() ? size->keyword
                             : std::to_string(encoder.width) + "x" + std::to_string(encoder.height);
}

std::string Resolutions(const CameraSettings& settings) {
  const std::vector<FrameSize> sizes = FrameSizes(settings.Is50Hz());
  std::string list;
  for (const Encoder& each : settings.encoders) {
    list += list.empty() ? "" : ",";
    list += each.enabled ? Keyword(each, sizes) : kDisable;
  }
  return list;
}

bool SetResolutions(CameraSettings& settings, const std::string& list) {
  const std::vector<std::string> keywords = Split(list, ',');
  const std::vector<FrameSize> sizes = FrameSizes(settings.Is50Hz());
  if (keywords.size() != settings.encoders.size()) {
    return false;
  }
  for (std::size_t i = 0; i < keywords.size(); ++i) {
    Encoder& encoder = settings.encoders[i];
    encoder.enabled = keywords[i] != kDisable;
    const auto size = std::find_if(sizes.begin(), sizes.end(), [&](const FrameSize& each) {
      return each.keyword == keywords[i];
    });
    if (size != sizes.end()) {
      encoder.width = size->width;
      encoder.height = size->height;
    } else if (encoder.enabled && keywords[i] != Keyword(encoder, sizes)) {
      return false;
    }
  }
  return true;
}

using Parameters = std::map<std::string, std::string>;

Parameters AllParameters(CameraSettings& settings) {
  Parameters all = settings.others;
  all[kResolution] = Resolutions(settings);
  all["ImageSource.I0.Video.DetectedType"] = settings.Is50Hz() ? "pal" : "ntsc";
  for (const auto& each : kOfEncoders) {
    if (const Encoder* encoder = NthEncoder(settings, each.encoding, each.nth)) {
      all[each.name] = std::to_string(encoder->*each.member);
    }
  }
  return all;
}

bool Set(CameraSettings& settings, const std::string& name, const std::string& value) {
  if (SameName(name, kResolution)) {
    return SetResolutions(settings, value);
  }
  for (const auto& each : kOfEncoders) {
    Encoder* encoder = NthEncoder(settings, each.encoding, each.nth);
    if (SameName(name, each.name) && encoder != nullptr) {
      const auto number = Number(value, each.lowest, each.highest);
      encoder->*each.member = number.value_or(0);
      return number.has_value();
    }
  }
  const auto kept = std::find_if(settings.others.begin(), settings.others.end(),
                                 [&](const auto& each) { return SameName(each.first, name); });
  if (kept == settings.others.end()) {
    return false;
  }
  const bool wasNumber = Number(kept->second, 0, INT_MAX).has_value();
  kept->second = value;
  for (const auto& [key, choices] : kChoices) {
    if (SameName(name, key)) {
      const std::vector<std::string> words = Split(choices, ',');
      return std::find(words.begin(), words.end(), value) != words.end();
    }
  }
  return !wasNumber || Number(value, 0, INT_MAX).has_value();
}

void AddLine(std::string* answer, const std::string& name, const std::string& value, bool crlf) {
  *answer += "root." + name + "=" + value + (crlf ? "\r\n" : "\n");
}

}  // namespace

std::string AnswerParamCgi(CameraState& camera, const std::string& queryText) {
  const Query query = ParseQuery(queryText);
  std::string action;
  std::vector<std::string> groups;
  Query updates;
  for (const auto& [name, value] : query) {
    if (name == "action") {
      action = value;
    } else if (name == "group") {
      groups.push_back(value);
    } else {
      updates.emplace_back(name, value);
    }
  }
  const bool crlf = camera.onvif.style.pretty;
  std::string answer;
  const auto wanted = [&](const std::string& name) {
    return groups.empty() || std::any_of(groups.begin(), groups.end(),
                                         [&](const auto& group) { return InGroup(name, group); });
  };
  if (action == "options") {
    for (const auto& [name, choices] : kChoices) {
      AddLine(&answer, name, choices, crlf);
    }
    return answer;
  }
  if (action == "update" && !updates.empty()) {
    CameraSettings changed = camera.settings;
    for (const auto& [name, value] : updates) {
      if (!Set(changed, name, value)) {
        return kInvalidValue;
      }
      groups.push_back(name);
    }
    camera.settings = std::move(changed);
  } else if (action != "list") {
    return kInvalidValue;
  }
  for (const auto& [name, value] : AllParameters(camera.settings)) {
    if (wanted(name)) {
      AddLine(&answer, name, value, crlf);
    }
  }
  return answer;
}

std::string AnswerTvSystemCgi(CameraState& camera, const std::string& queryText) {
  for (const auto& [name, value] : ParseQuery(queryText)) {
    const auto index = Number(value, 0, 7);
    if (name == "tvsystem" && index) {
      // Streams keep their keywords, some of which have other sizes in the other system.
      const std::string resolutions = Resolutions(camera.settings);
      camera.settings.tvSystem = *index;
      SetResolutions(camera.settings, resolutions);
      return "OK\n";
    }
  }
  return kInvalidValue;
}

}  // namespace testcamera
