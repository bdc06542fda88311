#include "cms/streaming/interleaved.h"

#include <gtest/gtest.h>

#include "cms/exports/rtsp_exports.h"

TEST(Interleaved, HeadersAreToldByTheNegotiatedChannels) {
  const unsigned char header[] = {'$', 200, 0xfe, 0x01};
  EXPECT_NE(RTSPIsInterleavedHeaderValid(header, 0, 1, 200, 201), 0);
  EXPECT_EQ(RTSPIsInterleavedHeaderValid(header, 0, 1, 2, 3), 0);
  EXPECT_EQ(RTSPGetInterleavedID(header), 200);
  EXPECT_EQ(RTSPGetInterleavedPacketLength(header), 0xfe01);

  const unsigned char noHeader[] = {'#', 200, 0, 0};
  EXPECT_EQ(RTSPIsInterleavedHeaderValid(noHeader, 0, 1, 200, 201), 0);
  const unsigned char highest[] = {'$', 255, 0, 0};
  EXPECT_EQ(RTSPIsInterleavedHeaderValid(highest, 0, 1, -1, -1), 0)
      << "a channel that was not set up must not take channel 255";
  EXPECT_EQ(GetInterleaveType(3, {3, 2, 1, 0}), cms::kInterleaveVideoRTP);
  EXPECT_EQ(GetInterleaveType(-1, {0, 1, -1, -1}), -1);
}
