#include "cms/exports/rtsp_exports.h"

#include "cms/streaming/interleaved.h"

int RTSPIsInterleavedHeaderValid(const unsigned char* header, int videoRTP, int videoRTCP,
                                 int audioRTP, int audioRTCP) {
  if (header[0] != '$') return 0;
  return GetInterleaveType(header[1], {videoRTP, videoRTCP, audioRTP, audioRTCP}) >= 0 ? 1 : 0;
}

unsigned char RTSPGetInterleavedID(const unsigned char* header) {
  return header[1];
}

unsigned short RTSPGetInterleavedPacketLength(const unsigned char* header) {
  return static_cast<unsigned short>(header[2] << 8 | header[3]);
}
