// WS-Discovery: single answers, and a network of one's own with many devices that answer at once.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/discovery_message.h"
#include "tests/support/network_namespace.h"
#include "tests/support/shell.h"

namespace {

using testing::HasSubstr;

std::string ProbeMatch(const std::string& urls, const std::string& scopes) {
  return "<SOAP-ENV:Envelope><SOAP-ENV:Body><d:ProbeMatches><d:ProbeMatch><d:Types>dn:NVT</d:Types>"
         "<d:Scopes MatchBy=\"x\">" +
         scopes + "</d:Scopes><d:XAddrs>" + urls +
         "</d:XAddrs></d:ProbeMatch></d:ProbeMatches></SOAP-ENV:Body></SOAP-ENV:Envelope>";
}

TEST(Discovery, AnAnswerTellsOneDevice) {
  const std::string scopes =
      "onvif://www.onvif.org/hardware/HW-1 onvif://www.onvif.org/name/Front%20%c3%a9&amp;\n"
      "onvif://www.onvif.org/type/videoEncoder ";
  struct Case {
    std::string answer;
    const char* found;  // address|port|hardware|name|type
  };
  for (const Case& c : {
           Case{ProbeMatch("http://10.0.0.5/onvif/device_service", scopes),
                "10.0.0.5|80|HW-1|Front \u00e9&|HW-1"},
           Case{ProbeMatch("http://169.254.3.4/x http://[fe80::1]/x http://10.0.0.5:8080/x "
                           "http://10.0.0.6/x",
                           scopes + "onvif://www.onvif.org/type/ptz"),
                "10.0.0.5|8080|HW-1|Front \u00e9&|PTZ"},
           Case{
               ProbeMatch("https://10.0.0.4/ http://cam.local", "onvif://www.onvif.org/hardware/Q"),
               "cam.local|80|Q|IP Camera|Q"},
           Case{ProbeMatch("http://10.0.0.5/a:b", ""), "10.0.0.5|80||IP Camera|"},
           Case{ProbeMatch("http://10.0.0.5", "onvif://www.onvif.org/name/100%2%1b x"),
                "10.0.0.5|80||100%2 |"},
           // Neither a control sequence of one character nor another direction of writing.
           Case{ProbeMatch("http://10.0.0.5", "onvif://www.onvif.org/name/a%c2%9bb%e2%80%aec"),
                "10.0.0.5|80||a b c|"},
           Case{ProbeMatch("http://10.0.0.5",
                           "onvif://www.onvif.org/Name/Gate onvif://www.onvif.org/Model/M-7"),
                "10.0.0.5|80|M-7|Gate|M-7"},
           Case{ProbeMatch("http://169.254.3.4/x", scopes), ""},
           Case{ProbeMatch("", scopes), ""},
           Case{ProbeMatch("http:// http://a:b/ http://10.0.0.5:0/", scopes), ""},
           Case{ProbeMatch("http://10.0.0.5/", "").substr(0, 140), ""},
           Case{"<wsdp:Types>wsdp:Device pub:Computer</wsdp:Types>" +
                    ProbeMatch("http://10.0.0.5/x", scopes),
                ""},
           Case{"", ""},
       }) {
    SCOPED_TRACE(c.answer);
    CIPCAM_Config_Utility utility;
    EXPECT_EQ(utility.ParserONVIFDiscoveryInfo(c.answer), *c.found != '\0');
    EXPECT_FALSE(utility.ParserONVIFDiscoveryInfo(c.answer));  // no device twice
    std::string found;
    for (const cms::stDiscoveredDevice& device : utility.DiscoveredDevices()) {
      found += device.address + "|" + device.port + "|" + device.hardware + "|" + device.name +
               "|" + device.type;
    }
    EXPECT_EQ(found, c.found);
  }
}

TEST(Discovery, OneAnswerMayTellSeveralDevices) {
  const std::string answer =
      "<e:Envelope><e:Body><d:ProbeMatches>"
      "<d:ProbeMatch><d:Scopes/><d:XAddrs>http://10.0.0.5/x</d:XAddrs></d:ProbeMatch>"
      "<d:ProbeMatch><d:Types>pub:Other</d:Types></d:ProbeMatch>"
      "<d:ProbeMatch><d:Scopes>onvif://www.onvif.org/name/Two</d:Scopes>"
      "<d:XAddrs>http://10.0.0.6:81/x</d:XAddrs></d:ProbeMatch>"
      "</d:ProbeMatches></e:Body></e:Envelope>";
  CIPCAM_Config_Utility utility;
  EXPECT_TRUE(utility.ParserONVIFDiscoveryInfo(answer));
  ASSERT_EQ(utility.DiscoveredDevices().size(), 2U);
  EXPECT_EQ(utility.DiscoveredDevices()[0].address, "10.0.0.5");
  EXPECT_EQ(utility.DiscoveredDevices()[0].name, "IP Camera");
  EXPECT_EQ(utility.DiscoveredDevices()[1].address, "10.0.0.6");
  EXPECT_EQ(utility.DiscoveredDevices()[1].name, "Two");
}

TEST(Discovery, TheProbesIdentifierIsMadeOfItsTime) {
  // 2026-11-21 13:05:09 UTC: (11 * 24 + 13) * 3600 + 5 * 60 + 9 seconds.
  EXPECT_EQ(cms::ProbeMessageId(1795266309, "0011aabbccdd"),
            "09997509-1305-1121-2026-0011aabbccdd");
  EXPECT_EQ(cms::ProbeMessageId(0, "end"), "00086400-0000-0101-1970-end");
  EXPECT_LE(cms::ProbeMessage(std::string(127, 'x')).size(), 1024U);
}

sockaddr_in Address(in_addr_t address, std::uint16_t port) {
  sockaddr_in full{};
  full.sin_family = AF_INET;
  full.sin_addr.s_addr = address;
  full.sin_port = htons(port);
  return full;
}

// A device's socket in the discovery group.
int DeviceSocket() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in any = Address(htonl(INADDR_ANY), 3702);
  const ip_mreq group{{inet_addr("239.255.255.250")}, {htonl(INADDR_LOOPBACK)}};
  const timeval limit{.tv_sec = 20, .tv_usec = 0};
  setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
      setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
    ADD_FAILURE() << "no device socket";
  }
  return descriptor;
}

// Waits for the probe and answers it with these datagrams at once.
class Device {
 public:
  explicit Device(std::vector<std::string> answers)
      : descriptor_(DeviceSocket()), thread_([this, answers = std::move(answers)] {
          char probe[2048];
          sockaddr_in from{};
          socklen_t size = sizeof from;
          const ssize_t length = recvfrom(descriptor_, probe, sizeof probe, 0,
                                          reinterpret_cast<sockaddr*>(&from), &size);
          probe_.assign(probe, length > 0 ? static_cast<std::size_t>(length) : 0);
          for (const std::string& answer : answers) {
            sendto(descriptor_, answer.data(), answer.size(), 0,
                   reinterpret_cast<const sockaddr*>(&from), size);
          }
        }) {}
  ~Device() {
    thread_.join();
    close(descriptor_);
    EXPECT_THAT(probe_, HasSubstr("http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe"));
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

 private:
  const int descriptor_;
  std::string probe_;
  std::thread thread_;
};

// Stops as soon as it has found so many.
class Finder : public CIPCAM_Config_Utility {
 public:
  explicit Finder(std::size_t enough) : enough_(enough) {}

 protected:
  void OnDeviceFound(const cms::stDiscoveredDevice& /*device*/) override {
    if (DiscoveredDevices().size() == enough_) {
      Interrupt();
    }
  }

 private:
  const std::size_t enough_;
};

// A network with nobody in it; false, with a message, where none can be made.
bool OnNetworkOfItsOwn(const std::function<void()>& body) {
  std::string reason;
  const bool permitted = test::InNetworkNamespace(
      [&body] {
        EXPECT_EQ(test::RunShell("ip link set lo up && ip route add 239.0.0.0/8 dev lo").status, 0);
        body();
      },
      reason);
  if (!permitted) {
    std::cerr << reason << "\n";
  }
  return permitted;
}

TEST(Discovery, FindsEveryDeviceOfANetworkOnce) {
  const bool permitted = OnNetworkOfItsOwn([] {
    constexpr int kDevices = 10;
    constexpr int kAnswersEach = 20;  // as of a device with so many services: 200 at once
    std::vector<std::unique_ptr<Device>> devices;
    for (int i = 0; i < kDevices; ++i) {
      std::vector<std::string> answers{"garbage", std::string(2048, '<'),
                                       "wsdp:Device pub:Computer"};
      for (int k = 0; k < kAnswersEach; ++k) {
        const std::string match =
            ProbeMatch("http://10.0." + std::to_string(i) + "." + std::to_string(k) + "/x", "");
        // Some devices declare dozens of namespaces in front of what is looked for.
        answers.push_back(k == 1 ? std::string(5000, ' ') + match
                                 : match + std::string(1400 - match.size(), ' '));
        if (k == 0) {
          answers.push_back(match);  // once more
        }
      }
      devices.push_back(std::make_unique<Device>(std::move(answers)));
    }
    Finder finder(kDevices * kAnswersEach);
    EXPECT_TRUE(finder.DoONVIFDeviceDiscovery("")) << finder.LastError();
    EXPECT_EQ(finder.DiscoveredDevices().size(), kDevices * kAnswersEach);
  });
  if (!permitted) {
    GTEST_SKIP() << "no network namespace";
  }
}

TEST(Discovery, WaitsForNothingWithoutProcessorTimeAndCanBeTold) {
  const bool permitted = OnNetworkOfItsOwn([] {
    CIPCAM_Config_Utility utility;
    std::thread stopper([&utility] {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      utility.Interrupt();
    });
    const auto start = std::chrono::steady_clock::now();
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    EXPECT_TRUE(utility.DoONVIFDeviceDiscovery("127.0.0.1"));
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    stopper.join();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(400));
    EXPECT_LT(took, std::chrono::seconds(20));
    const auto used =
        (after.tv_sec - before.tv_sec) * 1'000'000'000 + after.tv_nsec - before.tv_nsec;
    EXPECT_LT(used, 100'000'000);
    EXPECT_TRUE(utility.DiscoveredDevices().empty());
  });
  CIPCAM_Config_Utility utility;
  EXPECT_FALSE(utility.DoONVIFDeviceDiscovery("not an address"));
  EXPECT_THAT(utility.LastError(), HasSubstr("not an address"));
  if (!permitted) {
    GTEST_SKIP() << "no network namespace";
  }
}

}  // namespace
