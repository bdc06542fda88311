#include "cms/exports/codec_exports.h"

#include <gtest/gtest.h>

#include <vector>

#include "cms/live/media/codec_id.h"
#include "tests/support/encoded_clip.h"

namespace {

using test::ClipCodec;

struct Case {
  ClipCodec codec;
  cms::CMSCodecID id;
  int fullRange;
};

// Reads the frame number straight from the luma plane, as BGRA of that grey.
int Number(const cms::CMSRawPicture& picture) {
  std::vector<std::uint8_t> bgra;
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      bgra.insert(bgra.end(), 4, picture.planes[0][y * picture.strides[0] + x]);
    }
  }
  return test::ReadFrameNumber(bgra.data(), picture.width, 16, picture.width * 4, picture.width);
}

TEST(CodecExports, GivePlanarPicturesOfEveryVideoCodec) {
  for (const Case& c : {Case{ClipCodec::kH264, cms::CMS_CODEC_H264, 0},
                        Case{ClipCodec::kMjpeg, cms::CMS_CODEC_MJPEG, 1},
                        Case{ClipCodec::kMpeg4, cms::CMS_CODEC_MPEG4, 0}}) {
    SCOPED_TRACE(c.id);
    test::ClipSpec spec;
    spec.codec = c.codec;
    spec.frames = 5;
    void* codec = CMS_avcodec_open(c.id);
    ASSERT_NE(codec, nullptr);
    std::vector<cms::CMSRawPicture*> pictures;
    for (const test::EncodedFrame& frame : test::EncodeClip(spec)) {
      int used = 0;
      cms::CMSRawPicture* picture = nullptr;
      // The exact-size vector lets AddressSanitizer see a read behind the data.
      ASSERT_EQ(CMS_FFMPEG_Decode(codec, frame.data.data(), static_cast<int>(frame.data.size()),
                                  &used, &picture),
                0);
      EXPECT_EQ(used, static_cast<int>(frame.data.size()));
      pictures.push_back(picture);
      CMS_FFMPEG_Decode_Buffer_Free(codec);
    }
    EXPECT_EQ(CMS_avcodec_close(codec), 1);
    EXPECT_EQ(CMS_avcodec_close(codec), 0);
    cms::CMSRawPicture* none = nullptr;
    const unsigned char byte = 0;
    EXPECT_EQ(CMS_FFMPEG_Decode(codec, &byte, 1, nullptr, &none), 1);
    CMS_av_free(codec);
    ASSERT_EQ(pictures.size(), 5U);
    for (int i = 0; i < 5; ++i) {
      cms::CMSRawPicture* picture = pictures[static_cast<std::size_t>(i)];
      EXPECT_EQ(picture->format, cms::CMS_PICTURE_YUV420P);
      EXPECT_EQ(picture->fullRange, c.fullRange);
      EXPECT_EQ(picture->height, spec.height);
      EXPECT_EQ(Number(*picture), i);
      CMS_av_free_frame(picture);
    }
  }
}

TEST(CodecExports, RefuseWhatIsWrong) {
  EXPECT_EQ(CMS_avcodec_open(0), nullptr);
  EXPECT_EQ(CMS_avcodec_open(27), nullptr);
  EXPECT_EQ(CMS_avcodec_close(nullptr), 0);
  CMS_av_free(nullptr);
  CMS_av_free_frame(nullptr);
  CMS_FFMPEG_Decode_Buffer_Free(nullptr);
  cms::CMSRawPicture* picture = nullptr;
  const unsigned char rubbish[100] = {};
  EXPECT_EQ(CMS_FFMPEG_Decode(nullptr, rubbish, 100, nullptr, &picture), 1);
  void* codec = CMS_avcodec_open(cms::CMS_CODEC_H264);
  int used = -1;
  EXPECT_EQ(CMS_FFMPEG_Decode(codec, nullptr, 100, &used, &picture), 1);
  EXPECT_EQ(used, 0);
  EXPECT_EQ(CMS_FFMPEG_Decode(codec, rubbish, 100, &used, nullptr), 1);
  EXPECT_EQ(CMS_FFMPEG_Decode(codec, rubbish, 100, &used, &picture), 1);
  EXPECT_EQ(picture, nullptr);
  CMS_av_free(codec);  // closes it too
}

}  // namespace
