// A failed operation has an error number even where the system named none.
#pragma once

#include <cerrno>

namespace cms {

inline int ErrorOf(int error) {
  return error != 0 ? error : EIO;
}

}  // namespace cms
