#include "cms/playback/fragments/video_fragments.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "cms/live/media/frame_moment.h"
#include "cms/playback/clip/internal/file_units.h"
#include "cms/playback/fragments/internal/fragment_boxes.h"
#include "cms/playback/fragments/internal/fragment_clock.h"

namespace cms {
namespace {

constexpr std::int64_t kPictureClock = 90'000;

// In two steps: the microseconds since an old origin times the clock do not fit.
std::int64_t UnitsOf(std::int64_t us) {
  return us / kMicro * kPictureClock + us % kMicro * kPictureClock / kMicro;
}

// ISO/IEC 14496-15, 5.4.2.1.
void PutAvcEntry(Mp4Bytes& out, const FragmentTrack& track,
                 std::span<const std::uint8_t> configuration) {
  constexpr std::uint64_t kDotsPerInch = std::uint64_t{72} << 16;
  const Mp4Box entry(out, "avc1");
  PutNumber(out, 1, 8);  // reserved; the data reference
  PutNumber(out, 0, 8);
  PutNumber(out, 0, 8);
  PutNumber(out, track.width, 2);
  PutNumber(out, track.height, 2);
  PutNumber(out, kDotsPerInch, 4);
  PutNumber(out, kDotsPerInch, 4);
  PutNumber(out, 0, 4);
  PutNumber(out, 1, 2);  // pictures in a sample
  out.insert(out.end(), 32, 0);
  PutNumber(out, 0x0018, 2);  // depth
  PutNumber(out, 0xFFFF, 2);
  const Mp4Box box(out, "avcC");
  PutBytes(out, configuration);
}

}  // namespace

struct VideoFragments::State {
  explicit State(std::int64_t us) : originUs(us) {}

  void ReadKeyPicture(const FragmentPicture& picture);

  const std::int64_t originUs;
  FragmentClock clock{kPictureClock};
  std::vector<std::uint8_t> configuration;
  FragmentTrack track{true, kPictureClock, 0, 0};
  Mp4Bytes header;
  std::string codec;
  unsigned version = 0;
  std::uint32_t number = 0;
  bool reordered = false;
};

// A key picture without parameter sets is of those before.
void VideoFragments::State::ReadKeyPicture(const FragmentPicture& picture) {
  const H264Samples samples = H264SamplesOf(picture.bytes);
  std::vector<std::uint8_t> found =
      AvcConfiguration(picture.bytes, samples.chromaFormat, samples.bitDepth);
  if (found.empty() ||
      (found == configuration && picture.width == track.width && picture.height == track.height)) {
    return;
  }
  configuration = std::move(found);
  track.width = picture.width;
  track.height = picture.height;
  header.clear();
  PutFragmentHeader(header, track,
                    [this](Mp4Bytes& out) { PutAvcEntry(out, track, configuration); });
  std::array<char, 16> name{};
  std::snprintf(name.data(), name.size(), "avc1.%02X%02X%02X", configuration[1], configuration[2],
                configuration[3]);
  codec = name.data();
  reordered = false;
  ++version;
}

VideoFragments::VideoFragments(std::int64_t originUs) : state_(std::make_unique<State>(originUs)) {}

VideoFragments::~VideoFragments() = default;

bool VideoFragments::Append(const FragmentPicture& picture, std::vector<std::uint8_t>& out) {
  State& state = *state_;
  if (picture.key) {
    state.ReadKeyPicture(picture);
  }
  if (state.version == 0) {
    return false;
  }
  const std::int64_t taken = std::max<std::int64_t>(UnitsOf(picture.timeUs - state.originUs), 0);
  const FragmentClock before = state.clock;
  FragmentClock::Span span;
  if (picture.lengthUs > 0) {
    span.begin = taken;
    span.length = UnitsOf(picture.timeUs + picture.lengthUs - state.originUs) - taken;
  } else {
    span = state.clock.Next(taken, picture.key);
  }
  const std::size_t begin =
      BeginFragment(out, {++state.number, static_cast<std::uint64_t>(span.begin),
                          static_cast<std::uint32_t>(span.length), picture.key});
  state.reordered = AppendPictureUnits(picture.bytes, out) || state.reordered;
  if (!EndFragment(out, begin)) {
    state.clock = before;
    return false;
  }
  state.version += span.shifted ? 1 : 0;
  return true;
}

std::span<const std::uint8_t> VideoFragments::Header() const {
  return state_->header;
}
const std::string& VideoFragments::Codec() const {
  return state_->codec;
}
unsigned VideoFragments::Version() const {
  return state_->version;
}
std::int64_t VideoFragments::OriginUs() const {
  const std::int64_t shift = state_->clock.Shift();
  return state_->originUs -
         (shift / kPictureClock * kMicro + shift % kPictureClock * kMicro / kPictureClock);
}
bool VideoFragments::HasReordering() const {
  return state_->reordered;
}

}  // namespace cms
