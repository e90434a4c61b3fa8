// Placeholder: replaced by the status computation.
#include "lib/toolsversion/toolsVersionInternal.h"

const char *ToolsComponentStatusText(uint32_t) {
  return "";
}
ToolsStatus ToolsVersionComputeStatus(const char *, const char *, Dictionary *) {
  return TOOLS_STATUS_UNKNOWN;
}
ToolsStatus ToolsVersionStatusFromComponent(ToolsComponentStatus) {
  return TOOLS_STATUS_UNKNOWN;
}
bool ToolsVersionLogSummary(const std::vector<std::string> (&)[kToolsComponentStatusCount],
                            ToolsComponentStatus, ToolsComponentStatus) {
  return false;
}
