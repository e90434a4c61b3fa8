// Placeholder: replaced by the extended configuration writer.
#include "lib/toolsversion/toolsVersionInternal.h"

extern "C" bool ToolsVersion_SaveXmlInfo(const char *, const char *, const char *, int32_t,
                                         int32_t) {
  return false;
}
