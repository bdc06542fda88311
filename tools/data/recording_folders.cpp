#include "tools/data/recording_folders.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/runtime/wide_text.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

std::vector<std::wstring> SubFolders(const std::wstring& folder, const std::string& root) {
  std::vector<std::wstring> names;
  std::error_code error;
  for (fs::directory_iterator at(cms::PathInData(folder, root), error), end; !error && at != end;
       at.increment(error)) {
    std::error_code ignored;
    if (at->is_directory(ignored)) {
      names.push_back(cms::WideFromUtf8(at->path().filename().string()));
    }
  }
  std::sort(names.begin(), names.end());
  for (std::wstring& name : names) {
    name.insert(0, folder + L"\\");
  }
  return names;
}

bool HoldsRecordings(const std::wstring& folder, const std::string& root) {
  std::error_code error;
  for (fs::directory_iterator at(cms::PathInData(folder, root), error), end; !error && at != end;
       at.increment(error)) {
    if (at->path().extension() == ".drv" || at->path().filename() == "RecordDB") {
      return true;
    }
  }
  return false;
}

class Collector {
 public:
  explicit Collector(const std::string& root) : root_(root) {}
  void Add(const std::wstring& parent, bool listed) {
    if (HoldsRecordings(parent, root_)) {
      AddOne(parent, listed);
    }
    for (const std::wstring& folder : SubFolders(parent, root_)) {
      if (HoldsRecordings(folder, root_)) {
        AddOne(folder, listed);
      }
    }
  }
  std::vector<RecordingFolder> Take() { return std::move(folders_); }

 private:
  void AddOne(const std::wstring& folder, bool listed) {
    std::error_code error;
    const fs::path real = fs::canonical(cms::PathInData(folder, root_), error);
    if (!error && seen_.insert(real.string()).second) {
      folders_.push_back({folder, listed});
    }
  }

  const std::string root_;
  std::set<std::string> seen_;
  std::vector<RecordingFolder> folders_;
};

}  // namespace

std::vector<RecordingFolder> FindRecordingFolders(const std::string& root) {
  Collector collector(root);
  for (const cms::FolderRow& row : cms::ReadFolderList(0, root).rows) {
    collector.Add(cms::WideFromUtf8(row.folder), true);
  }
  collector.Add(kRecordings, false);
  return collector.Take();
}

}  // namespace tools
