// Ownership of GLib and GStreamer objects.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace testcamera {

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectUnref>;

struct MiniObjectUnref {
  template <typename T>
  void operator()(T* object) const {
    gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
  }
};
template <typename T>
using MiniPtr = std::unique_ptr<T, MiniObjectUnref>;

struct TextFree {
  void operator()(char* text) const { g_free(text); }
};
using TextPtr = std::unique_ptr<char, TextFree>;

struct ErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

}  // namespace testcamera
