#include "platform/util/vthread.h"

#include <unistd.h>

uintptr_t VThreadBase_GetKernelID(void) {
  return static_cast<uintptr_t>(gettid());
}
