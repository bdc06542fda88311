// File systems that have no locks.
#pragma once

#include <cerrno>

namespace cms {

// The errno of an exclusive open where nothing can be locked: files are used unlocked there.
inline bool CannotLock(int error) {
  return error == ENOLCK || error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

}  // namespace cms
