/*
 * Host snapshot library: which disks a virtual machine uses now.
 *
 * A virtual machine's configuration (the host's dictionary format) names a
 * disk with entries for one device, DEVICE being a bus name ("ide", "scsi",
 * "sata" or "nvme"), a controller number, ":" and a unit number (each 0 to
 * 99, without leading zeros), as in "scsi0:1"; names match ignoring case:
 *   DEVICE.present    = "TRUE"        the device is connected (default: no)
 *   DEVICE.fileName   = "disk.brdk"   its disk descriptor (see disklib.h),
 *                                     relative to the configuration's directory
 *   DEVICE.deviceType = "disk"        optional; any other type (a CD-ROM
 *                                     image, a raw device) is not a disk
 * The current disks are those of every present disk device, in the order
 * of their ".present" entries in the configuration, each path once. Whether
 * the descriptor exists is not checked here: the disk library tells when it
 * opens it.
 */
#ifndef GUESTPREP_PLATFORM_SNAPSHOT_H
#define GUESTPREP_PLATFORM_SNAPSHOT_H

#include "platform/dictionary/dictionary.h"

/* A list of texts (disk paths), ended by a null next. */
struct SnapshotStringList {
  SnapshotStringList *next;
  char *name;
};

/* Stores in *disks the paths of the current disks (null for none), each
 * the configuration's directory joined with the fileName unless that is
 * absolute. configDict may be null: configPath is then loaded. False, with
 * one log line and *disks null, when the configuration cannot be loaded or
 * a present disk device has no usable fileName (empty, or with a control
 * byte). */
bool Snapshot_GetCurrentDisksCfgDict(const char *configPath, Dictionary *configDict,
                                     SnapshotStringList **disks);

/* Frees a whole list; null is allowed. */
void Snapshot_DestroyStringList(SnapshotStringList *list);

#endif
