// What the camera does to pictures and packets on their way through its pipelines.
#pragma once

#include <gst/gst.h>

#include "tools/testcamera/picture_units.h"

namespace testcamera {

// Numbers the raw pictures that leave the element, from 0.
void NumberPictures(GstElement* element);

// Gives the pictures that leave the encoder the times of the raw pictures that leave the source.
// libav's MPEG-4 encoder loses them, and a sink waits for ever for a picture without its
// time.
void KeepTimes(GstElement* source, GstElement* encoder);

// Gives the payloader H.264 or H.265 pictures with what the rules want around their slices.
void ConformPictures(GstElement* payloader, const UnitRules& rules);

// Loses that percentage of the RTP packets that leave the payloader, in a sequence that is the same
// in every run.
void DropPackets(GstElement* payloader, double percent);

// A camera is live: without this the server seeks to the start when the first client plays, and the
// first pictures, with their key frame, are lost.
void ForbidSeeking(GstElement* payloader);

// Keeps the payloader's parameter sets out of the session description.
void HideParameterSets(GstElement* payloader);

}  // namespace testcamera
