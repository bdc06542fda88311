#include "cms/recording/internal/late_record.h"

#include <algorithm>
#include <cerrno>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_maintenance.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/recording_pair.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

// The list and the span are two files: the record may have come into the first alone.
bool IsListed(const LateRecord& late) {
  const auto list = ReadRecordList(late.folder);
  const std::string file = Utf8FromWide(late.folder + L"\\" + late.name);
  return std::any_of(list.rows.begin(), list.rows.end(), [&](const RecordRow& row) {
    return row.file == file && row.start == late.start && row.end == late.end;
  });
}

bool Store(const LateRecord& late, bool again) {
  if (again && IsListed(late)) {
    return MakeFolderSpan(late.folder);
  }
  FX::FX_RecordDBListWriter writer;
  writer.SetDBListPath(late.folder.c_str());
  writer.InitialRecordDBInfo(late.name.c_str(), late.address.c_str(), late.siteName.c_str(),
                             late.port);
  writer.SetRecordTime(late.start);
  writer.SetRecordTime(late.end);
  return writer.WriteDBInfoIntoList();
}

}  // namespace

int SettleLateRecord(FileIo& io, LateRecord& late) {
  if (late.damaged) {
    const MendedPair mended =
        MendRecordingPair(io, NativePath(late.drvPath), NativePath(late.idxPath), late.begin);
    if (!mended.done) {
      return mended.error != 0 ? mended.error : EIO;
    }
    late.removed = mended.empty;
    late.stored = mended.empty;
    late.end = mended.lastSeconds != 0 ? mended.lastSeconds : late.end;
    late.accepted = mended.kept;
    late.damaged = false;
  }
  if (late.stored) {
    return 0;
  }
  const TryDatabaseLock hold(RecordDatabaseLock());
  if (!hold) {
    return EBUSY;
  }
  late.end = late.start > 0 ? std::max(late.end, late.start + 1) : late.end;
  late.stored = Store(late, late.tried);
  late.tried = true;
  return late.stored ? 0 : EIO;
}

void PrepareRecordList(const std::wstring& folder) {
  if (CurrentFileIo().Exists(NativePath(RecordListPath(folder)))) {
    return;
  }
  if (const TryDatabaseLock hold(RecordDatabaseLock()); hold) {
    const DatabaseFile list(RecordListPath(folder), sizeof(FX_RecordDBInfo),
                            DatabaseAccess::kCreate);
  }
}

}  // namespace cms
