// The event marks in a frame header: what the site says about a channel, and the recorder's own.
#pragma once

#include <cstdint>
#include <span>

#include "cms/recording/drv_format.h"
#include "cms/runtime/api.h"

namespace cms {

struct EventMarks {
  bool deviceEvent = false;
  bool alarm = false;
  bool videoLoss = false;

  bool operator==(const EventMarks&) const = default;
};

// The marks of one channel. They stand in flags of the frame, or in masks that have room for the
// channels 0 to 15: others have none there. Any thread.
CMS_API EventMarks ReadEventMarks(const DrvHeader& header, unsigned channel);

// Sets the device-event mark of a channel where its header keeps it. The check bytes are the
// caller's to recompute (SealFrameHeader).
CMS_API void SetDeviceEventMark(std::span<std::uint8_t, kDrvHeaderSize> header, unsigned channel);

}  // namespace cms
