// Where the databases lie, as the system writes paths.
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

// Beside the folder that the process works in.
inline std::wstring EventListPath(int number) {
  return L"..\\EventList" + std::to_wstring(number);
}
inline std::wstring FolderListPath(unsigned number) {
  return L"..\\RecFolderDB" + std::to_wstring(number);
}
inline std::wstring GapLogPath(int number) {
  return L"..\\GapLog" + std::to_wstring(number);
}

}  // namespace cms
