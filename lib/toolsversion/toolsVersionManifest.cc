/*
 * Tools version manifests: the version values and their text form, adding
 * manifest entries to the component table, the status of one component,
 * building the table from the host, AVR and guest manifests, and getting
 * the host manifest out of the guest's tools image.
 *
 * The host manifest is read only through the image's signed block hashes
 * and the AVR manifest only when its detached signature is the maker's, so
 * nothing here trusts a file that merely lies in the tools directory.
 * Damaged entries are logged (host and AVR) or dropped (guest) and the rest
 * of the manifest is used.
 */
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "guestprep/toolsiso.h"
#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/dictionary/dictionary.h"
#include "platform/file/file.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"
#include "platform/util/dynbuf.h"
#include "platform/util/hashTable.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"
#include "platform/util/vthread.h"

namespace {

constexpr uint32_t kMaxSignificant = 4;
constexpr uint32_t kDefaultSignificant = 3;
constexpr uint32_t kTableBuckets = 128;
constexpr char kMonolithic[] = "monolithic";
constexpr char kLegacy[] = "legacy";
constexpr char kUpgrader[] = "upgrader";
constexpr char kDefaultLibDir[] = "/usr/lib/brimle";
constexpr char kHostManifestName[] = "manifest.txt";
constexpr char kExtractSuffix[] = "iso.shipped";
constexpr char kToolsIsoPathFn[] = "GetToolsIsoPath";
constexpr char kHostManifestsFn[] = "GetHostManifests";
constexpr uint32_t kIsoFormats =
    ISO9660_FORMAT_ROCKRIDGE | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ISO;

[[noreturn]] void OutOfMemory(int line) {
  Panic("VERIFY %s:%d \n", __FILE__, line);
}

bool IsSet(const ToolsVersionValue &v) {
  return v.significant != 0;
}

// Compares version with bound over the leading parts the bound counts; the
// first unequal part decides.
int CompareToBound(const ToolsVersionValue &version, const ToolsVersionValue &bound) {
  const uint32_t n = std::min(bound.significant, kMaxSignificant);
  for (uint32_t i = 0; i < n; ++i) {
    if (version.parts[i] != bound.parts[i]) {
      return version.parts[i] < bound.parts[i] ? -1 : 1;
    }
  }
  return 0;
}

void FreeComponent(void *value) {
  delete static_cast<ToolsVersionComponent *>(value);
}

ToolsVersionComponent *NewComponent() {
  try {
    return new ToolsVersionComponent();
  } catch (const std::bad_alloc &) {
    OutOfMemory(__LINE__);
  }
}

struct TableDeleter {
  void operator()(HashTable *table) const { HashTable_Free(table); }
};
using UniqueTable = std::unique_ptr<HashTable, TableDeleter>;

struct ComponentDeleter {
  void operator()(ToolsVersionComponent *c) const { delete c; }
};
using UniqueComponent = std::unique_ptr<ToolsVersionComponent, ComponentDeleter>;

using gp::UniqueMsgList;

// The English text of load messages, for one log line.
gp::UniqueText MessagesText(MsgList *messages) {
  gp::UniqueText text(MsgList_ToEnglishString(messages));
  return text != nullptr ? std::move(text) : gp::UniqueText(UtilSafeStrdup0(""));
}

// Which field of a component a manifest entry sets.
enum class EntryKind { kVersion, kVersionMax, kIllegal, kInstalled };

// A skipped entry: logged when the manifest may carry debug switches (host
// and AVR, which the maker writes); the guest's own manifest is not worth
// a line per damaged entry.
bool EntryError(const ToolsVersionAddContext &ctx, const char *error, const char *name,
                const char *value) {
  if (ctx.debug != nullptr) {
    Log("ToolsVersion: %s: %s = %s\n", error, name, value);
  }
  return true;
}

const char *SkipBlanks(const char *p) {
  while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n' || *p == '\f' || *p == '\v') {
    ++p;
  }
  return p;
}

bool AddIllegalList(ToolsVersionComponent *component, const char *text) {
  const char *p = text;
  for (;;) {
    ToolsVersionValue v{};
    p = ToolsVersionParse(&v, p);
    if (p == nullptr) {
      return false;
    }
    try {
      component->illegal.push_back(v);
    } catch (const std::bad_alloc &) {
      OutOfMemory(__LINE__);
    }
    p = SkipBlanks(p);
    if (*p == '\0') {
      return true;
    }
    if (*p != ',') {
      return false;
    }
    ++p;
  }
}

int CopyHostToAvrMin(const char *, void *value, void *) {
  auto *c = static_cast<ToolsVersionComponent *>(value);
  c->avrMin = c->host;
  return 0;
}

int LogRow(const char *name, void *value, void *) {
  ToolsVersionLogComponent(name, static_cast<ToolsVersionComponent *>(value));
  return 0;
}

// Reads, verifies and adds the AVR manifest; false (logged) when any of it
// fails, the table then holding no AVR value.
bool AddAvrManifest(const char *avrManifestPath, HashTable *table, ToolsVersionDebug *debug) {
  uint8_t *rawManifest = nullptr;
  size_t manifestSize = 0;
  if (!ToolsISO_ReadFile(avrManifestPath, &rawManifest, &manifestSize)) {
    Log("ToolsVersion: Error loading the AVR manifest '%s'.\n", avrManifestPath);
    return false;
  }
  gp::UniqueText manifest(reinterpret_cast<char *>(rawManifest));

  gp::UniqueText sigPath(Str_SafeAsprintf(nullptr, "%s.sig", avrManifestPath));
  uint8_t *rawSig = nullptr;
  size_t sigSize = 0;
  if (!ToolsISO_ReadFile(sigPath.get(), &rawSig, &sigSize)) {
    Log("ToolsVersion: Unable to read signature file '%s'.\n", sigPath.get());
    return false;
  }
  gp::UniqueText sig(reinterpret_cast<char *>(rawSig));

  if (!ToolsISO_VerifySignature(nullptr, sig.get(), sigSize, manifest.get(), manifestSize)) {
    Log("ToolsVersion: Error signature check failed for AVR manifest '%s'.\n", avrManifestPath);
    return false;
  }

  // Repeated entries are kept so that the first stands and the repeat is
  // logged, as in the host manifest.
  gp::UniqueDictionary dict(Dictionary_CreateEx(DICTIONARY_KEEP_REPEATS));
  MsgList *rawMessages = nullptr;
  const bool loaded =
      Dictionary_LoadFromBufferEx(dict.get(), manifest.get(), manifestSize, &rawMessages);
  UniqueMsgList messages(rawMessages);
  if (!loaded) {
    Log("ToolsVersion: Error loading dictionary from AVR manifest '%s': %s.\n", avrManifestPath,
        MessagesText(messages.get()).get());
    return false;
  }
  ToolsVersionAddContext ctx{table, MANIFEST_AVR, debug};
  Dictionary_Iterate(dict.get(), ToolsVersionAddEntry, &ctx);
  return true;
}

// Where the host manifest is extracted to: beside the guest manifest, or in
// the private temporary directory under a name that carries the thread id
// so that concurrent computations do not collide. False, logged, when
// neither is possible.
bool ExtractionTarget(const char *guestManifestPath, gp::UniqueText *target) {
  if (guestManifestPath != nullptr) {
    if (!File_Exists(guestManifestPath)) {
      Log("Error accessing guest tools version manifest file.\n");
      return false;
    }
    target->reset(Str_SafeAsprintf(nullptr, "%s.%s", guestManifestPath, kExtractSuffix));
    return true;
  }
  gp::UniqueText tmpDir(File_GetSafeTmpDir(true));
  if (tmpDir == nullptr) {
    Log("Error retrieving local temp directory path.\n");
    return false;
  }
  target->reset(Str_SafeAsprintf(nullptr, "%s%s%s.%lu.%s", tmpDir.get(), "/", kHostManifestName,
                                 static_cast<unsigned long>(VThreadBase_GetKernelID()),
                                 kExtractSuffix));
  return true;
}

// The tools image that serves the virtual machine's guest, and its base
// name. False, logged, when the configuration names none.
bool GetToolsIsoPath(Dictionary *configDict, gp::UniqueText *imagePath, gp::UniqueText *baseName) {
  gp::UniqueText libDir(Dict_GetString(configDict, kDefaultLibDir, "libdir"));
  gp::UniqueText guestOS(Dict_GetString(configDict, nullptr, "guestOS"));
  gp::UniqueText hint(Dict_GetString(configDict, nullptr, "tools.hint.imageName"));
  if (guestOS == nullptr) {
    Log("ToolsVersion: %s: Failed to find guestOS value.\n", kToolsIsoPathFn);
    return false;
  }
  if (libDir == nullptr) {
    Log("ToolsVersion: %s: Failed to get default libDir.\n", kToolsIsoPathFn);
    return false;
  }
  char *path = nullptr;
  char *base = nullptr;
  if (!ToolsISO_GetImagePath(libDir.get(), guestOS.get(), hint.get(), true, &path, &base,
                             nullptr)) {
    free(path);
    free(base);
    Log("ToolsVersion: %s: Failed to get Tools ISO image path.\n", kToolsIsoPathFn);
    return false;
  }
  imagePath->reset(path);
  baseName->reset(base);
  return true;
}

// Copies "manifest.txt" out of the image, reading it only through its
// signed block hashes. False, logged, on any failure.
bool ExtractHostManifest(const char *imagePath, const char *target) {
  Log("%s: Extracting %s manifest file.\n", kHostManifestsFn, target);
  ToolsIsoLocalFile *handle = nullptr;
  const uint32_t opened = ToolsISO_LocalFileOpen(imagePath, true, &handle);
  if (opened == TOOLSISO_OPEN_BAD_HASHES) {
    Log("Failed to verify signature for Tools ISO image.\n");
  }
  if (opened != TOOLSISO_OPEN_OK) {
    return false;
  }
  struct stat st {};
  const uint64_t size = stat(imagePath, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  Iso9660Volume *volume = nullptr;
  Iso9660Result result = Iso9660_OpenWithReader(
      ToolsISO_LocalFileIsoReadCB, ToolsISO_LocalFileCloseCB, handle, size, kIsoFormats, &volume);
  if (result != ISO9660_OK) {
    Log("Failed to open with reader now closing file Tools ISO %s (Iso9660Result=%d).\n", imagePath,
        result);
    ToolsISO_LocalFileCloseCB(handle);
    return false;
  }
  result = Iso9660_ExtractFileEx(volume, kHostManifestName, target);
  Iso9660_Close(volume);
  if (result != ISO9660_OK) {
    Log("Failed to extract %s file to %s from %s (Iso9660Result=%d).\n", kHostManifestName, target,
        imagePath, result);
    return false;
  }
  Log("%s: Done extracting the manifest file.\n", kHostManifestsFn);
  return true;
}

}  // namespace

const char *ToolsVersionParse(ToolsVersionValue *value, const char *text) {
  if (value == nullptr || text == nullptr) {
    return nullptr;
  }
  std::fill(std::begin(value->parts), std::end(value->parts), 0u);
  const char *p = text;
  uint32_t count = 0;
  for (;;) {
    unsigned number = 0;
    if (!StrUtil_DecimalStrToUint(&number, &p)) {
      return nullptr;
    }
    // Parts past the build are read so that the text is consumed, then
    // dropped: four parts are all a version compares.
    if (count < kMaxSignificant) {
      value->parts[count++] = number;
    }
    if (*p != '.') {
      break;
    }
    ++p;
  }
  if (*p == '#') {
    ++p;
    unsigned significant = 0;
    if (!StrUtil_DecimalStrToUint(&significant, &p)) {
      return nullptr;
    }
    value->significant = std::min<uint32_t>(significant, kMaxSignificant);
  } else {
    value->significant = kDefaultSignificant;
  }
  return p;
}

char *ToolsVersionToString(const ToolsVersionValue *value, bool inList) {
  if (value == nullptr || (!IsSet(*value) && !inList)) {
    return Str_SafeAsprintf(nullptr, "%s", "");
  }
  const uint32_t *p = value->parts;
  if (value->significant == kDefaultSignificant) {
    return Str_SafeAsprintf(nullptr, "%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
  }
  return Str_SafeAsprintf(nullptr, "%u.%u.%u.%u#%u", p[0], p[1], p[2], p[3], value->significant);
}

bool ToolsVersionAddEntry(const char *name, const char *value, void *context) {
  const auto &ctx = *static_cast<const ToolsVersionAddContext *>(context);
  if (name == nullptr || value == nullptr) {
    return true;
  }
  const char *dot = strrchr(name, '.');
  if (dot == nullptr) {
    return EntryError(ctx, "No '.' in the name", name, value);
  }

  EntryKind kind;
  if (Str_Strcasecmp(dot, ".version") == 0) {
    kind = EntryKind::kVersion;
  } else if (Str_Strcasecmp(dot, ".version_max") == 0) {
    if (ctx.kind != MANIFEST_AVR) {
      return EntryError(ctx, "Maximum version in non-AVR file", name, value);
    }
    kind = EntryKind::kVersionMax;
  } else if (Str_Strcasecmp(dot, ".version_illegal") == 0) {
    if (ctx.kind != MANIFEST_AVR) {
      return EntryError(ctx, "Illegal version in non-AVR file", name, value);
    }
    kind = EntryKind::kIllegal;
  } else if (Str_Strcasecmp(dot, ".installed") == 0) {
    if (ctx.kind != MANIFEST_GUEST) {
      return EntryError(ctx, "Installed flag in non-guest file", name, value);
    }
    kind = EntryKind::kInstalled;
  } else if (Str_Strcasecmp(dot, ".log") == 0) {
    // Only the maker's manifests may switch the debug tables on.
    if (ctx.debug == nullptr) {
      return true;
    }
    if (Str_Strcasecmp(name, "result.log") == 0) {
      ctx.debug->resultLog = Dictionary_StringToBool(value, false);
    } else if (Str_Strcasecmp(name, "components.log") == 0) {
      ctx.debug->componentsLog = Dictionary_StringToBool(value, false);
    } else {
      return EntryError(ctx, "Unknown debug entry", name, value);
    }
    return true;
  } else {
    return EntryError(ctx, "Unknown entry", name, value);
  }

  gp::UniqueText componentName(UtilSafeStrndup0(name, dot - name));
  void *found = nullptr;
  ToolsVersionComponent *component;
  if (HashTable_Lookup(ctx.components, componentName.get(), &found)) {
    component = static_cast<ToolsVersionComponent *>(found);
  } else {
    component = NewComponent();
    HashTable_Insert(ctx.components, componentName.get(), component);
  }

  ToolsVersionValue *slot = nullptr;
  switch (kind) {
    case EntryKind::kInstalled:
      component->installed = Dictionary_StringToBool(value, false);
      return true;
    case EntryKind::kIllegal:
      if (!AddIllegalList(component, value)) {
        return EntryError(ctx, "Cannot parse illegal version", name, value);
      }
      return true;
    case EntryKind::kVersion:
      slot = ctx.kind == MANIFEST_HOST    ? &component->host
             : ctx.kind == MANIFEST_GUEST ? &component->guest
                                          : &component->avrMin;
      break;
    case EntryKind::kVersionMax:
      slot = &component->avrMax;
      break;
  }
  if (IsSet(*slot)) {
    return EntryError(ctx, "Multiple identical entries", name, value);
  }
  const char *end = ToolsVersionParse(slot, value);
  if (end == nullptr || *SkipBlanks(end) != '\0') {
    return EntryError(ctx, "Cannot parse version", name, value);
  }
  return true;
}

ToolsComponentStatus ToolsVersionComponentStatus(ToolsVersionComponent *c) {
  ToolsComponentStatus status;
  if (!IsSet(c->guest)) {
    status = IsSet(c->host) ? COMPONENT_MISSING : COMPONENT_GONE;
  } else if (!c->installed) {
    status = COMPONENT_NOT_INSTALLED;
  } else if (std::any_of(c->illegal.begin(), c->illegal.end(), [&](const ToolsVersionValue &bad) {
               return !IsSet(bad) || CompareToBound(c->guest, bad) == 0;
             })) {
    status = COMPONENT_BLACKLISTED;
  } else if (IsSet(c->avrMin) && CompareToBound(c->guest, c->avrMin) < 0) {
    status = COMPONENT_TOO_OLD;
  } else if (IsSet(c->avrMax) && CompareToBound(c->guest, c->avrMax) > 0) {
    status = COMPONENT_TOO_NEW;
  } else if (!IsSet(c->host)) {
    status = COMPONENT_ADDITIONAL;
  } else {
    const int cmp = CompareToBound(c->guest, c->host);
    status = cmp < 0   ? COMPONENT_SUPPORTED_OLD
             : cmp > 0 ? COMPONENT_SUPPORTED_NEW
                       : COMPONENT_CURRENT;
  }
  c->status = status;
  return status;
}

void ToolsVersionLogComponent(const char *name, ToolsVersionComponent *component) {
  const ToolsComponentStatus status = ToolsVersionComponentStatus(component);
  gp::UniqueText guest(ToolsVersionToString(&component->guest, false));
  gp::UniqueText host(ToolsVersionToString(&component->host, false));
  gp::UniqueText avrMin(ToolsVersionToString(&component->avrMin, false));
  gp::UniqueText avrMax(ToolsVersionToString(&component->avrMax, false));
  DynBuf illegal;
  DynBuf_Init(&illegal);
  for (size_t i = 0; i < component->illegal.size(); ++i) {
    if (i > 0) {
      DynBuf_SafeAppend(&illegal, ", ", 2);
    }
    gp::UniqueText text(ToolsVersionToString(&component->illegal[i], true));
    DynBuf_SafeAppend(&illegal, text.get(), strlen(text.get()));
  }
  gp::UniqueText illegalText(DynBuf_DetachString(&illegal));
  Log("ToolsVersion: %-24s: %-11.11s %-16s %c %-16s %-16s %-16s %s\n", name,
      ToolsComponentStatusText(status), guest.get(), component->installed ? 'Y' : 'N', host.get(),
      avrMin.get(), avrMax.get(), illegalText.get());
}

HashTable *ToolsVersionNewTable() {
  return HashTable_Alloc(kTableBuckets, HASH_STRING_KEY, FreeComponent);
}

bool ToolsVersionBuildTable(const char *hostManifestPath, const char *avrManifestPath,
                            Dictionary *guestManifest, HashTable **tableOut,
                            ToolsComponentStatus *monolithicStatus, ToolsVersionDebug *debugOut) {
  *tableOut = nullptr;
  ToolsVersionDebug debug;
  UniqueTable table(ToolsVersionNewTable());

  // Every line is an entry: a repeated one is logged and the first stands.
  gp::UniqueDictionary hostDict(Dictionary_CreateEx(DICTIONARY_KEEP_REPEATS));
  MsgList *rawMessages = nullptr;
  const bool loaded = Dictionary_LoadEx(hostDict.get(), hostManifestPath, &rawMessages);
  UniqueMsgList messages(rawMessages);
  if (!loaded) {
    Log("ToolsVersion: Error loading dictionary from host manifest: '%s': %s.\n",
        hostManifestPath != nullptr ? hostManifestPath : "(null)",
        MessagesText(messages.get()).get());
    return false;
  }
  ToolsVersionAddContext hostCtx{table.get(), MANIFEST_HOST, &debug};
  Dictionary_Iterate(hostDict.get(), ToolsVersionAddEntry, &hostCtx);

  bool haveAvr = false;
  if (avrManifestPath != nullptr) {
    haveAvr = AddAvrManifest(avrManifestPath, table.get(), &debug);
    if (!haveAvr) {
      Log("ToolsVersion: AVR file corrupted, ignoring AVR values\n");
    }
  }
  if (!haveAvr) {
    // The host's own version is then the oldest one supported.
    HashTable_ForEach(table.get(), CopyHostToAvrMin, nullptr);
  }

  if (guestManifest != nullptr) {
    ToolsVersionAddContext guestCtx{table.get(), MANIFEST_GUEST, nullptr};
    Dictionary_Iterate(guestManifest, ToolsVersionAddEntry, &guestCtx);
  }

  void *found = nullptr;
  UniqueComponent monolithic(HashTable_LookupAndDelete(table.get(), kMonolithic, &found)
                                 ? static_cast<ToolsVersionComponent *>(found)
                                 : NewComponent());
  if (HashTable_LookupAndDelete(table.get(), kLegacy, &found)) {
    UniqueComponent legacy(static_cast<ToolsVersionComponent *>(found));
    for (ToolsVersionValue ToolsVersionComponent::*field :
         {&ToolsVersionComponent::host, &ToolsVersionComponent::guest,
          &ToolsVersionComponent::avrMin}) {
      if (!IsSet(monolithic.get()->*field)) {
        monolithic.get()->*field = legacy.get()->*field;
      }
    }
  }
  // A guest that reports no monolithic version is judged by its upgrader.
  if (!IsSet(monolithic->guest) && HashTable_Lookup(table.get(), kUpgrader, &found)) {
    monolithic->guest = static_cast<ToolsVersionComponent *>(found)->guest;
  }
  monolithic->installed = true;
  *monolithicStatus = ToolsVersionComponentStatus(monolithic.get());

  if (ToolsVersionDebugLogsForced()) {
    debug.componentsLog = true;
    debug.resultLog = true;
  }
  if (debug.componentsLog) {
    Log("ToolsVersion: %-24s: %-11.11s %-16s %c %-16s %-16s %-16s %s\n", "Component", "Status",
        "Guest", 'I', "Host", "AVR Min", "AVR Max", "AVR Illegal");
    ToolsVersionLogComponent(kMonolithic, monolithic.get());
    HashTable_ForEach(table.get(), LogRow, nullptr);
  }

  if (debugOut != nullptr) {
    *debugOut = debug;
  }
  *tableOut = table.release();
  return true;
}

ToolsStatus GetHostManifests(Dictionary *configDict, const char *guestManifestPath,
                             Dictionary *guestManifest) {
  gp::UniqueText target;
  bool ok = ExtractionTarget(guestManifestPath, &target);
  gp::UniqueText imagePath;
  gp::UniqueText baseName;
  if (ok && !GetToolsIsoPath(configDict, &imagePath, &baseName)) {
    Log("Failed to get tools iso path.\n");
    ok = false;
  }
  gp::UniqueText avrPath;
  if (ok) {
    gp::UniqueText realPath(ToolsISO_GetRealPath(imagePath.get()));
    char *dir = nullptr;
    File_GetPathName(realPath.get(), &dir, nullptr);
    gp::UniqueText ownedDir(dir);
    avrPath.reset(Str_SafeAsprintf(nullptr, "%s%s%s_%s_%s", dir != nullptr ? dir : "", "/",
                                   baseName != nullptr ? baseName.get() : "", "avr",
                                   kHostManifestName));
    ok = ExtractHostManifest(realPath.get(), target.get());
  }
  if (!ok) {
    if (target != nullptr) {
      File_UnlinkIfExists(target.get());
    }
    Log("Error getting host tools manifest files.\n");
    return TOOLS_STATUS_UNKNOWN;
  }
  const char *avr = File_Exists(avrPath.get()) ? avrPath.get() : nullptr;
  const ToolsStatus status = ToolsVersionComputeStatus(target.get(), avr, guestManifest);
  File_UnlinkIfExists(target.get());
  return status;
}
