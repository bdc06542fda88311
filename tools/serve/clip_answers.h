// Clips of recordings for browsers: made, told with their SHA-256, and given away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "cms/runtime/critical.h"
#include "tools/data/data_roots.h"
#include "tools/serve/web_request.h"

namespace tools {

// Any thread. The clips lie in a folder of the data root, the latest of them, until the server
// ends.
class ClipAnswers {
 public:
  static constexpr std::size_t kMostClips = 16;
  static constexpr int kMostAtOnce = 2;  // are being made
  // Of recordings that go into one, but never more than a quarter of what is free on the disk: the
  // room is the recordings'.
  static constexpr std::uint64_t kMostClipBytes = std::uint64_t{8} << 30;
  // Of all together; earlier ones are removed.
  static constexpr std::uint64_t kMostBytes = std::uint64_t{16} << 30;

  // Empties the folder, which an earlier process may have left. `name`: of this server, among those
  // with this data root. `roots`: where recordings are.
  ClipAnswers(const std::string& dataRoot, const std::string& name, DataRoots roots);
  ~ClipAnswers();
  ClipAnswers(const ClipAnswers&) = delete;
  ClipAnswers& operator=(const ClipAnswers&) = delete;

  // PUT site=N&from=S&to=S, both seconds inclusive. An endless answer tells how far it is, twice a
  // second, and at last what became of it; a client that leaves cancels it.
  void Make(WebRequest& request);
  // The clip with this id, as a file to be kept.
  void Give(WebRequest& request);

 private:
  struct Clip {
    std::string id;
    std::string path;
    std::string name;  // for the browser
    std::uint64_t size = 0;
  };
  void Keep(Clip clip);
  std::uint64_t MostBytesNow() const;

  const std::string folder_;
  const DataRoots roots_;
  CMSCritical lock_;
  int making_ CMS_GUARDED_BY(lock_) = 0;
  std::deque<Clip> clips_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools
