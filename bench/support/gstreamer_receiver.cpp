#include <gst/gst.h>

#include <atomic>
#include <cstdio>
#include <deque>

#include "bench/support/receivers.h"

namespace bench {
namespace {

class GStreamerReceiver final : public Receiver {
 public:
  explicit GStreamerReceiver(const ReceiveJob& job)
      : job_(job), streams_(static_cast<std::size_t>(job.streams)) {}
  ~GStreamerReceiver() override {
    if (pipeline_ != nullptr) {
      gst_element_set_state(pipeline_, GST_STATE_NULL);
      gst_object_unref(pipeline_);
    }
  }

  bool Open() override {
    gst_init(nullptr, nullptr);
    std::string text;
    for (int i = 0; i < job_.streams; ++i) {
      const std::string number = std::to_string(i);
      const std::string codec = job_.h265 ? "h265" : "h264";
      const std::string rest = job_.recordTo.empty()
                                   ? "fakesink sync=false async=false name=sink" + number
                                   : codec + "parse name=sink" + number +
                                         " ! matroskamux ! filesink location=" + job_.recordTo +
                                         "/" + number + ".mkv";
      text += "rtspsrc location=rtsp://127.0.0.1:" + std::to_string(job_.port) +
              "/clip protocols=" + (job_.tcp ? "tcp" : "udp") + " ! rtp" + codec + "depay ! " +
              rest + " ";
    }
    GError* error = nullptr;
    pipeline_ = gst_parse_launch(text.c_str(), &error);
    if (error != nullptr) {
      std::fprintf(stderr, "%s\n", error->message);
      g_error_free(error);
      return false;
    }
    for (int i = 0; i < job_.streams; ++i) {
      GstElement* const sink =
          gst_bin_get_by_name(GST_BIN(pipeline_), ("sink" + std::to_string(i)).c_str());
      GstPad* const pad = gst_element_get_static_pad(sink, "sink");
      gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &GStreamerReceiver::OnBuffer,
                        &streams_[static_cast<std::size_t>(i)], nullptr);
      gst_object_unref(pad);
      gst_object_unref(sink);
    }
    return gst_element_set_state(pipeline_, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
  }

  ReceiveTotals Totals() override {
    ReceiveTotals totals;
    totals.fewestFrames = ~std::uint64_t{0};
    for (const Stream& stream : streams_) {
      const std::uint64_t frames = stream.frames.load(std::memory_order_relaxed);
      totals.frames += frames;
      totals.fewestFrames = std::min(totals.fewestFrames, frames);
      totals.bytes += stream.bytes.load(std::memory_order_relaxed);
      totals.delivering += frames > 0 ? 1 : 0;
    }
    totals.lostPackets = LostPackets();
    return totals;
  }

 private:
  struct Stream {
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint64_t> bytes{0};
  };

  static GstPadProbeReturn OnBuffer(GstPad*, GstPadProbeInfo* info, gpointer stream) {
    GstBuffer* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    auto* const to = static_cast<Stream*>(stream);
    to->bytes.fetch_add(gst_buffer_get_size(buffer), std::memory_order_relaxed);
    if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_MARKER)) {  // the last unit of a picture
      to->frames.fetch_add(1, std::memory_order_relaxed);
    }
    return GST_PAD_PROBE_OK;
  }

  std::uint64_t LostPackets() {
    std::uint64_t lost = 0;
    GstIterator* const elements =
        gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline_), "rtpjitterbuffer");
    gst_iterator_foreach(
        elements,
        [](const GValue* value, gpointer sum) {
          GstStructure* stats = nullptr;
          g_object_get(g_value_get_object(value), "stats", &stats, nullptr);
          guint64 count = 0;
          if (stats != nullptr && gst_structure_get_uint64(stats, "num-lost", &count) != FALSE) {
            *static_cast<std::uint64_t*>(sum) += count;
          }
          if (stats != nullptr) {
            gst_structure_free(stats);
          }
        },
        &lost);
    gst_iterator_free(elements);
    return lost;
  }

  ReceiveJob job_;
  GstElement* pipeline_ = nullptr;
  std::deque<Stream> streams_;
};

}  // namespace

std::unique_ptr<Receiver> MakeGStreamerReceiver(const ReceiveJob& job) {
  return std::make_unique<GStreamerReceiver>(job);
}

}  // namespace bench
