// A file that always gets the newest text, without anybody waiting for its disk.
#pragma once

#include <optional>
#include <string>
#include <thread>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"

namespace cms::fleet {

// A thread of its own writes; of texts that come while it writes only the last is written. One that
// could not be written is tried again every second.
class LatestFile {
 public:
  explicit LatestFile(std::string path);
  ~LatestFile();  // writes what is left, unless the disk refuses it
  LatestFile(const LatestFile&) = delete;
  LatestFile& operator=(const LatestFile&) = delete;

  void Set(std::string text);  // any thread, at once

 private:
  void Run();

  const std::string path_;
  WakeUp wake_;
  CMSCritical lock_;
  std::optional<std::string> next_ CMS_GUARDED_BY(lock_);
  bool ends_ CMS_GUARDED_BY(lock_) = false;
  std::thread thread_;
};

}  // namespace cms::fleet
