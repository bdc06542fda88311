#include "cms/exports/net_exports.h"

#include "cms/net/client_group.h"

void StopEachClientNBManager() {
  EachClientGroupTable::Instance().Stop();
}
