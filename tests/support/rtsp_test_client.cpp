#include "tests/support/rtsp_test_client.h"

namespace test {

cms::stRTSPClientConfig ConfigFor(const std::string& url, int transport) {
  cms::stRTSPClientConfig config;
  config.path = url;
  config.transport = transport;
  config.connectTimeoutMs = 20'000;  // far beyond what a busy machine needs
  config.answerTimeoutMs = 20'000;
  return config;
}

testing::AssertionResult Plays(CMSRTSPClient& client, cms::stRTSPClientConfig config) {
  if (client.SetConfig(&config) == 1 && client.OpenStream() == 1 && client.Play() == 1) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << client.GetConnectionStatus().detail;
}

std::string H264Packets::Packet(std::string nalUnit, bool marker) {
  RtpFields fields;
  fields.marker = marker;
  fields.sequence = sequence_++;
  fields.timestamp = timestamp_;
  timestamp_ += marker ? 3600 : 0;
  return RtpText(fields, nalUnit);
}

std::vector<std::string> H264Packets::Picture() {
  return {Packet("\x41\x9A" + std::string(59, 'p'), true)};  // a P slice, the picture's first
}

std::vector<std::string> H264Packets::KeyFrame(std::size_t size) {
  std::vector<std::string> packets = {Packet("\x67\x42" + std::string(10, 's'), false),
                                      Packet("\x68" + std::string(3, 'q'), false)};
  const std::string slice = "\x65\x88" + std::string(size - 2, 'i');  // an I slice, likewise
  constexpr std::size_t kLargest = 60'000;
  if (size <= kLargest) {
    packets.push_back(Packet(slice, true));
    return packets;
  }
  constexpr std::size_t kFragment = 1'400;
  for (std::size_t at = 1; at < size; at += kFragment) {
    const bool last = at + kFragment >= size;
    const char fuHeader = static_cast<char>(5 | (at == 1 ? 0x80 : 0) | (last ? 0x40 : 0));
    packets.push_back(Packet(std::string("\x7C") + fuHeader + slice.substr(at, kFragment), last));
  }
  return packets;
}

}  // namespace test
