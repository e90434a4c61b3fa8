/*
 * Internal pieces of the tools image naming: the image map loader and the
 * reset of the process-wide state that the tests need.
 */
#ifndef GUESTPREP_TOOLSISO_IMAGE_INTERNAL_H
#define GUESTPREP_TOOLSISO_IMAGE_INTERNAL_H

#include <cstddef>

#include "platform/dictionary/dictionary.h"

/* The image map held in buffer (length bytes, the file at mapPath), after
 * its signature mapPath".sig" verified; without that file the map is taken
 * unless signatureRequired. Null, logged, when refused or unparsable. The
 * caller frees the dictionary. */
Dictionary *ToolsIsoLoadImageMap(const char *mapPath, const char *buffer, size_t length,
                                 bool signatureRequired);

namespace gp {

/* Refresh counter back to 1, tools directory and cached name forgotten.
 * Only while no other thread is inside the ToolsISO_ image functions. */
void ResetToolsIsoStateForTest();

}  // namespace gp

#endif
