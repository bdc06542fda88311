#include "cms/recording/internal/database_locks.h"

namespace cms {

// Never destroyed: recorders may still be stored while the process ends.
CMSCritical& RecordDatabaseLock() {
  static auto& lock = *new CMSCritical;
  return lock;
}

CMSCritical& EventDatabaseLock() {
  static auto& lock = *new CMSCritical;
  return lock;
}

CMSCritical& FolderDatabaseLock() {
  static auto& lock = *new CMSCritical;
  return lock;
}

CMSCritical& GapLogLock() {
  static auto& lock = *new CMSCritical;
  return lock;
}

CMSCritical& ProtectionLock() {
  static auto& lock = *new CMSCritical;
  return lock;
}

}  // namespace cms
