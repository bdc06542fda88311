#include "cms/recording/internal/folder_span_file.h"

#include <algorithm>
#include <cstdint>

#include "cms/recording/internal/record_bytes.h"

namespace cms {

// Read byte by byte, so that a file that was torn when it was made gives the bytes that it has.
FolderSpanFile::FolderSpanFile(std::wstring_view systemPath, DatabaseAccess access,
                               const std::string& dataRoot)
    : file_(systemPath, 1, access, dataRoot) {}

bool FolderSpanFile::Read(FX::FX_RecSubFolderDBInfo& span) {
  std::uint8_t bytes[sizeof(span)] = {};
  std::size_t count = 0;
  const bool read = file_.ForEach([&](auto byte) {
    bytes[count++] = byte[0];
    return count < sizeof(bytes);
  });
  span = RecordFrom<FX::FX_RecSubFolderDBInfo>(bytes);
  return read;
}

bool FolderSpanFile::Write(const FX::FX_RecSubFolderDBInfo& span) {
  return file_.Overwrite(0, BytesOf(span)) && file_.CutTo(sizeof(span));
}

}  // namespace cms
