#include "cms/exports/recording_exports.h"

#include <array>
#include <string>

#include "cms/recording/data_root.h"
#include "cms/recording/drv_format.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/file_io.h"

using cms::TextOf;

std::uint32_t GetFirstDrvBaiscPos(const wchar_t* path) {
  cms::FileIo& io = cms::CurrentFileIo();
  const cms::ScopedFile file(io, cms::PathInData(TextOf(path)), cms::kFileRead);
  std::array<std::uint8_t, cms::kDrvScanSize> head;
  if (!file || io.ReadAllAt(file.Handle(), head.data(), head.size(), 0) < head.size()) {
    return 0;
  }
  return static_cast<std::uint32_t>(cms::FirstDrvHeader(head));
}

int CMSGetNewDrvFilename(const wchar_t* name, std::wstring& out) {
  const auto next = cms::NextDrvFilename(TextOf(name));
  out = next.value_or(std::wstring());
  return next ? 1 : 0;
}

int ModifyDrvIdxFile(const wchar_t* drvPath) {
  const std::wstring idxPath = cms::IdxPathOf(TextOf(drvPath));
  return !idxPath.empty() &&
         cms::RebuildIdx(cms::CurrentFileIo(), cms::PathInData(drvPath), cms::PathInData(idxPath))
             .done;
}

int RemoveDrvIdxFile(const wchar_t* drvPath) {
  const std::wstring idxPath = cms::IdxPathOf(TextOf(drvPath));
  return !idxPath.empty() && cms::CurrentFileIo().Remove(cms::PathInData(idxPath)) == 0;
}
