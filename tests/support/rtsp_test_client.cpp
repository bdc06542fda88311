#include "tests/support/rtsp_test_client.h"

namespace test {

stRTSPClientConfig ConfigFor(const std::string& url, int transport) {
  stRTSPClientConfig config;
  config.path = url;
  config.transport = transport;
  config.connectTimeoutMs = 5'000;
  config.answerTimeoutMs = 5'000;
  return config;
}

std::string H264Packets::Packet(std::string nalUnit, bool marker) {
  RtpFields fields;
  fields.marker = marker;
  fields.sequence = sequence_++;
  return RtpPacket(fields, nalUnit);
}

std::vector<std::string> H264Packets::Picture() {
  return {Packet("\x41" + std::string(60, 'p'), true)};
}

std::vector<std::string> H264Packets::KeyFrame(std::size_t size) {
  return {Packet("\x67\x42" + std::string(10, 's'), false),
          Packet("\x68" + std::string(3, 'q'), false),
          Packet("\x65" + std::string(size - 1, 'i'), true)};
}

}  // namespace test
