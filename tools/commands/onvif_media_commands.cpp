#include "tools/commands/onvif_media_commands.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_media.h"
#include "cms/runtime/wide_text.h"
#include "tools/support/onvif_json.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

using MediaSite = OnvifSite<cms::OnvifMedia>;

Json Media(const SiteArguments& arguments) {
  MediaSite site(AccessOf(arguments));
  std::vector<cms::stVideoProfile> profiles;
  site.Require(site->ReadProfiles(profiles));
  Json answer{{"Profiles", Json::array()}, {"Options", Json::array()}};
  for (const cms::stVideoProfile& profile : profiles) {
    answer["Profiles"].push_back(ToJson(profile));
    std::string uri;
    if (profile.videoEncoder && site->ReadStreamUri(cms::Utf8FromWide(profile.token), uri)) {
      answer["Profiles"].back()["Uri"] = uri;
    }
  }
  for (const cms::stVideoProfile& profile : profiles) {
    cms::stVideoEncoderOptions options;
    if (profile.videoEncoder &&
        site->ReadEncoderOptions(cms::Utf8FromWide(profile.videoEncoder->token), options)) {
      answer["Options"].push_back(ToJson(options));
    }
  }
  return answer;
}

Json Snapshot(const SiteArguments& arguments, std::string profile, const std::string& path) {
  MediaSite site(AccessOf(arguments));
  if (profile.empty()) {
    std::vector<cms::stVideoProfile> profiles;
    site.Require(site->ReadProfiles(profiles));
    if (profiles.empty()) {
      throw std::runtime_error("the camera has no profile");
    }
    profile = cms::Utf8FromWide(profiles.front().token);
  }
  std::string picture;
  site.Require(site->FetchSnapshot(profile, picture));
  std::ofstream file(path, std::ios::binary);
  if (!file.write(picture.data(), static_cast<std::streamsize>(picture.size())).flush()) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  return {{"File", path}, {"Bytes", picture.size()}};
}

}  // namespace

void AddOnvifMediaCommands(Command onvif, const SiteArguments& site, CommandResult& result) {
  onvif.Add("media", "Profiles with their streams, H.265 and AAC too, and what encoders can be")
      .RunWithParent([&site, &result] {
        PrintAnswer(Media(site), site.json);
        result.status = 0;
      });
  struct Arguments {
    std::string file;
    std::string profile;
  };
  auto arguments = std::make_shared<Arguments>();
  const Command snapshot = onvif.Add("snapshot", "A picture of this moment into a file");
  snapshot.AddOption("file", arguments->file, "Mostly a JPEG").Required().TypeName("FILE");
  snapshot.AddOption("--profile", arguments->profile, "Its token; the first one's when not given");
  snapshot.RunWithParent([&site, arguments, &result] {
    PrintAnswer(Snapshot(site, arguments->profile, arguments->file), site.json);
    result.status = 0;
  });
}

}  // namespace tools
