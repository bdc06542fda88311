// What FX_DRVRecorder keeps and does not show.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "cms/recording/channel_set.h"
#include "cms/recording/drv_recorder.h"

namespace FX {

struct FX_DRVRecorder::Kinds {
  std::array<cms::ChannelSet, cms::kRecordKinds.size()> running;  // changed under starting_
  std::array<cms::ChannelSet, cms::kRecordKinds.size()> enabled;
};

// The writer's lock guards it.
struct FX_DRVRecorder::Frames {
  // An event that runs while `isOpen`, with what it takes to store its record.
  struct Event {
    bool isOpen = false;
    std::wstring drvPath;
    std::uint8_t preAlarm = 0;
    std::int64_t start = 0;
    std::int64_t end = 0;
  };

  // What the next key frame of a channel is held against.
  struct Shown {
    std::uint32_t seconds = 0;  // of the latest frame; 0: none is in the open file
    std::uint64_t tick = 0;     // of its arrival
    std::uint64_t format = 0;

    // Whether a clock was set between it and a frame: times go back, or far ahead of what has
    // passed.
    bool IsBehindStep(std::uint32_t frameSeconds, std::uint64_t frameTick) const {
      constexpr std::uint64_t kAhead = 30;
      const std::uint64_t passed = frameTick > tick ? (frameTick - tick) / 1000 : 0;
      return seconds != 0 && (frameSeconds < seconds || frameSeconds - seconds > passed + kAhead);
    }
  };

  Event& EventOf(cms::RecordKind kind, unsigned channel) { return events[IndexOf(kind)][channel]; }
  Shown& ShownOf(std::uint64_t file, unsigned channel);
  std::uint64_t Milliseconds(const cms::FrameView& frame);

  stRecordParam param{};
  std::uint8_t preAlarm = 0;
  bool preAlarmEnabled = false;
  std::array<std::array<Event, cms::kChannels>, cms::kEventKinds.size()> events;
  std::array<Shown, cms::kChannels> shown;
  std::uint64_t shownFile = 0;  // whose frames they are
  bool hasVideo = false;        // that file
  bool soundAlone = false;      // the site

  // The millisecond counter of the running second.
  std::uint32_t second = 0;
  std::uint64_t secondTick = 0;
  std::uint64_t millisecond = 0;
};

}  // namespace FX
