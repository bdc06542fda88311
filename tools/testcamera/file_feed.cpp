#include "tools/testcamera/file_feed.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include "tools/testcamera/file_reader.h"

namespace testcamera {
namespace {

constexpr auto kFeedPoll = std::chrono::milliseconds(5);
// A feed that was held up longer than this goes on from now instead of catching up in a burst.
constexpr GstClockTime kLate = 200 * GST_MSECOND;

// Nothing before the element plays: it gets its clock a moment before its base time.
GstClockTime RunningTime(GstElement* element) {
  GstState state = GST_STATE_NULL;
  gst_element_get_state(element, &state, nullptr, 0);
  return state == GST_STATE_PLAYING ? gst_element_get_current_running_time(element)
                                    : GST_CLOCK_TIME_NONE;
}

}  // namespace

FileFeed::FileFeed(const CameraOptions& options, GstElement* appsrc)
    : path_(options.file),
      pictureTime_(GST_SECOND / static_cast<GstClockTime>(options.fps)),
      appsrc_(GST_ELEMENT(gst_object_ref(appsrc))),
      thread_([this] { Run(); }) {}

FileFeed::~FileFeed() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  thread_.join();
}

// False when the feed is to stop.
bool FileFeed::WaitFor(std::chrono::steady_clock::duration time) {
  std::unique_lock lock(mutex_);
  return !stop_.wait_for(lock, time, [this] { return stopping_; });
}

void FileFeed::Run() {
  try {
    while (Play()) {
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orvanta camera: %s\n", error.what());
    gst_app_src_end_of_stream(GST_APP_SRC(appsrc_.get()));
  }
}

// One round through the file; false when the feed is to stop.
bool FileFeed::Play() {
  FileReader reader(path_);
  GstClockTime first = GST_CLOCK_TIME_NONE;
  GstClockTime length = 0;
  GstClockTime next = 0;  // where a picture without a time stands
  while (const MiniPtr<GstSample> sample = reader.Next()) {
    GstBuffer* picture = gst_sample_get_buffer(sample.get());
    const MiniPtr<GstBuffer> buffer(gst_buffer_copy(picture));
    GstClockTime pts = GST_BUFFER_PTS(picture);
    GstClockTime dts = GST_BUFFER_DTS(picture);
    if (!GST_CLOCK_TIME_IS_VALID(dts)) {
      dts = GST_CLOCK_TIME_IS_VALID(pts) ? pts : next;
    }
    if (!GST_CLOCK_TIME_IS_VALID(pts)) {
      pts = dts;
    }
    const GstClockTime duration = GST_CLOCK_TIME_IS_VALID(GST_BUFFER_DURATION(picture))
                                      ? GST_BUFFER_DURATION(picture)
                                      : pictureTime_;
    next = dts + duration;
    if (!GST_CLOCK_TIME_IS_VALID(first)) {
      first = std::min(dts, pts);
    }
    pts -= std::min(first, pts);
    dts -= std::min(first, dts);
    length = std::max(length, std::max(pts, dts) + duration);

    GstClockTime now = RunningTime(appsrc_.get());
    while (!GST_CLOCK_TIME_IS_VALID(now) || now < base_ + played_ + dts) {
      const auto wait = GST_CLOCK_TIME_IS_VALID(now)
                            ? std::chrono::nanoseconds(base_ + played_ + dts - now)
                            : std::chrono::nanoseconds(kFeedPoll);
      if (!WaitFor(wait)) {
        return false;
      }
      now = RunningTime(appsrc_.get());
    }
    if (now - (base_ + played_ + dts) > kLate) {
      base_ = now - played_ - dts;
    }
    GST_BUFFER_PTS(buffer.get()) = base_ + played_ + pts;
    GST_BUFFER_DTS(buffer.get()) = base_ + played_ + dts;
    const MiniPtr<GstSample> timed(
        gst_sample_new(buffer.get(), gst_sample_get_caps(sample.get()), nullptr, nullptr));
    if (gst_app_src_push_sample(GST_APP_SRC(appsrc_.get()), timed.get()) != GST_FLOW_OK) {
      return false;  // the pipeline is being taken down
    }
  }
  played_ += length;
  return WaitFor(std::chrono::seconds(0));
}

}  // namespace testcamera
