// Tools version internals shared by the manifest reader
// (toolsVersionManifest.cc), the status computation (toolsVersionStatus.cc)
// and the extended configuration writer (toolsVersionSave.cc).
#ifndef GUESTPREP_LIB_TOOLSVERSION_INTERNAL_H
#define GUESTPREP_LIB_TOOLSVERSION_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "guestprep/toolsversion.h"
#include "platform/dictionary/dictionary.h"
#include "platform/util/hashTable.h"

// A parsed version. significant: the number of leading parts that count in
// comparisons (0 to 4); 0 means no version is set.
struct ToolsVersionValue {
  uint32_t significant;
  uint32_t parts[4];  // major, minor, patch, build; missing parts are 0
};

enum ToolsComponentStatus : uint32_t {
  COMPONENT_BLACKLISTED = 0,
  COMPONENT_TOO_OLD = 1,
  COMPONENT_TOO_NEW = 2,
  COMPONENT_SUPPORTED_OLD = 3,
  COMPONENT_SUPPORTED_NEW = 4,
  COMPONENT_CURRENT = 5,
  COMPONENT_ADDITIONAL = 6,
  COMPONENT_MISSING = 7,
  COMPONENT_NOT_INSTALLED = 8,
  COMPONENT_GONE = 9,
};
constexpr size_t kToolsComponentStatusCount = 10;

// "blacklisted", "too old", ... "gone"; "" for a value out of range.
const char *ToolsComponentStatusText(uint32_t status);

// One component of the component table (owned by the table).
struct ToolsVersionComponent {
  ToolsVersionValue guest{};
  bool installed = false;
  ToolsVersionValue host{};
  ToolsVersionValue avrMin{};
  ToolsVersionValue avrMax{};
  std::vector<ToolsVersionValue> illegal;
  ToolsComponentStatus status = COMPONENT_GONE;
};

enum ToolsManifestKind : uint32_t {
  MANIFEST_HOST = 0,
  MANIFEST_GUEST = 1,
  MANIFEST_AVR = 2,
};

// The switches the host and AVR manifests may set ("result.log",
// "components.log").
struct ToolsVersionDebug {
  bool resultLog = false;
  bool componentsLog = false;
};

// The context of ToolsVersionAddEntry. debug is null for the guest
// manifest, whose damaged entries are dropped without a log line.
struct ToolsVersionAddContext {
  HashTable *components;
  ToolsManifestKind kind;
  ToolsVersionDebug *debug;
};

// Parses text into *value; the position after the version, or null.
const char *ToolsVersionParse(ToolsVersionValue *value, const char *text);

// "%u.%u.%u.%u" when significant is 3, else "%u.%u.%u.%u#%u"; an unset
// value is "" unless inList. A new string.
char *ToolsVersionToString(const ToolsVersionValue *value, bool inList);

// The Dictionary_Iterate callback over a manifest (ctx: a
// ToolsVersionAddContext). A damaged entry is logged (with debug switches)
// and ignored; the answer is always true so that the walk goes on.
bool ToolsVersionAddEntry(const char *name, const char *value, void *ctx);

// Computes, stores and returns the component's status.
ToolsComponentStatus ToolsVersionComponentStatus(ToolsVersionComponent *component);

// One row of the component table (the status column computed afresh).
void ToolsVersionLogComponent(const char *name, ToolsVersionComponent *component);

// A new component table: exact-name keys, records destroyed with it.
HashTable *ToolsVersionNewTable();

// The first half of the status computation: the component table built from
// the host manifest file, the AVR manifest (avrManifestPath may be null)
// and the guest manifest (may be null), with "monolithic" taken out of it,
// its status computed and the table logged when components.log is on.
// False, logged, when the host manifest cannot be loaded (*table null).
bool ToolsVersionBuildTable(const char *hostManifestPath, const char *avrManifestPath,
                            Dictionary *guestManifest, HashTable **table,
                            ToolsComponentStatus *monolithicStatus, ToolsVersionDebug *debug);

// The status from the three manifests (a TOOLS_STATUS_* value).
ToolsStatus ToolsVersionComputeStatus(const char *hostManifestPath, const char *avrManifestPath,
                                      Dictionary *guestManifest);

// The monolithic component's status as a TOOLS_STATUS_* value.
ToolsStatus ToolsVersionStatusFromComponent(ToolsComponentStatus status);

// Whether status s applies given the buckets (component names per status,
// in table order) and the monolithic status m; logs the reason when it
// does.
bool ToolsVersionLogSummary(const std::vector<std::string> (&buckets)[kToolsComponentStatusCount],
                            ToolsComponentStatus monolithicStatus, ToolsComponentStatus status);

// Finds the virtual machine's tools image, extracts its host manifest
// through the verified reader, finds the AVR manifest beside it, and runs
// ToolsVersionComputeStatus with guestManifest. guestManifestPath (may be
// null) is where the guest manifest came from: the host manifest is
// extracted beside it. Any failure: logged, TOOLS_STATUS_UNKNOWN.
ToolsStatus GetHostManifests(Dictionary *configDict, const char *guestManifestPath,
                             Dictionary *guestManifest);

// The extended configuration file's path: "extendedConfigFile" relative to
// configPath's directory. A new string, or null (logged).
char *ToolsVersionGetExtConfigPath(const char *configPath, Dictionary *configDict);

// Reads the file whole into a new buffer of *size + 1 bytes ending in a
// zero byte. False, logged, on failure.
bool ToolsVersionReadExtConfig(const char *path, char **buffer, size_t *size);

// Runs the XML library's version check once per process (shared by the
// status reader and the writer); later calls return at once.
void ToolsVersionCheckXmlLibrary();

// Turns the components.log and result.log switches on for every later
// computation in the process, whatever the manifests say (the CLI's
// --verbose). Off by default.
void ToolsVersionForceDebugLogs(bool on);
bool ToolsVersionDebugLogsForced();

// "TOOLS_STATUS_CURRENT"... for a status value; "TOOLS_STATUS_?" for others.
const char *ToolsVersionStatusName(ToolsStatus status);

#endif
