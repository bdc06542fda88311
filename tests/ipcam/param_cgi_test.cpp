// The parameter CGI, to the byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "cms/ipcam/config_utility.h"
#include "cms/runtime/wide_text.h"
#include "tests/ipcam/scripted_camera_site.h"

namespace {

using test::FastUtility;
using test::HttpRequestText;
using test::ScriptedHttpServer;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kBase = "/cgi-bin/admin/param.cgi?action=";
const std::string kResolutionQuery = kBase +
                                     "list&group=Image.I0.Appearance.Resolution"
                                     "&group=ImageSource.I0&group=Fisheye";

// Keeps its resolutions; refuses cif.
class Camera {
 public:
  ScriptedHttpServer::Handler Handler() {
    return [this](const HttpRequestText& request) {
      const std::string target = request.Target();
      const std::string update = kBase + "update&Image.I0.Appearance.Resolution=";
      if (target.starts_with(update) && target.find("cif") != std::string::npos) {
        return ScriptedHttpServer::Ok("Error:invalid value\n");
      }
      if (target.starts_with(update)) {
        resolutions = target.substr(update.size(), target.size() - update.size() - 1);
      }
      if (target == kResolutionQuery) {
        return ScriptedHttpServer::Ok("root.Image.I0.Appearance.Resolution=" + resolutions +
                                      "\r\nroot.ImageSource.I0.Video.DetectedType=pal\r\n"
                                      "root.Fisheye.Mode=1\r\n");
      }
      return ScriptedHttpServer::Ok("root.Brand.Brand=Acme\nroot.Brand.ProdShortName=D 2=x\r\n");
    };
  }
  std::string resolutions = "1080p,disable,vga";
};

std::vector<std::string> Targets(const ScriptedHttpServer& camera) {
  std::vector<std::string> targets;
  for (const HttpRequestText& request : camera.Requests()) {
    targets.push_back(request.Target());
  }
  return targets;
}

TEST(ParamCgi, ReadsNamesListsAndResolutions) {
  Camera camera;
  ScriptedHttpServer server(camera.Handler());
  FastUtility utility(server.Port());
  std::wstring name;
  std::vector<cms::stCameraParameter> parameters;
  EXPECT_TRUE(utility.GetProdShortName(name));
  EXPECT_EQ(name, L"D 2=x");
  EXPECT_TRUE(utility.GetParameters({L"Image", L"a&b=c"}, parameters));
  EXPECT_THAT(parameters, ElementsAre(cms::stCameraParameter{L"Brand.Brand", L"Acme"},
                                      cms::stCameraParameter{L"Brand.ProdShortName", L"D 2=x"}));
  EXPECT_TRUE(utility.GetParameters({}, parameters) && utility.GetParameterOptions(parameters));
  EXPECT_TRUE(utility.GetVideoResolutionAPIConfig());
  EXPECT_TRUE(utility.SetTVSystem(3));
  EXPECT_FALSE(utility.SetTVSystem(8) || utility.SetTVSystem(-1));
  EXPECT_THAT(Targets(server),
              ElementsAre(kBase + "list&group=Brand", kBase + "list&group=Image&group=a%26b%3Dc",
                          kBase + "list", kBase + "options", kResolutionQuery,
                          "/cgi-bin/tvsystem.cgi?tvsystem=3"));
  EXPECT_EQ(server.Requests()[0].Header("Authorization"), "Basic YWRtaW46c2VjcmV0");

  const cms::stResolutionConfiguration& read = utility.ResolutionConfiguration();
  EXPECT_TRUE(read.fisheye && read.pal);
  ASSERT_EQ(read.streams.size(), 3U);
  EXPECT_EQ(read.streams[1].key, L"disable");
  EXPECT_EQ(read.streams[2].stream, 3);
}

TEST(ParamCgi, ResolutionsAreWrittenInTheFormsThatCamerasTakeAndReadBack) {
  Camera camera;
  ScriptedHttpServer server(camera.Handler());
  FastUtility utility(server.Port());
  ASSERT_TRUE(utility.GetVideoResolutionAPIConfig());
  EXPECT_TRUE(utility.SetVideoResolutionAPIConfig(L"1080p,disable,vga"));  // as it is
  EXPECT_EQ(server.Requests().size(), 1U);

  // Every pattern of three to five streams: which of them cameras take.
  int accepted = 0;
  for (int count = 2; count <= 6; ++count) {
    for (int on = 0; on < 1 << count; ++on) {
      std::wstring list;
      for (int i = 0; i < count; ++i) {
        list += (i > 0 ? L"," : L"") + std::wstring((on >> i & 1) != 0 ? L"720p" : L"disable");
      }
      const std::size_t before = server.Requests().size();
      if (!utility.SetVideoResolutionAPIConfig(list)) {
        EXPECT_EQ(server.Requests().size(), before);
        continue;
      }
      ++accepted;
      EXPECT_EQ(Targets(server)[before],
                kBase + "update&Image.I0.Appearance.Resolution=" + cms::Utf8FromWide(list) + "&");
      EXPECT_EQ(Targets(server)[before + 1], kResolutionQuery);
      EXPECT_EQ(utility.ResolutionConfiguration().combination, list);
      EXPECT_EQ(utility.ResolutionConfiguration().streams.size(), static_cast<std::size_t>(count));
    }
  }
  EXPECT_EQ(accepted, 6 + 6 + 6);

  const std::wstring before = utility.ResolutionConfiguration().combination;
  EXPECT_FALSE(utility.SetVideoResolutionAPIConfig(L"720p,cif,720p"));
  EXPECT_THAT(utility.LastError(), HasSubstr("refused a value"));
  EXPECT_EQ(utility.ResolutionConfiguration().combination, before);
  EXPECT_FALSE(utility.SetVideoResolutionAPIConfig(L"720p,x&y=1,720p"));
  EXPECT_THAT(utility.LastError(), HasSubstr("\"x&y=1\" is no resolution"));
}

TEST(ParamCgi, ParametersAreCheckedAndSentInOneRequest) {
  Camera camera;
  ScriptedHttpServer server(camera.Handler());
  FastUtility utility(server.Port());
  EXPECT_TRUE(utility.SetParameters({{L"Image.I0.Appearance.H264Bitrate", L"4096"},
                                     {L"Framerate.Mjpeg", L"25"},
                                     {L"ImageSource.I0.Sensor.Exposure", L"a b&c=\u00e9"},
                                     {L"AudioSource.A0.BitRate", L"ulaw"}}))
      << utility.LastError();
  EXPECT_EQ(Targets(server)[0],
            kBase +
                "update&Image.I0.Appearance.H264Bitrate=4096&Framerate.MJPEG=25"
                "&ImageSource.I0.Sensor.Exposure=a%20b%26c%3D%C3%A9&AudioSource.A0.BitRate=ulaw");
  for (const cms::stCameraParameter& bad :
       std::vector<cms::stCameraParameter>{{L"Image.I0.Appearance.H264Bitrate", L"fast"},
                                           {L"Image.I0.Appearance.H264Bitrate", L"-1"},
                                           {L"Framerate.H264", L""},
                                           {L"AudioSource.A0.BitRate", L"8000"},
                                           {L"Brand.Brand", L"Mine"}}) {
    EXPECT_FALSE(utility.SetParameters({bad}));
  }
  EXPECT_EQ(server.Requests().size(), 1U);
}

TEST(ParamCgi, FailuresAreTold) {
  std::string answer = "HTTP/1.1 401 Unauthorized\r\n\r\n";
  ScriptedHttpServer server([&answer](const HttpRequestText&) { return answer; });
  FastUtility utility(server.Port(), L"admin", L"hush-hush");
  EXPECT_FALSE(utility.SetVideoResolutionAPIConfig(L"720p,vga,vga"));
  EXPECT_EQ(utility.LastResult(), cms::kHttpCommandUnauthorized);
  EXPECT_THAT(utility.LastError(), testing::Not(HasSubstr("hush")));
  answer = ScriptedHttpServer::Ok("root.Brand.Brand=Acme\n");
  std::wstring name = L"before";
  EXPECT_FALSE(utility.GetProdShortName(name));
  EXPECT_EQ(name, L"before");
  EXPECT_EQ(utility.LastResult(), cms::kHttpCommandFailed);
  EXPECT_FALSE(utility.GetVideoResolutionAPIConfig());
  answer = ScriptedHttpServer::Ok(std::string(70'000, 'x'));
  EXPECT_FALSE(utility.GetVideoResolutionAPIConfig());
  EXPECT_THAT(utility.LastError(), HasSubstr("longer than 65535 bytes"));
}

}  // namespace
