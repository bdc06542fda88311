// Recordings of a clip whose pictures carry their numbers, and a controller that plays them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/runtime/native_path.h"
#include "tests/support/drv_generator.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/recording_reader.h"
#include "tests/support/wait.h"

namespace test {

inline constexpr std::int64_t kStart = 1'700'000'000'000;  // milliseconds
inline constexpr int kClipWidth = 160;

// 250 pictures, 25 a second, a key frame every 10.
inline const std::vector<EncodedFrame>& NumberedClip() {
  static const std::vector<EncodedFrame> clip = [] {
    ClipSpec spec;
    spec.width = kClipWidth;
    spec.height = 96;
    spec.frames = 250;
    spec.gop = 10;
    return EncodeClip(spec);
  }();
  return clip;
}

// A recording of a clip's frames [first, first + count), 40 ms apart from `start` on.
struct ClipRecording {
  int first = 0;
  int count = 100;
  std::int64_t start = kStart;
  std::int64_t interval = 40;
  bool audio = false;  // a block behind each picture
  unsigned channel = 0;
  const std::vector<EncodedFrame>* clip = &NumberedClip();

  DrvRecording drv;
  std::string idx;

  std::int64_t TimeOf(int number) const { return start + (number - first) * interval; }

  ClipRecording& Make(bool keyFramesOnly = false) {
    for (int i = 0; i < count; ++i) {
      const EncodedFrame& frame = (*clip)[static_cast<std::size_t>(first + i) % clip->size()];
      const std::int64_t time = start + i * interval;
      DrvFrameSpec spec;
      spec.frameType = frame.key ? 1 : 2;
      spec.stream = channel;
      spec.seconds = static_cast<std::uint32_t>(time / 1000);
      spec.sequence = static_cast<std::uint32_t>(i + 1);
      spec.payload.assign(frame.data.begin(), frame.data.end());
      if (frame.key || !keyFramesOnly) {
        idx += MakeIdxRecord(channel, static_cast<std::uint32_t>(drv.bytes.size()),
                             static_cast<std::uint64_t>(time), spec.frameType);
      }
      drv.Add(spec);
      if (audio) {
        DrvFrameSpec sound;
        sound.audio = true;
        sound.stream = channel;
        sound.seconds = spec.seconds;
        sound.payload = "sound " + std::to_string(first + i);
        drv.Add(sound);
      }
    }
    return *this;
  }

  // The parts of a file, for recordings that are cut, damaged or without an index.
  static void Put(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }
  void Write(const std::string& path) const {
    Put(path, drv.bytes);
    Put(path.substr(0, path.size() - 3) + "idx", idx);
  }
};

// A controller over recordings of a temporary folder, with the clock in the test's hand.
class Player {
 public:
  Player() { config.startPaused = true; }

  std::string Path(const std::string& name) { return folder.File(name); }

  // A site that plays the files of these names.
  void AddSite(const std::vector<std::string>& names) {
    cms::_MULTI_PB_SITE_CONFIG site;
    site.siteNumber = static_cast<std::uint32_t>(config.sites.size() + 1);
    for (const std::string& name : names) {
      site.files.push_back(cms::SystemPath(Path(name)));
    }
    config.sites.push_back(site);
  }

  bool Start() {
    return control.SetConfig(config) != 0 && control.StartPlayback() != 0 &&
           control.WaitUntilShown(30'000) != 0;
  }

  // The number burnt into the picture shown: -1 when it cannot be read, -2 without a picture.
  int Number(unsigned site = 0, unsigned channel = 0) {
    tagSIZE size;
    const unsigned char* const pixels = control.LockDecodedImage(site, channel, &size);
    if (pixels == nullptr) {
      return -2;
    }
    const int number = ReadFrameNumber(pixels, static_cast<int>(size.cx), static_cast<int>(size.cy),
                                       static_cast<int>(size.cx) * 4,
                                       site < codedWidths.size() ? codedWidths[site] : kClipWidth);
    control.UnlockDecodedImage(site, channel);
    return number;
  }

  // After an operation of the transport.
  int Settled(unsigned site = 0, unsigned channel = 0) {
    return control.WaitUntilShown(30'000) != 0 ? Number(site, channel) : -3;
  }

  // While playing: the clock goes on, and this picture appears.
  bool Shows(int number, unsigned site = 0) {
    return WaitFor([&] { return Number(site) == number; });
  }

  // While the clock goes from one picture's time to the next, forward or backward, each appears.
  testing::AssertionResult Plays(int from, int to) {
    for (int number = from;; number += to < from ? -1 : 1) {
      if (!Shows(number) || control.CurTimeGet(0, 0) != kStart + number * 40) {
        return testing::AssertionFailure() << number << " is " << Number();
      }
      if (number == to) {
        return testing::AssertionSuccess();
      }
      clock.AdvanceMilliseconds(40);
    }
  }

  TestClock clock;
  TemporaryFolder folder;
  std::vector<int> codedWidths;  // of sites whose recordings are no clips
  _MULTI_SITE_PLAYBACK_CONFIG config;
  CCMSMultiSitePlaybackCtrl control;  // goes first: its threads read the clock
};

}  // namespace test
