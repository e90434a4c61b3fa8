// The tools status of one virtual machine: the guest manifest from a file,
// a text or the extended configuration file, the status the manifests give,
// and the fall-backs on the packed tools version and per-family bounds.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "lib/toolsversion/toolsVersionXml.h"
#include "platform/dictionary/dictionary.h"
#include "platform/disklib/disklib.h"
#include "platform/guestos/guestos.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"
#include "platform/snapshot/snapshot.h"
#include "platform/util/str.h"

namespace {

// Tools 13.1.0: the bounds of a guest the tables do not name.
constexpr uint32_t kDefaultToolsBound = 13344;
// Above this hardware version, a virtual machine whose disks cannot be
// listed is not called too old on that ground alone.
constexpr int32_t kNewestHardwareWithDiskCheck = 21;
// Open flags that only read a disk's database: read-only, no lock, no
// parent chain.
constexpr uint32_t kDiskOpenFlags = 7;
static_assert(kDiskOpenFlags ==
              (DISKLIB_OPEN_READ_ONLY | DISKLIB_OPEN_NO_LOCK | DISKLIB_OPEN_NO_PARENT));

using gp::UniqueMsgList;

struct DiskListDeleter {
  void operator()(SnapshotStringList *list) const { Snapshot_DestroyStringList(list); }
};
using UniqueDiskList = std::unique_ptr<SnapshotStringList, DiskListDeleter>;

const char *Text(const xmlChar *text) {
  return reinterpret_cast<const char *>(text);
}

XmlText Prop(const xmlNode *node, const char *name) {
  return XmlText(xmlGetProp(node, reinterpret_cast<const xmlChar *>(name)));
}

bool IsNamed(const xmlNode *node, const char *name) {
  return node->type == XML_ELEMENT_NODE && Str_Strcasecmp(Text(node->name), name) == 0;
}

const xmlNode *FirstChildNamed(const xmlNode *parent, const char *name) {
  for (const xmlNode *child = parent->children; child != nullptr; child = child->next) {
    if (IsNamed(child, name)) {
      return child;
    }
  }
  return nullptr;
}

// The per-family bounds: the first row whose test holds gives the value.
struct BoundRow {
  bool (*applies)(int id, const char *key);
  uint32_t value;
};

constexpr BoundRow kMinBounds[] = {
    {[](int id, const char *) { return GuestOS_IsWin9x(id) || GuestOS_IsWinNT4(id); }, 7392},
    {[](int id, const char *) { return GuestOS_IsWin(id) || GuestOS_IsLinux(id); }, 8384},
    {[](int id, const char *) { return GuestOS_IsSolaris(id); }, 9216},
    {[](int id, const char *) { return GuestOS_IsDarwin(id) && !GuestOS_IsDarwin15OrHigher(id); },
     10252},
    {[](int id, const char *) { return GuestOS_IsNetware(id); }, 8224},
};

constexpr BoundRow kMaxBounds[] = {
    {[](int id, const char *) { return GuestOS_IsWin9x(id) || GuestOS_IsWinNT4(id); }, 7392},
    {[](int id, const char *) {
       return GuestOS_IsWin2kOrHigher(id) && !GuestOS_IsWinVistaOrHigher(id);
     },
     10252},
    {[](int, const char *key) { return GuestOS_IsLinuxPreGlibc25(key); }, 10252},
    {[](int id, const char *) { return GuestOS_IsNetware(id); }, 8224},
    {[](int, const char *key) { return GuestOS_IsTarTools(key); }, 10362},
};

template <size_t N>
uint32_t Bound(const BoundRow (&rows)[N], int id, const char *key) {
  for (const BoundRow &row : rows) {
    if (row.applies(id, key)) {
      return row.value;
    }
  }
  return kDefaultToolsBound;
}

const char *Printable(const char *text) {
  return text != nullptr ? text : "(null)";
}

// The guest's id, logged at the verbose level.
int MapGuest(const char *guestOS) {
  const int id = GuestOS_GetOSIDByName(guestOS);
  Log_Level(LOG_LEVEL_VERBOSE, "guestOS=%s mapped to guestId=%x\n", guestOS,
            static_cast<unsigned>(id));
  return id;
}

// The update agent's own verdict, when it gave one: the "status" of the
// first "monolithic" child of tools. 0 and 9 say it had none; a number
// that is no status at all (damage, or a newer agent) is treated the same,
// so that only a status ever leaves the library.
bool AgentStatus(const xmlNode *tools, ToolsStatus *status) {
  const xmlNode *monolithic = FirstChildNamed(tools, "monolithic");
  if (monolithic == nullptr) {
    return false;
  }
  XmlText text = Prop(monolithic, "status");
  uint32_t value = 0;
  if (text == nullptr || !StrUtil_StrToUint(&value, Text(text.get()))) {
    return false;
  }
  if (value < TOOLS_STATUS_TOO_OLD || value >= TOOLS_STATUS_UNKNOWN) {
    return false;
  }
  *status = value;
  return true;
}

// The guest manifest kept as "tools-manifest" children: "monolithic" with
// its version, every other component with version and installed flag.
void ManifestFromXml(const xmlNode *manifest, Dictionary *dict) {
  for (const xmlNode *child = manifest->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    XmlText version = Prop(child, "version");
    if (version == nullptr) {
      continue;
    }
    const char *name = Text(child->name);
    if (strcmp(name, "monolithic") == 0) {
      Dict_SetString(dict, Text(version.get()), "monolithic.version");
      continue;
    }
    XmlText installed = Prop(child, "installed");
    if (installed == nullptr) {
      continue;
    }
    Dict_SetString(dict, Text(version.get()), "%s.version", name);
    Dict_SetBool(dict, Str_Strcasecmp(Text(installed.get()), "TRUE") == 0, "%s.installed", name);
  }
}

// The status from the extended configuration file; *manifest receives the
// guest manifest dictionary when one was built from it.
ToolsStatus StatusFromExtConfig(const char *configPath, Dictionary *configDict,
                                gp::UniqueDictionary *manifest) {
  XmlDoc doc = ToolsVersionParseExtConfig(configPath, configDict, nullptr);
  if (doc == nullptr) {
    return TOOLS_STATUS_UNKNOWN;
  }
  const xmlNode *root = xmlDocGetRootElement(doc.get());
  if (root->children == nullptr) {
    Log("Failed to find manifest content in extended config xml.\n");
    return TOOLS_STATUS_UNKNOWN;
  }

  // Later elements replace earlier ones, as the writer appends.
  const xmlNode *toolsManifest = nullptr;
  const xmlNode *agentTools = nullptr;
  for (const xmlNode *child = root->children; child != nullptr; child = child->next) {
    if (IsNamed(child, "tools-manifest")) {
      toolsManifest = child;
    } else if (IsNamed(child, "update-agent-info")) {
      if (const xmlNode *tools = FirstChildNamed(child, "tools")) {
        agentTools = tools;
      }
    }
  }
  ToolsStatus status;
  if (agentTools != nullptr && AgentStatus(agentTools, &status)) {
    return status;
  }
  if (toolsManifest == nullptr || toolsManifest->children == nullptr) {
    Log("Failed to find manifest content in extended config xml.\n");
    return TOOLS_STATUS_UNKNOWN;
  }
  manifest->reset(Dictionary_Create());
  ManifestFromXml(toolsManifest, manifest->get());
  return GetHostManifests(configDict, nullptr, manifest->get());
}

// Steps past the install type: the manifests, the disks, the bounds.
ToolsStatus Assess(const char *configPath, Dictionary *configDict, const char *guestManifestPath,
                   const char *guestManifestText, uint32_t toolsVersion) {
  ToolsStatus status = TOOLS_STATUS_UNKNOWN;
  gp::UniqueDictionary guestManifest;
  if (guestManifestPath != nullptr) {
    gp::UniqueDictionary dict(Dictionary_CreateEx(DICTIONARY_KEEP_REPEATS));
    MsgList *rawMessages = nullptr;
    const bool loaded = Dictionary_LoadEx(dict.get(), guestManifestPath, &rawMessages);
    UniqueMsgList messages(rawMessages);
    if (!loaded) {
      Log("Error loading dictionary for guest manifest.");
      MsgList_Log(messages.get());
    } else {
      guestManifest = std::move(dict);
      status = GetHostManifests(configDict, guestManifestPath, guestManifest.get());
    }
  } else if (guestManifestText != nullptr) {
    if (guestManifestText[0] != '\0') {
      gp::UniqueDictionary dict(Dictionary_CreateEx(DICTIONARY_KEEP_REPEATS));
      if (!Dictionary_LoadFromBuffer(dict.get(), guestManifestText, strlen(guestManifestText))) {
        UniqueMsgList messages(Msg_GetMessagesAndReset());
        gp::UniqueText why(MsgList_ToEnglishString(messages.get()));
        Log("Error loading dictionary from guest manifest buffer: %s.\n",
            why != nullptr ? why.get() : "");
      } else {
        guestManifest = std::move(dict);
        status = GetHostManifests(configDict, nullptr, guestManifest.get());
      }
    }
  } else {
    status = StatusFromExtConfig(configPath, configDict, &guestManifest);
  }

  // What the guest reported of its hardware matters only while the
  // manifests have no answer.
  int32_t hardwareVersion = 1;
  if (status == TOOLS_STATUS_UNKNOWN && guestManifest != nullptr &&
      Dictionary_IsDefined(guestManifest.get(), "virtualHW.version")) {
    hardwareVersion = *static_cast<const int32_t *>(
        Dictionary_Get(guestManifest.get(), &hardwareVersion, DICT_INT, "virtualHW.version"));
  }

  uint32_t version = toolsVersion;
  if (version == TOOLS_VERSION_FROM_DISKS) {
    SnapshotStringList *rawDisks = nullptr;
    const bool listed = Snapshot_GetCurrentDisksCfgDict(configPath, configDict, &rawDisks);
    UniqueDiskList disks(rawDisks);
    if (!listed) {
      if (status != TOOLS_STATUS_UNKNOWN || hardwareVersion > kNewestHardwareWithDiskCheck) {
        return status;
      }
      return TOOLS_STATUS_TOO_OLD;
    }
    if (disks == nullptr && status == TOOLS_STATUS_UNKNOWN) {
      return TOOLS_STATUS_NOT_INSTALLED;
    }
    version = 0;
    for (const SnapshotStringList *disk = disks.get(); disk != nullptr; disk = disk->next) {
      DiskHandle *handle = nullptr;
      if (DiskLib_Open(disk->name, kDiskOpenFlags, &handle) != DISKLIB_OK) {
        continue;  // a disk that does not open tells nothing
      }
      char *rawValue = nullptr;
      if (DiskLib_DBGet(handle, "toolsVersion", &rawValue) == DISKLIB_OK) {
        gp::UniqueText value(rawValue);
        uint32_t diskVersion = 0;
        if (StrUtil_StrToUint(&diskVersion, value.get())) {
          version = std::max(version, diskVersion);
        }
      }
      DiskLib_Close(handle);
    }
  }

  if (status == TOOLS_STATUS_UNKNOWN) {
    if (version == TOOLS_VERSION_NONE) {
      return TOOLS_STATUS_NOT_INSTALLED;
    }
    if (version == TOOLS_VERSION_UNMANAGED) {
      return TOOLS_STATUS_UNMANAGED;
    }
    gp::UniqueDictionary packed(Dictionary_Create());
    char text[32];
    Str_Sprintf(text, sizeof text, "%u.%u.%u", version / 1024, version % 1024 / 32, version % 32);
    Dict_SetString(packed.get(), text, "monolithic.version");
    status = GetHostManifests(configDict, nullptr, packed.get());
  }

  if (status == TOOLS_STATUS_NOT_INSTALLED || status == TOOLS_STATUS_UNMANAGED) {
    return status;
  }

  uint32_t minVersion = kDefaultToolsBound;
  uint32_t maxVersion = kDefaultToolsBound;
  gp::UniqueText guestOS(Dict_GetString(configDict, nullptr, "guestOS"));
  if (guestOS == nullptr) {
    Log("Failed to find guestOS value from VM.\n");
  } else {
    const int id = MapGuest(guestOS.get());
    minVersion = Bound(kMinBounds, id, guestOS.get());
    maxVersion = Bound(kMaxBounds, id, guestOS.get());
    Log("Using ToolsMinVersion = %u\n", minVersion);
    Log("Using ToolsMaxVersion = %u\n", maxVersion);
  }

  if (version < minVersion) {
    return TOOLS_STATUS_TOO_OLD;
  }
  if (status == TOOLS_STATUS_UNKNOWN) {
    return version < maxVersion ? TOOLS_STATUS_SUPPORTED_OLD : TOOLS_STATUS_CURRENT;
  }
  return status;
}

}  // namespace

const char *ToolsVersionStatusName(ToolsStatus status) {
  static constexpr const char *kNames[] = {
      nullptr,
      "TOOLS_STATUS_TOO_OLD",
      "TOOLS_STATUS_SUPPORTED_OLD",
      "TOOLS_STATUS_CURRENT",
      "TOOLS_STATUS_SUPPORTED_NEW",
      "TOOLS_STATUS_TOO_NEW",
      "TOOLS_STATUS_BLACKLISTED",
      "TOOLS_STATUS_NOT_INSTALLED",
      "TOOLS_STATUS_UNMANAGED",
      "TOOLS_STATUS_UNKNOWN",
  };
  if (status == 0 || status >= sizeof kNames / sizeof kNames[0]) {
    return "TOOLS_STATUS_?";
  }
  return kNames[status];
}

extern "C" ToolsStatus ToolsVersion_GetStatus(const char *configPath, Dictionary *configDict,
                                              const char *guestManifestPath,
                                              const char *guestManifestText, uint32_t toolsVersion,
                                              int32_t installType) {
  // Types the caller has no tools management for are answered before
  // anything is read.
  if (installType < -1 || installType > 2) {
    return TOOLS_STATUS_UNMANAGED;
  }
  try {
    gp::UniqueDictionary loaded;
    if (configDict == nullptr) {
      loaded.reset(Dictionary_Create());
      MsgList *rawMessages = nullptr;
      const bool ok = Dictionary_LoadEx(loaded.get(), configPath, &rawMessages);
      UniqueMsgList messages(rawMessages);
      if (!ok) {
        // An all-or-nothing load: the configuration stays empty.
        gp::UniqueText why(MsgList_ToEnglishString(messages.get()));
        Log("ToolsVersion: Error loading config file '%s': %s.\n", Printable(configPath),
            why != nullptr ? why.get() : "");
      }
      configDict = loaded.get();
    }

    if (installType == 2) {
      gp::UniqueText guestOS(Dict_GetString(configDict, nullptr, "guestOS"));
      if (guestOS == nullptr) {
        Log("Failed to find guestOS value from brx config file '%s'.\n", Printable(configPath));
      } else if (GuestOS_IsKalo(MapGuest(guestOS.get()))) {
        return TOOLS_STATUS_UNMANAGED;
      }
    }
    return Assess(configPath, configDict, guestManifestPath, guestManifestText, toolsVersion);
  } catch (...) {
    // Only allocation can throw here.
    Log("ToolsVersion: Out of memory computing the tools status.\n");
    return TOOLS_STATUS_UNKNOWN;
  }
}
