// orvanta param: a camera's settings over its parameter CGI.
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/runtime/wide_text.h"
#include "tools/commands/command.h"
#include "tools/support/camera_site.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct ParamArguments {
  SiteArguments site;
  std::string group;
  std::string combination;
  std::vector<std::string> settings;
  int system = 0;
};

Json ReadParameters(CameraSite& site, const std::vector<std::wstring>& groups) {
  std::vector<cms::stCameraParameter> parameters;
  site.Require(site->GetParameters(groups, parameters));
  Json json = Json::object();
  for (const cms::stCameraParameter& each : parameters) {
    json[cms::Utf8FromWide(each.name)] = cms::Utf8FromWide(each.value);
  }
  return json;
}

Json Name(CameraSite& site, const ParamArguments&) {
  std::wstring name;
  site.Require(site->GetProdShortName(name));
  return {{"Brand.ProdShortName", cms::Utf8FromWide(name)}};
}

Json List(CameraSite& site, const ParamArguments& arguments) {
  return arguments.group.empty() ? ReadParameters(site, {})
                                 : ReadParameters(site, {cms::WideFromUtf8(arguments.group)});
}

Json ParamOptions(CameraSite& site, const ParamArguments&) {
  std::vector<cms::stCameraParameter> options;
  site.Require(site->GetParameterOptions(options));
  Json json = Json::object();
  for (const cms::stCameraParameter& each : options) {
    json[cms::Utf8FromWide(each.name)] = cms::Utf8FromWide(each.value);
  }
  return json;
}

Json Resolutions(CameraSite& site, const ParamArguments&) {
  site.Require(site->GetVideoResolutionAPIConfig());
  const cms::stResolutionConfiguration& resolution = site->ResolutionConfiguration();
  Json streams = Json::array();
  for (const cms::stStreamResolution& each : resolution.streams) {
    streams.push_back({{"stream", each.stream}, {"key", cms::Utf8FromWide(each.key)}});
  }
  return {{"Image.I0.Appearance.Resolution", cms::Utf8FromWide(resolution.combination)},
          {"streams", streams},
          {"fisheye", resolution.fisheye},
          {"pal", resolution.pal}};
}

Json SetResolutions(CameraSite& site, const ParamArguments& arguments) {
  site.Require(site->GetVideoResolutionAPIConfig());
  site.Require(site->SetVideoResolutionAPIConfig(cms::WideFromUtf8(arguments.combination)));
  return Resolutions(site, arguments);
}

// Prints what the camera has afterwards.
Json Set(CameraSite& site, const ParamArguments& arguments) {
  std::vector<cms::stCameraParameter> parameters;
  std::vector<std::wstring> names;
  for (const std::string& each : arguments.settings) {
    const std::size_t equals = each.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageError("set", "\"" + each + "\" is not of the form NAME=VALUE");
    }
    names.push_back(cms::WideFromUtf8(each.substr(0, equals)));
    parameters.push_back({names.back(), cms::WideFromUtf8(each.substr(equals + 1))});
  }
  site.Require(site->SetParameters(parameters));
  return ReadParameters(site, names);
}

Json TvSystem(CameraSite& site, const ParamArguments& arguments) {
  site.Require(site->SetTVSystem(arguments.system));
  return ReadParameters(site, {L"ImageSource.I0.Video"});
}

}  // namespace

void AddParamCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<ParamArguments>();
  const auto add = SiteSubcommands(
      AddSiteCommand(app, "param", "Read and change a camera's settings over its parameter CGI",
                     arguments->site),
      arguments, result);
  add("name", "The product's name", Name);
  add("list", "All parameters, or those of one group", List)
      .AddOption("group", arguments->group)
      .TypeName("GROUP");
  add("options", "What parameters can be set to", ParamOptions);
  add("resolutions", "The resolution of each stream", Resolutions);
  add("set-resolutions", "Sets them; \"disable\" switches a stream off", SetResolutions)
      .AddOption("resolutions", arguments->combination)
      .Required()
      .TypeName("A,B,C");
  add("set", "Sets parameters and prints what the camera has then", Set)
      .AddOption("settings", arguments->settings)
      .Required()
      .TypeName("NAME=VALUE");
  add("tv-system", "Sets the video system", TvSystem)
      .AddOption("system", arguments->system, "0 to 7; odd numbers are 50 Hz systems")
      .Required()
      .InRange(0, 7);
}

}  // namespace tools
