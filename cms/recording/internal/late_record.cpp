#include "cms/recording/internal/late_record.h"

#include <algorithm>
#include <cerrno>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_maintenance.h"
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

bool Store(const LateRecord& late) {
  if (IsListed(late)) {
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

bool LateRecord::IsClosed() const {
  return drvStatus->closed.load(std::memory_order_acquire) &&
         (!idxStatus || idxStatus->closed.load(std::memory_order_acquire));
}

int LateRecord::Error() const {
  const int error = drvStatus->error;
  return error != 0 || !idxStatus ? error : idxStatus->error.load();
}

int SettleLateRecord(FileIo& io, LateRecord& late) {
  if (!late.IsClosed()) {
    return EAGAIN;
  }
  if (late.damaged || late.Error() != 0) {
    const MendedPair mended =
        MendRecordingPair(io, NativePath(late.drvPath), NativePath(late.idxPath), late.begin);
    if (!mended.done) {
      return mended.error != 0 ? mended.error : EIO;
    }
    if (mended.empty) {
      if (late.stored) {
        RemoveRecord(late.folder, late.name);
      }
      late.removed = true;
      late.stored = true;
    }
    late.end = mended.lastSeconds != 0 ? mended.lastSeconds : late.end;
    late.accepted = mended.kept;
    late.damaged = false;
    late.drvStatus->error = 0;
    if (late.idxStatus) {
      late.idxStatus->error = 0;
    }
  }
  if (!late.stored && !Store(late)) {
    return EIO;
  }
  late.stored = true;
  return 0;
}

}  // namespace cms
