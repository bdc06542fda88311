// Where the databases lie, as the system writes paths, and what paths are under a data root.
#pragma once

#include <string>
#include <string_view>

namespace cms {

// Of a recording folder, without a separator behind it: the record list lies in it, the folder span
// beside it.
inline std::wstring RecordListPath(std::wstring_view folder) {
  return std::wstring(folder) + L"\\RecordDB";
}
inline std::wstring FolderSpanPath(std::wstring_view folder) {
  return std::wstring(folder) + L".DB";
}

// In the data root, or beside the folder that the process works in: for PathInData.
inline std::wstring EventListPath(int number) {
  return L"..\\EventList" + std::to_wstring(number);
}
inline std::wstring FolderListPath(unsigned number) {
  return L"..\\RecFolderDB" + std::to_wstring(number);
}
inline std::wstring GapLogPath(int number) {
  return L"..\\GapLog" + std::to_wstring(number);
}

// A root as it is kept: absolute, without a separator behind it; empty stays empty.
std::string WholeDataRoot(const std::string& folder);

// The root, or else that of the process; empty: there is none.
std::string DataRootOr(const std::string& root);

std::string RecordingsOf(const std::string& root);  // "<root>/recordings"

// PathInData as the system writes paths. Without a root, and of an absolute path, the text itself.
std::wstring LocatedInData(std::wstring_view systemPath, const std::string& root);

// What records say of a located path. One below the root is told from DIR/recordings, where every
// other folder in DIR that a process works in leads as well.
std::wstring RecordedPath(std::wstring_view located, const std::string& root);

}  // namespace cms
