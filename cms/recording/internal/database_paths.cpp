#include "cms/recording/internal/database_paths.h"

#include <filesystem>

#include "cms/recording/data_root.h"
#include "cms/runtime/native_path.h"

namespace cms {

std::string WholeDataRoot(const std::string& folder) {
  if (folder.empty() || (folder.front() == '/' && folder.back() != '/' && folder.back() != '.')) {
    return folder;
  }
  std::error_code error;
  const auto whole = std::filesystem::absolute(folder, error);
  std::string path = error ? folder : whole.string();
  while (path.size() > 1 && (path.ends_with('/') || path.ends_with("/."))) {
    path.resize(path.rfind('/'));
  }
  return path;
}

std::string DataRootOr(const std::string& root) {
  return root.empty() ? GetDataRoot() : WholeDataRoot(root);
}

std::string RecordingsOf(const std::string& root) {
  return root + "/recordings";
}

std::wstring LocatedInData(std::wstring_view systemPath, const std::string& root) {
  const std::string native = NativePath(systemPath);
  return native.empty() || native.starts_with('/') || DataRootOr(root).empty()
             ? std::wstring(systemPath)
             : SystemPath(PathInData(systemPath, root));
}

std::wstring RecordedPath(std::wstring_view located, const std::string& root) {
  if (const std::string base = DataRootOr(root); !base.empty()) {
    const std::wstring path = SystemPath(NativePath(located));
    const std::wstring front = SystemPath(base) + L"\\";
    if (path.starts_with(front)) {
      return L"..\\" + path.substr(front.size());
    }
  }
  return std::wstring(located);
}

}  // namespace cms
