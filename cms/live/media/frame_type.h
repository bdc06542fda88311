// What a frame is to those who decode or seek: the number in its header and in index records.
#pragma once

namespace cms {

enum FrameType : int {
  kKeyFrame = 1,     // decodes without those before it
  kOtherFrame = 2,   // any other; of MJPEG every second one between two key frames
  kEvenFrame = 3,    // the rest of MJPEG's
  kUntoldFrame = 5,  // no depacketizer said
};

}  // namespace cms
