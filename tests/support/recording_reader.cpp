#include "tests/support/recording_reader.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>

#include "cms/live/media/frame_header.h"
#include "tests/support/faulty_file_io.h"

namespace test {
namespace {

constexpr std::size_t kHeader = 32;
constexpr std::size_t kIdxRecord = 32;

std::uint64_t Number(const std::string& bytes, std::size_t at, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = width; i-- > 0;) {
    number = number << 8 | static_cast<std::uint8_t>(bytes.at(at + i));
  }
  return number;
}

void Demand(bool condition, const std::string& what) {
  if (!condition) {
    throw std::runtime_error(what);
  }
}

bool CheckHolds(const std::string& bytes, std::size_t half) {
  char check = 0;
  for (std::size_t i = half; i < half + 15; ++i) {
    check = static_cast<char>(check ^ bytes[i]);
  }
  return check == bytes[half + 15];
}

}  // namespace

std::vector<RecordedFrame> ReadDrv(const std::string& path, std::uint64_t start) {
  const std::string bytes = ReadWholeFile(path);
  std::vector<RecordedFrame> frames;
  for (std::size_t at = start; at < bytes.size();) {
    const std::string where = path + " at " + std::to_string(at);
    Demand(bytes.size() - at >= kHeader, "torn header: " + where);
    Demand(bytes[at] == '@' && bytes[at + 1] == '2', "no header: " + where);
    Demand(CheckHolds(bytes, at) && CheckHolds(bytes, at + 16), "wrong check byte: " + where);
    RecordedFrame frame;
    frame.offset = at;
    frame.audio = (bytes[at + 12] & 4) != 0;
    frame.type = bytes[at + 14] & 7;
    frame.seconds = static_cast<std::uint32_t>(Number(bytes, at + 8, 4));
    frame.sequence = static_cast<std::uint32_t>(Number(bytes, at + 20, 4));
    frame.eventMask = static_cast<std::uint16_t>(Number(bytes, at + 28, 2));
    const std::size_t area = frame.audio ? kHeader : Number(bytes, at + 18, 2);
    const std::size_t payload = Number(bytes, at + 4, 4) - (frame.audio ? 0 : kHeader);
    frame.length = area + payload;
    Demand(frame.length <= bytes.size() - at, "torn frame: " + where);
    frame.payload = bytes.substr(at + area, payload);
    at += frame.length;
    frames.push_back(std::move(frame));
  }
  return frames;
}

std::vector<RecordedIndex> ReadIdx(const std::string& path) {
  const std::string bytes = ReadWholeFile(path);
  Demand(bytes.size() % kIdxRecord == 0, "torn index: " + path);
  std::vector<RecordedIndex> index;
  for (std::size_t at = 0; at < bytes.size(); at += kIdxRecord) {
    const auto word = [&](std::size_t offset) {
      return static_cast<std::uint32_t>(Number(bytes, at + offset, 4));
    };
    Demand(word(12) == 0, "reserved word: " + path);
    index.push_back({word(0), word(4), word(8), Number(bytes, at + 16, 8), word(24), word(28)});
  }
  return index;
}

std::vector<RecordedFile> ReadRecordings(const std::string& folder) {
  std::vector<RecordedFile> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const auto& path = entry.path();
    if (path.extension() == ".drv") {
      auto idx = path;
      idx.replace_extension(".idx");
      files.push_back({path.filename().string(), ReadDrv(path.string()), ReadIdx(idx.string())});
    }
  }
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  for (const RecordedFile& file : files) {
    auto record = file.index.begin();
    for (const RecordedFrame& frame : file.frames) {
      if (frame.audio) {
        continue;
      }
      Demand(record != file.index.end(), "a frame without index record: " + file.name);
      Demand(record->offset == frame.offset && record->type == frame.type &&
                 record->milliseconds / 1000 == frame.seconds,
             "an index record that does not fit: " + file.name);
      ++record;
    }
    Demand(record == file.index.end(), "index records without frames: " + file.name);
  }
  return files;
}

std::uint32_t CheckSeams(const std::vector<RecordedFile>& files, std::uint32_t first) {
  for (const RecordedFile& file : files) {
    Demand(file.frames.empty() || (!file.frames[0].audio && file.frames[0].type == 1),
           "does not begin with a key frame: " + file.name);
    for (const RecordedFrame& frame : file.frames) {
      if (!frame.audio) {
        Demand(frame.sequence == first, "frame " + std::to_string(frame.sequence) + " where " +
                                            std::to_string(first) + " had to be in " + file.name);
        ++first;
      }
    }
  }
  return first;
}

FrameSource::FrameSource(const ClipSpec& spec, unsigned channel)
    : clip_(EncodeClip(spec)), channel_(channel) {}

FrameSource::Frame FrameSource::Next() {
  const EncodedFrame& frame = clip_[next_];
  next_ = (next_ + 1) % clip_.size();
  cms::VideoFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(frame.data.size());
  info.hostSeconds = cms::WallSeconds();
  info.frameType = frame.key ? 1 : 2;
  info.videoType = 1;
  info.sequence = ++sequence_;
  Frame next{{}, &frame.data, frame.key};
  cms::BuildVideoFrameHeader(next.header, info);
  return next;
}

bool FrameSource::Record(FX::FX_DRVRecorder& recorder, bool mark) {
  const Frame frame = Next();
  return recorder.RecordVideoFrame(frame.header.data(), static_cast<int>(frame.header.size()),
                                   frame.payload->data(), static_cast<int>(frame.payload->size()),
                                   channel_, mark);
}

bool FrameSource::RecordAudio(FX::FX_DRVRecorder& recorder) {
  static const std::string block(160, '@');
  cms::AudioFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(block.size());
  info.hostSeconds = cms::WallSeconds();
  info.format = {0x10006, 8000, 1, 16, {}};
  std::array<std::uint8_t, cms::kAudioHeaderRoom> area;
  cms::BuildAudioFrameHeader(area, info);
  return recorder.RecordAudioFrame(area.data(), static_cast<int>(area.size()), block.data(),
                                   static_cast<int>(block.size()), channel_);
}

bool FrameSource::RecordGop(FX::FX_DRVRecorder& recorder) {
  SkipToKeyFrame();
  bool all = true;
  do {
    all = Record(recorder) && all;
  } while (!NextIsKey());
  return all;
}

void FrameSource::SkipToKeyFrame() {
  while (!NextIsKey()) {
    next_ = (next_ + 1) % clip_.size();
  }
}

std::string FrameSource::PayloadOf(std::uint32_t sequence) const {
  const auto& data = clip_[(sequence - 1) % clip_.size()].data;
  return {data.begin(), data.end()};
}

}  // namespace test
