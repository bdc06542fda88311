#include "tests/support/scripted_rtsp_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/support/wait.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

// A client without any cleverness: sends bytes, and reads until the text is there or the end came.
class PlainClient {
 public:
  explicit PlainClient(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
    const timeval limit{10, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~PlainClient() { close(socket_); }
  bool Connected() const { return connected_; }
  void Send(const std::string& text) { send(socket_, text.data(), text.size(), MSG_NOSIGNAL); }
  std::string ReadUntil(const std::string& wanted) {
    std::string got;
    char byte = 0;
    while (!got.ends_with(wanted) && recv(socket_, &byte, 1, 0) == 1) {
      got.push_back(byte);
    }
    return got;
  }
  std::string Ask(const std::string& request) {
    Send(request);
    return ReadUntil("\r\n\r\n");
  }

 private:
  int socket_;
  bool connected_ = false;
};

std::string Output(const std::string& command) {
  std::string text;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
    text += buffer;
  }
  const int status = pclose(pipe);
  return text + "exit " + std::to_string(WEXITSTATUS(status));
}

// ffprobe negotiates a whole session with Digest and learns the codecs from the description.
TEST(ScriptedRtspServer, IsACameraToARealClient) {
  for (const auto auth : {ScriptedCamera::Auth::kBasic, ScriptedCamera::Auth::kDigest}) {
    ScriptedRtspServer server({.auth = auth});
    server.On("PLAY", [&](const RtspRequest& request) {
      const std::string silence = RtpText({.payloadType = 0}, std::string(160, '\xff'));
      return RtspAnswer(server.GoodAnswer(request))
          .Do([&server, silence] { EXPECT_TRUE(server.SendRtp(1, silence)); })
          .Close();
    });
    const std::string probe =
        "timeout 20 ffprobe -v error -rtsp_transport tcp "
        "-show_entries stream=codec_name -of csv=p=0 ";
    EXPECT_THAT(Output(probe + server.UrlFor("admin", "wrong")), HasSubstr("401"));
    const std::string good = Output(probe + server.UrlFor("admin", "secret"));
    EXPECT_THAT(good, HasSubstr("h264"));
    EXPECT_THAT(good, HasSubstr("pcm_mulaw"));
    EXPECT_EQ(server.Count("SETUP"), 2u);
    EXPECT_TRUE(WaitFor([&] { return server.Playing() == 0 && server.OpenConnections() == 0; }));
  }
}

TEST(ScriptedRtspServer, AnswersAsScriptedAndRecordsWhatItGot) {
  ScriptedRtspServer server;
  server.Once("OPTIONS", [&](const RtspRequest& request) {
    return RtspAnswer::InSegments(WithHeader(server.GoodAnswer(request), "Public", "NONE"), 7,
                                  milliseconds(1))
        .Interleaved(2, "packet");
  });
  server.On("DESCRIBE", [](const RtspRequest& request) {
    return RtspAnswer(RtspResponse(request, 404, "Stream Not Found")).Close();
  });
  PlainClient client(server.Port());
  EXPECT_THAT(client.Ask("OPTIONS * RTSP/1.0\r\ncseq: 7\r\n\r\n"),
              testing::AllOf(StartsWith("RTSP/1.0 200 OK\r\nCSeq: 7\r\n"), HasSubstr("NONE")));
  EXPECT_EQ(client.ReadUntil("packet"), std::string("$\2\0\6packet", 10));
  // The second answer is the good one again; two requests and a block in one segment are three.
  client.Send(InterleavedBlock(1, "report") + "OPTIONS * RTSP/1.0\r\nCSeq: 8\r\n\r\nDESCRIBE " +
              server.Url() + " RTSP/1.0\r\nCSeq: 9\r\n\r\n");
  EXPECT_THAT(client.ReadUntil("\r\n\r\n"), HasSubstr("GET_PARAMETER"));
  EXPECT_THAT(client.ReadUntil("never"), StartsWith("RTSP/1.0 404 Stream Not Found\r\nCSeq: 9"));
  ASSERT_EQ(server.Requests().size(), 3u);
  EXPECT_EQ(server.Requests("DESCRIBE").at(0).url, server.Url());
  EXPECT_EQ(server.InterleavedReceived(), std::vector{InterleavedBlock(1, "report")});

  // Switched off nobody is let in; switched on again it is found at the same port.
  server.Stop();
  EXPECT_FALSE(PlainClient(server.Port()).Connected());
  server.Start();
  EXPECT_TRUE(PlainClient(server.Port()).Connected());
  EXPECT_TRUE(WaitFor([&] { return server.Connections().size() == 2; }));
}

TEST(ScriptedRtspServer, SendsPacketsOverTheAgreedTransport) {
  const std::string packet = RtpText({.marker = true, .sequence = 0x1234}, "payload");
  ScriptedRtspServer server;
  EXPECT_FALSE(server.SendRtp(0, packet));
  PlainClient client(server.Port());
  const int udp = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_TRUE(BindLoopback(udp, 0));
  const std::string port = std::to_string(LocalPort(udp));
  const auto setup = [&](const std::string& track, const std::string& rest) {
    return client.Ask("SETUP " + server.Url() + "/trackID=" + track + " RTSP/1.0\r\nCSeq: 1\r\n" +
                      rest + "\r\n\r\n");
  };
  EXPECT_THAT(setup("0", "Transport: RTP/AVP;unicast;client_port=" + port + "-" + port),
              testing::ContainsRegex(";server_port=[0-9]+-[0-9]+"));
  EXPECT_THAT(setup("1", "Transport: RTP/AVP/TCP;unicast;interleaved=2-3"), HasSubstr(" 454 "));
  EXPECT_THAT(setup("1", "Session: 3BA1C0DE\r\nTransport: RTP/AVP/TCP;unicast;interleaved=2-3"),
              HasSubstr("interleaved=2-3"));
  EXPECT_TRUE(server.SendRtp(0, packet));
  char buffer[100];
  const ssize_t count = recv(udp, buffer, sizeof buffer, 0);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(count)), packet);
  close(udp);
  EXPECT_TRUE(server.SendRtp(1, packet));
  EXPECT_EQ(client.ReadUntil("payload"), InterleavedBlock(2, packet));
}

}  // namespace
}  // namespace test
