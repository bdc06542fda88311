#include "tools/testcamera/picture_source.h"

#include <gst/app/gstappsink.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/pipeline_text.h"
#include "tools/testcamera/stream_probes.h"

namespace testcamera {
namespace {

constexpr GstClockTime kPoll = 100 * GST_MSECOND;

// A running pipeline, taken down when it goes.
class Pipeline {
 public:
  explicit Pipeline(const std::string& text) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(text.c_str(), &error);
    if (error != nullptr) {
      const ErrorPtr owned(error);
      throw std::runtime_error(owned->message);
    }
    pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(pipeline)));
    sink_.reset(gst_bin_get_by_name(GST_BIN(pipeline), "sink"));
    if (const ObjectPtr<GstElement> stamp(gst_bin_get_by_name(GST_BIN(pipeline), kStampName));
        stamp != nullptr) {
      NumberPictures(stamp.get());
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
  }
  ~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  MiniPtr<GstSample> Pull() {
    return MiniPtr<GstSample>(gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()), kPoll));
  }
  bool Ended() { return gst_app_sink_is_eos(GST_APP_SINK(sink_.get())) != FALSE; }
  void ThrowOnError() {
    const ObjectPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    if (const MiniPtr<GstMessage> message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
        message != nullptr) {
      GError* error = nullptr;
      gst_message_parse_error(message.get(), &error, nullptr);
      throw std::runtime_error(ErrorPtr(error)->message);
    }
  }

 private:
  ObjectPtr<GstElement> pipeline_;
  ObjectPtr<GstElement> sink_;
};

std::string Bytes(GstSample* sample) {
  GstMapInfo map;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  gst_buffer_map(buffer, &map, GST_MAP_READ);
  std::string bytes(reinterpret_cast<const char*>(map.data), map.size);
  gst_buffer_unmap(buffer, &map);
  return bytes;
}

}  // namespace

PictureSource::PictureSource(const CameraOptions& options)
    : options_(options), thread_([this] { Run(); }) {}

PictureSource::~PictureSource() {
  Stop();
  thread_.join();
}

void PictureSource::Stop() {
  const std::lock_guard lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
}

void PictureSource::Run() {
  try {
    while (true) {
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return stopping_ || watchers_ > 0; });
        if (stopping_) {
          return;
        }
      }
      while (Play()) {
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orvanta camera: %s\n", error.what());
    Stop();
  }
}

bool PictureSource::Play() {
  Pipeline pipeline(HttpPipeline(options_));
  bool any = false;
  while (true) {
    Picture picture;
    if (const auto sample = pipeline.Pull()) {
      picture = std::make_shared<const std::string>(Bytes(sample.get()));
      any = true;
    } else {
      pipeline.ThrowOnError();
      if (pipeline.Ended()) {
        if (!any) {
          throw std::runtime_error(options_.file + ": no picture in it");
        }
        return true;
      }
    }
    const std::lock_guard lock(mutex_);
    if (stopping_ || watchers_ == 0) {
      return false;
    }
    if (picture != nullptr) {
      latest_ = std::move(picture);
      ++number_;
      changed_.notify_all();
    }
  }
}

PictureSource::Watch::Watch(PictureSource& source) : source_(source) {
  const std::lock_guard lock(source_.mutex_);
  ++source_.watchers_;
  seen_ = source_.number_;
  source_.changed_.notify_all();
}

PictureSource::Watch::~Watch() {
  const std::lock_guard lock(source_.mutex_);
  --source_.watchers_;
}

PictureSource::Picture PictureSource::Watch::Next() {
  std::unique_lock lock(source_.mutex_);
  source_.changed_.wait(lock, [this] { return source_.stopping_ || source_.number_ != seen_; });
  seen_ = source_.number_;
  return source_.stopping_ ? nullptr : source_.latest_;
}

}  // namespace testcamera
