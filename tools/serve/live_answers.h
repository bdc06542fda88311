// The endless answers in which browsers watch live sites.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "tools/serve/serve_site.h"
#include "tools/serve/web_request.h"

namespace tools {

// The sites that there are at this moment. Called by handlers, several at a time.
using SiteList = std::function<std::vector<std::shared_ptr<ServeSite>>()>;

// Each runs on its connection's thread, so there are no more than kMost of them. All sites are in
// one answer, as a browser opens few connections; a client that does not keep up misses pictures,
// not their order, and holds up nobody. Throws BadRequest, and std::runtime_error when there are
// too many. `sites=1,2` in the query names those that are watched; without it all are.
class LiveAnswers {
 public:
  static constexpr int kMost = 128;

  explicit LiveAnswers(const SiteList& sites) : sites_(sites) {}

  int Watchers() const { return watchers_; }

  // JPEGs of everything that can be decoded, no wider than `width`.
  void Pictures(WebRequest& request);
  // As the camera sends it: H.264 in fragments for Media Source Extensions, JPEG. Nothing of sites
  // with another codec.
  void Video(WebRequest& request);
  // The sound of the one `site`.
  void Sound(WebRequest& request);

 private:
  std::vector<std::shared_ptr<ServeSite>> Wanted(const WebRequest& request) const;

  const SiteList& sites_;
  std::atomic<int> watchers_{0};
};

}  // namespace tools
