#include "tests/support/drv_generator.h"

#include <algorithm>

namespace test {
namespace {

std::string BigEndian(std::uint64_t value, int bytes) {
  std::string text = LittleEndian(value, bytes);
  std::reverse(text.begin(), text.end());
  return text;
}

}  // namespace

std::string LittleEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) {
    text.push_back(static_cast<char>(value >> (8 * i)));
  }
  return text;
}

void Seal(std::string& frame) {
  for (const std::size_t half : {0u, 16u}) {
    char check = 0;
    for (std::size_t i = half; i < half + 15; ++i) {
      check = static_cast<char>(check ^ frame[i]);
    }
    frame[half + 15] = check;
  }
}

std::string MakeDrvFrame(const DrvFrameSpec& spec) {
  const auto number =
      spec.kind == '2' || spec.kind == '8' || spec.kind == 'v' ? LittleEndian : BigEndian;
  std::string frame{'@', spec.kind, 0x10, static_cast<char>(0x10 | spec.stream << 2)};
  frame += number(spec.payload.size() + (spec.audio ? 0 : 32), 4);
  frame += number(spec.seconds, 4);
  frame += {static_cast<char>(spec.audio ? 4 : 0), 1, static_cast<char>(spec.frameType), 0};
  if (spec.audio) {
    frame += LittleEndian(spec.audioCodec, 4) + LittleEndian(spec.audioRate, 4) +
             LittleEndian(spec.audioChannels, 2) + LittleEndian(16, 2) + std::string(4, '\0');
  } else {
    frame += number(0, 2) + number(spec.area, 2) + number(spec.sequence, 4) + std::string(8, '\0');
    frame += std::string(spec.area > 32 ? spec.area - 32 : 0, '\0');
  }
  Seal(frame);
  return frame + spec.payload;
}

std::string MakeIdxRecord(std::uint32_t channel, std::uint32_t offset, std::uint64_t milliseconds,
                          std::uint32_t frameType, std::uint32_t state, std::uint32_t secondState) {
  return LittleEndian(channel, 4) + LittleEndian(offset, 4) + LittleEndian(state, 4) +
         LittleEndian(0, 4) + LittleEndian(milliseconds, 8) + LittleEndian(frameType, 4) +
         LittleEndian(secondState, 4);
}

void DrvRecording::Add(const DrvFrameSpec& spec) {
  const std::string frame = MakeDrvFrame(spec);
  frames.push_back({bytes.size(), frame.size(), spec});
  bytes += frame;
}

std::string DrvRecording::Idx(bool keyFramesOnly) const {
  std::string idx;
  std::uint32_t second = 0;
  std::uint64_t count = 0;
  for (const Frame& frame : frames) {
    if (frame.spec.audio || (keyFramesOnly && frame.spec.frameType != 1)) {
      continue;
    }
    count = frame.spec.seconds == second ? count + 1 : 0;
    second = frame.spec.seconds;
    idx += MakeIdxRecord(frame.spec.stream, static_cast<std::uint32_t>(frame.offset),
                         std::uint64_t{second} * 1000 + count, frame.spec.frameType);
  }
  return idx;
}

DrvRecording MakeRecording(std::size_t count, std::size_t gop, std::size_t largest, unsigned seed) {
  std::mt19937 random(seed);
  DrvRecording recording;
  std::uint32_t sequence = 0;
  for (std::size_t i = 0; i < count; ++i) {
    DrvFrameSpec spec;
    spec.audio = i % 4 == 3;
    spec.frameType = spec.audio || i % gop == 0 ? 1 : 2;
    spec.seconds += static_cast<std::uint32_t>(i / 5);
    spec.sequence = ++sequence;
    spec.payload.resize(random() % (largest + 1));
    for (char& byte : spec.payload) {
      byte = "@2@8\x00\xFFzv"[random() % 8];
    }
    recording.Add(spec);
  }
  return recording;
}

}  // namespace test
