// A recording of a camera that never was: a real encoder's clip in a .drv file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/drv_generator.h"
#include "tests/support/encoded_clip.h"

namespace test {

struct RecordedClipSpec {
  ClipSpec clip;
  std::int64_t start = 1'700'000'000;  // of the first frame
  int phase = 0;                       // how many frames of that second came before it
  unsigned stream = 0;
  std::uint32_t audioCodec = 0;  // CMSCodecID; 0: none. 8 kHz, one block for each picture
  // In place of those blocks these, each behind the picture during which it ends.
  struct Sound {
    int rate = 8000;
    int channels = 1;
    int blockSamples = 160;
    std::vector<std::vector<std::uint8_t>> blocks;
  } sound;
};

// Frame i carries the number i in its picture and the second that it belongs to.
DrvRecording RecordClip(const RecordedClipSpec& spec);

// A data folder: one record list in recordings/day, and what lists it.
class DataFolderMaker {
 public:
  explicit DataFolderMaker(const std::string& path);

  // Writes the recording as Rec_Site<site>_<n>.drv with its index; returns its path.
  std::string Add(std::uint32_t site, const DrvRecording& recording);

 private:
  const std::string path_;
  int count_ = 0;
};

}  // namespace test
