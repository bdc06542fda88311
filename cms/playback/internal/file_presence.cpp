#include "cms/playback/internal/file_presence.h"

#include <algorithm>
#include <cerrno>

#include "cms/recording/data_root.h"
#include "cms/runtime/wide_text.h"

namespace cms {

namespace {

// The bytes of the field's text, without the zero.
std::span<const std::uint8_t> TextOfField(std::span<const std::uint8_t> field) {
  std::size_t length = 0;
  while (length + 1 < field.size() && (field[length] != 0 || field[length + 1] != 0)) {
    length += 2;
  }
  return field.first(length);
}

bool IsSeparator(const std::uint8_t* character) {
  return (character[0] == '\\' || character[0] == '/') && character[1] == 0;
}

// The bytes of the text up to its last separator, that included; 0 when there is none.
std::size_t PrefixLength(std::span<const std::uint8_t> text) {
  std::size_t length = text.size();
  while (length >= 2 && !IsSeparator(&text[length - 2])) {
    length -= 2;
  }
  return length;
}

}  // namespace

bool FilePresence::Exists(const std::string& path) {
  const bool exists = io_.Exists(path);
  sure_ = sure_ && (exists || IsMissing(errno));
  return exists;
}

void FilePresence::BeginQuery() {
  ++query_;
  sure_ = true;
  DropNames();
  for (const std::uint32_t index : listed_) {
    folders_[index].listed = false;
  }
  listed_.clear();
}

void FilePresence::DropNames() {
  for (const std::uint32_t index : listed_) {
    folders_[index].names = {};
  }
  names_ = 0;
}

void FilePresence::BeginList() {
  constexpr std::size_t kMany = 50'000;  // some megabytes
  if (names_ > kMany) {
    DropNames();
  }
}

bool FilePresence::StillHolds(const Answer& answer) {
  return answer.folder != 0 && Checked(answer.folder).version == answer.knowledge >> 1;
}

FilePresence::Folder& FilePresence::Checked(std::uint32_t index) {
  Folder& folder = folders_[index];
  if (folder.query == query_) {
    return folder;
  }
  folder.query = query_;
  FileStatus status;
  // Through the folder's own ".": that takes the right to look for files in it, as asking for one
  // of them does.
  folder.present = io_.Status(folder.path + ".", status);
  sure_ = sure_ && (folder.present || IsMissing(errno));
  const FileStamp stamp(status);
  if (!folder.present || !folder.reliable || folder.stamp != stamp) {
    ++folder.version;
    folder.stamp = stamp;
    folder.reliable = folder.present && stamp.IsReliable();
  }
  return folder;
}

std::uint32_t FilePresence::IndexOf(const std::string& path) {
  const auto [found, added] =
      indexes_.try_emplace(path, static_cast<std::uint32_t>(folders_.size()));
  if (added) {
    folders_.emplace_back().path = path;
  }
  return found->second;
}

void FilePresence::Split(std::span<const std::uint8_t> path, std::uint32_t& folder,
                         std::string& name) {
  const std::size_t length = PrefixLength(path);
  const auto prefix = path.first(length);
  if (length != 0 && std::ranges::equal(prefix, lastPrefix_)) {
    folder = lastFolder_;
    name = Utf8FromWide(LoadUtf16(path.subspan(length)));
    return;
  }
  const std::string native = PathInData(LoadUtf16(path), dataRoot_);
  const std::size_t behind = native.rfind('/') + 1;  // 0 when there is no separator
  folder = IndexOf(behind == 0 ? "./" : native.substr(0, behind));
  name = native.substr(behind);
  if (length != 0) {
    lastPrefix_.assign(prefix.begin(), prefix.end());
    lastFolder_ = folder;
  }
}

void FilePresence::List(Folder& folder) {
  folder.listed = true;
  listed_.push_back(static_cast<std::uint32_t>(&folder - folders_.data()));
  const bool complete = io_.List(folder.path, [&](std::string_view name, EntryKind kind) {
    folder.names.emplace(name, kind);
    ++names_;
  });
  folder.reliable = folder.reliable && complete;
}

FilePresence::Answer FilePresence::Ask(std::span<const std::uint8_t> path) {
  std::uint32_t index = 0;
  std::string name;
  const auto text = TextOfField(path);
  if (text.empty()) {
    return {};
  }
  Split(text, index, name);
  Folder& folder = Checked(index);
  if (!folder.present) {
    return {};
  }
  if (!folder.listed) {
    List(folder);
  }
  const auto found = folder.names.find(name);
  const bool listed = found != folder.names.end();
  // A link's target may come and go elsewhere, and a name may be found that is not listed letter
  // for letter (file systems that ignore the case): those are asked for each time.
  const bool exists = (listed && found->second != EntryKind::kAsk) || Exists(folder.path + name);
  const bool keep = listed ? found->second != EntryKind::kAsk : !exists;
  return {keep && folder.reliable ? index : 0, folder.version << 1 | (exists ? 1u : 0u)};
}

}  // namespace cms
