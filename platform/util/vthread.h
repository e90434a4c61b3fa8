/*
 * The calling thread's kernel id, for names that must not collide between
 * threads (temporary files).
 */
#ifndef GUESTPREP_PLATFORM_VTHREAD_H
#define GUESTPREP_PLATFORM_VTHREAD_H

#include <cstdint>

uintptr_t VThreadBase_GetKernelID(void);

#endif
