#include "cms/streaming/internal/rtsp_message.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/data_file.h"

namespace {

using cms::ParsePublic;
using cms::ParseSessionHeader;
using cms::ParseTransport;
using cms::RTSPMessage;
using Pair = cms::RTSPTransportHeader::Pair;

std::string Answer(const std::string& name) {
  return test::ReadDataFile("rtsp/" + name + ".txt");
}

TEST(RTSPMessage, HeadersThatGoOnInTheNextLineAreJoined) {
  std::string text =
      "RTSP/1.0 200 OK\r\nPublic: OPTIONS,\r\n\tDESCRIBE\nContent-Base:\n  "
      "rtsp://c/live/\r\n\r\nv=0\n x";
  const std::size_t size = text.size();
  cms::UnfoldHead(text);
  EXPECT_EQ(text.size(), size);
  const RTSPMessage message(text);
  EXPECT_TRUE(ParsePublic(message.Header("Public"), "DESCRIBE"));
  EXPECT_EQ(message.Header("Content-Base"), "rtsp://c/live/");
  EXPECT_EQ(message.Body(), "v=0\n x") << "the body is not a head";
}

TEST(RTSPMessage, ReadsAnswersOfManyStyles) {
  struct Case {
    const char* file;
    unsigned status;
    std::optional<int> cseq;
    const char* header;
    const char* value;
  };
  const Case cases[] = {
      {"options_ok", 200, 1, "SERVER", "Streaming Server/2.0"},
      {"options_lower_case_bare_line_feeds", 200, 1, "Public",
       "OPTIONS,DESCRIBE,SETUP,PLAY,TEARDOWN"},
      {"describe_ok", 200, 2, "Content-Base", "rtsp://192.0.2.20:8554/live/"},
      {"setup_tcp_source_before", 200, 4, "Session", "A1b2-C3_d4.e5+f6"},
      {"unauthorized_lower_case_name", 401, 2, "WWW-Authenticate",
       "Digest realm=\"r\", nonce=\"0123\""},
      {"session_not_found", 454, 9, "Session", ""},
      {"no_cseq", 453, std::nullopt, "CSeq", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string text = Answer(c.file);
    const RTSPMessage message(text);
    EXPECT_TRUE(message.IsResponse());
    EXPECT_EQ(message.Method(), "");
    EXPECT_EQ(message.Status(), c.status);
    EXPECT_EQ(message.CSeq(), c.cseq);
    EXPECT_EQ(message.Header(c.header), c.value);
  }
}

TEST(RTSPMessage, ReadsAServersRequest) {
  const std::string text = Answer("server_options_request");
  const RTSPMessage message(text);
  EXPECT_FALSE(message.IsResponse());
  EXPECT_EQ(message.Method(), "OPTIONS");
  EXPECT_EQ(message.CSeq(), 17);
  EXPECT_EQ(message.Body(), "");
  const RTSPMessage web("HTTP/1.1 400 Bad Request\r\n\r\n");
  EXPECT_TRUE(web.IsResponse() && web.IsOfWebServer());
  EXPECT_EQ(web.Status(), 400u);
}

TEST(RTSPMessage, StatusFollowsTheFirstLine) {
  EXPECT_EQ(RTSPMessage("").Status(), 200u);
  EXPECT_EQ(RTSPMessage("RTSP/1.0 404 without a line end").Status(), 200u);
  EXPECT_EQ(RTSPMessage("RTSP/1.0\t 404 Not Found\r\n\r\n").Status(), 404u);
  EXPECT_EQ(RTSPMessage("RTSP/1.0 OK\r\n\r\n").Status(), 0u);
  EXPECT_EQ(RTSPMessage("\r\n\r\n").Status(), 0u);
  EXPECT_EQ(RTSPMessage("RTSP/1.0 99999999999999999999\r\n\r\n").Status(), 0xffffffffu);
}

TEST(RTSPMessage, BodyIsBoundedByContentLengthAndByWhatIsThere) {
  const auto body = [](const std::string& length) {
    const std::string text = "RTSP/1.0 200 OK\r\n" + length + "\r\nv=0\r\ns=x\r\n";
    return std::string(RTSPMessage(text).Body());
  };
  EXPECT_EQ(body("Content-Length: 5\r\n"), "v=0\r\n");
  EXPECT_EQ(body("content-length:10 \r\n"), "v=0\r\ns=x\r\n");
  EXPECT_EQ(body("Content-Length: 4000000000\r\n"), "v=0\r\ns=x\r\n");
  EXPECT_EQ(body(""), "v=0\r\ns=x\r\n");
  EXPECT_EQ(body("Content-Length: -1\r\n"), "");
  EXPECT_EQ(body("Content-Length: 0x10\r\n"), "");
  EXPECT_EQ(RTSPMessage("RTSP/1.0 200 OK\r\nContent-Length: 3").Body(), "");
  const std::string described = Answer("describe_ok");
  EXPECT_EQ(RTSPMessage(described).Body(), test::ReadDataFile("sdp/h264_l16_relative.sdp"));
}

TEST(RTSPMessage, HeaderValuesCarryNoLineEndsAndComeFromTheHeadOnly) {
  const RTSPMessage message(
      "RTSP/1.0 200 OK\r\nNo colon here\r\n  Spaced  :  a b \t\r\nEmpty:\r\nSession: 1\r\nSession: "
      "2\r\n"
      "\r\nBody: no\r\n");
  EXPECT_EQ(message.Header("spaced"), "a b");
  EXPECT_EQ(message.Header("Session"), "1");
  EXPECT_TRUE(message.HasHeader("Empty"));
  EXPECT_FALSE(message.HasHeader("Body"));
  EXPECT_FALSE(message.HasHeader("No colon here"));
}

TEST(SessionHeader, TakesIdAndTimeout) {
  const auto udp = ParseSessionHeader(RTSPMessage(Answer("setup_udp")).Header("Session"));
  ASSERT_TRUE(udp);
  EXPECT_EQ(udp->id, "12345678");
  EXPECT_EQ(udp->timeoutSeconds, 30u);

  struct Case {
    const char* value;
    unsigned timeout;
  };
  for (const Case& c : {Case{"x", 60}, Case{"x;timeout=0", 60}, Case{"x;timeout=soon", 60},
                        Case{"x;timeout=-5", 60}, Case{"x;other=1; TIMEOUT = 90 ", 90},
                        Case{"x;timeout=1", 2}, Case{"x;timeout=99999999999", 86400}}) {
    SCOPED_TRACE(c.value);
    const auto session = ParseSessionHeader(c.value);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->timeoutSeconds, c.timeout);
  }
}

TEST(SessionHeader, RefusesIdsThatTheNextRequestMustNotCarry) {
  EXPECT_TRUE(ParseSessionHeader(std::string(64, 'a')));
  EXPECT_FALSE(ParseSessionHeader(std::string(65, 'a')));
  EXPECT_FALSE(ParseSessionHeader(std::string(10240, 'a') + ";timeout=60"));
  for (const char* value : {"", ";timeout=60", "a b", "a\rb", "a\x01", "  ;x"}) {
    EXPECT_FALSE(ParseSessionHeader(value)) << value;
  }
}

TEST(TransportHeader, TakesPortsChannelsAndSource) {
  const auto udp = ParseTransport(RTSPMessage(Answer("setup_udp")).Header("Transport"));
  ASSERT_TRUE(udp);
  EXPECT_EQ(udp->clientPort, (Pair{50000, 50001}));
  EXPECT_EQ(udp->serverPort, (Pair{8212, 8213}));
  EXPECT_FALSE(udp->interleaved);

  const auto tcp =
      ParseTransport(RTSPMessage(Answer("setup_tcp_source_before")).Header("Transport"));
  ASSERT_TRUE(tcp);
  EXPECT_EQ(tcp->interleaved, (Pair{2, 3}));
  EXPECT_EQ(tcp->source, "192.0.2.20");
  EXPECT_FALSE(tcp->serverPort);

  const auto single =
      ParseTransport("RTP/AVP;unicast;Server_Port=5004;interleaved= 0 - 1 ;,server_port=1-2");
  ASSERT_TRUE(single);
  EXPECT_EQ(single->serverPort, (Pair{5004, 5005}));
  EXPECT_EQ(single->interleaved, (Pair{0, 1}));
  EXPECT_EQ(ParseTransport("RTP/AVP;server_port=0-0")->serverPort, (Pair{0, 0}));
  EXPECT_FALSE(ParseTransport("")->serverPort);
}

TEST(TransportHeader, NamesTheGroupThatIsSentTo) {
  const auto group = ParseTransport(
      "RTP/AVP;multicast;destination=239.1.2.3;port=5000-5001;ttl=999;source=192.0.2.1");
  ASSERT_TRUE(group);
  EXPECT_TRUE(group->multicast);
  EXPECT_EQ(group->destination, "239.1.2.3");
  EXPECT_EQ(group->port, (Pair{5000, 5001}));
  EXPECT_EQ(group->ttl, 255u);
  EXPECT_EQ(group->source, "192.0.2.1");
}

TEST(TransportHeader, RefusesWhatCannotBeFollowed) {
  for (const char* parameter :
       {"server_port=", "server_port=-", "server_port=1-", "server_port=-1-2", "server_port=a-b",
        "server_port=65536-65537", "server_port=65535", "interleaved=256-257", "interleaved=255",
        "interleaved=0-256", "interleaved=0-1-2"}) {
    EXPECT_FALSE(ParseTransport(std::string("RTP/AVP;unicast;") + parameter)) << parameter;
  }
}

TEST(TransportHeader, TellsTcpFromUdpAndPassesOverWhatIsNotNeeded) {
  EXPECT_TRUE(ParseTransport("rtp/avp/tcp;unicast;interleaved=0-1")->tcp);
  EXPECT_TRUE(ParseTransport(" RTP/AVP/TCP , RTP/AVP")->tcp);
  for (const char* udp : {"RTP/AVP;unicast", "RTP/AVP/UDP", "RTP/AVP,RTP/AVP/TCP", ""}) {
    EXPECT_FALSE(ParseTransport(udp)->tcp) << udp;
  }
  for (const char* parameter : {"client_port", "client_port=1-99999999999", "client_port=a"}) {
    const auto transport =
        ParseTransport(std::string("RTP/AVP;") + parameter + ";server_port=10-11");
    ASSERT_TRUE(transport) << parameter;
    EXPECT_FALSE(transport->clientPort);
    EXPECT_EQ(transport->serverPort, (Pair{10, 11}));
  }
}

TEST(RangeHeader, IsTheSameInEveryLanguageAndNeverCutShort) {
  using cms::RangeLine;
  EXPECT_EQ(RangeLine(-1, -1), "");
  EXPECT_EQ(RangeLine(-1, 5), "");
  EXPECT_EQ(RangeLine(0, -1), "Range: npt=0.000-\r\n");
  EXPECT_EQ(RangeLine(0, 12.5), "Range: npt=0.000-12.500\r\n");
  EXPECT_EQ(RangeLine(1.0005, 86400), "Range: npt=1.000-86400.000\r\n");
  EXPECT_EQ(RangeLine(0, 1e300), "Range: npt=0.000-\r\n");
  EXPECT_EQ(RangeLine(1e300, 1e300), "");
}

TEST(PublicHeader, ListsWholeMethodNames) {
  const std::string list = " DESCRIBE,SETUP , get_parameter,PLAY";
  EXPECT_TRUE(ParsePublic(list, "DESCRIBE"));
  EXPECT_TRUE(ParsePublic(list, "GET_PARAMETER"));
  EXPECT_TRUE(ParsePublic(list, "PLAY"));
  EXPECT_FALSE(ParsePublic(list, "SET_PARAMETER"));
  EXPECT_FALSE(ParsePublic(list, "GET"));
  EXPECT_FALSE(ParsePublic("", "PLAY"));
}

}  // namespace
