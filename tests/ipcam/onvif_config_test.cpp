// Whole cameras over ONVIF: what is read of them in several spellings, and what changes them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "cms/ipcam/config_utility.h"
#include "tests/ipcam/scripted_camera_site.h"

namespace {

using test::FastUtility;
using test::HttpRequestText;
using test::ScriptedHttpServer;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> Operations(const ScriptedHttpServer& camera) {
  std::vector<std::string> names;
  for (const HttpRequestText& request : camera.Requests()) {
    names.push_back(test::OperationOf(request));
  }
  return names;
}

std::string Body(const HttpRequestText& request) {
  const std::size_t begin = request.body.find("<SOAP-ENV:Body>") + 15;
  return request.body.substr(begin, request.body.find("</SOAP-ENV:Body>") - begin);
}

class WholeCamera : public testing::TestWithParam<const char*> {};

TEST_P(WholeCamera, IsReadWithOneRequestForEachQuestion) {
  ScriptedHttpServer camera(test::OnvifAnswers(GetParam()));
  FastUtility utility(camera.Port());
  ASSERT_TRUE(utility.GetAllONVIFConfig()) << utility.LastError();
  EXPECT_THAT(Operations(camera),
              ElementsAre("GetSystemDateAndTime", "GetDeviceInformation", "GetProfiles",
                          "GetVideoEncoderConfigurations", "GetStreamUri",
                          "GetVideoEncoderConfigurationOptions", "GetStreamUri",
                          "GetVideoEncoderConfigurationOptions", "GetStreamUri", "GetStreamUri",
                          "GetOptions", "GetImagingSettings", "GetNetworkInterfaces",
                          "GetNetworkDefaultGateway", "GetDNS"));

  const cms::stONVIFConfiguration& read = utility.ONVIFConfiguration();
  EXPECT_EQ(read.device.manufacturer, L"Smith & Sons");
  EXPECT_EQ(read.device.model, L"Dome-2");
  EXPECT_EQ(read.device.hardwareId, L"rev-b");

  ASSERT_EQ(read.profiles.size(), 4U);
  const cms::stVideoProfile& main = read.profiles[0];
  EXPECT_EQ(main.token, L"main<1>");
  EXPECT_EQ(main.name, L"Main");
  EXPECT_EQ(main.videoSourceConfigurationToken, L"vsc0");
  EXPECT_EQ(main.videoSourceToken, L"vs0");
  EXPECT_EQ(main.metadataConfigurationToken, L"meta0");
  EXPECT_EQ(main.uri, L"rtsp://192.168.0.9:554/live?ch=1&sub=0");
  ASSERT_TRUE(main.audioEncoder);
  EXPECT_EQ(main.audioEncoder->bitrate, 64);
  ASSERT_TRUE(main.videoEncoder);
  EXPECT_EQ(main.videoEncoder->name, L"encoder one");
  EXPECT_EQ(main.videoEncoder->encoding, L"H264");
  EXPECT_EQ(main.videoEncoder->quality, 4.5);
  EXPECT_EQ(main.videoEncoder->govLength, 50);
  EXPECT_EQ(main.videoEncoder->multicast.ttl, 5);
  EXPECT_TRUE(main.videoEncoder->multicast.autoStart);
  EXPECT_EQ(read.profiles[1].videoEncoder->resolution, (cms::stResolution{640, 480}));
  EXPECT_FALSE(read.profiles[3].videoEncoder);
  EXPECT_EQ(utility.GetMainStreamProfileName(), L"Main");
  EXPECT_EQ(utility.GetSubStreamProfileName(), L"Sub");
  EXPECT_EQ(read.videoEncoders.size(), 2U);

  ASSERT_EQ(read.videoEncoderOptions.size(), 2U);
  ASSERT_EQ(read.videoEncoderOptions[0].codecs.size(), 2U);
  const cms::stCodecOptions& h264 = read.videoEncoderOptions[0].codecs[0];
  EXPECT_EQ(h264.encoding, L"H264");
  EXPECT_EQ(h264.resolutions.size(), 3U);
  EXPECT_EQ(h264.bitrate->max, 10240);
  EXPECT_EQ(h264.govLength->max, 150);
  EXPECT_THAT(h264.h264Profiles, ElementsAre(L"Baseline", L"High"));
  EXPECT_EQ(read.videoEncoderOptions[0].codecs[1].bitrate->min, 64);

  EXPECT_EQ(read.imagingOptions.contrast->max, 50.5);
  EXPECT_THAT(read.imagingOptions.irCutFilterModes, ElementsAre(L"ON", L"OFF", L"AUTO"));
  EXPECT_EQ(read.imagingOptions.cbGain->min, 1);
  EXPECT_EQ(read.imaging.brightness, 50);
  EXPECT_EQ(read.imaging.contrast, -3.5);
  EXPECT_FALSE(read.imaging.sharpness);
  EXPECT_EQ(read.imaging.irCutFilter, L"AUTO");
  EXPECT_EQ(read.imaging.whiteBalance->cbGain, 13);

  ASSERT_EQ(read.network.interfaces.size(), 2U);
  EXPECT_EQ(read.network.interfaces[0].token, L"eth0");
  EXPECT_EQ(read.network.interfaces[0].address, L"192.168.0.9");
  EXPECT_TRUE(read.network.interfaces[1].dhcp);
  EXPECT_EQ(read.network.interfaces[1].address, L"10.0.0.3");
  EXPECT_EQ(read.network.gateway, L"192.168.0.1");
  EXPECT_THAT(read.network.dns, ElementsAre(L"192.168.0.2", L"192.168.0.3"));
}

INSTANTIATE_TEST_SUITE_P(Spellings, WholeCamera, testing::Values("plain", "odd"));

TEST(OnvifConfig, WhatACameraDoesNotOfferIsLeftEmpty) {
  ScriptedHttpServer camera([](const HttpRequestText& request) {
    const std::string operation = test::OperationOf(request);
    return operation == "GetOptions" || operation == "GetImagingSettings" || operation == "GetDNS"
               ? "HTTP/1.1 500 Internal Server Error\r\n\r\n"
               : test::OnvifAnswer(request, "plain");
  });
  FastUtility utility(camera.Port());
  EXPECT_TRUE(utility.GetAllONVIFConfig());
  EXPECT_THAT(utility.LastError(), HasSubstr("GetOptions: answered HTTP/1.1 500"));  // the first
  EXPECT_EQ(utility.LastResult(), cms::kHttpCommandOk);
  EXPECT_FALSE(utility.ONVIFConfiguration().imaging.brightness);
  EXPECT_EQ(utility.ONVIFConfiguration().network.gateway, L"192.168.0.1");
  EXPECT_FALSE(utility.GetVideoPropertyONVIFConfig());
  EXPECT_THAT(utility.LastError(), HasSubstr("GetOptions: answered HTTP/1.1 500"));
}

TEST(OnvifConfig, ACameraThatRefusesTheUserInBetweenIsAskedNothingMore) {
  ScriptedHttpServer camera([](const HttpRequestText& request) {
    return test::OperationOf(request) == "GetVideoEncoderConfigurations"
               ? "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n"
               : test::OnvifAnswer(request, "plain");
  });
  FastUtility utility(camera.Port());
  EXPECT_FALSE(utility.GetAllONVIFConfig());
  EXPECT_EQ(utility.LastResult(), cms::kHttpCommandUnauthorized);
  EXPECT_THAT(utility.LastError(), HasSubstr("GetVideoEncoderConfigurations"));
  EXPECT_EQ(Operations(camera).back(), "GetVideoEncoderConfigurations");
  EXPECT_FALSE(utility.ONVIFConfiguration().profiles.empty());
}

TEST(OnvifConfig, ARecorderWithManyProfilesIsReadWhole) {
  std::string profiles;
  constexpr std::size_t kProfiles = 64;
  for (std::size_t i = 0; i < kProfiles; ++i) {
    profiles += "<trt:Profiles token=\"p" + std::to_string(i) + "\" fixed=\"a>b\"><tt:Name>P" +
                std::to_string(i) + "</tt:Name><!--" + std::string(2000, 'x') +
                "--></trt:Profiles>";
  }
  ScriptedHttpServer camera([&profiles](const HttpRequestText& request) {
    return test::OperationOf(request) == "GetProfiles"
               ? ScriptedHttpServer::Ok(
                     "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\" "
                     "xmlns:trt=\"http://www.onvif.org/ver10/media/wsdl\" "
                     "xmlns:tt=\"http://www.onvif.org/ver10/schema\"><s:Body>"
                     "<trt:GetProfilesResponse>" +
                     profiles + "</trt:GetProfilesResponse></s:Body></s:Envelope>")
               : test::OnvifAnswer(request, "plain");
  });
  FastUtility utility(camera.Port());
  EXPECT_TRUE(utility.GetVideoProfileONVIFConfig()) << utility.LastError();
  ASSERT_EQ(utility.ONVIFConfiguration().profiles.size(), kProfiles);
  EXPECT_EQ(utility.ONVIFConfiguration().profiles.back().name, L"P63");
}

TEST(OnvifConfig, AServiceAtAnotherPathIsAskedForOnceAndUsed) {
  ScriptedHttpServer camera([](const HttpRequestText& request) -> std::string {
    const std::string operation = test::OperationOf(request);
    const bool media = operation == "GetProfiles" || operation == "GetStreamUri";
    if (operation == "GetCapabilities") {
      return ScriptedHttpServer::Ok(
          "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\" "
          "xmlns:tt=\"http://www.onvif.org/ver10/schema\"><s:Body><tt:Capabilities>"
          "<tt:Media><tt:XAddr>http://192.168.7.9/onvif/Media</tt:XAddr></tt:Media>"
          "</tt:Capabilities></s:Body></s:Envelope>");
    }
    return media && !request.head.starts_with("POST /onvif/Media ")
               ? "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"
               : test::OnvifAnswer(request, "plain");
  });
  FastUtility utility(camera.Port());
  std::wstring uri;
  EXPECT_TRUE(utility.GetONVIFURI(L"main<1>", uri)) << utility.LastError();
  EXPECT_TRUE(utility.GetONVIFURI(L"main<1>", uri)) << utility.LastError();
  EXPECT_THAT(Operations(camera), ElementsAre("GetSystemDateAndTime", "GetStreamUri",
                                              "GetCapabilities", "GetStreamUri", "GetStreamUri"));
}

TEST(OnvifConfig, AnswersInOtherSpellingsAreRead) {
  const auto envelope = [](const std::string& body) {
    return ScriptedHttpServer::Ok(
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\" "
        "xmlns:tt=\"http://www.onvif.org/ver10/schema\"><s:Body>" +
        body + "</s:Body></s:Envelope>");
  };
  ScriptedHttpServer camera([&envelope](const HttpRequestText& request) {
    const std::string operation = test::OperationOf(request);
    if (operation == "GetSystemDateAndTime") {
      return envelope(
          "<tds:SystemDateAndTime Quality=\"a>b\"><tt:UTCDateTime><tt:Time><tt:Hour>1</tt:Hour>"
          "<tt:Minute>2</tt:Minute><tt:Second>3</tt:Second></tt:Time><tt:Date><tt:Year>2026</"
          "tt:Year>"
          "<tt:Month>4</tt:Month><tt:Day>5</tt:Day></tt:Date></tt:UTCDateTime>"
          "</tds:SystemDateAndTime>");
    }
    if (operation == "GetNetworkDefaultGateway") {
      return envelope(
          "<tds:NetworkGateway><tds:IPv4Address>10.0.0.1</tds:IPv4Address></tds:NetworkGateway>");
    }
    if (operation == "GetDNS") {
      return envelope(
          "<s:Fault><faultcode>s:Client</faultcode><faultstring>no DNS here</faultstring>"
          "</s:Fault>");
    }
    return test::OnvifAnswer(request, "plain");
  });
  const test::FixedClock clock(1775350923 - 60);  // the camera is a minute ahead
  FastUtility utility(camera.Port());
  EXPECT_FALSE(utility.GetNetworkONVIFConfig());
  EXPECT_TRUE(utility.IsClockKnown());
  EXPECT_EQ(utility.ClockOffset(), 60);
  EXPECT_EQ(utility.ONVIFConfiguration().network.gateway, L"10.0.0.1");
  EXPECT_THAT(utility.LastError(), HasSubstr("GetDNS: no DNS here"));
}

TEST(OnvifConfig, FaultsNameTheCameraAndTheReasonAndNeverThePassword) {
  ScriptedHttpServer camera(test::OnvifAnswers("none"));
  FastUtility utility(camera.Port(), L"admin", L"hush-hush");
  EXPECT_FALSE(utility.GetAllONVIFConfig());
  EXPECT_EQ(utility.LastError(), "camera 127.0.0.1:" + std::to_string(camera.Port()) +
                                     ": GetDeviceInformation: answered HTTP/1.1 400 Bad Request "
                                     "(Sender not authorized)");
  EXPECT_EQ(utility.LastResult(), cms::kHttpCommandUnauthorized);
  EXPECT_EQ(camera.Requests().size(), 2U);  // nothing more is asked of a camera that refuses us

  FastUtility incomplete(camera.Port(), L"");
  EXPECT_FALSE(incomplete.GetDeviceInformation() || incomplete.GetVideoResolutionAPIConfig() ||
               incomplete.ONVIF_Device_GetSystemDateAndTime());
  EXPECT_EQ(camera.Requests().size(), 2U);
}

TEST(OnvifConfig, SettingsAreSentAsTheyWereReadAndChanged) {
  ScriptedHttpServer camera(test::OnvifAnswers());
  FastUtility utility(camera.Port());
  ASSERT_TRUE(utility.GetVideoProfileONVIFConfig());
  cms::stONVIFChanges changes;
  changes.videoEncoders = utility.ONVIFConfiguration().videoEncoders;
  changes.audioEncoders = {*utility.ONVIFConfiguration().profiles[0].audioEncoder};
  changes.imaging = cms::stImagingSettings{
      .brightness = 41.6,
      .colorSaturation = {},
      .contrast = {},
      .sharpness = {},
      .irCutFilter = L"OFF",
      .whiteBalance = cms::stWhiteBalance{.mode = L"AUTO", .crGain = 7, .cbGain = 8},
      .backlightCompensation = L"ON",
      .wideDynamicRange = {}};
  changes.network = cms::stNetworkSettings{.interfaceToken = L"eth0",
                                           .dhcp = false,
                                           .address = L"192.168.0.10",
                                           .prefixLength = 24,
                                           .gateway = L"192.168.0.1",
                                           .dns = L""};
  const std::size_t before = camera.Requests().size();
  ASSERT_TRUE(utility.SetAllONVIFConfig(changes)) << utility.LastError();
  const std::vector<HttpRequestText> requests = camera.Requests();
  ASSERT_EQ(requests.size(), before + 7);
  EXPECT_EQ(
      Body(requests[before]),
      "<trt:SetVideoEncoderConfiguration><trt:Configuration token=\"vec0\">"
      "<tt:Name>encoder one</tt:Name><tt:UseCount>1</tt:UseCount><tt:Encoding>H264</tt:Encoding>"
      "<tt:Resolution><tt:Width>1920</tt:Width><tt:Height>1080</tt:Height></tt:Resolution>"
      "<tt:Quality>4.50</tt:Quality><tt:RateControl><tt:FrameRateLimit>25</tt:FrameRateLimit>"
      "<tt:EncodingInterval>1</tt:EncodingInterval><tt:BitrateLimit>4096</tt:BitrateLimit>"
      "</tt:RateControl><tt:H264><tt:GovLength>50</tt:GovLength>"
      "<tt:H264Profile>High</tt:H264Profile></tt:H264><tt:Multicast><tt:Address>"
      "<tt:Type>IPv4</tt:Type><tt:IPv4Address>239.0.0.7</tt:IPv4Address></tt:Address>"
      "<tt:Port>5004</tt:Port><tt:TTL>5</tt:TTL><tt:AutoStart>true</tt:AutoStart></tt:Multicast>"
      "<tt:SessionTimeout>PT30S</tt:SessionTimeout></trt:Configuration>"
      "<trt:ForcePersistence>true</trt:ForcePersistence></trt:SetVideoEncoderConfiguration>");
  EXPECT_THAT(Body(requests[before + 1]), HasSubstr("<tt:Quality>4.500000</tt:Quality>"));
  EXPECT_THAT(Body(requests[before + 3]),
              HasSubstr("<tt:BacklightCompensation><tt:Mode>ON</tt:Mode></tt:BacklightCompensation>"
                        "<tt:Brightness>42</tt:Brightness><tt:IrCutFilter>OFF</tt:IrCutFilter>"
                        "<tt:WhiteBalance xsi:type=\"tt:WhiteBalance\"><tt:Mode>AUTO</tt:Mode>"
                        "<tt:CrGain>7</tt:CrGain><tt:CbGain>8</tt:CbGain></tt:WhiteBalance>"
                        "</ImagingSettings><ForcePersistence>true</ForcePersistence>"));
  EXPECT_THAT(Body(requests[before + 5]), HasSubstr("<tds:FromDHCP>true</tds:FromDHCP>"));
  EXPECT_THAT(
      Body(requests[before + 6]),
      HasSubstr("<tt:Manual><tt:Address>192.168.0.10</tt:Address>"
                "<tt:PrefixLength>24</tt:PrefixLength></tt:Manual><tt:DHCP>false</tt:DHCP>"));

  changes.videoEncoders[0].encoding = L"MPEG4";
  changes.network->prefixLength = 33;
  EXPECT_FALSE(utility.SetAllONVIFConfig(changes));
  EXPECT_FALSE(utility.SetNetworkInterfaceONVIFConfig(*changes.network));
  EXPECT_EQ(camera.Requests().size(), before + 7);
}

TEST(OnvifConfig, AutoStreamUsesWhatIsThereThenSetsThenAdds) {
  ScriptedHttpServer camera(test::OnvifAnswers());
  FastUtility utility(camera.Port());
  std::wstring uri;
  const auto operationsOf = [&](const cms::stAutoStream& wish) {
    const std::size_t before = camera.Requests().size();
    EXPECT_TRUE(utility.ONVIF_AutoStream(wish, uri)) << utility.LastError();
    std::vector<std::string> names = Operations(camera);
    names.erase(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(before));
    return names;
  };
  EXPECT_THAT(operationsOf({}), ElementsAre("GetSystemDateAndTime", "GetProfiles",
                                            "GetVideoEncoderConfigurations", "GetStreamUri"));
  EXPECT_EQ(uri, L"rtsp://192.168.0.9:554/live?ch=1&sub=0");
  EXPECT_THAT(operationsOf({.encoding = L"H264", .resolution = {1300, 700}}),
              ElementsAre("GetProfiles", "GetVideoEncoderConfigurations",
                          "GetVideoEncoderConfigurationOptions", "SetVideoEncoderConfiguration",
                          "GetStreamUri"));
  EXPECT_THAT(camera.Requests()[camera.Requests().size() - 2].body,
              HasSubstr("<tt:Width>1280</tt:Width><tt:Height>720</tt:Height>"));

  // A camera whose profiles have no encoder: one is made.
  ScriptedHttpServer bare([](const HttpRequestText& request) {
    std::string answer = test::OnvifAnswer(request, "plain");
    if (test::OperationOf(request) == "GetProfiles") {
      for (std::size_t at; (at = answer.find("tt:VideoEncoderC")) != std::string::npos;) {
        answer[at] = 'x';
      }
    }
    return answer;
  });
  FastUtility other(bare.Port());
  ASSERT_TRUE(other.ONVIF_AutoStream({}, uri)) << other.LastError();
  EXPECT_THAT(
      Operations(bare),
      ElementsAre("GetSystemDateAndTime", "GetProfiles", "GetVideoEncoderConfigurations",
                  "CreateProfile", "AddVideoSourceConfiguration",
                  "GetCompatibleVideoEncoderConfigurations", "GetVideoEncoderConfigurationOptions",
                  "SetVideoEncoderConfiguration", "AddVideoEncoderConfiguration",
                  "AddMetadataConfiguration", "GetStreamUri"));
  EXPECT_THAT(bare.Requests().back().body, HasSubstr("<ProfileToken>new&lt;1&gt;</ProfileToken>"));
}

}  // namespace
