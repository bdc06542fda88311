#include "cms/live/decoder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cms/live/media/fisheye/fisheye_dewarper.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/plain_decoder.h"
#include "tests/support/wait.h"

namespace {

using test::ClipCodec;
using test::ClipProfile;
using test::ClipSpec;
using test::EncodeClip;
using test::EncodedFrame;

using Bytes = std::vector<std::uint8_t>;

Bytes Padded(const Bytes& data) {
  Bytes padded = data;
  padded.resize(data.size() + CMSDecoder::kInputPadding, 0xFF);
  return padded;
}

DECODE_RESULT Decode(CMSDecoder& decoder, const Bytes& data, int* used = nullptr) {
  return decoder.Decode(Padded(data).data(), static_cast<int>(data.size()), used);
}

struct Image {
  tagSIZE size;
  Bytes pixels;
};

Image Shown(CMSDecoder& decoder) {
  Image image;
  const unsigned char* pixels = decoder.LockDecodedImage(&image.size);
  if (pixels != nullptr) {
    image.pixels.assign(pixels, pixels + image.size.cx * image.size.cy * 4);
  }
  decoder.UnlockDecodedImage();
  return image;
}

int NumberShown(CMSDecoder& decoder, int codedWidth) {
  const Image image = Shown(decoder);
  if (image.pixels.empty()) {
    return -1;
  }
  const int width = static_cast<int>(image.size.cx);
  return test::ReadFrameNumber(image.pixels.data(), width, static_cast<int>(image.size.cy),
                               width * 4, codedWidth);
}

DECODE_CODEC DecoderCodec(ClipCodec codec) {
  switch (codec) {
    case ClipCodec::kMjpeg:
      return DECODE_CODEC_MJPEG;
    case ClipCodec::kH265:
      return DECODE_CODEC_H265;
    case ClipCodec::kMpeg4:
      return DECODE_CODEC_MPEG4;
    default:
      return DECODE_CODEC_H264;
  }
}

ClipSpec Spec(ClipCodec codec, int width, int height, int frames = 12) {
  ClipSpec spec;
  spec.codec = codec;
  spec.width = width;
  spec.height = height;
  spec.frames = frames;
  spec.gop = 5;
  return spec;
}

struct PictureCase {
  ClipCodec codec;
  ClipProfile profile;
  tagSIZE display;
};

class DecoderPictures : public testing::TestWithParam<PictureCase> {};

// 322 pixels: the scaler's vectors do not end where the rows end.
TEST_P(DecoderPictures, EqualThePlainConversionOfTheSameFrame) {
  ClipSpec spec = Spec(GetParam().codec, 322, 242);
  spec.profile = GetParam().profile;
  spec.delimiters = true;
  const tagSIZE display = GetParam().display;
  const tagSIZE expected = display.cx > 0 ? display : tagSIZE{spec.width, spec.height};
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DecoderCodec(spec.codec), {spec.width, spec.height}), 0);
  decoder.SetDisplaySize(display, nullptr);
  test::PlainDecoder plain(spec.codec);

  int number = 0;
  for (const EncodedFrame& frame : EncodeClip(spec)) {
    int used = -1;
    ASSERT_EQ(Decode(decoder, frame.data, &used), DECODE_RESULT_PICTURE) << number;
    EXPECT_EQ(used, static_cast<int>(frame.data.size()));
    const Image image = Shown(decoder);
    ASSERT_EQ(image.size.cx, expected.cx);
    ASSERT_EQ(image.size.cy, expected.cy);
    const Bytes wanted = plain.DecodeToBgra(frame.data, static_cast<int>(expected.cx),
                                            static_cast<int>(expected.cy));
    ASSERT_TRUE(image.pixels == wanted) << "frame " << number;
    ASSERT_EQ(NumberShown(decoder, spec.width), number);
    ++number;
  }
  EXPECT_EQ(number, spec.frames);
  EXPECT_EQ(decoder.GetDecodeImageSize().cx, spec.width);
  EXPECT_EQ(decoder.GetDecodeImageSize().cy, spec.height);
}

INSTANTIATE_TEST_SUITE_P(
    CodecsAndSizes, DecoderPictures,
    testing::Values(PictureCase{ClipCodec::kH264, ClipProfile::kBaseline, {0, 0}},
                    PictureCase{ClipCodec::kH264, ClipProfile::kHigh, {160, 120}},
                    PictureCase{ClipCodec::kH264, ClipProfile::kHigh, {483, 361}},
                    PictureCase{ClipCodec::kH265, ClipProfile::kBaseline, {0, 0}},
                    PictureCase{ClipCodec::kH265, ClipProfile::kBaseline, {160, 120}},
                    PictureCase{ClipCodec::kMpeg4, ClipProfile::kBaseline, {0, 0}},
                    PictureCase{ClipCodec::kMjpeg, ClipProfile::kBaseline, {0, 0}},
                    PictureCase{ClipCodec::kMjpeg, ClipProfile::kBaseline, {161, 121}},
                    PictureCase{ClipCodec::kMjpeg, ClipProfile::kBaseline, {640, 480}}));

TEST(Decoder, PicturesEqualTheFfmpegProgramsOutput) {
  const ClipSpec spec = Spec(ClipCodec::kH264, 640, 480, 4);
  const std::string name =
      testing::TempDir() + "decoder_test." + std::to_string(getpid()) + ".h264";
  std::FILE* clip = std::fopen(name.c_str(), "wb");
  ASSERT_NE(clip, nullptr);
  const std::vector<EncodedFrame> frames = EncodeClip(spec);
  for (const EncodedFrame& frame : frames) {
    std::fwrite(frame.data.data(), 1, frame.data.size(), clip);
  }
  std::fclose(clip);
  const std::string command = "ffmpeg -v error -threads 1 -i '" + name +
                              "' -vf scale=320:240:flags=fast_bilinear -pix_fmt bgra -f rawvideo -";
  std::FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);

  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  decoder.SetDisplaySize({320, 240}, nullptr);
  for (const EncodedFrame& frame : frames) {
    ASSERT_EQ(Decode(decoder, frame.data), DECODE_RESULT_PICTURE);
    Bytes wanted(320 * 240 * 4);
    ASSERT_EQ(std::fread(wanted.data(), 1, wanted.size(), pipe), wanted.size());
    ASSERT_TRUE(Shown(decoder).pixels == wanted) << frame.pts;
  }
  EXPECT_EQ(pclose(pipe), 0);
  std::remove(name.c_str());
}

TEST(Decoder, OpensOnlyItsTwoCodecsAndKeepsAnOpenOne) {
  CMSDecoder decoder;
  for (const int codec : {-1, 2, 3, 8, 13, 28}) {
    EXPECT_EQ(decoder.Create(static_cast<DECODE_CODEC>(codec), {}), 1) << codec;
    EXPECT_EQ(decoder.StartThread(), 1) << codec;
  }
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 320, 240, 2));
  EXPECT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_ERROR);
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  EXPECT_EQ(Decode(decoder, clip[1].data), DECODE_RESULT_PICTURE) << "references were lost";
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  EXPECT_EQ(Decode(decoder, EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 1))[0].data),
            DECODE_RESULT_PICTURE);
}

TEST(Decoder, ResetNeedsAnOpenCodecAndForgetsTheStream) {
  CMSDecoder decoder;
  EXPECT_EQ(decoder.Reset(), 1);
  EXPECT_EQ(decoder.Reset(DECODE_CODEC_H264, {}), 1);
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 320, 240, 2));
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  ASSERT_EQ(decoder.Reset(), 0);
  EXPECT_EQ(decoder.GetDecodeImageSize().cx, 0);
  EXPECT_EQ(NumberShown(decoder, 320), 0) << "the last picture stays";
  EXPECT_EQ(Decode(decoder, clip[1].data), DECODE_RESULT_ERROR) << "a stream starts at a key frame";
  EXPECT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  ASSERT_EQ(decoder.Reset(DECODE_CODEC_MJPEG, {}), 0);
  EXPECT_EQ(Decode(decoder, EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 1))[0].data),
            DECODE_RESULT_PICTURE);
  EXPECT_EQ(decoder.Reset(static_cast<DECODE_CODEC>(7), {}), 1);
  EXPECT_EQ(decoder.Reset(), 1) << "left closed";
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  decoder.Release();
  EXPECT_EQ(decoder.Reset(), 1);
}

TEST(Decoder, IsResetNeededSaysWhetherSizesAgree) {
  CMSDecoder decoder;
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {1, 1}), 1) << "nothing is known";
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {1, 1}), 1);
  ASSERT_EQ(Decode(decoder, EncodeClip(Spec(ClipCodec::kH264, 320, 240, 1))[0].data),
            DECODE_RESULT_PICTURE);
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {320, 240}), 1);
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {640, 240}), 0);
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {320, 480}), 0);
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {640, 480}), 0);
  decoder.Release();
  EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_H264, {640, 480}), 1);
}

TEST(Decoder, SizeChangeGivesOneErrorAndThenPictures) {
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kMjpeg}) {
    CMSDecoder decoder;
    ASSERT_EQ(decoder.Create(DecoderCodec(codec), {}), 0);
    decoder.SetDisplaySize({320, 240}, nullptr);
    for (const EncodedFrame& frame : EncodeClip(Spec(codec, 320, 240, 3))) {
      ASSERT_EQ(Decode(decoder, frame.data), DECODE_RESULT_PICTURE);
    }
    const auto larger = EncodeClip(Spec(codec, 640, 480, 4));
    EXPECT_EQ(Decode(decoder, larger[0].data), DECODE_RESULT_ERROR);
    EXPECT_EQ(decoder.GetDecodeImageSize().cx, 640);
    EXPECT_EQ(NumberShown(decoder, 320), 2) << "the picture of before";
    for (std::size_t i = 1; i < larger.size(); ++i) {
      ASSERT_EQ(Decode(decoder, larger[i].data), DECODE_RESULT_PICTURE);
      EXPECT_EQ(NumberShown(decoder, 640), static_cast<int>(i));
    }
  }
}

TEST(Decoder, DisplayIsTheDecodedPictureAndIsAnnounced) {
  static std::atomic<int> drawn;
  drawn = 0;
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  unsigned char* image = nullptr;
  int length = -1;
  tagSIZE size{-1, -1};
  decoder.LockDisplayImage(&image, &length, &size);
  decoder.UnlockDisplayImage();
  EXPECT_EQ(image, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(size.cx, 0);
  decoder.SetDisplaySize({100, 50}, [](IDirect3DSurface9*) { ++drawn; });
  const auto clip = EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 2));
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  EXPECT_EQ(Decode(decoder, {1, 2, 3}), DECODE_RESULT_ERROR);
  EXPECT_EQ(drawn, 1);
  decoder.LockDisplayImage(&image, &length, &size);
  EXPECT_NE(image, nullptr);
  EXPECT_EQ(length, 100 * 50 * 4);
  EXPECT_EQ(size.cy, 50);
  decoder.UnlockDisplayImage();
}

TEST(Decoder, WhatFollowsAJpegInTheSameDataIsIgnored) {
  const auto clip = EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 3));
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  Bytes two = clip[0].data;
  two.insert(two.end(), clip[1].data.begin(), clip[1].data.end());
  EXPECT_EQ(Decode(decoder, two), DECODE_RESULT_PICTURE);
  EXPECT_EQ(NumberShown(decoder, 320), 0);
  Bytes rubbish = clip[1].data;
  rubbish.insert(rubbish.end(), 3000, 0x55);
  EXPECT_EQ(Decode(decoder, rubbish), DECODE_RESULT_PICTURE);
  EXPECT_EQ(NumberShown(decoder, 320), 1);
  EXPECT_EQ(Decode(decoder, clip[2].data), DECODE_RESULT_PICTURE);
  EXPECT_EQ(NumberShown(decoder, 320), 2);
}

TEST(Decoder, DamagedFramesNeverHarmTheFramesAfterAReset) {
  std::mt19937 random(7);
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kMjpeg}) {
    const auto clip = EncodeClip(Spec(codec, 320, 240, 10));
    CMSDecoder decoder;
    ASSERT_EQ(decoder.Create(DecoderCodec(codec), {}), 0);
    int used = -1;
    EXPECT_EQ(decoder.Decode(nullptr, 10, &used), DECODE_RESULT_ERROR);
    EXPECT_EQ(used, 0);
    EXPECT_EQ(decoder.Decode(clip[0].data.data(), 0, &used), DECODE_RESULT_ERROR);
    EXPECT_EQ(decoder.Decode(clip[0].data.data(), -5, &used), DECODE_RESULT_ERROR);
    for (int round = 0; round < 150; ++round) {
      Bytes data = clip[static_cast<std::size_t>(round) % clip.size()].data;
      for (auto hit = random() % 30; hit > 0; --hit) {
        data[random() % data.size()] = static_cast<std::uint8_t>(random());
      }
      data.resize(1 + random() % data.size());
      Decode(decoder, data);
    }
    ASSERT_EQ(decoder.Reset(), 0);
    ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
    EXPECT_EQ(NumberShown(decoder, 320), 0);
    EXPECT_EQ(Decode(decoder, Bytes(5000, 0xA5)), DECODE_RESULT_ERROR);
  }
}

TEST(Decoder, ShowsAFisheyeViewInPlaceOfThePicture) {
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 320, 240));
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {320, 240}), 0);
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  const Bytes whole = Shown(decoder).pixels;
  stFisheyeParameter parameter;
  parameter.mount = 1;
  parameter.viewMode = static_cast<int>(cms::FisheyeViewKind::kOneCamera);
  parameter.centerX = 160;
  parameter.centerY = 120;
  parameter.radius = 170;
  EXPECT_EQ(decoder.CreateFishEyeManager(parameter), 0);
  decoder.SetDewarpPosition(10, -5);
  decoder.SetDewarpZoom(1.5F);
  decoder.SetDisplaySize({200, 100}, nullptr);
  EXPECT_EQ(decoder.GetDewarpMode(), 4);
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  const auto [size, seen] = Shown(decoder);
  ASSERT_EQ(std::pair(size.cx, size.cy), std::pair(200L, 100L));
  EXPECT_EQ(decoder.GetDecodeImageSize().cx, 320);
  // The same view of the whole picture, in colours.
  cms::FisheyeJob job;
  job.lens = {cms::FisheyeProjection::kEquidistant, cms::FisheyeMount::kWall, 180, {160, 120, 170}};
  job.view = cms::MakeFisheyeView(cms::FisheyeViewKind::kOneCamera, job.lens.mount);
  job.view.cameras[0] = {10, -5, 1.5};
  job.source = {320, 240};
  job.shown = {200, 100};
  cms::FisheyeDewarper dewarper;
  ASSERT_TRUE(dewarper.Prepare(job));
  Bytes wanted(seen.size());
  ASSERT_TRUE(dewarper.DewarpBgra(whole, 320 * 4, wanted, 200 * 4));
  double off = 0;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    off += std::abs(seen[i] - wanted[i]);
  }
  EXPECT_LT(off / static_cast<double>(seen.size()), 3);

  decoder.SetPlanar(true);  // for those who draw by themselves
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  cms::PlanarPicture view;
  ASSERT_TRUE(decoder.LockDecodedPlanes(&view));
  EXPECT_EQ(std::pair(view.width, view.height), std::pair(200, 100));
  decoder.UnlockDecodedImage();
  decoder.SetPlanar(false);

  decoder.SetViewMode(99);  // none that there is: the camera's picture
  EXPECT_EQ(decoder.GetDewarpMode(), 99);
  decoder.SetDisplaySize({}, nullptr);
  ASSERT_EQ(Decode(decoder, clip[0].data), DECODE_RESULT_PICTURE);
  EXPECT_EQ(Shown(decoder).pixels, whole);
  decoder.ReleaseFishEyeManager();
  EXPECT_EQ(decoder.GetDewarpMode(), 0);
}

TEST(Decoder, KeepsPlanesAsTheyAreDecoded) {
  for (const ClipCodec codec : {ClipCodec::kH264, ClipCodec::kMjpeg}) {
    const auto clip = EncodeClip(Spec(codec, 320, 240));
    CMSDecoder decoder;
    ASSERT_EQ(decoder.Create(DecoderCodec(codec), {320, 240}), 0);
    decoder.SetPlanar(true);
    cms::PlanarPicture picture;
    EXPECT_FALSE(decoder.LockDecodedPlanes(&picture));
    decoder.UnlockDecodedImage();
    for (std::size_t i = 0; i < clip.size(); ++i) {
      ASSERT_EQ(Decode(decoder, clip[i].data), DECODE_RESULT_PICTURE);
      ASSERT_TRUE(decoder.LockDecodedPlanes(&picture));
      Bytes grey;
      for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
          grey.insert(grey.end(), 4, picture.planes[0][y * picture.strides[0] + x]);
        }
      }
      EXPECT_EQ(picture.fullRange, codec == ClipCodec::kMjpeg);
      EXPECT_NE(picture.planes[2], nullptr);
      decoder.UnlockDecodedImage();
      ASSERT_EQ(picture.width, 320);
      EXPECT_EQ(test::ReadFrameNumber(grey.data(), 320, 240, 320 * 4, 320), static_cast<int>(i));
    }
  }
}

// Counts results as an owner of a decode thread does.
struct Results {
  std::atomic<int> counts[3] = {};
  static void Count(void* context, DECODE_RESULT result) {
    ++static_cast<Results*>(context)->counts[result];
  }
  int Total() const { return counts[0] + counts[1] + counts[2]; }
};

TEST(DecodeThread, DecodesWhatIsQueuedInOrderAndEndsWithoutTheRest) {
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 320, 240, 20));
  Results results;
  CMSDecoder decoder;
  EXPECT_EQ(decoder.IsThreadAlive(), 1);
  EXPECT_EQ(decoder.PutBuffer(clip[0].data.data(), 10), 0);
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  decoder.SetResultCallback(&Results::Count, &results);
  ASSERT_EQ(decoder.StartThread(), 0);
  EXPECT_EQ(decoder.StartThread(), 0);
  EXPECT_EQ(decoder.IsThreadAlive(), 0);
  decoder.Release();
  EXPECT_EQ(decoder.StartThread(), 1) << "the thread runs, but there is no codec";
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  for (const EncodedFrame& frame : clip) {
    // The unpadded copy shows that the queue provides the bytes behind a frame.
    ASSERT_EQ(decoder.PutBuffer(frame.data.data(), static_cast<int>(frame.data.size())), 1);
  }
  ASSERT_TRUE(test::WaitFor([&] { return results.Total() == 20; }));
  EXPECT_EQ(results.counts[DECODE_RESULT_PICTURE], 20);
  EXPECT_EQ(NumberShown(decoder, 320), 19);
  decoder.EndThread();
  EXPECT_EQ(decoder.IsThreadAlive(), 1);
  EXPECT_EQ(decoder.PutBuffer(clip[0].data.data(), 10), 0);
}

TEST(DecodeThread, AFullQueueRefusesFramesAndLosesNoneOfTheOthers) {
  const auto clip = EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 1));
  const int length = static_cast<int>(clip[0].data.size());
  Results results;
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  decoder.SetResultCallback(&Results::Count, &results);
  ASSERT_EQ(decoder.StartThread(), 0);
  int queued = 0;
  decoder.LockDecodedImage(nullptr);  // a viewer that keeps the decode thread waiting
  while (decoder.PutBuffer(clip[0].data.data(), length) == 1) {
    ASSERT_LE(++queued, 32);
  }
  EXPECT_EQ(results.Total(), 0);
  decoder.UnlockDecodedImage();
  EXPECT_EQ(queued, 32);
  ASSERT_TRUE(test::WaitFor([&] { return results.counts[0] == queued; }));
  const Bytes large(20U << 20U, 0);
  decoder.LockDecodedImage(nullptr);
  EXPECT_EQ(decoder.PutBuffer(clip[0].data.data(), length), 1);
  EXPECT_EQ(decoder.PutBuffer(large.data(), static_cast<int>(large.size())), 1);
  EXPECT_EQ(decoder.PutBuffer(large.data(), static_cast<int>(large.size())), 0) << "32 MiB";
  decoder.UnlockDecodedImage();
  decoder.EndThread();
  EXPECT_LE(results.Total(), queued + 2);
}

TEST(DecodeThread, ResetDropsTheQueuedFramesOfTheStreamBefore) {
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 320, 240, 5));
  struct Gate {
    Results results;
    std::atomic<bool> open{false};
  } gate;
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
  decoder.SetResultCallback(
      [](void* context, DECODE_RESULT result) {
        Gate& held = *static_cast<Gate*>(context);
        Results::Count(&held.results, result);
        EXPECT_TRUE(test::WaitFor([&] { return held.open.load(); }));
      },
      &gate);
  ASSERT_EQ(decoder.StartThread(), 0);
  const auto put = [&](std::size_t frame) {
    const Bytes& data = clip[frame].data;
    return decoder.PutBuffer(data.data(), static_cast<int>(data.size()));
  };
  ASSERT_EQ(put(0), 1);
  ASSERT_TRUE(test::WaitFor([&] { return gate.results.Total() == 1; }));
  for (std::size_t frame = 1; frame < 5; ++frame) {
    ASSERT_EQ(put(frame), 1);
  }
  ASSERT_EQ(decoder.Reset(), 0);
  ASSERT_EQ(put(0), 1);
  gate.open = true;
  ASSERT_TRUE(test::WaitFor([&] { return gate.results.Total() == 2; }));
  EXPECT_EQ(gate.results.counts[DECODE_RESULT_PICTURE], 2);
  decoder.EndThread();
  EXPECT_EQ(gate.results.Total(), 2);
}

// A drawing thread asks and resets while it holds the picture, as one lock for all would allow.
TEST(DecodeThread, ADrawingThreadMayUseTheDecoderWhileItHoldsThePicture) {
  const auto clip = EncodeClip(Spec(ClipCodec::kMjpeg, 320, 240, 1));
  const Bytes& data = clip[0].data;
  std::atomic<bool> stop{false};
  std::atomic<int> decoded{0};
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  std::thread receiver([&] {
    while (!stop) {
      decoded += Decode(decoder, data) == DECODE_RESULT_PICTURE ? 1 : 0;
    }
  });
  for (int round = 0; round < 200; ++round) {
    const int before = decoded;
    ASSERT_TRUE(test::WaitFor([&] { return decoded > before; }));
    decoder.LockDecodedImage(nullptr);
    EXPECT_EQ(decoder.IsResetNeeded(DECODE_CODEC_MJPEG, {320, 240}), 1);
    if (round % 4 == 0) {
      EXPECT_EQ(decoder.Reset(), 0);
      EXPECT_EQ(decoder.GetDecodeImageSize().cx, 0);
    }
    decoder.UnlockDecodedImage();
  }
  stop = true;
  receiver.join();
  EXPECT_EQ(NumberShown(decoder, 320), 0);
}

TEST(DecodeThread, EndsUnderLoadWhileOthersDrawResetAndQueue) {
  const auto clip = EncodeClip(Spec(ClipCodec::kH264, 160, 120, 10));
  for (int round = 0; round < 10; ++round) {
    Results results;
    std::atomic<bool> stop{false};
    CMSDecoder decoder;
    decoder.SetResultCallback(&Results::Count, &results);
    ASSERT_EQ(decoder.Create(DECODE_CODEC_H264, {}), 0);
    ASSERT_EQ(decoder.StartThread(), 0);
    std::thread feeder([&] {
      for (std::size_t i = 0; !stop; ++i) {
        const Bytes& data = clip[i % clip.size()].data;
        decoder.PutBuffer(data.data(), static_cast<int>(data.size()));
      }
    });
    std::thread viewer([&] {
      while (!stop) {
        Shown(decoder);
        decoder.SetDisplaySize({120 + round, 90}, nullptr);
        decoder.IsResetNeeded(DECODE_CODEC_H264, {160, 120});
        decoder.GetDecodeImageSize();
      }
    });
    EXPECT_TRUE(test::WaitFor([&] { return results.counts[0] > 5; }));
    EXPECT_EQ(decoder.Reset(), 0);
    EXPECT_TRUE(test::WaitFor([&] { return results.counts[0] > 10; }));
    decoder.EndThread();
    EXPECT_EQ(decoder.IsThreadAlive(), 1);
    EXPECT_EQ(decoder.StartThread(), 0);
    stop = true;
    feeder.join();
    viewer.join();
    // Destroyed with the thread running.
  }
}

}  // namespace
