/* Compiled as C: every public header must be valid C on its own. */
#include <guestprep/common.h>

const char *guestprep_abi_label(void) { return BRM_EMBED_LABEL; }
