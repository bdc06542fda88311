// What holds for every reader of recordings, whatever bytes it was given.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "cms/playback/internal/playback_data_reader.h"
#include "fuzz/support/check.h"

namespace fuzz {

constexpr std::size_t kMostRead = 4096;  // of a frame: foreign headers tell any length

// The frames of a group lie behind each other in time and in the file, and reading one stays
// within its span.
inline void CheckGroup(cms::PlaybackDataReader& reader, const cms::PlaybackGop& gop) {
  CHECK(!gop.video.empty());
  for (std::size_t i = 0; i < gop.video.size(); ++i) {
    const cms::PlaybackFrame& frame = gop.video[i];
    CHECK(i == 0 || (gop.video[i - 1].time < frame.time && gop.video[i - 1].offset < frame.offset));
    const std::size_t size = std::size_t{frame.area} + frame.payload;
    std::vector<std::uint8_t> bytes(std::min(size, kMostRead));
    CHECK(reader.Read(gop.place, frame, bytes) <= bytes.size());
  }
  for (std::size_t i = 0; i < gop.audio.size(); ++i) {
    CHECK(gop.audio[i].after < gop.video.size());
    CHECK(i == 0 || gop.audio[i - 1].after <= gop.audio[i].after);
  }
}

inline std::vector<cms::GopPlace> Walk(cms::PlaybackDataReader& reader, std::size_t most) {
  std::vector<cms::GopPlace> places;
  for (auto place = reader.First(); place; place = reader.After(*place)) {
    places.push_back(*place);
    CHECK(places.size() <= most);
  }
  return places;
}

// All places from the first on. After and Before are each other's inverse, groups do not overlap
// in time, and each is found at its time.
inline std::vector<cms::GopPlace> CheckWalk(cms::PlaybackDataReader& reader, std::size_t most) {
  const std::vector<cms::GopPlace> places = Walk(reader, most);
  CHECK(Walk(reader, most) == places);  // what was read meanwhile moves nothing
  std::optional<std::int64_t> end;
  std::optional<cms::GopPlace> before;
  for (const cms::GopPlace& place : places) {
    CHECK(reader.Before(place) == before);
    before = place;
    cms::PlaybackGop gop;
    if (!reader.Load(place, gop)) {
      continue;
    }
    CHECK(gop.place == place);
    CheckGroup(reader, gop);
    CHECK(!end || *end <= gop.video.front().time);
    end = gop.video.back().time;
    CHECK(reader.At(gop.video.front().time) == place);
  }
  CHECK(!reader.At(INT64_MIN) && reader.At(INT64_MAX) == before);
  return places;
}

}  // namespace fuzz
