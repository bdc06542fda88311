#include "tools/testcamera/stream_probes.h"

#include <gst/video/video.h>

#include <memory>
#include <random>

#include "tools/testcamera/frame_stamp.h"
#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/picture_units.h"

namespace testcamera {
namespace {

// The probe owns its state, which goes with the pad.
template <typename State>
void AddProbe(GstElement* element, GstPadProbeType type, GstPadProbeCallback callback, State* state,
              const char* padName = "src") {
  const ObjectPtr<GstPad> pad(gst_element_get_static_pad(element, padName));
  gst_pad_add_probe(pad.get(), type, callback, state,
                    [](gpointer data) { delete static_cast<State*>(data); });
}

struct PictureCounter {
  unsigned next = 0;
};

GstPadProbeReturn OnPicture(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  auto* counter = static_cast<PictureCounter*>(data);
  const MiniPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
  GstVideoInfo format;
  GstBuffer* picture = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = picture;
  GstVideoFrame frame;
  if (gst_video_info_from_caps(&format, caps.get()) &&
      gst_video_frame_map(&frame, &format, picture, GST_MAP_WRITE)) {
    const auto plane = [&](int number) {
      return static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, number));
    };
    const auto stride = [&](int number) {
      return static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, number));
    };
    StampFrame({plane(0),
                {plane(1), plane(2)},
                stride(0),
                {stride(1), stride(2)},
                GST_VIDEO_FRAME_WIDTH(&frame),
                GST_VIDEO_FRAME_HEIGHT(&frame)},
               counter->next);
    gst_video_frame_unmap(&frame);
  }
  ++counter->next;
  return GST_PAD_PROBE_OK;
}

// Source and encoder run on one thread, one picture at a time; their pads share its time.
using PictureTime = std::shared_ptr<GstClockTime>;

GstPadProbeReturn OnRawTime(GstPad*, GstPadProbeInfo* info, gpointer data) {
  **static_cast<PictureTime*>(data) = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn OnEncodedTime(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  const MiniPtr<GstEvent> event(gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0));
  if (event == nullptr) {
    return GST_PAD_PROBE_DROP;
  }
  // The source counts from 0; the encoder's segment may start elsewhere.
  const GstSegment* segment = nullptr;
  gst_event_parse_segment(event.get(), &segment);
  GstBuffer* picture = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_BUFFER_PTS(picture) = gst_segment_position_from_running_time(
      segment, GST_FORMAT_TIME, **static_cast<PictureTime*>(data));
  GST_BUFFER_DTS(picture) = GST_BUFFER_PTS(picture);
  GST_PAD_PROBE_INFO_DATA(info) = picture;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn OnUnits(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  GstBuffer* picture = GST_PAD_PROBE_INFO_BUFFER(info);
  const MiniPtr<GstCaps> caps(gst_pad_get_current_caps(pad));
  GstBuffer* record = nullptr;
  gst_structure_get(gst_caps_get_structure(caps.get(), 0), "codec_data", GST_TYPE_BUFFER, &record,
                    nullptr);
  const MiniPtr<GstBuffer> owned(record);
  GST_PAD_PROBE_INFO_DATA(info) =
      ConformUnits(picture, record, *static_cast<UnitRules*>(data)).release();
  gst_buffer_unref(picture);
  return GST_PAD_PROBE_OK;
}

struct Dice {
  double percent;
  std::minstd_rand random{1};
  bool Lose() { return std::uniform_real_distribution<>(0, 100)(random) < percent; }
};

gboolean LosePacket(GstBuffer** packet, guint, gpointer data) {
  if (static_cast<Dice*>(data)->Lose()) {
    gst_buffer_unref(*packet);
    *packet = nullptr;
  }
  return TRUE;
}

GstPadProbeReturn OnPackets(GstPad*, GstPadProbeInfo* info, gpointer data) {
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    return static_cast<Dice*>(data)->Lose() ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  }
  GstBufferList* list = gst_buffer_list_make_writable(GST_PAD_PROBE_INFO_BUFFER_LIST(info));
  gst_buffer_list_foreach(list, LosePacket, data);
  GST_PAD_PROBE_INFO_DATA(info) = list;
  return gst_buffer_list_length(list) == 0 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

GstPadProbeReturn OnQuery(GstPad*, GstPadProbeInfo* info, gpointer) {
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_SEEKING) {
    return GST_PAD_PROBE_OK;
  }
  GstFormat format = GST_FORMAT_TIME;
  gst_query_parse_seeking(query, &format, nullptr, nullptr, nullptr);
  gst_query_set_seeking(query, format, FALSE, 0, -1);
  return GST_PAD_PROBE_HANDLED;
}

GstPadProbeReturn OnCaps(GstPad*, GstPadProbeInfo* info, gpointer) {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    const MiniPtr<GstCaps> plain(gst_caps_copy(caps));
    gst_structure_remove_fields(gst_caps_get_structure(plain.get(), 0), "sprop-parameter-sets",
                                "sprop-vps", "sprop-sps", "sprop-pps", "config", nullptr);
    GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_caps(plain.get());
    gst_event_unref(event);
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void NumberPictures(GstElement* element) {
  AddProbe(element, GST_PAD_PROBE_TYPE_BUFFER, OnPicture, new PictureCounter);
}

void KeepTimes(GstElement* source, GstElement* encoder) {
  const PictureTime time = std::make_shared<GstClockTime>(0);
  AddProbe(source, GST_PAD_PROBE_TYPE_BUFFER, OnRawTime, new PictureTime(time));
  AddProbe(encoder, GST_PAD_PROBE_TYPE_BUFFER, OnEncodedTime, new PictureTime(time));
}

void ConformPictures(GstElement* payloader, const UnitRules& rules) {
  AddProbe(payloader, GST_PAD_PROBE_TYPE_BUFFER, OnUnits, new UnitRules(rules), "sink");
}

void DropPackets(GstElement* payloader, double percent) {
  AddProbe(payloader,
           static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
           OnPackets, new Dice{percent});
}

void ForbidSeeking(GstElement* payloader) {
  const ObjectPtr<GstPad> pad(gst_element_get_static_pad(payloader, "src"));
  gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_QUERY_UPSTREAM, OnQuery, nullptr, nullptr);
}

void HideParameterSets(GstElement* payloader) {
  const ObjectPtr<GstPad> pad(gst_element_get_static_pad(payloader, "src"));
  gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnCaps, nullptr, nullptr);
}

}  // namespace testcamera
