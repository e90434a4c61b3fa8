/*
 * guestprep tools status: how the guest tools installed in a virtual
 * machine compare with the tools this host offers, and the tools facts a
 * virtual machine keeps in its extended configuration file.
 *
 * A virtual machine is its configuration file (name = "value" lines: the
 * host's dictionary format). The keys read here are "guestOS", "libdir"
 * (the host's library directory, default "/usr/lib/brimle"),
 * "tools.hint.imageName", "extendedConfigFile" (an XML file, relative to
 * the configuration file's directory) and the disk entries: for a device
 * such as "scsi0:0", "scsi0:0.present" and "scsi0:0.fileName" name one of
 * the machine's disks.
 *
 * The answer compares three manifests, each a dictionary of entries named
 * after a component with ".version", ".installed" (guest only),
 * ".version_max" and ".version_illegal" (AVR only) appended:
 * - the host manifest, "manifest.txt" inside the guest's tools image, read
 *   only through the image's signed block hashes;
 * - the AVR manifest, IMAGEBASE"_avr_manifest.txt" beside the image with a
 *   PEM PKCS#7 signature by the maker in the same name plus ".sig": per
 *   component, the supported range and versions that must not be used;
 * - the guest manifest, what the guest reports it has installed.
 * Versions are dotted decimals (12.3.0.45678), optionally "#" and the count
 * of leading parts that compare (12.3#2). Every reason is a log line.
 *
 * Calls are re-entrant; nothing is kept between them but a once-per-process
 * check of the XML library.
 */
#ifndef GUESTPREP_TOOLSVERSION_H
#define GUESTPREP_TOOLSVERSION_H

#include "guestprep/common.h"

GUESTPREP_EXTERN_C_BEGIN

/* The host's loaded dictionary; callers of the C interface pass NULL. */
typedef struct Dictionary Dictionary;

typedef uint32_t ToolsStatus;
enum {
  TOOLS_STATUS_TOO_OLD = 1,       /* below the supported range */
  TOOLS_STATUS_SUPPORTED_OLD = 2, /* older than the host's tools, still supported */
  TOOLS_STATUS_CURRENT = 3,       /* matches the host's tools */
  TOOLS_STATUS_SUPPORTED_NEW = 4, /* newer than the host's tools, still supported */
  TOOLS_STATUS_TOO_NEW = 5,       /* above the supported range */
  TOOLS_STATUS_BLACKLISTED = 6,   /* a version that must not be used */
  TOOLS_STATUS_NOT_INSTALLED = 7, /* no tools in the guest */
  TOOLS_STATUS_UNMANAGED = 8,     /* tools not assessed by this host */
  TOOLS_STATUS_UNKNOWN = 9,       /* no answer could be computed */
};

/* Packed tools versions: major * 1024 + minor * 32 + patch. */
#define TOOLS_VERSION_NONE 0u                /* no tools */
#define TOOLS_VERSION_UNMANAGED 0x7FFFFFFFu  /* tools not managed by the host */
#define TOOLS_VERSION_FROM_DISKS 0xFFFFFFFFu /* read "toolsVersion" from the disks */

/* The status of the tools in the virtual machine whose configuration file
 * is configPath. configDict is that file loaded (NULL: the file is loaded
 * here; an unreadable one counts as an empty configuration). The guest
 * manifest comes from guestManifestPath (a dictionary file), else from
 * guestManifestText (dictionary text; "" is a guest that reported no
 * manifest: the manifests give no answer), else, when both are NULL, from
 * the extended configuration file (see ToolsVersion_SaveXmlInfo). Where the
 * manifests give no answer, the packed toolsVersion and the guest family's
 * supported range decide. installType: -1, 0, 1 and 2 are assessed (2 not
 * for the maker's bare-metal hypervisor), anything else is unmanaged.
 * Never fails: an input that cannot be read is logged and the next source
 * answers, down to TOOLS_STATUS_UNKNOWN. */
GUESTPREP_API ToolsStatus ToolsVersion_GetStatus(const char *configPath, Dictionary *configDict,
                                                 const char *guestManifestPath,
                                                 const char *guestManifestText,
                                                 uint32_t toolsVersion, int32_t installType);

/* Stores tools facts in the extended configuration file of the virtual
 * machine whose configuration file is configPath: the update agent's XML
 * report (element "update-agent-info", two levels deep), the guest
 * manifest text (element "tools-manifest", one child per component with
 * "version" and "installed" attributes) and, when updateCounter is not 0,
 * the last install's error code and update counter (element
 * "tools-install-info"). Either text may be NULL or "" (leave it alone),
 * "null" (leave it alone) or "no tools" (remove what is stored). Everything
 * else in the file is kept. The file must exist and hold XML with a root
 * element: a file that is not XML is never overwritten. It is replaced
 * atomically, so a crash leaves the old or the new file whole. True when
 * there was nothing to store or it was stored; false, logged, otherwise. */
GUESTPREP_API bool ToolsVersion_SaveXmlInfo(const char *configPath, const char *updateAgentXml,
                                            const char *guestManifestText, int32_t installError,
                                            int32_t updateCounter);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_TOOLSVERSION_H */
