// Placeholder: replaced by the status entry point.
#include "lib/toolsversion/toolsVersionInternal.h"

extern "C" ToolsStatus ToolsVersion_GetStatus(const char *, Dictionary *, const char *,
                                              const char *, uint32_t, int32_t) {
  return TOOLS_STATUS_UNKNOWN;
}
const char *ToolsVersionStatusName(ToolsStatus) {
  return "TOOLS_STATUS_?";
}
