#include "cms/streaming/media_session.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/support/data_file.h"

namespace {

struct Stream {
  int payloadType = 65535;
  std::string name;
  unsigned clockRate = 0;
  std::string control;
  unsigned channels = 1;
  int port = 0;
};

struct Case {
  std::string file;
  int result = 1;
  Stream video = {};
  Stream audio = {};
  std::string sessionControl = {};
  double start = -1;
  double end = -1;
  float frameRate = 0;
  bool not30 = false;
  std::string parameterSets = {};
};

void PrintTo(const Case& c, std::ostream* out) {
  *out << c.file;
}

void ExpectStream(const _RTSPSUBSESSION_CONFIG& stream, const Stream& expected, const char* what) {
  SCOPED_TRACE(what);
  EXPECT_EQ(stream.payloadType, expected.payloadType);
  EXPECT_EQ(stream.encodingName, expected.name);
  EXPECT_EQ(stream.clockRate, expected.clockRate);
  EXPECT_EQ(stream.control, expected.control);
  EXPECT_EQ(stream.channels, expected.channels);
  EXPECT_EQ(stream.clientRtpPort, expected.port);
}

class Descriptions : public testing::TestWithParam<Case> {};

TEST_P(Descriptions, AreReducedToTheirStreams) {
  const Case& c = GetParam();
  MediaSession session;
  _RTSPSUBSESSION_CONFIG video;
  _RTSPSUBSESSION_CONFIG audio;
  EXPECT_EQ(session.ParseDescription(test::ReadDataFile("sdp/" + c.file + ".sdp"), video, audio),
            c.result);
  ExpectStream(video, c.video, "video");
  ExpectStream(audio, c.audio, "audio");
  EXPECT_EQ(session.ControlURL(), c.sessionControl);
  EXPECT_EQ(session.RangeStart(), c.start);
  EXPECT_EQ(session.RangeEnd(), c.end);
  EXPECT_FLOAT_EQ(session.FrameRate(), c.frameRate);
  EXPECT_EQ(session.IsFrameRateNot30(), c.not30);
  EXPECT_EQ(video.parameterSets, c.parameterSets);
}

const Case kCases[] = {
    {.file = "h264_pcmu_absolute",
     .video = {96, "H264", 90000, "rtsp://192.0.2.20:554/stream1/trackID=1"},
     .audio = {0, "PCMU", 8000, "rtsp://192.0.2.20:554/stream1/trackID=2"},
     .sessionControl = "rtsp://192.0.2.20:554/stream1/",
     .frameRate = 25,
     .not30 = true,
     .parameterSets = "Z00AKp2oHgCJ+WbgICAgQA==,aO48gA=="},
    {.file = "h264_l16_relative",
     .video = {96, "H264", 90000, "stream=0"},
     .audio = {97, "L16", 16000, "stream=1", 2},
     .sessionControl = "*",
     .start = 0,
     .end = 12.5,
     .frameRate = 30,
     .parameterSets = "Z2QAKKzZQHgCJ+XARAAAAwAEAAADAPA8YMZY,aOvjyyLA"},
    {.file = "mjpeg_pcma_static",
     .video = {26, "JPEG", 90000, "track1"},
     .audio = {8, "PCMA", 8000, "track2"},
     .frameRate = 12.5,
     .not30 = true},
    {.file = "mpeg4_bare_line_feeds",
     .video = {97, "MP4V-ES", 90000, "trackID=0"},
     .audio = {65535, "MPEG4-GENERIC", 16000, "trackID=1"},
     .frameRate = 15,
     .not30 = true},
    {.file = "bare_carriage_returns", .video = {96, "H264", 90000, "one"}, .sessionControl = "*"},
    {.file = "last_line_not_ended", .video = {96, "H264", 90000, "trackID=7"}},
    {.file = "several_payload_types",
     .video = {96, "H264", 90000, "v"},
     .audio = {8, "PCMA", 8000, "a"}},
    {.file = "metadata_after_audio",
     .video = {35, "H264", 90000, "rtsp://192.0.2.3/profile/video?token=1"},
     .audio = {0, "PCMU", 8000, "rtsp://192.0.2.3/profile/audio?token=1"},
     .sessionControl = "rtsp://192.0.2.3/profile?token=1"},
    {.file = "metadata_first", .result = 0},
    {.file = "port_count_and_blanks",
     .video = {96, "H264", 90000, "videoTrack", 1, 49170},
     .audio = {11, "L16", 44100, "audioTrack"},
     .sessionControl = "rtsp://192.0.2.5/base",
     .start = 0.25,
     .end = 7.5,
     .frameRate = 24.97f,
     .not30 = true,
     .parameterSets = "Z0IAHqaAoD2Q,aM4xUg=="},
    {.file = "two_videos_the_second_counts", .video = {26, "JPEG", 90000, "second"}},
    {.file = "rtpmap_without_clock",
     .video = {96, "H264", 90000, "v"},
     .audio = {99, "L16", 44100, "a"}},
    {.file = "secure_profile", .result = 0},
    {.file = "payload_type_above_127", .result = 0},
    {.file = "audio_only", .result = 0, .audio = {0, "PCMU", 8000, "a"}},
    {.file = "no_media", .result = 0, .sessionControl = "*", .start = 0, .end = 5},
    {.file = "unknown_static_payload",
     .video = {77, "", 90000, "v"},
     .audio = {65535, "G722", 8000, "a"}},
    {.file = "broken_attributes", .video = {96, "", 90000, "", 1, 65535}},
};
INSTANTIATE_TEST_SUITE_P(Styles, Descriptions, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.file; });

class MediaSessionTest : public testing::Test {
 protected:
  int Parse(const std::string& text) { return session_.ParseDescription(text, video_, audio_); }

  MediaSession session_;
  _RTSPSUBSESSION_CONFIG video_;
  _RTSPSUBSESSION_CONFIG audio_;
};

TEST_F(MediaSessionTest, ASecondDescriptionLeavesNothingOfTheFirst) {
  ASSERT_EQ(Parse(test::ReadDataFile("sdp/h264_l16_relative.sdp")), 1);
  EXPECT_EQ(Parse("v=0\r\n"), 0);
  EXPECT_EQ(session_.ControlURL(), "");
  EXPECT_LT(session_.RangeStart(), 0);
  EXPECT_EQ(video_.payloadType, cms::kNoPayloadType);
  EXPECT_STREQ(video_.encodingName, "");
  EXPECT_EQ(audio_.payloadType, cms::kNoPayloadType);
}

TEST_F(MediaSessionTest, TextsAreCutAtTheirFieldsAndStayTerminated) {
  ASSERT_EQ(Parse("m=video 0 RTP/AVP 96\r\na=control:" + std::string(1000, 'c') +
                  "\r\na=rtpmap:96 " + std::string(1000, 'n') + "\r\n"),
            1);
  EXPECT_EQ(video_.control, std::string(128, 'c'));
  EXPECT_EQ(video_.encodingName, std::string(64, 'N'));
}

TEST_F(MediaSessionTest, AParameterSetListThatIsTooLongLosesItsCutItem) {
  const std::string sps(200, 'A');
  const std::string head = "m=video 0 RTP/AVP 96\r\na=fmtp:96 sprop-parameter-sets=";
  Parse(head + sps + "," + std::string(55, 'B') + "\r\n");
  EXPECT_EQ(video_.parameterSets, sps + "," + std::string(55, 'B')) << "256 characters fit";
  Parse(head + sps + "," + std::string(56, 'B') + "\r\n");
  EXPECT_EQ(video_.parameterSets, sps);
  Parse(head + std::string(256, 'A') + ",BBBB\r\n");
  EXPECT_EQ(video_.parameterSets, std::string(256, 'A'));
  Parse(head + std::string(257, 'A') + "\r\n");
  EXPECT_STREQ(video_.parameterSets, "");
}

TEST_F(MediaSessionTest, AllParameterSetsAreKeptWholeOrNotAtAll) {
  const std::string sps(300, 'S');
  Parse(
      "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\n"
      "a=fmtp:96 profile-id=1; sprop-sps = " +
      sps + "; sprop-vps=VVVV,WWWW;sprop-max-don-diff=2;sprop-pps=" + std::string(2000, 'P') +
      "\r\n");
  EXPECT_EQ(video_.nalSets, sps + ",VVVV,WWWW");
  EXPECT_TRUE(video_.orderNumbers);
  Parse("m=video 0 RTP/AVP 96\r\na=fmtp:96 sprop-max-don-diff=0;sprop-parameter-sets=" + sps +
        ",PPPP\r\n");
  EXPECT_EQ(video_.nalSets, sps + ",PPPP");
  EXPECT_STREQ(video_.parameterSets, "");
  EXPECT_FALSE(video_.orderNumbers);
}

TEST_F(MediaSessionTest, ThePictureSizeIsThatOfTheStreamsOwnType) {
  const std::string head = "m=video 0 RTP/AVP 26\r\n";
  const auto size = [&](const std::string& line) {
    Parse(head + line + "\r\n");
    return std::to_string(video_.width) + "x" + std::to_string(video_.height);
  };
  EXPECT_EQ(size("a=framesize:26 3840-2160"), "3840x2160");
  EXPECT_EQ(size("a=framesize:96 3840-2160"), "0x0");
  EXPECT_EQ(size("a=x-dimensions: 2592,1944"), "2592x1944");
  EXPECT_EQ(size("a=framesize:26 70000-2160"), "0x0");
}

TEST_F(MediaSessionTest, ALineBeyondTheMaximumIsIgnored) {
  EXPECT_EQ(Parse("a=" + std::string(1 << 20, 'x') +
                  "\r\nm=video 0 RTP/AVP 26\r\na=control:" + std::string(5000, 'x') + "\r\n"),
            1);
  EXPECT_STREQ(video_.control, "");
}

TEST_F(MediaSessionTest, AnAttributeOfAnotherPayloadTypeNamesTheStreamOnlyInDefault) {
  Parse("m=video 0 RTP/AVP 96\r\na=rtpmap:97 H264/90000\r\n");
  EXPECT_STREQ(video_.encodingName, "H264");
}

TEST_F(MediaSessionTest, ControlLinesAreRecognisedOnTheirOwn) {
  EXPECT_EQ(session_.parseSDPAttribute_control("a=control:rtsp://192.0.2.1/a\r"), 1);
  EXPECT_EQ(session_.ControlURL(), "rtsp://192.0.2.1/a");
  EXPECT_EQ(session_.parseSDPAttribute_control("a=control: \r"), 0);
  EXPECT_EQ(session_.parseSDPAttribute_control("a=range:npt=0-"), 0);
  EXPECT_EQ(session_.ControlURL(), "rtsp://192.0.2.1/a") << "what does not match changes nothing";
}

}  // namespace
