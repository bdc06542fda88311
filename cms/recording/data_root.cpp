#include "cms/recording/data_root.h"

#include "cms/recording/internal/database_paths.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

// Never destroyed: recorders may outlive static objects.
struct ProcessRoot {
  CMSCritical lock;
  std::string folder CMS_GUARDED_BY(lock);
};
ProcessRoot& RootOfProcess() {
  static auto& root = *new ProcessRoot;
  return root;
}

}  // namespace

void SetDataRoot(const std::string& folder) {
  const std::string whole = WholeDataRoot(folder);
  ProcessRoot& root = RootOfProcess();
  const ScopeLock hold(root.lock);
  root.folder = whole;
}

std::string GetDataRoot() {
  ProcessRoot& root = RootOfProcess();
  const ScopeLock hold(root.lock);
  return root.folder;
}

std::string PathInData(std::wstring_view systemPath, const std::string& root) {
  std::string path = NativePath(systemPath);
  std::string base = DataRootOr(root);
  if (base.empty() || path.starts_with('/')) {
    return path;
  }
  // The root is what holds the recordings, also when their folder is a link to elsewhere.
  constexpr std::string_view kUp = "..";
  if (path == kUp) {
    return base;
  }
  return path.starts_with("../") ? base + path.substr(kUp.size())
                                 : RecordingsOf(base) + (path.empty() ? "" : "/" + path);
}

}  // namespace cms
