#include "cms/streaming/interleaved.h"

int GetInterleaveType(int id, const cms::RTSPChannelIds& ids) {
  if (id < 0) return -1;
  for (std::size_t type = 0; type < ids.size(); ++type) {
    if (ids[type] == id) return static_cast<int>(type);
  }
  return -1;
}
