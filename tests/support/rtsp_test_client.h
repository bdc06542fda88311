// An RTSP client that notes what it is handed, and packets that make frames.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_message.h"

namespace test {

class RtspTestClient final : public CMSRTSPClient {
 public:
  using CMSRTSPClient::Channel;

  struct Frame {
    std::string header;
    std::string payload;
    int type;
  };

  RtspTestClient() { AllocChannelData(1); }
  ~RtspTestClient() override { CloseStream(); }

  void OnGetVideoFrame(void* header, int headerSize, void* data, int size, unsigned channel,
                       int frameType) override {
    {
      std::lock_guard lock(mutex_);
      video_.push_back({std::string(static_cast<char*>(header), std::size_t(headerSize)),
                        std::string(static_cast<char*>(data), std::size_t(size)), frameType});
    }
    CMSRTSPClient::OnGetVideoFrame(header, headerSize, data, size, channel, frameType);
  }

  void OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                       unsigned channel) override {
    {
      std::lock_guard lock(mutex_);
      audio_.push_back({std::string(static_cast<char*>(header), std::size_t(headerSize)),
                        std::string(static_cast<char*>(data), std::size_t(size)), 0});
    }
    CMSRTSPClient::OnGetAudioFrame(header, headerSize, data, size, channel);
  }

  std::vector<Frame> Video() const {
    std::lock_guard lock(mutex_);
    return video_;
  }
  std::vector<Frame> Audio() const {
    std::lock_guard lock(mutex_);
    return audio_;
  }
  cms::ConnectionFault Fault() const { return GetConnectionStatus().fault; }

 private:
  mutable std::mutex mutex_;
  std::vector<Frame> video_;
  std::vector<Frame> audio_;
};

// A configuration with short time-outs for a scripted server's URL.
cms::stRTSPClientConfig ConfigFor(const std::string& url, int transport);

// Configures, opens and plays; what the client says about it when that fails.
testing::AssertionResult Plays(CMSRTSPClient& client, cms::stRTSPClientConfig config);

// Makes the packets of small H.264 frames, numbered on.
class H264Packets {
 public:
  // An ordinary picture in one packet.
  std::vector<std::string> Picture();
  // SPS, PPS and a key picture of so many bytes, one packet each; a picture over 60,000 bytes comes
  // in fragments.
  std::vector<std::string> KeyFrame(std::size_t size = 100);
  void Skip(std::uint16_t packets) { sequence_ = std::uint16_t(sequence_ + packets); }

 private:
  std::string Packet(std::string nalUnit, bool marker);
  std::uint16_t sequence_ = 65530;  // the tests cross the wrap
  std::uint32_t timestamp_ = 0;
};

}  // namespace test
