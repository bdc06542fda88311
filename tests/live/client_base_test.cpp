#include "cms/live/client_base.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/encoded_clip.h"
#include "tests/support/wait.h"

namespace {

class Client final : public CMSClientBase {
 public:
  explicit Client(unsigned channels = 1) { AllocChannelData(channels); }
  int SetConfig(void*) override { return 1; }
  int Play() override { return 1; }
  int Pause() override { return 0; }
  int Resume() override { return 0; }
  int StopPlay() override { return 1; }
  int ChangeRecordFile() override { return 0; }
  int ChangeRecordPath(const wchar_t*) override { return 0; }
  void OnRecordVideoFrame(void*, int, void*, int, unsigned) override { ++recorded; }
  void OnRecordAudioFrame(void*, int, void*, int, unsigned) override { ++recordedAudio; }

  using CMSClientBase::Channel;
  using CMSClientBase::MarkOpening;
  using CMSClientBase::SetSiteType;

  void Give(const std::string& data, int frameType, unsigned channel = 0) {
    std::string padded = data + std::string(CMSDecoder::kInputPadding, '\0');
    unsigned char header[116] = {};
    OnGetVideoFrame(header, sizeof header, padded.data(), static_cast<int>(data.size()), channel,
                    frameType);
  }
  void Give(const test::EncodedFrame& frame) {
    Give(std::string(frame.data.begin(), frame.data.end()), frame.key ? 1 : 2);
  }
  unsigned Decoded() const {
    unsigned decoded = 0;
    GetDecodeStatus(0, &decoded, nullptr, nullptr);
    return decoded;
  }
  unsigned NotDecoded() const {
    unsigned count = 0;
    GetDecodeStatus(0, nullptr, &count, nullptr);
    return count;
  }

  int recorded = 0;
  int recordedAudio = 0;
};

std::vector<test::EncodedFrame> Clip() {
  test::ClipSpec spec;
  spec.width = 320;
  spec.height = 240;
  spec.frames = 30;
  spec.gop = 10;
  return test::EncodeClip(spec);
}

TEST(CMSClientBase, WithoutDecodingFramesAreCountedAndRecorded) {
  Client client;
  for (int i = 0; i < 5; ++i) {
    client.Give(std::string(100, 'x'), i == 0 ? 1 : 2);
  }
  unsigned char header[32] = {};
  client.OnGetAudioFrame(header, sizeof header, header, 20, 0);
  EXPECT_EQ(client.recorded, 5);
  EXPECT_EQ(client.recordedAudio, 1);
  EXPECT_EQ(client.GetChannelSerialNum(0), 5u);
  cms::CMSFrameData data;
  ASSERT_EQ(client.GetFrameData(&data, sizeof data), static_cast<int>(sizeof data));
  EXPECT_EQ(data.videoFrames, 5u);
  EXPECT_EQ(data.keyFrames, 1u);
  EXPECT_EQ(data.audioFrames, 1u);
  EXPECT_EQ(data.bytes, 520u);
  std::uint64_t first = 0;
  EXPECT_EQ(client.GetFrameData(&first, sizeof first), 8);
  EXPECT_EQ(first, 5u);
}

TEST(CMSClientBase, ChannelsBeyondTheCountAreIgnoredByEveryMember) {
  Client client(2);
  client.SetMustDecode(1);
  client.Give("frame", 1, 7);
  std::string title = "Gate";
  client.SetCameraTitle(2, title);
  EXPECT_EQ(client.GetCameraTitle(2, &title), 0);
  client.EnableDecode(2, 0);
  client.EnableAudio(2);
  client.SetAudioOn(2);
  client.AddChannelSerialNum(2);
  client.SetMetadata(2, "x", 1);
  tagSIZE size{};
  EXPECT_EQ(client.lockDecodedImage(2, &size), nullptr);
  client.unlockDecodedImage(2);
  unsigned width = 0;
  EXPECT_EQ(client.GetWidthAndHeight(2, &width, &width), 0);
  EXPECT_EQ(client.IsDecoingEnable(2) + client.IsAudioEnable(2) + client.IsPlayAudio(2), 0);
  EXPECT_EQ(client.GetChannelSerialNum(2), 0u);
  EXPECT_EQ(client.GetTime(2) + client.GetVideoType(2), 0);
  client.SetCameraTitle(1, title);
  std::string read;
  EXPECT_EQ(client.GetCameraTitle(1, &read), 1);
  EXPECT_EQ(read, "Gate");
}

// A viewer asks for sizes and titles while a stream is stopped and its channels go.
TEST(CMSClientBase, ChannelsMayGoWhileOthersAskForThem) {
  Client client(4);
  std::atomic<bool> done{false};
  std::vector<std::thread> askers;
  for (int i = 0; i < 2; ++i) {
    askers.emplace_back([&] {
      std::string title = "Yard";
      unsigned width = 0;
      char metadata[4];
      while (!done) {
        for (unsigned channel = 0; channel < 4; ++channel) {
          client.GetWidthAndHeight(channel, &width, &width);
          client.SetCameraTitle(channel, title);
          client.GetCameraTitle(channel, &title);
          client.GetTime(channel);
          client.SetMetadata(channel, "data", 4);
          client.GetMetadata(channel, metadata, sizeof metadata);
          client.GetDecodeStatus(channel, &width, nullptr, nullptr);
        }
        client.SetRecDuration(5);
        cms::CMSFrameData data;
        client.GetFrameData(&data, sizeof data);
      }
    });
  }
  for (unsigned round = 0; round < 300; ++round) {
    client.AllocChannelData(round % 2 == 0 ? 0 : 4);
    std::this_thread::yield();
  }
  done = true;
  for (auto& asker : askers) {
    asker.join();
  }
}

TEST(CMSClientBase, RecordsForTheChannelsThatThereAre) {
  Client client(4);
  client.SetEventState(3, cms::kEventStateAlarm);
  EXPECT_EQ(client.GetEventState(3), unsigned{cms::kEventStateAlarm});
  client.AllocChannelData(1);
  client.SetEventState(0, cms::kEventStateAlarm);
  EXPECT_EQ(client.GetEventState(0), unsigned{cms::kEventStateAlarm});
  EXPECT_EQ(client.GetEventState(3), 0u);
  client.AllocChannelData(0);  // the stream was closed; what it records goes on
  EXPECT_EQ(client.GetEventState(0), unsigned{cms::kEventStateAlarm});
}

// Decoded on the receiving thread, and by a thread of the channel's own.
class Decoding : public testing::TestWithParam<bool> {
 protected:
  Decoding() {
    client_.SetThreadedDecode(GetParam());
    client_.SetMustDecode(1);
    client_.EnableDecode(0, 0);
    EXPECT_EQ(client_.Channel(0)->InitialCodec(cms::CMS_CODEC_H264), 1);
  }
  void GiveAll(std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
      client_.Give(clip_[i]);
      // The queue is bounded: wait as a camera's pace would.
      ASSERT_TRUE(test::WaitFor([&] { return client_.Decoded() + 20 > i; }));
    }
  }
  const std::vector<test::EncodedFrame> clip_ = Clip();
  Client client_;
};
INSTANTIATE_TEST_SUITE_P(, Decoding, testing::Bool());

TEST_P(Decoding, WaitsForAKeyFrameAndThenShowsEveryPicture) {
  GiveAll(3, 10);  // no key frame among them
  EXPECT_EQ(client_.Decoded(), 0u);
  EXPECT_EQ(client_.NotDecoded(), 7u);
  GiveAll(10, 30);
  EXPECT_TRUE(test::WaitFor([&] { return client_.Decoded() == 20; })) << client_.Decoded();
  unsigned width = 0;
  unsigned height = 0;
  client_.GetWidthAndHeight(0, &width, &height);
  EXPECT_EQ(width, 320u);
  EXPECT_EQ(height, 240u);
  tagSIZE size{};
  const std::uint8_t* const picture = client_.lockDecodedImage(0, &size);
  ASSERT_NE(picture, nullptr);
  EXPECT_EQ(test::ReadFrameNumber(picture, int(size.cx), int(size.cy), int(size.cx) * 4, 320), 29);
  client_.unlockDecodedImage(0);

  client_.EnableDecode(0, 0);  // a channel that decodes already waits for a key frame, too
  client_.Give(clip_[25]);
  EXPECT_EQ(client_.NotDecoded(), 8u);
  client_.DisableDecode(0);
  client_.Give(clip_[20]);
  EXPECT_EQ(client_.NotDecoded(), 9u);
}

TEST_P(Decoding, TellsWhenTheLastPictureCameAndTheFirstOneOfEachOpening) {
  const auto data = [&] {
    cms::CMSFrameData frames;
    client_.GetFrameData(&frames, sizeof frames);
    return frames;
  };
  EXPECT_EQ(data().sinceVideoMs, cms::CMSFrameData::kNever);
  EXPECT_EQ(data().sincePictureMs, cms::CMSFrameData::kNever);
  for (int opening = 0; opening < 2; ++opening) {
    client_.MarkOpening();
    EXPECT_EQ(data().firstFrameMs, 0u);
    EXPECT_EQ(data().firstPictureMs, 0u);
    GiveAll(0, 10);
    const unsigned given = opening == 0 ? 10 : 20;
    ASSERT_TRUE(test::WaitFor([&] { return client_.Decoded() == given; }));
    ASSERT_TRUE(test::WaitFor([&] { return data().sincePictureMs >= 20; }));
    const cms::CMSFrameData now = data();
    EXPECT_GT(now.firstPictureMs, 0u);
    EXPECT_GT(now.firstFrameMs, 0u);
    EXPECT_GE(now.sinceVideoMs, now.sincePictureMs);
    EXPECT_NE(now.sinceVideoMs, cms::CMSFrameData::kNever);
  }
}

TEST_P(Decoding, AfterAnErrorFramesAreDroppedUpToTheNextKeyFrame) {
  GiveAll(0, 5);
  ASSERT_TRUE(test::WaitFor([&] { return client_.Decoded() == 5; }));
  test::ClipSpec other;
  other.width = 160;
  other.height = 120;
  other.frames = 1;
  client_.Give(test::EncodeClip(other)[0]);  // the size changes: one error
  unsigned errors = 0;
  ASSERT_TRUE(test::WaitFor([&] {
    client_.GetDecodeStatus(0, nullptr, nullptr, &errors);
    return errors == 1;
  }));
  const unsigned before = client_.NotDecoded();
  for (std::size_t i = 5; i < 10; ++i) {
    client_.Give(clip_[i]);
  }
  EXPECT_GE(client_.NotDecoded(), before + 4) << "the codec was opened anew without a key frame";
  GiveAll(10, 30);
  EXPECT_TRUE(test::WaitFor([&] { return client_.Decoded() >= 24; })) << client_.Decoded();
}

TEST(CMSClientBase, RecordingTypeTagsHaveTheirGaps) {
  const struct {
    int siteType;
    const char* letters[3];  // of H.264, MJPEG, MPEG-4; "" where nothing is written
  } rows[] = {{1, {"VV", "VU", "VT"}}, {2, {"WV", "WU", "WT"}}, {3, {"", "XU", "XT"}},
              {5, {"", "VU", "VT"}},   {9, {"VV", "", ""}},     {10, {"VV", "VU", "VT"}},
              {0, {"", "", ""}},       {4, {"", "", ""}}};
  constexpr cms::CMSCodecID kCodecs[] = {cms::CMS_CODEC_H264, cms::CMS_CODEC_MJPEG,
                                         cms::CMS_CODEC_MPEG4};
  for (const auto& row : rows) {
    for (int codec = 0; codec < 3; ++codec) {
      Client client;
      client.SetSiteType(row.siteType);
      client.Channel(0)->SetVideoType(kCodecs[codec]);
      unsigned char tag[4] = {'a', 'b', 'c', 'd'};
      client.GetDRVTypeHeader(tag);
      const std::string letters = row.letters[codec];
      const std::string expected = letters.empty() ? "abcd" : std::string(2, '\0') + letters;
      EXPECT_EQ(std::string(tag, tag + 4), expected) << row.siteType << " " << codec;
    }
  }
}

}  // namespace
