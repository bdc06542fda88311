#include "tools/support/transport_words.h"

#include <algorithm>
#include <iterator>

#include "cms/streaming/rtsp_client.h"

namespace tools {
namespace {

struct TransportName {
  const char* word;
  int transport;
};
constexpr TransportName kTransportNames[] = {
    {"udp", cms::kRtspTransportUdp},
    {"tcp", cms::kRtspTransportInterleaved},
    {"http", cms::kRtspTransportHttp},
    {"multicast", cms::kRtspTransportMulticast},
};

}  // namespace

std::vector<std::string> TransportWords() {
  std::vector<std::string> words;
  for (const TransportName& each : kTransportNames) {
    words.emplace_back(each.word);
  }
  return words;
}

int TransportOf(const std::string& word) {
  const auto* const found =
      std::find_if(std::begin(kTransportNames), std::end(kTransportNames),
                   [&](const TransportName& each) { return word == each.word; });
  return found != std::end(kTransportNames) ? found->transport : cms::kRtspTransportUdp;
}

std::string TransportWord(int transport) {
  const auto* const found =
      std::find_if(std::begin(kTransportNames), std::end(kTransportNames),
                   [&](const TransportName& each) { return transport == each.transport; });
  return found != std::end(kTransportNames) ? found->word : "";
}

}  // namespace tools
