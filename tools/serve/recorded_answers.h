// What browsers are told of recordings beside the sessions that play pictures: stretches as they
// were recorded, small pictures, and what the disks hold.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "cms/runtime/critical.h"
#include "tools/data/data_roots.h"
#include "tools/serve/web_request.h"

namespace tools {

// Any thread; each of them waits for the disk, and two of a kind at a time.
class RecordedAnswers {
 public:
  explicit RecordedAnswers(DataRoots roots) : roots_(std::move(roots)) {}

  // GET site=N&ms=M&origin=S, and sound=1: some seconds from that moment on, as one record; see
  // docs/serve.md.
  void Stretch(WebRequest& request);
  // GET site=N&at=S: the key picture that is nearest behind the moment, as a small JPEG.
  void Thumbnail(WebRequest& request);
  // What is in the data roots.
  void Storage(WebRequest& request) const;

 private:
  static constexpr std::size_t kMostThumbnails = 512;  // of some kilobytes each

  struct SmallPicture {
    std::int64_t site = 0;
    std::int64_t second = 0;
    std::string jpeg;  // empty: there is none
  };

  const DataRoots roots_;
  CMSCritical stretchLocks_[2];
  CMSCritical decoding_;  // one small picture at a time is made
  CMSCritical lock_;
  std::list<SmallPicture> thumbnails_
      CMS_GUARDED_BY(lock_);  // the last ones asked for, newest first
};

}  // namespace tools
