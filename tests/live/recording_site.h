// A site client with a recorder, frames of a camera and a clock that tests turn.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "cms/recording/gap_log.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/recording_client.h"
#include "tests/support/wait.h"

namespace test {

class SiteRecordingTest : public testing::Test {
 protected:
  SiteRecordingTest() : source_(Clip()) { client_.emplace(ParamFor(12)); }

  static constexpr int kFps = 10;

  static ClipSpec Clip() {
    ClipSpec spec;
    spec.gop = 2 * kFps;  // a key frame every two seconds
    spec.frames = 4 * kFps;
    return spec;
  }

  void Seconds(int seconds, cms::EventMarks marks = {}) {
    for (int i = 0; i < seconds; ++i) {
      for (int frame = 0; frame < kFps; ++frame) {
        client_->Give(source_, marks);
        client_->GiveAudio();
        site_.clock.AdvanceMilliseconds(1000 / kFps);
      }
      site_.clock.SetWall(site_.clock.WallSeconds() + 1);
    }
  }
  void Silence(int seconds) { site_.clock.Advance(seconds); }

  // Those of the events that are over; the disk's thread is told of an end a moment behind it.
  static std::vector<cms::EventRow> EventRows(std::size_t expected) {
    WaitFor([&] { return cms::ReadEventList(0).rows.size() >= expected; });
    WaitForDisk();
    return cms::ReadEventList(0).rows;
  }
  std::vector<cms::GapRow> Gaps() const { return cms::ReadGapLog(0).rows; }
  // The clock's thread looks by itself; it needs two looks a second apart.
  bool WaitForGap(cms::GapCause cause) {
    return WaitFor([&] {
      site_.clock.Advance(1);
      const auto gaps = Gaps();
      return !gaps.empty() && gaps.back().cause == cause && gaps.back().to == 0;
    });
  }
  bool WaitForEnd(std::size_t gap) {
    return WaitFor([&] {
      site_.clock.Advance(1);
      client_->Give(source_);
      return Gaps().at(gap).to != 0;
    });
  }
  static std::vector<RecordedFrame> Video(const std::vector<RecordedFile>& files) {
    std::vector<RecordedFrame> video;
    for (const auto& file : files) {
      std::copy_if(file.frames.begin(), file.frames.end(), std::back_inserter(video),
                   [](const auto& frame) { return !frame.audio; });
    }
    return video;
  }

  RecordingFolder site_;
  FrameSource source_;
  std::optional<RecordingClient> client_;
};

}  // namespace test
