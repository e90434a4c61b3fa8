/*
 * The tools status from the three manifests: the component table sorted
 * into one bucket of names per component status, then one answer, each
 * answer logged with the components that caused it.
 */
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/log/log.h"
#include "platform/util/dynbuf.h"
#include "platform/util/hashTable.h"
#include "platform/util/str.h"

namespace {

using Buckets = std::vector<std::string>[kToolsComponentStatusCount];

constexpr const char *kStatusTexts[kToolsComponentStatusCount] = {
    "blacklisted",
    "too old",
    "too new",
    "supported old",
    "supported new",
    "current",
    "additional in the guest",
    "missing from the guest",
    "not installed",
    "gone",
};

struct TableDeleter {
  void operator()(HashTable *table) const { HashTable_Free(table); }
};

int SortIntoBucket(const char *name, void *value, void *clientData) {
  auto &buckets = *static_cast<Buckets *>(clientData);
  const ToolsComponentStatus status =
      ToolsVersionComponentStatus(static_cast<ToolsVersionComponent *>(value));
  try {
    buckets[status].emplace_back(name);
  } catch (const std::bad_alloc &) {
    Panic("VERIFY %s:%d \n", __FILE__, __LINE__);
  }
  return 0;
}

void AppendText(DynBuf *buf, const char *text) {
  DynBuf_SafeAppend(buf, text, strlen(text));
}

// "a", "a and b", "a, b, and c".
gp::UniqueText JoinNames(const std::vector<std::string> &names) {
  DynBuf buf;
  DynBuf_Init(&buf);
  for (size_t i = 0; i < names.size(); ++i) {
    if (i > 0) {
      AppendText(&buf, names.size() > 2 ? "," : "");
      AppendText(&buf, i + 1 == names.size() ? " and " : " ");
    }
    AppendText(&buf, names[i].c_str());
  }
  return gp::UniqueText(DynBuf_DetachString(&buf));
}

}  // namespace

const char *ToolsComponentStatusText(uint32_t status) {
  return status < kToolsComponentStatusCount ? kStatusTexts[status] : "";
}

ToolsStatus ToolsVersionStatusFromComponent(ToolsComponentStatus status) {
  switch (status) {
    case COMPONENT_BLACKLISTED:
      return TOOLS_STATUS_BLACKLISTED;
    case COMPONENT_TOO_OLD:
      return TOOLS_STATUS_TOO_OLD;
    case COMPONENT_TOO_NEW:
      return TOOLS_STATUS_TOO_NEW;
    case COMPONENT_SUPPORTED_OLD:
      return TOOLS_STATUS_SUPPORTED_OLD;
    case COMPONENT_SUPPORTED_NEW:
      return TOOLS_STATUS_SUPPORTED_NEW;
    case COMPONENT_CURRENT:
      return TOOLS_STATUS_CURRENT;
    default:
      return TOOLS_STATUS_UNKNOWN;
  }
}

bool ToolsVersionLogSummary(const std::vector<std::string> (&buckets)[kToolsComponentStatusCount],
                            ToolsComponentStatus monolithicStatus, ToolsComponentStatus status) {
  if (status >= kToolsComponentStatusCount) {
    return false;
  }
  const std::vector<std::string> &bucket = buckets[status];
  const bool monolithic = status == monolithicStatus;
  if (!monolithic && bucket.empty()) {
    return false;
  }
  const char *first = monolithic ? "monolithic version" : bucket[0].c_str();
  const size_t othersStart = monolithic ? 0 : 1;
  const size_t others = bucket.size() - othersStart;
  const char *text = ToolsComponentStatusText(status);
  if (others == 0) {
    Log("ToolsVersion: Status is %s because this is status of %s.\n", text, first);
  } else if (others == 1) {
    Log("ToolsVersion: Status is %s because this is status of %s and %s.\n", text, first,
        bucket[othersStart].c_str());
  } else {
    Log("ToolsVersion: Status is %s because this is status of %s and %zu more components.\n", text,
        first, others);
  }
  return true;
}

ToolsStatus ToolsVersionComputeStatus(const char *hostManifestPath, const char *avrManifestPath,
                                      Dictionary *guestManifest) {
  HashTable *rawTable = nullptr;
  ToolsComponentStatus m = COMPONENT_GONE;
  ToolsVersionDebug debug;
  if (!ToolsVersionBuildTable(hostManifestPath, avrManifestPath, guestManifest, &rawTable, &m,
                              &debug)) {
    return TOOLS_STATUS_UNKNOWN;
  }
  std::unique_ptr<HashTable, TableDeleter> table(rawTable);

  if (HashTable_GetNumElements(table.get()) == 0) {
    Log("ToolsVersion: Status is %s because this is status of monolithic version.\n",
        ToolsComponentStatusText(m));
    return ToolsVersionStatusFromComponent(m);
  }

  Buckets buckets;
  HashTable_ForEach(table.get(), SortIntoBucket, &buckets);

  if (debug.resultLog) {
    for (uint32_t s = 0; s < kToolsComponentStatusCount; ++s) {
      if (!buckets[s].empty()) {
        Log("ToolsVersion: %-24s: (%3zu) %s\n", ToolsComponentStatusText(s), buckets[s].size(),
            JoinNames(buckets[s]).get());
      }
    }
  }

  if (ToolsVersionLogSummary(buckets, m, COMPONENT_BLACKLISTED)) {
    return TOOLS_STATUS_BLACKLISTED;
  }
  if (ToolsVersionLogSummary(buckets, m, COMPONENT_TOO_OLD)) {
    return TOOLS_STATUS_TOO_OLD;
  }
  if (ToolsVersionLogSummary(buckets, m, COMPONENT_TOO_NEW)) {
    return TOOLS_STATUS_TOO_NEW;
  }
  // A monolithic version that is merely older or newer than the host's
  // stands only when components are missing; otherwise the components say.
  const std::vector<std::string> &missing = buckets[COMPONENT_MISSING];
  if (!missing.empty() && (m == COMPONENT_SUPPORTED_OLD || m == COMPONENT_SUPPORTED_NEW)) {
    const char *text = ToolsComponentStatusText(m);
    if (missing.size() == 1) {
      Log("ToolsVersion: Status is %s because this is status of monolithic version, and %s is "
          "missing from the guest.\n",
          text, missing[0].c_str());
    } else if (missing.size() == 2) {
      Log("ToolsVersion: Status is %s because this is status of monolithic version, and %s and "
          "%s are missing from the guest.\n",
          text, missing[0].c_str(), missing[1].c_str());
    } else {
      Log("ToolsVersion: Status is %s because this is status of monolithic version, and %s and "
          "%zu more components are missing from the guest.\n",
          text, missing[0].c_str(), missing.size() - 1);
    }
    return ToolsVersionStatusFromComponent(m);
  }
  // COMPONENT_GONE never equals the statuses asked about here, so the
  // monolithic version is left out and only the components count.
  if (ToolsVersionLogSummary(buckets, COMPONENT_GONE, COMPONENT_SUPPORTED_OLD)) {
    return TOOLS_STATUS_SUPPORTED_OLD;
  }
  if (ToolsVersionLogSummary(buckets, COMPONENT_GONE, COMPONENT_SUPPORTED_NEW)) {
    return TOOLS_STATUS_SUPPORTED_NEW;
  }
  return TOOLS_STATUS_CURRENT;
}
