#include "tools/testcamera/file_reader.h"

#include <cstring>
#include <stdexcept>

namespace testcamera {
namespace {

constexpr GstClockTime kPatience = 10 * GST_SECOND;

GstElement* Make(const char* factory) {
  GstElement* element = gst_element_factory_make(factory, nullptr);
  if (element == nullptr) {
    throw std::runtime_error(std::string("GStreamer's element ") + factory + " is not installed");
  }
  return element;
}

// The chain between the demultiplexer's pad and the sink; nullptr for what no camera sends.
const char* ParserFor(const GstStructure* caps, VideoCodec* codec) {
  int version = 0;
  if (gst_structure_has_name(caps, "video/x-h264")) {
    *codec = VideoCodec::kH264;
    return "h264parse ! video/x-h264,stream-format=avc,alignment=au";
  }
  if (gst_structure_has_name(caps, "video/x-h265")) {
    *codec = VideoCodec::kH265;
    return "h265parse ! video/x-h265,stream-format=hvc1,alignment=au";
  }
  if (gst_structure_has_name(caps, "video/mpeg") &&
      gst_structure_get_int(caps, "mpegversion", &version) && version == 4) {
    *codec = VideoCodec::kMpeg4;
    return "mpeg4videoparse";
  }
  if (gst_structure_has_name(caps, "image/jpeg")) {
    *codec = VideoCodec::kMjpeg;
    return "jpegparse";
  }
  return nullptr;
}

}  // namespace

FileReader::FileReader(const std::string& path)
    : pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))) {
  GstElement* source = Make("filesrc");
  GstElement* parse = Make("parsebin");
  sink_.reset(GST_ELEMENT(gst_object_ref_sink(Make("appsink"))));
  g_object_set(source, "location", path.c_str(), nullptr);
  g_object_set(sink_.get(), "sync", FALSE, "max-buffers", 8u, nullptr);
  gst_bin_add_many(GST_BIN(pipeline_.get()), source, parse, nullptr);
  gst_element_link(source, parse);
  g_signal_connect(parse, "pad-added", G_CALLBACK(&FileReader::OnPad), this);
  // Added with its pad: a sink without a stream would keep the pipeline from ever ending.
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);

  // Until the first picture, an error, or the end of a file that has none.
  const ObjectPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  const gint64 deadline = g_get_monotonic_time() + gint64{GST_TIME_AS_USECONDS(kPatience)};
  while (first_ == nullptr && g_get_monotonic_time() < deadline) {
    first_.reset(gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()), 5 * GST_MSECOND));
    const MiniPtr<GstMessage> end(gst_bus_pop_filtered(
        bus.get(), static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    if (end != nullptr && first_ == nullptr) {
      std::string reason = "no H.264, H.265, MPEG-4 or JPEG video in it";
      if (GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(end.get(), &error, nullptr);
        reason = ErrorPtr(error)->message;
      }
      gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
      throw std::runtime_error(path + ": " + reason);
    }
  }
  if (first_ == nullptr) {
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    throw std::runtime_error(path + ": no video found in it");
  }
}

FileReader::~FileReader() {
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

void FileReader::OnPad(GstElement*, GstPad* pad, FileReader* reader) {
  const MiniPtr<GstCaps> caps(gst_pad_query_caps(pad, nullptr));
  const GstStructure* structure = gst_caps_get_structure(caps.get(), 0);
  const char* parser = reader->linked_ ? nullptr : ParserFor(structure, &reader->codec_);
  GstElement* next = nullptr;
  if (parser != nullptr) {
    reader->linked_ = true;
    next = gst_parse_bin_from_description(parser, TRUE, nullptr);
    gst_bin_add_many(GST_BIN(reader->pipeline_.get()), next, reader->sink_.get(), nullptr);
    gst_element_link(next, reader->sink_.get());
    gst_element_sync_state_with_parent(reader->sink_.get());
  } else {
    next = gst_element_factory_make("fakesink", nullptr);
    g_object_set(next, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(GST_BIN(reader->pipeline_.get()), next);
  }
  gst_element_sync_state_with_parent(next);
  const ObjectPtr<GstPad> target(gst_element_get_static_pad(next, "sink"));
  gst_pad_link(pad, target.get());
}

MiniPtr<GstSample> FileReader::Next() {
  if (first_ != nullptr) {
    return std::move(first_);
  }
  return MiniPtr<GstSample>(gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()), kPatience));
}

}  // namespace testcamera
