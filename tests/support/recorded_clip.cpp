#include "tests/support/recorded_clip.h"

#include <filesystem>
#include <fstream>

#include "tests/recording/database_bytes.h"

namespace test {

DrvRecording RecordClip(const RecordedClipSpec& spec) {
  DrvRecording recording;
  std::uint32_t sequence = 0;
  std::size_t block = 0;
  for (const EncodedFrame& encoded : EncodeClip(spec.clip)) {
    DrvFrameSpec frame;
    frame.stream = spec.stream;
    frame.frameType = encoded.key ? 1 : 2;
    frame.seconds = static_cast<std::uint32_t>(
        spec.start + (spec.phase + static_cast<int>(sequence)) / spec.clip.fps);
    frame.sequence = ++sequence;
    frame.payload.assign(encoded.data.begin(), encoded.data.end());
    recording.Add(frame);
    frame.audio = true;
    frame.audioCodec = spec.audioCodec;
    frame.frameType = 1;
    if (const auto& sound = spec.sound; !sound.blocks.empty()) {
      frame.audioRate = static_cast<std::uint32_t>(sound.rate);
      frame.audioChannels = static_cast<unsigned>(sound.channels);
      const auto due = static_cast<std::int64_t>(sequence) * sound.rate / spec.clip.fps;
      for (; block < sound.blocks.size() &&
             static_cast<std::int64_t>(block + 1) * sound.blockSamples <= due;
           ++block) {
        frame.payload.assign(sound.blocks[block].begin(), sound.blocks[block].end());
        recording.Add(frame);
      }
    } else if (spec.audioCodec != 0) {
      const bool wide = (spec.audioCodec & 0xF) < 2;  // 16 bits
      frame.payload.assign(static_cast<std::size_t>(8000 / spec.clip.fps * (wide ? 2 : 1)), '\x55');
      recording.Add(frame);
    }
  }
  return recording;
}

DataFolderMaker::DataFolderMaker(const std::string& path) : path_(path) {
  std::filesystem::create_directories(path_ + "/recordings/day");
  WriteWholeFile(path_ + "/RecFolderDB0", FolderBytes(u"..\\recordings"));
}

std::string DataFolderMaker::Add(std::uint32_t site, const DrvRecording& recording) {
  const std::string name =
      "Rec_Site" + std::to_string(site) + "_" + std::to_string(++count_) + ".drv";
  const std::string path = path_ + "/recordings/day/" + name;
  WriteWholeFile(path, recording.bytes);
  WriteWholeFile(std::filesystem::path(path).replace_extension("idx"), recording.Idx());
  const std::string stored = "..\\recordings\\day\\" + name;
  std::ofstream(path_ + "/recordings/day/RecordDB", std::ios::binary | std::ios::app)
      << RecordBytes({std::u16string(stored.begin(), stored.end()),
                      recording.frames.front().spec.seconds, recording.frames.back().spec.seconds,
                      u"", u"", 0, 0, 0, site});
  return path;
}

}  // namespace test
