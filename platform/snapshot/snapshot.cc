// The snapshot library's view of a configuration: the disks attached now.
#include "platform/snapshot/snapshot.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

constexpr std::string_view kBuses[] = {"ide", "scsi", "sata", "nvme"};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// Consumes a device number 0 to 99 written without leading zeros, so one
// device has one spelling ("scsi0:1", never "scsi00:01").
bool TakeNumber(std::string_view *text) {
  size_t n = 0;
  while (n < text->size() && n < 3 && IsDigit((*text)[n])) {
    ++n;
  }
  if (n == 0 || n > 2 || (n == 2 && (*text)[0] == '0')) {
    return false;
  }
  text->remove_prefix(n);
  return true;
}

// Whether name is DEVICE ".present" for a disk-capable device; *device gets
// DEVICE as written.
bool IsPresentEntry(const char *name, std::string *device) {
  constexpr std::string_view kSuffix = ".present";
  if (!StrUtil_CaselessEndsWith(name, kSuffix.data())) {
    return false;
  }
  const std::string_view whole(name, strlen(name) - kSuffix.size());
  std::string_view rest = whole;
  bool busFound = false;
  for (std::string_view bus : kBuses) {
    if (rest.size() > bus.size() && Str_Strncasecmp(rest.data(), bus.data(), bus.size()) == 0) {
      rest.remove_prefix(bus.size());
      busFound = true;
      break;
    }
  }
  if (!busFound || !TakeNumber(&rest) || rest.empty() || rest[0] != ':') {
    return false;
  }
  rest.remove_prefix(1);
  if (!TakeNumber(&rest) || !rest.empty()) {
    return false;
  }
  device->assign(whole);
  return true;
}

bool HasControlByte(const char *text) {
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != 0; ++p) {
    if (*p < 0x20 || *p == 0x7F) {
      return true;
    }
  }
  return false;
}

struct Scan {
  Dictionary *config;
  std::string configDir;  // up to and including the last "/", or ""
  std::vector<std::string> disks;
  std::set<std::string> seen;
  std::string badDevice;  // the first present disk without a usable fileName
};

bool AddIfDisk(const char *name, const char *value, void *ctx) {
  auto *scan = static_cast<Scan *>(ctx);
  std::string device;
  if (!IsPresentEntry(name, &device) || !Dictionary_StringToBool(value, false)) {
    return true;
  }
  const std::string typeName = device + ".deviceType";
  const char *type = static_cast<const char *>(
      Dictionary_Get(scan->config, nullptr, DICT_STRING, typeName.c_str()));
  if (type != nullptr && Str_Strcasecmp(type, "disk") != 0) {
    return true;
  }
  const std::string fileNameKey = device + ".fileName";
  const char *fileName = static_cast<const char *>(
      Dictionary_Get(scan->config, nullptr, DICT_STRING, fileNameKey.c_str()));
  if (fileName == nullptr || fileName[0] == '\0' || HasControlByte(fileName)) {
    scan->badDevice = device;
    return false;
  }
  std::string path = fileName[0] == '/' ? std::string(fileName) : scan->configDir + fileName;
  if (scan->seen.insert(path).second) {
    scan->disks.push_back(std::move(path));
  }
  return true;
}

void FreeList(SnapshotStringList *list) {
  while (list != nullptr) {
    SnapshotStringList *next = list->next;
    free(list->name);
    free(list);
    list = next;
  }
}

// The list in order, or false when memory ran out (nothing is kept then).
bool BuildList(const std::vector<std::string> &paths, SnapshotStringList **out) {
  SnapshotStringList *head = nullptr;
  SnapshotStringList **tail = &head;
  for (const std::string &path : paths) {
    auto *node = static_cast<SnapshotStringList *>(calloc(1, sizeof(SnapshotStringList)));
    char *name = node != nullptr ? strdup(path.c_str()) : nullptr;
    if (name == nullptr) {
      free(node);
      FreeList(head);
      return false;
    }
    node->name = name;
    *tail = node;
    tail = &node->next;
  }
  *out = head;
  return true;
}

const char *Printable(const char *text) {
  return text != nullptr ? text : "(null)";
}

}  // namespace

bool Snapshot_GetCurrentDisksCfgDict(const char *configPath, Dictionary *configDict,
                                     SnapshotStringList **disks) {
  if (disks == nullptr) {
    Log("Snapshot: no place for the disk list of '%s'.\n", Printable(configPath));
    return false;
  }
  *disks = nullptr;
  try {
    gp::UniqueDictionary loaded;
    if (configDict == nullptr) {
      loaded.reset(Dictionary_Create());
      MsgList *messages = nullptr;
      const bool ok = Dictionary_LoadEx(loaded.get(), configPath, &messages);
      gp::UniqueText why(MsgList_ToEnglishString(messages));
      MsgList_Free(messages);
      if (!ok) {
        Log("Snapshot: Cannot load the configuration '%s': %s.\n", Printable(configPath),
            why != nullptr ? why.get() : "");
        return false;
      }
      configDict = loaded.get();
    }
    Scan scan{configDict, {}, {}, {}, {}};
    if (configPath != nullptr) {
      const std::string_view path(configPath);
      const size_t slash = path.rfind('/');
      if (slash != std::string_view::npos) {
        scan.configDir.assign(path.substr(0, slash + 1));
      }
    }
    Dictionary_Iterate(configDict, AddIfDisk, &scan);
    if (!scan.badDevice.empty()) {
      Log("Snapshot: Disk %s of '%s' has no usable fileName.\n", scan.badDevice.c_str(),
          Printable(configPath));
      return false;
    }
    if (!BuildList(scan.disks, disks)) {
      Log("Snapshot: Out of memory listing the disks of '%s'.\n", Printable(configPath));
      return false;
    }
    return true;
  } catch (const std::bad_alloc &) {
    Log("Snapshot: Out of memory listing the disks of '%s'.\n", Printable(configPath));
    return false;
  }
}

void Snapshot_DestroyStringList(SnapshotStringList *list) {
  FreeList(list);
}
