#include "cms/playback/fragments/internal/fragment_boxes.h"

#include <string_view>

namespace cms {
namespace {

constexpr unsigned kTrack = 1;

// "undetermined", as three letters of five bits.
constexpr std::uint16_t kNoLanguage = 0x55C4;

void PutZeros(Mp4Bytes& out, std::size_t count) {
  out.insert(out.end(), count, 0);
}

void PutMatrix(Mp4Bytes& out) {
  for (const std::uint32_t each : {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u}) {
    PutNumber(out, each, 4);
  }
}

void PutMovieHeader(Mp4Bytes& out, std::uint32_t clock) {
  const Mp4Box box(out, "mvhd", 0, 0);
  PutZeros(out, 8);  // when it was made
  PutNumber(out, clock, 4);
  PutZeros(out, 4);  // how long it lasts
  PutNumber(out, 0x10000, 4);
  PutNumber(out, 0x100, 2);
  PutZeros(out, 10);
  PutMatrix(out);
  PutZeros(out, 24);
  PutNumber(out, kTrack + 1, 4);
}

void PutTrackHeader(Mp4Bytes& out, const FragmentTrack& track) {
  constexpr std::uint32_t kEnabledInMovie = 3;
  const Mp4Box box(out, "tkhd", 0, kEnabledInMovie);
  PutZeros(out, 8);
  PutNumber(out, kTrack, 4);
  PutZeros(out, 4 + 4 + 8 + 4);
  PutNumber(out, track.video ? 0 : 0x100, 2);  // how loud
  PutZeros(out, 2);
  PutMatrix(out);
  PutNumber(out, std::uint64_t{track.width} << 16, 4);
  PutNumber(out, std::uint64_t{track.height} << 16, 4);
}

void PutMediaHeader(Mp4Bytes& out, const FragmentTrack& track) {
  {
    const Mp4Box box(out, "mdhd", 0, 0);
    PutZeros(out, 8);
    PutNumber(out, track.clock, 4);
    PutZeros(out, 4);
    PutNumber(out, kNoLanguage, 2);
    PutZeros(out, 2);
  }
  const Mp4Box box(out, "hdlr", 0, 0);
  PutZeros(out, 4);
  const std::string_view kind = track.video ? "vide" : "soun";
  out.insert(out.end(), kind.begin(), kind.end());
  PutZeros(out, 12 + 1);  // and an empty name
}

// The tables of samples are empty: all of them are in fragments.
void PutSampleTable(Mp4Bytes& out, const std::function<void(Mp4Bytes&)>& entry) {
  const Mp4Box box(out, "stbl");
  {
    const Mp4Box description(out, "stsd", 0, 0);
    PutNumber(out, 1, 4);
    entry(out);
  }
  for (const char* type : {"stts", "stsc", "stco"}) {
    const Mp4Box table(out, type, 0, 0);
    PutZeros(out, 4);
  }
  const Mp4Box sizes(out, "stsz", 0, 0);
  PutZeros(out, 8);
}

void PutMedia(Mp4Bytes& out, const FragmentTrack& track,
              const std::function<void(Mp4Bytes&)>& entry) {
  const Mp4Box media(out, "mdia");
  PutMediaHeader(out, track);
  const Mp4Box information(out, "minf");
  if (track.video) {
    const Mp4Box box(out, "vmhd", 0, 1);
    PutZeros(out, 8);
  } else {
    const Mp4Box box(out, "smhd", 0, 0);
    PutZeros(out, 4);
  }
  {
    constexpr std::uint32_t kInThisFile = 1;
    const Mp4Box data(out, "dinf");
    const Mp4Box references(out, "dref", 0, 0);
    PutNumber(out, 1, 4);
    const Mp4Box reference(out, "url ", 0, kInThisFile);
  }
  PutSampleTable(out, entry);
}

// Sample flags, ISO/IEC 14496-12, 8.8.3.1.
constexpr std::uint32_t kDependsOnNone = 0x02000000;
constexpr std::uint32_t kDependsOnOthers = 0x01010000;  // and is no sync sample

// Of the boxes in front of a fragment's bytes.
constexpr std::size_t kMoofSize = 8 + 16 + 8 + 16 + 20 + 32;
constexpr std::size_t kMdatHeader = 8;
// Where numbers stand in it that are known at the end.
constexpr std::size_t kOffsetAt = kMoofSize - 16;
constexpr std::size_t kSizeAt = kMoofSize - 8;

void PutMovieFragment(Mp4Bytes& out, const FragmentSample& sample) {
  const Mp4Box fragment(out, "moof");
  {
    const Mp4Box box(out, "mfhd", 0, 0);
    PutNumber(out, sample.number, 4);
  }
  const Mp4Box track(out, "traf");
  {
    constexpr std::uint32_t kBaseIsFragment = 0x020000;
    const Mp4Box box(out, "tfhd", 0, kBaseIsFragment);
    PutNumber(out, kTrack, 4);
  }
  {
    const Mp4Box box(out, "tfdt", 1, 0);
    PutNumber(out, sample.time, 8);
  }
  constexpr std::uint32_t kOffsetLengthSizeFlags = 0x000701;
  const Mp4Box run(out, "trun", 0, kOffsetLengthSizeFlags);
  PutNumber(out, 1, 4);
  PutZeros(out, 4);  // where the bytes begin
  PutNumber(out, sample.length, 4);
  PutZeros(out, 4);  // how many there are
  PutNumber(out, sample.key ? kDependsOnNone : kDependsOnOthers, 4);
}

}  // namespace

void PutFragmentHeader(Mp4Bytes& out, const FragmentTrack& track,
                       const std::function<void(Mp4Bytes&)>& entry) {
  {
    using namespace std::string_view_literals;
    constexpr std::string_view kBrands = "iso5\0\0\2\0iso5iso6mp41"sv;
    const Mp4Box box(out, "ftyp");
    out.insert(out.end(), kBrands.begin(), kBrands.end());
  }
  const Mp4Box movie(out, "moov");
  PutMovieHeader(out, track.clock);
  {
    const Mp4Box box(out, "trak");
    PutTrackHeader(out, track);
    PutMedia(out, track, entry);
  }
  const Mp4Box extends(out, "mvex");
  const Mp4Box defaults(out, "trex", 0, 0);
  PutNumber(out, kTrack, 4);
  PutNumber(out, 1, 4);  // the sample description
  PutZeros(out, 12);
}

std::size_t BeginFragment(Mp4Bytes& out, const FragmentSample& sample) {
  const std::size_t begin = out.size();
  PutMovieFragment(out, sample);
  const Mp4Box data(out, "mdat");
  return begin;
}

bool EndFragment(Mp4Bytes& out, std::size_t begin) {
  const std::size_t bytes = out.size() - begin - kMoofSize - kMdatHeader;
  if (bytes == 0) {
    out.resize(begin);
    return false;
  }
  ReplaceNumber(out, begin + kOffsetAt, kMoofSize + kMdatHeader);
  ReplaceNumber(out, begin + kSizeAt, static_cast<std::uint32_t>(bytes));
  ReplaceNumber(out, begin + kMoofSize, static_cast<std::uint32_t>(kMdatHeader + bytes));
  return true;
}

}  // namespace cms
