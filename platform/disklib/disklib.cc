// Placeholder: replaced by the disk library.
#include "platform/disklib/disklib.h"

DiskLibError DiskLib_Open(const char *, uint32_t, DiskHandle **) {
  return DISKLIB_ERR_IO;
}
DiskLibError DiskLib_DBGet(DiskHandle *, const char *, char **) {
  return DISKLIB_ERR_NO_ENTRY;
}
DiskLibError DiskLib_Close(DiskHandle *) {
  return DISKLIB_OK;
}
const char *DiskLib_Err2String(DiskLibError) {
  return "";
}
