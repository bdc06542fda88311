// Discovery answers: what is listed can be connected to and printed.
#include <algorithm>
#include <string>
#include <string_view>

#include "cms/ipcam/config_utility.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view answer(reinterpret_cast<const char*>(data), size);
  CIPCAM_Config_Utility utility;
  CHECK(utility.ParserONVIFDiscoveryInfo(answer) == !utility.DiscoveredDevices().empty());
  CHECK(!utility.ParserONVIFDiscoveryInfo(answer));
  for (const cms::stDiscoveredDevice& device : utility.DiscoveredDevices()) {
    CHECK(!device.address.empty() && device.address.find_first_of("/: \"<>") == std::string::npos);
    CHECK(!device.address.starts_with("169.254"));
    const int port = std::atoi(device.port.c_str());
    CHECK(port > 0 && port <= 65535);
    CHECK(!device.name.empty());
    for (const std::string* text : {&device.name, &device.hardware, &device.type}) {
      CHECK(std::ranges::none_of(*text, [](char c) { return c >= 0 && c < ' '; }));
    }
  }
  return 0;
}
