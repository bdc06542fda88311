#include "cms/recording/internal/file_record.h"

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
bool IsListed(const FileRecord& record, const TimeSpan& span, const std::wstring& folder,
              const std::wstring& name) {
  const auto list = ReadRecordList(folder, record.dataRoot);
  const std::string file = Utf8FromWide(folder + L"\\" + name);
  return std::any_of(list.rows.begin(), list.rows.end(), [&](const RecordRow& row) {
    return row.file == file && row.start == span.start && row.end == span.end;
  });
}

bool StoreSpan(const FileRecord& record, const TimeSpan& span) {
  const auto split = SplitAtLastSeparator(record.drvPath);
  const std::wstring folder(split.folder);
  const std::wstring name(split.name);
  const std::wstring recorded = RecordedPath(folder, record.dataRoot);
  if (record.tried && IsListed(record, span, recorded, name)) {
    return MakeFolderSpan(folder);
  }
  FX::FX_RecordDBListWriter writer;
  writer.SetDataRoot(record.dataRoot);
  writer.SetDBListPath(recorded.c_str());
  writer.InitialRecordDBInfo(name.c_str(), record.device.address.c_str(),
                             record.device.siteName.c_str(), record.device.port);
  writer.SetRecordTime(span.start);
  writer.SetRecordTime(span.end);
  return writer.WriteDBInfoIntoList();
}

bool Store(FileRecord& record) {
  const auto store = [&record](TimeSpan& span) {
    span.end = span.start > 0 ? std::max(span.end, span.start + 1) : span.end;
    return StoreSpan(record, span);
  };
  return std::all_of(record.earlierSpans.begin(), record.earlierSpans.end(), store) &&
         store(record.span);
}

}  // namespace

int SettleFileRecord(FileIo& io, FileRecord& file) {
  if (file.damaged) {
    const MendedPair mended =
        MendRecordingPair(io, NativePath(file.drvPath), NativePath(file.idxPath), file.begin);
    if (!mended.done) {
      return mended.error != 0 ? mended.error : EIO;
    }
    file.removed = mended.empty;
    file.stored = mended.empty;
    file.span.end = mended.lastSeconds != 0 ? mended.lastSeconds : file.span.end;
    file.accepted = mended.kept;
    file.damaged = false;
  }
  if (file.stored) {
    return 0;
  }
  const TryDatabaseLock hold(RecordDatabaseLock());
  if (!hold) {
    return EBUSY;
  }
  file.stored = Store(file);
  file.tried = true;
  return file.stored ? 0 : EIO;
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
