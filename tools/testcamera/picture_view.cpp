#include "tools/testcamera/picture_view.h"

#include <cmath>

namespace testcamera {

PictureView::~PictureView() {
  for (const Crop& each : crops_) {
    g_weak_ref_clear(each.element);
    g_free(each.element);
  }
}

void PictureView::Add(GstElement* crop, int width, int height) {
  auto* element = g_new0(GWeakRef, 1);
  g_weak_ref_init(element, crop);
  crops_.push_back({element, width, height});
  Set(crop, width, height);
}

void PictureView::Look(const PictureDirection& direction) {
  direction_ = direction;
  std::erase_if(crops_, [this](const Crop& each) {
    auto* crop = static_cast<GstElement*>(g_weak_ref_get(each.element));
    if (crop == nullptr) {
      g_weak_ref_clear(each.element);
      g_free(each.element);
      return true;
    }
    Set(crop, each.width, each.height);
    gst_object_unref(crop);
    return false;
  });
}

// In even numbers, as the colours have half of the picture's lines and columns.
void PictureView::Set(GstElement* crop, int width, int height) const {
  const auto even = [](double number) { return static_cast<int>(std::lround(number / 2)) * 2; };
  const double part = 1 - 0.75 * direction_.zoom;
  const int hiddenX = kViewFactor * width - even(width * part);
  const int hiddenY = kViewFactor * height - even(height * part);
  const int left = even(hiddenX * (direction_.pan + 1) / 2);
  const int top = even(hiddenY * (1 - direction_.tilt) / 2);
  g_object_set(crop, "left", left, "right", hiddenX - left, "top", top, "bottom", hiddenY - top,
               nullptr);
}

}  // namespace testcamera
