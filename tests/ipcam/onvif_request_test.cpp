// What goes over the wire to an ONVIF camera, read by other eyes: libxml2 and python's hashlib.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "cms/ipcam/config_utility.h"
#include "tests/ipcam/scripted_camera_site.h"
#include "tests/support/scripted_http_server.h"
#include "tests/support/shell.h"

namespace {

using test::HttpRequestText;
using test::ScriptedHttpServer;
using testing::HasSubstr;

// Runs a program over the body of a request; python's XML parser fails on what is not well-formed.
std::string Python(const std::string& body, const std::string& program) {
  const std::string path =
      testing::TempDir() + "onvif_request." + std::to_string(getpid()) + ".xml";
  std::ofstream(path) << body;
  const test::ShellResult result = test::RunShell(
      "python3 -c 'import sys,hashlib,base64,xml.etree.ElementTree as E\n"
      "root=E.parse(sys.argv[1]).getroot()\n"
      "text=lambda name:next(e.text or \"\" for e in root.iter() if "
      "e.tag.split(\"}\")[-1]==name)\n" +
      program + "' " + path);
  EXPECT_EQ(result.status, 0) << result.errors << body;
  return result.output;
}

TEST(OnvifRequest, TheTokenIsTheUsernameTokenProfilesDigest) {
  const std::wstring password = L"p<&>\"' %:\u00e4\u6f22\U0001F600";
  ScriptedHttpServer camera(test::OnvifAnswers());
  test::FastUtility utility(camera.Port(), L"us<e>r&\u00fc", password);
  ASSERT_TRUE(utility.GetDeviceInformation()) << utility.LastError();
  const std::vector<HttpRequestText> requests = camera.Requests();
  ASSERT_EQ(requests.size(), 2U);  // the clock, unsigned, then the question
  EXPECT_THAT(requests[0].body, testing::Not(HasSubstr("Security")));
  EXPECT_EQ(requests[1].Target(), "/onvif/device_service");
  EXPECT_EQ(requests[1].Header("Content-Type"),
            "application/soap+xml; charset=utf-8; "
            "action=\"http://www.onvif.org/ver10/device/wsdl/GetDeviceInformation\"");
  EXPECT_EQ(requests[1].Header("Content-Length"), std::to_string(requests[1].body.size()));
  EXPECT_EQ(requests[1].Header("User-Agent"), "gSOAP/2.7");
  EXPECT_EQ(requests[1].Header("Connection"), "close");

  EXPECT_EQ(Python(requests[1].body,
                   "n=base64.b64decode(text(\"Nonce\"))\n"
                   "p=\"p<&>\\\"\\x27 %:\\u00e4\\u6f22\\U0001F600\".encode()\n"
                   "d=base64.b64encode(hashlib.sha1(n+text(\"Created\").encode()+p).digest())\n"
                   "print(d.decode()==text(\"Password\"),len(n),n.isdigit(),"
                   "ascii(text(\"Username\")))"),
            "True 16 True 'us<e>r&\\xfc'\n");
  EXPECT_EQ(Python(requests[0].body, "print(root[0][0].tag)"),
            "{http://www.onvif.org/ver10/device/wsdl}GetSystemDateAndTime\n");
  // Basic credentials go with it, in UTF-8.
  EXPECT_EQ(test::RunShell("echo " + requests[1].Header("Authorization").substr(6) + " | base64 -d")
                .output,
            "us<e>r&\u00fc:p<&>\"' %:\u00e4\u6f22\U0001F600");
}

TEST(OnvifRequest, CreatedIsTheCamerasUtcClockPlusASecondInEveryZone) {
  // 02:30 does not exist on that day in New York, and stands on the other date line's day
  // elsewhere.
  for (const char* zone : {"UTC", "America/New_York", "Asia/Kolkata", "Pacific/Kiritimati",
                           "Australia/Lord_Howe", "EST5EDT,M3.2.0,M11.1.0"}) {
    SCOPED_TRACE(zone);
    setenv("TZ", zone, 1);
    tzset();
    const test::FixedClock now(1'700'000'000);
    ScriptedHttpServer camera(test::OnvifAnswers());  // whose clock says 2026-03-08T02:30:00Z
    test::FastUtility utility(camera.Port(), L"admin", L"secret");
    ASSERT_TRUE(utility.GetDeviceInformation()) << utility.LastError();
    EXPECT_THAT(camera.Requests().back().body,
                HasSubstr("<wsu:Created>2026-03-08T02:30:01Z</wsu:Created>"));
  }
  unsetenv("TZ");
  tzset();
}

TEST(OnvifRequest, TextsInBodiesAreEscaped) {
  ScriptedHttpServer camera(test::OnvifAnswers());
  test::FastUtility utility(camera.Port(), L"admin", L"secret");
  std::wstring token;
  ASSERT_TRUE(utility.ONVIF_CreateProfile(L"a<b>&\"c\"\x01 \u00e9", token)) << utility.LastError();
  EXPECT_EQ(token, L"new<1>");
  ASSERT_TRUE(utility.ONVIF_AddVideoEncoderConfiguration(token, L"v&1"));
  const auto requests = camera.Requests();
  EXPECT_EQ(Python(requests[1].body, "print(ascii(text(\"Name\")))"), "'a<b>&\"c\" \\xe9'\n");
  EXPECT_EQ(Python(requests[2].body, "print(text(\"ProfileToken\"),text(\"ConfigurationToken\"))"),
            "new<1> v&1\n");
}

}  // namespace
