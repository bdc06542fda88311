#include "tools/data/data_folder.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "cms/recording/data_root.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/wide_text.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestName = sizeof("/20261121/Rec_Site4294967295_20261121235959.drv") - 1;

[[noreturn]] void Fail(const std::string& dir, const std::string& what) {
  throw std::runtime_error("--data " + dir + ": " + what);
}

void RequireFolder(const std::string& dir, const fs::path& path, DataFolderUse use) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (fs::exists(status) && !fs::is_directory(status)) {
    Fail(dir, path.string() + " is not a folder");
  }
  if (fs::is_directory(status)) {
    return;
  }
  if (status.type() != fs::file_type::not_found) {
    Fail(dir, path.string() + ": " + error.message());
  }
  if (use != DataFolderUse::kCreate) {
    Fail(dir, path == fs::path(AbsolutePath(dir))
                  ? "there is no such folder"
                  : "nothing was recorded there (it has no folder \"recordings\")");
  }
  if (!fs::create_directories(path, error) && error) {
    Fail(dir, "cannot make " + path.string() + ": " + error.message());
  }
}

// What records can hold of it reads back as the same path.
void RequireRecordablePath(const std::string& dir, const DataFolder& folder) {
  if (folder.recordings.find('\\') != std::string::npos) {
    Fail(dir, "records cannot keep a path with a \"\\\" in it; choose another folder");
  }
  if (cms::Utf8FromWide(cms::WideFromUtf8(folder.recordings)) != folder.recordings) {
    Fail(dir, "records cannot keep a path that is not UTF-8; choose another folder");
  }
  const std::size_t length = cms::Utf16Length(cms::WideFromUtf8(folder.path));
  const std::size_t longest =
      cms::kLongestRecordedPath - kLongestName - (folder.recordings.size() - folder.path.size());
  if (length > longest) {
    Fail(dir, "the path is " + std::to_string(length) + " characters long, records can keep " +
                  std::to_string(longest) + "; choose a shorter one");
  }
}

}  // namespace

Option AddDataOption(Command app, std::string& dir) {
  return app.AddOption("--data", dir, "folder of the recordings and their databases")
      .TypeName("DIR")
      .Required();
}

std::string AbsolutePath(const std::string& path) {
  if (path.empty()) {
    return path;
  }
  fs::path whole = fs::absolute(path).lexically_normal();
  if (!whole.has_filename() && whole.has_relative_path()) {  // "clips/"
    whole = whole.parent_path();
  }
  return whole.string();
}

DataFolder EnterDataFolder(const std::string& dir, DataFolderUse use) {
  if (dir.empty()) {
    throw std::runtime_error("--data: name a folder");
  }
  const fs::path path = AbsolutePath(dir);
  DataFolder folder{path.string(), (path / "recordings").string()};
  RequireRecordablePath(dir, folder);
  RequireFolder(dir, folder.path, use);
  if (fs::is_symlink(folder.recordings)) {
    Fail(dir, folder.recordings + " is a link; make " + folder.path + " a link instead");
  }
  RequireFolder(dir, folder.recordings, use);
  if (use != DataFolderUse::kRead) {
    for (const std::string& each : {folder.path, folder.recordings}) {
      if (access(each.c_str(), W_OK | X_OK) != 0) {
        Fail(dir, "may not write into " + each + ": " + std::strerror(errno));
      }
    }
  }
  cms::SetDataRoot(folder.path);
  return folder;
}

}  // namespace tools
