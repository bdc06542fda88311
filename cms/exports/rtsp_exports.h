// Plain functions on the header of an interleaved frame, the four bytes in front of each RTP or
// RTCP packet on an RTSP connection (RFC 2326, 10.12). `header` points to four readable bytes. Any
// thread.
#pragma once

#include "cms/runtime/api.h"

extern "C" {

// Non-zero when the header starts with "$" and its channel id is one of the four; -1 stands for a
// channel that was not set up and equals no id.
CMS_API int RTSPIsInterleavedHeaderValid(const unsigned char* header, int videoRTP, int videoRTCP,
                                         int audioRTP, int audioRTCP);

// The channel id.
CMS_API unsigned char RTSPGetInterleavedID(const unsigned char* header);

// The length in bytes of the packet behind the header, in host order.
CMS_API unsigned short RTSPGetInterleavedPacketLength(const unsigned char* header);
}
