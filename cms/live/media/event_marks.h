// The event marks in a frame header: what the site says about a channel, and the recorder's own.
#pragma once

#include <cstdint>
#include <span>

#include "cms/live/media/drv_header.h"
#include "cms/runtime/api.h"

namespace cms {

struct EventMarks {
  bool deviceEvent = false;
  bool alarm = false;
  bool videoLoss = false;

  // As a CMSEventState, and in an index record.
  constexpr unsigned State() const {
    return (deviceEvent ? 1u : 0u) | (alarm ? 2u : 0u) | (videoLoss ? 4u : 0u);
  }
  bool operator==(const EventMarks&) const = default;
};

// The marks of one channel. They stand in flags of the frame, or in masks that have room for the
// channels 0 to 15: others have none there. Any thread.
CMS_API EventMarks ReadEventMarks(const DrvHeader& header, unsigned channel);

// Sets the device-event mark of a channel where its header keeps it; false when it has no room for
// it. The check bytes are the caller's to recompute (SealFrameHeader).
CMS_API bool SetDeviceEventMark(std::span<std::uint8_t, kDrvHeaderSize> header, unsigned channel);

}  // namespace cms
