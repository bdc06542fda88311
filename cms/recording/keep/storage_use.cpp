#include "cms/recording/keep/storage_use.h"

#include "cms/recording/keep/internal/protection_list.h"
#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/recording/keep/internal/storage_measure.h"
#include "cms/runtime/file_io.h"

namespace cms {

StorageReport StorageUse(const std::string& root) {
  FileIo& io = CurrentFileIo();
  if (std::string error = CheckDataRoot(io, root); !error.empty()) {
    StorageReport report;
    report.errors.push_back(std::move(error));
    return report;
  }
  SiteTimes protectedTimes;
  std::string error = ReadProtection(root, protectedTimes);
  const RecordingInventory inventory(io, root);
  StorageReport report =
      MeasureStorage(io, inventory, protectedTimes, [](std::size_t) { return false; });
  if (!error.empty()) {
    report.errors.push_back(std::move(error));
  }
  return report;
}

}  // namespace cms
