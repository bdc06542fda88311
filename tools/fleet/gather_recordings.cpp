// Recordings of several recorders in one folder, cut where one takes over from another.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "cms/live/media/frame_type.h"
#include "cms/recording/drv_format.h"
#include "cms/recording/record_db_list_writer.h"
#include "tools/fleet/fleet_recordings.h"

namespace tools {
namespace {

using cms::fleet::FleetView;
using cms::fleet::HeldPiece;

constexpr std::chrono::milliseconds kIndexWait{20'000};
constexpr std::chrono::milliseconds kPartWait{120'000};
constexpr std::uint64_t kMostIndex = 256u << 20;
constexpr std::uint64_t kPartBytes = 16u << 20;

struct IndexedPiece {
  HeldPiece piece;
  std::string url;
  std::vector<DrvIdx> index;  // of the whole file
};

std::int64_t TimeOf(const DrvIdx& record) {
  return static_cast<std::int64_t>(record.milliseconds);
}

bool IsKey(const DrvIdx& record) {
  return record.frameType == cms::kKeyFrame;
}

IndexedPiece ReadIndexOf(const FleetView& view, cms::fleet::PeerClient& peers,
                         const HeldPiece& piece) {
  IndexedPiece result{piece, "", {}};
  const auto member = view.members.find(piece.recorder);
  result.url = member == view.members.end() ? "" : member->second.url;
  const auto bytes =
      peers.Get(result.url, "index?name=" + peers.Escaped(piece.file), kIndexWait, kMostIndex);
  if (!bytes) {
    throw std::runtime_error(piece.recorder + " does not give " + piece.file + ": " +
                             peers.Problem());
  }
  result.index.resize(bytes->size() / sizeof(DrvIdx));
  if (!result.index.empty()) {
    std::memcpy(result.index.data(), bytes->data(), result.index.size() * sizeof(DrvIdx));
  }
  return result;
}

std::optional<std::int64_t> FirstKeyOf(const IndexedPiece& each) {
  for (const DrvIdx& record : each.index) {
    if (IsKey(record) && TimeOf(record) >= each.piece.from) {
      return TimeOf(record);
    }
  }
  return std::nullopt;
}

void FetchPart(cms::fleet::PeerClient& peers, const IndexedPiece& each, std::uint64_t from,
               std::uint64_t to, std::ofstream& out) {
  const std::string path = "file?name=" + peers.Escaped(each.piece.file);
  while (from <= to) {
    const std::uint64_t last = std::min(to, from + kPartBytes - 1);
    const auto part =
        peers.Get(each.url, path + "&from=" + std::to_string(from) + "&to=" + std::to_string(last),
                  kPartWait, kPartBytes);
    if (!part) {
      throw std::runtime_error(each.piece.recorder + " does not give " + each.piece.file + ": " +
                               peers.Problem());
    }
    out << *part;
    if (part->size() < last - from + 1) {
      break;  // the end of a file that is being recorded
    }
    from = last + 1;
  }
  if (!out.flush()) {
    throw std::runtime_error("what is fetched cannot be written: is the disk full?");
  }
}

// The frames of the piece as a recording of its own. Nothing where it has no key frame.
void StorePiece(cms::fleet::PeerClient& peers, const IndexedPiece& each, bool continues,
                const FleetSite& site, const std::string& folder, std::size_t number) {
  const auto& index = each.index;
  auto begin = std::find_if(index.begin(), index.end(), [&](const DrvIdx& record) {
    return TimeOf(record) >= each.piece.from;
  });
  const auto end = std::find_if(
      begin, index.end(), [&](const DrvIdx& record) { return TimeOf(record) >= each.piece.to; });
  while (!continues && begin != index.begin() && (begin == index.end() || !IsKey(*begin))) {
    --begin;
  }
  begin = std::find_if(begin, end, &IsKey);
  if (begin == end) {
    return;
  }
  const std::string name =
      "Rec_Site" + std::to_string(site.site) + "_" + std::to_string(number) + ".drv";
  std::filesystem::path path = std::filesystem::path(folder) / name;
  std::ofstream file(path, std::ios::binary);
  FetchPart(peers, each, begin->offset,
            end == index.end() ? std::uint64_t{UINT32_MAX} : end->offset - std::uint64_t{1}, file);
  std::ofstream own(path.replace_extension(".idx"), std::ios::binary);
  for (auto record = begin; record != end; ++record) {
    DrvIdx moved = *record;
    moved.offset -= begin->offset;
    own.write(reinterpret_cast<const char*>(&moved), sizeof moved);
  }
  FX_RecordDBListWriter list;
  list.SetDataRoot(std::filesystem::path(folder).parent_path().parent_path().string());
  list.SetDBListPath(L"..\\recordings\\fleet");
  list.InitialRecordDBInfo(std::wstring(name.begin(), name.end()).c_str(), L"",
                           std::wstring(site.camera.begin(), site.camera.end()).c_str(), 0);
  list.SetRecordTime(TimeOf(*begin) / 1'000);
  list.SetRecordTime(std::max(TimeOf(*std::prev(end)) / 1'000, TimeOf(*begin) / 1'000 + 1));
  if (!own.flush() || !list.WriteDBInfoIntoList()) {
    throw std::runtime_error(folder + ": what is fetched cannot be written");
  }
}

}  // namespace

void GatherRecordings(const FleetView& view, cms::fleet::PeerClient& peers,
                      const FleetRecordings& recordings, const std::string& folder) {
  const std::string target = folder + "/recordings/fleet";
  std::filesystem::create_directories(target);
  for (const FleetSite& site : recordings.sites) {
    std::vector<IndexedPiece> pieces;
    for (const HeldPiece& piece : site.pieces) {
      pieces.push_back(ReadIndexOf(view, peers, piece));
    }
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      const bool continues = i > 0 && pieces[i - 1].piece.to == pieces[i].piece.from;
      if (i + 1 < pieces.size() && pieces[i].piece.to == pieces[i + 1].piece.from) {
        const auto key = FirstKeyOf(pieces[i + 1]);
        pieces[i].piece.to = key.value_or(pieces[i].piece.to);
      }
      StorePiece(peers, pieces[i], continues, site, target, i + 1);
    }
  }
}

}  // namespace tools
