// Placeholder: replaced by the snapshot library.
#include "platform/snapshot/snapshot.h"

bool Snapshot_GetCurrentDisksCfgDict(const char *, Dictionary *, SnapshotStringList **disks) {
  *disks = nullptr;
  return false;
}
void Snapshot_DestroyStringList(SnapshotStringList *) {}
