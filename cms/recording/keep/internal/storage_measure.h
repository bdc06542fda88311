// Sums up an inventory.
#pragma once

#include <cstddef>
#include <functional>

#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/recording/keep/internal/site_times.h"
#include "cms/recording/keep/storage_use.h"
#include "cms/runtime/file_io.h"

namespace cms {

// The recordings (by their place in the inventory) for which `leftOut` is true do not count.
StorageReport MeasureStorage(FileIo& io, const RecordingInventory& inventory,
                             const SiteTimes& protectedTimes,
                             const std::function<bool(std::size_t)>& leftOut);

}  // namespace cms
