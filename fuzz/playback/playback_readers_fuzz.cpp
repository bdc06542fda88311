// Any bytes as two recordings of a site and their indexes: each alone and both as one timeline keep
// what reader_checks.h asks, also after they have grown.
#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <vector>

#include "cms/playback/internal/drv_data_reader.h"
#include "cms/playback/internal/single_drv_data_reader.h"
#include "cms/recording/drv_format.h"
#include "fuzz/playback/reader_checks.h"
#include "fuzz/support/work_folder.h"

namespace {

struct Recording {
  std::string idx;
  std::string drv;
};

// Gives every header its check bytes, which mutations do not find.
void Seal(std::string& drv) {
  for (std::size_t at = 0; at + cms::kDrvHeaderSize <= drv.size(); ++at) {
    if (drv[at] != cms::kDrvSync || !cms::IsDrvKind(static_cast<std::uint8_t>(drv[at + 1]))) {
      continue;
    }
    std::array<std::uint8_t, cms::kDrvHeaderSize> header;
    for (const std::size_t half : {0u, 16u}) {
      char check = 0;
      for (std::size_t i = half; i < half + 15; ++i) {
        check = static_cast<char>(check ^ drv[at + i]);
      }
      drv[at + half + 15] = check;
    }
    std::copy_n(drv.begin() + static_cast<std::ptrdiff_t>(at), header.size(), header.begin());
    at += std::min<std::uint64_t>(cms::DrvHeader(header).FrameLength(), drv.size()) - 1;
  }
}

void Write(const std::array<Recording, 2>& recordings, std::size_t part) {  // of 256
  for (std::size_t i = 0; i < recordings.size(); ++i) {
    const auto cut = [part](const std::string& text) {
      return text.substr(0, text.size() * part / 256);
    };
    fuzz::Put(i == 0 ? "a.idx" : "b.idx", cut(recordings[i].idx));
    fuzz::Put(i == 0 ? "a.drv" : "b.drv", cut(recordings[i].drv));
  }
}

void CheckGrowing(cms::PlaybackDataReader& reader, const std::array<Recording, 2>& recordings,
                  std::size_t part, bool alone) {
  Write(recordings, part);
  std::string error;
  if (!reader.Open(error)) {
    CHECK(!error.empty());
    return;
  }
  const std::size_t most =
      (recordings[0].drv.size() + recordings[1].drv.size()) / cms::kDrvHeaderSize;
  const auto before = fuzz::CheckWalk(reader, most);
  Write(recordings, 256);
  reader.LookAgainAfter();
  reader.Refresh();
  const auto after = fuzz::CheckWalk(reader, most);
  // Of two, the second may turn out to begin at another time, which is where the first one ends.
  CHECK(!alone || after.size() >= before.size());
  for (const cms::GopPlace& place : before) {
    cms::PlaybackGop gop;
    reader.Load(place, gop);
  }
  CHECK(!reader.Refresh());
  reader.Status();
}

}  // namespace

// The input: a byte of settings, how much of it is there at first, three lengths of two bytes, and
// what they cut: the first index, the first recording, the second index, the second recording.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 8;
  if (size < kHead) {
    return 0;
  }
  std::string bytes(reinterpret_cast<const char*>(data) + kHead, size - kHead);
  std::array<Recording, 2> recordings;
  const auto take = [&](std::size_t number) {
    const std::size_t length = std::size_t{data[2 + 2 * number]} << 8 | data[3 + 2 * number];
    std::string part = bytes.substr(0, length);
    bytes.erase(0, length);
    return part;
  };
  recordings[0].idx = take(0);
  recordings[0].drv = take(1);
  recordings[1].idx = take(2);
  recordings[1].drv = bytes;
  if ((data[0] & 1) != 0) {
    Seal(recordings[0].drv);
    Seal(recordings[1].drv);
  }
  const unsigned channel = data[0] >> 1 & 1;
  const fuzz::WorkFolder work;
  CPlaybackSingleDRVDataReader single(cms::SystemFileIo(), L"a.drv", channel);
  CheckGrowing(single, recordings, data[1], true);
  CPlaybackDRVDataReader both(cms::SystemFileIo(), {L"a.drv", L"b.drv"}, channel, false);
  CheckGrowing(both, recordings, data[1], false);
  return 0;
}
