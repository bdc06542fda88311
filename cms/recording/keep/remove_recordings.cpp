#include "cms/recording/keep/remove_recordings.h"

#include <algorithm>
#include <set>

#include "cms/recording/keep/internal/protection_list.h"
#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/recording/keep/internal/removal.h"
#include "cms/runtime/file_io.h"

namespace cms {
namespace {

// What is asked for, of an inventory.
class Wanted {
 public:
  explicit Wanted(const RemoveOptions& options)
      : options_(options),
        files_(options.files.begin(), options.files.end()),
        sites_(options.sites.begin(), options.sites.end()) {}

  bool Has(const RecordingInventory& inventory, const StoredRecording& recording) {
    if (!options_.files.empty()) {
      return files_.erase(inventory.PathOf(recording)) > 0;
    }
    return (sites_.empty() || sites_.contains(recording.site)) &&
           (options_.before == 0 || recording.end < options_.before);
  }
  const std::set<std::string>& FilesLeft() const { return files_; }

 private:
  const RemoveOptions& options_;
  std::set<std::string> files_;
  const std::set<std::uint32_t> sites_;
};

RemovalReport Remove(const RemoveOptions& options, bool nothing) {
  RemovalReport report;
  FileIo& io = CurrentFileIo();
  SiteTimes protectedTimes;
  std::string error = CheckDataRoot(io, options.root);
  error = error.empty() ? ReadProtection(options.root, protectedTimes) : error;
  if (!error.empty()) {
    report.errors.push_back(error);
    return report;
  }
  const RecordingInventory inventory(io, options.root);
  Removal removal(io, inventory, protectedTimes, options.dryRun, options.visit);
  Wanted wanted(options);
  const std::size_t count = nothing ? 0 : inventory.Recordings().size();
  for (std::size_t i = 0; !removal.IsStopped() && i < count; ++i) {
    if (wanted.Has(inventory, inventory.Recordings()[i])) {
      removal.Remove(i, RemovalReason::kAsked);
    }
  }
  report = removal.Finish();
  if (!removal.IsStopped()) {
    for (const std::string& file : wanted.FilesLeft()) {
      report.errors.push_back(file + ": no recording of " + options.root);
    }
  }
  return report;
}

}  // namespace

RemovalReport RemoveRecordings(const RemoveOptions& options) {
  const bool sites = !options.sites.empty() || options.before != 0;
  if (sites != options.files.empty()) {
    RemovalReport report;
    report.errors.emplace_back(sites ? "name either files, or sites and a time"
                                     : "name files, sites or a time: nothing is removed unasked");
    return report;
  }
  return Remove(options, false);
}

RemovalReport EndRemovals(const std::string& root) {
  RemoveOptions options;
  options.root = root;
  return Remove(options, true);
}

}  // namespace cms
