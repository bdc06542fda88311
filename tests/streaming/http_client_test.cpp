#include "cms/streaming/http_client.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cms/live/media/frame_header.h"
#include "cms/runtime/clock.h"
#include "tests/net/loopback.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using test::WaitFor;

const std::string kRequest = "GET /video HTTP/1.1\r\nHost: camera\r\n\r\n";
const std::string kReply =
    "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace;boundary=b\r\n\r\n";

std::string Part(const std::string& type, const std::string& body) {
  return "--b\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body + "\r\n";
}

std::string HttpJpeg(const test::EncodedFrame& frame) {
  return Part("image/jpeg", std::string(frame.data.begin(), frame.data.end()));
}

// Takes the parts of a multipart/x-mixed-replace reply for frames.
class MultipartClient : public CMSHTTPClient {
 public:
  ~MultipartClient() override { StopPlay(); }
  int Pause() override { return 0; }
  int Resume() override { return 0; }

  int ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength, int* videoFlag,
                       int* extra, int* more) override {
    ++parses;
    const std::string_view bytes(reinterpret_cast<const char*>(buffer->Data()),
                                 static_cast<std::size_t>(buffer->Length()));
    if (body_ == 0) {
      const std::size_t length = bytes.find("Content-Length: ");
      const std::size_t end = length == bytes.npos ? length : bytes.find("\r\n\r\n", length);
      if (end == bytes.npos) {
        *more = 0;
        return 0;
      }
      audio_ = bytes.substr(0, end).find("audio/basic") != bytes.npos;
      body_ = std::atoi(bytes.data() + length + 16);
      buffer->Erase(0, static_cast<long>(end + 4));
      return 0;  // more stays set: look for the body
    }
    if (buffer->Length() < body_) {
      *more = 0;
      return 0;
    }
    *isAudio = audio_ ? 1 : 0;
    *frameLength = body_;
    *videoFlag = 1;
    *extra = 77;
    body_ = 0;
    return 1;
  }

  void OnStreamVideoFrame(unsigned channel, int reserved, unsigned char* data, int length,
                          int extra, int videoFlag) override {
    EXPECT_EQ(channel, 0U);
    EXPECT_EQ(reserved, 0);
    EXPECT_EQ(extra, 77);
    std::array<std::uint8_t, cms::kVideoHeaderRoom> header{};
    cms::VideoFrameInfo info;
    info.payloadSize = static_cast<std::uint32_t>(length);
    info.frameType = videoFlag;
    info.videoType = 2;
    cms::BuildVideoFrameHeader(header, info);
    OnGetVideoFrame(header.data(), static_cast<int>(header.size()), data, length, channel,
                    videoFlag);
    if (keepFrames) {
      const std::lock_guard lock(mutex_);
      video_.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    }
  }

  void OnStreamAudioFrame(unsigned channel, int, unsigned char* data, int length, int) override {
    std::array<std::uint8_t, cms::kAudioHeaderRoom> header{};
    OnGetAudioFrame(header.data(), static_cast<int>(header.size()), data, length, channel);
    const std::lock_guard lock(mutex_);
    audioFrames_.emplace_back(reinterpret_cast<const char*>(data),
                              static_cast<std::size_t>(length));
  }

  cms::CMSFrameData Totals() const {
    cms::CMSFrameData data;
    GetFrameData(&data, sizeof data);
    return data;
  }
  std::vector<std::string> Video() const {
    const std::lock_guard lock(mutex_);
    return video_;
  }
  std::vector<std::string> Audio() const {
    const std::lock_guard lock(mutex_);
    return audioFrames_;
  }

  std::atomic<bool> keepFrames{true};
  std::atomic<int> parses{0};

 private:
  int body_ = 0;  // of the part whose headers are read; 0: none
  bool audio_ = false;
  mutable std::mutex mutex_;
  std::vector<std::string> video_;
  std::vector<std::string> audioFrames_;
};

cms::stHTTPClientConfig ConfigFor(std::uint16_t port) {
  cms::stHTTPClientConfig config;
  config.address = INADDR_LOOPBACK;
  config.port = port;
  config.request = kRequest.data();
  config.requestLength = static_cast<int>(kRequest.size());
  config.videoType = 2;
  return config;
}

// One accepted connection of the camera.
class Camera {
 public:
  std::uint16_t Port() const { return listener_.Port(); }

  // Waits for a client and its request.
  testing::AssertionResult Serve() {
    connection_ = listener_.Accept();
    std::string request;
    char byte = 0;
    while (request.find("\r\n\r\n") == request.npos && recv(connection_, &byte, 1, 0) == 1) {
      request += byte;
    }
    if (request != kRequest) {
      return testing::AssertionFailure() << "request: " << request;
    }
    Send(kReply);
    return testing::AssertionSuccess();
  }
  void Send(const std::string& data, std::size_t piece = 1U << 20U) {
    for (std::size_t at = 0; at < data.size(); at += piece) {
      const std::string bytes = data.substr(at, piece);
      EXPECT_EQ(send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(bytes.size()));
    }
  }
  // To a client that may just have closed.
  void SendIfItListens(const std::string& data) {
    static_cast<void>(send(connection_, data.data(), data.size(), MSG_NOSIGNAL));
  }
  bool HearsNothing() const {
    pollfd item{connection_, POLLIN, 0};
    return poll(&item, 1, 50) == 0;
  }
  void Close() { connection_.Close(); }

 private:
  test::Listener listener_;
  test::Descriptor connection_;
};

std::vector<test::EncodedFrame> HttpClip(int frames) {
  test::ClipSpec spec;
  spec.codec = test::ClipCodec::kMjpeg;
  spec.frames = frames;
  return test::EncodeClip(spec);
}

TEST(HttpClient, CutsTheReplyIntoFramesAndDecodesThem) {
  Camera camera;
  MultipartClient client;
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  ASSERT_EQ(client.SetConfig(&config), 1);
  client.SetMustDecode(1);
  client.EnableDecode(0, 0);
  ASSERT_EQ(client.Play(), 1);
  EXPECT_EQ(client.IsClientPlaying(), 1);
  ASSERT_TRUE(camera.Serve());
  EXPECT_EQ(client.Play(), 0) << "plays already";
  EXPECT_EQ(client.SetConfig(&config), 0);
  EXPECT_TRUE(camera.HearsNothing());

  const auto clip = HttpClip(10);
  for (const test::EncodedFrame& frame : clip) {
    camera.Send(HttpJpeg(frame), 777);
    camera.Send(Part("audio/basic", "sound" + std::to_string(frame.pts)));
  }
  ASSERT_TRUE(WaitFor([&] { return client.Audio().size() == 10; }));
  const std::vector<std::string> video = client.Video();
  ASSERT_EQ(video.size(), 10U);
  for (std::size_t i = 0; i < video.size(); ++i) {
    EXPECT_EQ(video[i], std::string(clip[i].data.begin(), clip[i].data.end()));
    EXPECT_EQ(client.Audio()[i], "sound" + std::to_string(i));
  }
  unsigned decoded = 0;
  client.GetDecodeStatus(0, &decoded, nullptr, nullptr);
  EXPECT_EQ(decoded, 10U);
  tagSIZE size;
  const std::uint8_t* image = client.lockDecodedImage(0, &size);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(test::ReadFrameNumber(image, 320, 240, 320 * 4, 320), 9);
  client.unlockDecodedImage(0);
  EXPECT_EQ(client.Totals().videoFrames, 10U);
  EXPECT_EQ(client.Totals().audioFrames, 10U);
}

TEST(HttpClient, StopPlayReleasesEverythingAndPlayStartsAnew) {
  Camera camera;
  MultipartClient client;
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  ASSERT_EQ(client.SetConfig(&config), 1);
  config.request = nullptr;  // the client has its own copy
  EXPECT_EQ(client.StopPlay(), 1) << "nothing to stop";
  ASSERT_EQ(client.Play(), 1);  // makes the I/O threads, which stay
  ASSERT_TRUE(camera.Serve());
  client.StopPlay();
  camera.Close();
  const std::size_t before = test::OpenDescriptors();
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(client.Play(), 1);
    ASSERT_TRUE(camera.Serve());
    camera.Send(Part("image/jpeg", "picture"));
    ASSERT_TRUE(WaitFor([&] { return client.Video().size() == static_cast<unsigned>(round) + 1; }));
    client.StopPlay();
    camera.Close();
    EXPECT_EQ(client.IsClientPlaying(), 0);
    unsigned width = 0;
    EXPECT_EQ(client.GetWidthAndHeight(0, &width, &width), 0) << "no channel is left";
  }
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST(HttpClient, SaysWhyItCannotPlay) {
  std::uint16_t closedPort = 0;
  {
    const test::Listener gone;
    closedPort = gone.Port();
  }
  MultipartClient client;
  EXPECT_EQ(client.SetConfig(nullptr), 0);
  cms::stHTTPClientConfig config = ConfigFor(closedPort);
  client.SetConfig(&config);
  EXPECT_EQ(client.Play(), 0);
  EXPECT_EQ(client.GetConnectionStatus().fault, cms::ConnectionFault::kUnreachable);

  Camera camera;
  EXPECT_EQ(client.StopPlay(), 1);
  config = ConfigFor(camera.Port());
  config.codec = cms::CMS_CODEC_MPEG4;
  client.SetConfig(&config);
  EXPECT_EQ(client.Play(), 0);
  EXPECT_EQ(client.GetConnectionStatus().fault, cms::ConnectionFault::kNoUsableVideo);
  EXPECT_EQ(client.Play(), 0) << "what was made waits for StopPlay";

  client.StopPlay();
  const std::string longRequest(50'000, 'x');
  config = ConfigFor(camera.Port());
  config.request = longRequest.data();
  config.requestLength = static_cast<int>(longRequest.size());
  client.SetConfig(&config);
  EXPECT_EQ(client.Play(), 0);
  EXPECT_EQ(client.IsClientPlaying(), 0);
}

TEST(HttpClient, StopPlayEndsAConnectInProgress) {
  const test::Listener full(0);
  std::vector<test::Descriptor> waiting;
  for (int i = 0; i < 4; ++i) {  // more than the backlog holds: the next connect gets no answer
    waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const sockaddr_in address = test::Loopback(full.Port());
    connect(waiting.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  MultipartClient client;
  cms::stHTTPClientConfig config = ConfigFor(full.Port());
  client.SetConfig(&config);
  const std::uint64_t start = cms::TickMilliseconds();
  std::thread player([&] { EXPECT_EQ(client.Play(), 0); });
  ASSERT_TRUE(WaitFor(
      [&] { return client.GetConnectionStatus().state == cms::ConnectionState::kOpening; }));
  client.StopPlay();
  player.join();
  EXPECT_LT(cms::TickMilliseconds() - start, 9'000U) << "the connect time-out";
  EXPECT_EQ(client.IsClientPlaying(), 0);
}

TEST(HttpClient, IsBackAfterTheCameraClosedAndLosesNothingSentBefore) {
  Camera camera;
  MultipartClient client;
  cms::ReconnectPolicy policy;
  policy.firstPauseMs = 20;
  policy.longestPauseMs = 100;
  client.SetReconnectPolicy(policy);
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  client.SetConfig(&config);
  ASSERT_EQ(client.KeepOpen(), 1);
  for (unsigned round = 1; round <= 3; ++round) {
    ASSERT_TRUE(camera.Serve());
    for (int i = 0; i < 5; ++i) {
      camera.Send(Part("image/jpeg", std::string(15'000, 'p')));
    }
    camera.Close();
    ASSERT_TRUE(WaitFor([&] { return client.Video().size() == round * 5; }));
  }
  ASSERT_TRUE(camera.Serve());
  EXPECT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == 3; }));
  EXPECT_EQ(client.GetConnectionStatus().state, cms::ConnectionState::kPlaying);
}

TEST(HttpClient, SoundAloneDoesNotKeepAStreamAlive) {
  Camera camera;
  MultipartClient client;
  cms::ReconnectPolicy policy;
  policy.deadStreamMs = 300;
  policy.firstPauseMs = 60'000;
  client.SetReconnectPolicy(policy);
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  client.SetConfig(&config);
  ASSERT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(camera.Serve());
  const auto died = [&] {
    return client.GetConnectionStatus().fault == cms::ConnectionFault::kStreamDied;
  };
  EXPECT_TRUE(WaitFor([&] {
    camera.SendIfItListens(Part("audio/basic", "sound"));
    return died();
  }));
}

TEST(HttpClient, GoesOnAfterAFrameThatNeverEnds) {
  Camera camera;
  MultipartClient client;
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  client.SetConfig(&config);
  ASSERT_EQ(client.Play(), 1);
  ASSERT_TRUE(camera.Serve());
  camera.Send(std::string(static_cast<std::size_t>(CMSHTTPClient::kMaxRawBytes) + 100'000, 'x'));
  camera.Send(Part("image/jpeg", "picture"));
  ASSERT_TRUE(WaitFor([&] { return client.Video().size() == 1; }));
  EXPECT_EQ(client.Video()[0], "picture");
  EXPECT_EQ(client.Totals().oversizeFrames, 1U);
}

// Voluntary context switches of the process thread: how often it slept.
long Sleeps() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream(task.path() / "comm") >> name;
    std::ifstream status(task.path() / "status");
    for (std::string line; name == "cms-http-client" && std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
        return std::stol(line.substr(24));
      }
    }
  }
  return -1;
}

TEST(HttpClient, SleepsWhileNothingArrives) {
  Camera camera;
  MultipartClient client;
  cms::stHTTPClientConfig config = ConfigFor(camera.Port());
  client.SetConfig(&config);
  ASSERT_EQ(client.Play(), 1);
  ASSERT_TRUE(camera.Serve());
  camera.Send(Part("image/jpeg", "picture"));
  ASSERT_TRUE(WaitFor([&] { return client.Video().size() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const int parses = client.parses;
  const long sleeps = Sleeps();
  ASSERT_GE(sleeps, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_LE(Sleeps() - sleeps, 1);
  EXPECT_EQ(client.parses, parses);
}

TEST(HttpClient, AudioTypeFollowsTheVideoTypeThatFixesIt) {
  MultipartClient client;
  cms::stHTTPClientConfig config;
  config.audioType = 4;
  config.videoType = 2;
  client.SetConfig(&config);
  client.SetAudioType();
  EXPECT_EQ(client.GetAudioType(), 4);
  config.videoType = 5;
  client.SetConfig(&config);
  client.SetAudioType();
  EXPECT_EQ(client.GetAudioType(), 13);
}

}  // namespace
