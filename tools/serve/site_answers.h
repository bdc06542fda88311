// The recorder's sites on the page, for who manages: listed, tried, added, changed and removed.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "tools/serve/web_request.h"
#include "tools/service/site_edit.h"

namespace tools {

// Any thread; waits for the disk, and for a camera that is tried.
class SiteAnswers {
 public:
  // The recorder's configuration file, absolute; empty: the page is no recorder's, and all that is
  // asked for is refused.
  explicit SiteAnswers(const std::string& path);

  // GET: all sites, without their passwords. POST adds one, PUT changes that of "site", DELETE
  // removes it; the body is a form with the keys of [[sites]] that are given.
  void Sites(WebRequest& request);
  // POST of such a form: connects to the camera and answers with what it sends and a picture, as
  // one record. Of "site" in the query, what is not in the form is as the file has it.
  void Try(WebRequest& request);

 private:
  void List(WebRequest& request) const;

  const std::string path_;
  const std::unique_ptr<SiteEditor> editor_;  // null: no recorder
  std::atomic<bool> trying_ = false;
};

}  // namespace tools
