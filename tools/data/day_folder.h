// Where a site's recordings lie: in the folder of the day.
#pragma once

#include <string>

#include "tools/support/live_site.h"

namespace tools {

// The process has its data root. One thread at a time.
class DayFolder {
 public:
  // Tells the site's recorder its device and the folder of today. Site N is the N-th URL, from 1.
  DayFolder(LiveSite& live, const LiveOptions& options, int fileSizeMiB);

  // To be called when a day may have begun: the next key frame starts a file in its folder.
  void Follow();
  // Throws std::runtime_error that says why a recording did not begin.
  [[noreturn]] void Refuse() const;

 private:
  std::wstring Path() const;  // of the files, without stamp and extension

  CMSClientBase& client_;
  const int number_;
  std::wstring day_;
};

}  // namespace tools
