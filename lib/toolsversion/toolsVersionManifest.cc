// Placeholder: replaced by the manifest reader.
#include "lib/toolsversion/toolsVersionInternal.h"

const char *ToolsVersionParse(ToolsVersionValue *, const char *) {
  return nullptr;
}
char *ToolsVersionToString(const ToolsVersionValue *, bool) {
  return nullptr;
}
bool ToolsVersionAddEntry(const char *, const char *, void *) {
  return true;
}
ToolsComponentStatus ToolsVersionComponentStatus(ToolsVersionComponent *) {
  return COMPONENT_GONE;
}
void ToolsVersionLogComponent(const char *, ToolsVersionComponent *) {}
HashTable *ToolsVersionNewTable() {
  return nullptr;
}
bool ToolsVersionBuildTable(const char *, const char *, Dictionary *, HashTable **,
                            ToolsComponentStatus *, ToolsVersionDebug *) {
  return false;
}
ToolsStatus GetHostManifests(Dictionary *, const char *, Dictionary *) {
  return TOOLS_STATUS_UNKNOWN;
}
