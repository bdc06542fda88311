// AccessList, which addresses may talk to the HTTP server.
#pragma once

#include <cstdint>
#include <vector>

#include "cms/httpserver/http_server_types.h"

namespace cms {

// White and black ranges in the order in which they were added. Takes no lock.
class AccessList {
 public:
  void Add(const AccessRange& range) { ranges_.push_back(range); }
  void Remove(const AccessRange& range);  // the first that is equal; nothing when there is none
  void Clear() { ranges_.clear(); }

  // A black range that holds the address decides, wherever it stands; else a white one is needed.
  int Answer(std::uint32_t address) const;

 private:
  std::vector<AccessRange> ranges_;
};

}  // namespace cms
