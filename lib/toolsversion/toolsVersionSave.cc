// The tools facts a virtual machine keeps in its extended configuration
// file: the guest manifest ("tools-manifest"), the update agent's report
// ("update-agent-info") and the last install's outcome
// ("tools-install-info"). Each call reads the whole file, edits those three
// children of the root and replaces the file atomically; everything else in
// it is written back as it was parsed.
#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "lib/toolsversion/toolsVersionXml.h"
#include "platform/dictionary/dictionary.h"
#include "platform/file/fileIO.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"
#include "platform/util/str.h"

namespace {

constexpr char kToolsManifest[] = "tools-manifest";
constexpr char kUpdateAgentInfo[] = "update-agent-info";
constexpr char kToolsInstallInfo[] = "tools-install-info";
// The attributes of the report's second level that are kept.
constexpr const char *kAgentAttributes[] = {"guestVersion", "repoVersion", "status"};

using gp::UniqueMsgList;

const xmlChar *X(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}

bool IsNone(const char *text) {
  return text == nullptr || text[0] == '\0';
}

bool IsElementNamed(const xmlNode *node, const char *name) {
  return node->type == XML_ELEMENT_NODE && xmlStrcasecmp(node->name, X(name)) == 0;
}

// The last child element of parent with that name in any case: the one
// the status reader takes when a hand edit left several.
xmlNode *LastChildNamed(xmlNode *parent, const char *name) {
  xmlNode *found = nullptr;
  for (xmlNode *child = parent->children; child != nullptr; child = child->next) {
    if (IsElementNamed(child, name)) {
      found = child;
    }
  }
  return found;
}

void Remove(xmlNode **node) {
  if (*node != nullptr) {
    xmlUnlinkNode(*node);
    xmlFreeNode(*node);
    *node = nullptr;
  }
}

// Whether text is UTF-8 made only of characters XML 1.0 allows. libxml2
// writes whatever bytes it is given, so a control byte or a broken
// sequence in a manifest value would otherwise make a file no XML reader
// accepts.
bool IsXmlText(const char *text) {
  const auto *p = reinterpret_cast<const unsigned char *>(text);
  while (*p != 0) {
    uint32_t c = *p;
    size_t length;
    uint32_t least;  // below it the sequence is overlong
    if (c < 0x80) {
      length = 1, least = 0;
    } else if (c >= 0xC2 && c <= 0xDF) {
      length = 2, c &= 0x1F, least = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3, c &= 0x0F, least = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4, c &= 0x07, least = 0x10000;
    } else {
      return false;
    }
    for (size_t i = 1; i < length; ++i) {
      if ((p[i] & 0xC0) != 0x80) {
        return false;
      }
      c = (c << 6) | (p[i] & 0x3F);
    }
    if (c < least || c > 0x10FFFF || !xmlIsCharQ(c)) {
      return false;
    }
    p += length;
  }
  return true;
}

// A manifest component becomes an element name: it must be one, and
// without a ":", which would need a namespace declaration to be read back.
bool IsElementName(const std::string &name) {
  return xmlValidateName(X(name.c_str()), 0) == 0 && name.find(':') == std::string::npos;
}

// Copies the update agent's report under info, two levels deep; the
// guest version of tools/monolithic, when the report has one, goes to
// *monolithicVersion.
void CopyAgentReport(const xmlNode *reportRoot, xmlNode *info, XmlText *monolithicVersion) {
  for (const xmlNode *child = reportRoot->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    xmlNode *copy = xmlNewChild(info, nullptr, child->name, nullptr);
    const bool isTools = IsElementNamed(child, "tools");
    for (const xmlNode *item = child->children; item != nullptr; item = item->next) {
      if (item->type != XML_ELEMENT_NODE) {
        continue;
      }
      xmlNode *itemCopy = xmlNewChild(copy, nullptr, item->name, nullptr);
      for (const char *attribute : kAgentAttributes) {
        XmlText value(xmlGetProp(item, X(attribute)));
        if (value != nullptr) {
          xmlSetProp(itemCopy, X(attribute), value.get());
        }
      }
      if (isTools && IsElementNamed(item, "monolithic")) {
        XmlText version(xmlGetProp(item, X("guestVersion")));
        if (version != nullptr) {
          *monolithicVersion = std::move(version);
        }
      }
    }
  }
}

// The text of the named child of parent (added when absent) becomes value.
void SetChildNumber(xmlNode *parent, const char *name, int32_t value) {
  xmlNode *child = LastChildNamed(parent, name);
  if (child == nullptr) {
    child = xmlNewChild(parent, nullptr, X(name), nullptr);
  }
  char text[16];
  Str_Sprintf(text, sizeof text, "%d", value);
  xmlNodeSetContent(child, X(text));
}

// The Dictionary_Iterate callback over a guest manifest: the entry
// COMPONENT.SELECTOR becomes the element COMPONENT under parent (a
// "tools-manifest" element) with the attribute "version" or "installed".
// Entries that cannot be written as XML stop the walk (false), so the
// caller sees fewer entries visited than the manifest holds.
bool ToolsVersionSetManifestAttr(const char *name, const char *value, void *parent) {
  auto *manifest = static_cast<xmlNode *>(parent);
  if (manifest == nullptr) {
    return false;  // the element could not be made
  }
  const char *dot = strrchr(name, '.');
  const char *selector = dot != nullptr ? dot + 1 : nullptr;
  if (selector != nullptr && Str_Strcasecmp(selector, "encoding") == 0) {
    return true;  // the manifest file's own encoding, no component
  }
  const std::string component =
      dot != nullptr ? std::string(name, static_cast<size_t>(dot - name)) : std::string(name);
  if (!IsElementName(component)) {
    return false;
  }
  const char *attribute = nullptr;
  if (selector != nullptr && Str_Strcasecmp(selector, "version") == 0) {
    attribute = "version";
  } else if (selector != nullptr && Str_Strcasecmp(selector, "installed") == 0) {
    attribute = "installed";
  }
  if (attribute != nullptr && !IsXmlText(value)) {
    return false;
  }

  xmlNode *element = nullptr;
  for (xmlNode *child = manifest->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && xmlStrEqual(child->name, X(component.c_str()))) {
      element = child;
      break;
    }
  }
  if (element == nullptr) {
    element = xmlNewChild(manifest, nullptr, X(component.c_str()), nullptr);
  }
  if (attribute != nullptr) {
    xmlSetProp(element, X(attribute), X(value));
  }
  return true;
}

bool SaveXmlInfo(const char *configPath, const char *updateAgentXml, const char *guestManifestText,
                 int32_t installError, int32_t updateCounter) {
  if (IsNone(updateAgentXml) && IsNone(guestManifestText) && updateCounter == 0) {
    return true;
  }

  gp::UniqueDictionary config(Dictionary_Create());
  MsgList *rawMessages = nullptr;
  const bool loaded = Dictionary_LoadEx(config.get(), configPath, &rawMessages);
  UniqueMsgList messages(rawMessages);
  if (!loaded) {
    Log("Error loading dictionary for brx config file.");
    MsgList_Log(messages.get());
    Log("Error getting extended config file path.\n");
    return false;
  }
  gp::UniqueText path;
  XmlDoc doc = ToolsVersionParseExtConfig(configPath, config.get(), &path);
  if (doc == nullptr) {
    return false;
  }
  xmlNode *root = xmlDocGetRootElement(doc.get());

  xmlNode *toolsManifest = LastChildNamed(root, kToolsManifest);
  xmlNode *installInfo = LastChildNamed(root, kToolsInstallInfo);
  xmlNode *agentInfo = LastChildNamed(root, kUpdateAgentInfo);

  if (!IsNone(updateAgentXml) && strcmp(updateAgentXml, "null") != 0) {
    if (strcmp(updateAgentXml, "no tools") == 0) {
      if (agentInfo != nullptr) {
        xmlNode *child = agentInfo->children;
        while (child != nullptr) {
          xmlNode *next = child->next;
          if (IsElementNamed(child, "tools")) {
            Remove(&child);
          }
          child = next;
        }
      }
      Remove(&toolsManifest);
    } else {
      const size_t length = strlen(updateAgentXml);
      XmlDoc report(length <= INT_MAX ? xmlReadMemory(updateAgentXml, static_cast<int>(length),
                                                      nullptr, nullptr, kToolsVersionXmlOptions)
                                      : nullptr);
      if (report == nullptr) {
        Log("Error parsing xml from update agent.\n");
        return false;
      }
      const xmlNode *reportRoot = xmlDocGetRootElement(report.get());
      if (reportRoot == nullptr) {
        Log("Failed to find root in update agent xml.\n");
        return false;
      }
      Remove(&agentInfo);
      agentInfo = xmlNewChild(root, nullptr, X(kUpdateAgentInfo), nullptr);
      XmlText monolithicVersion;
      CopyAgentReport(reportRoot, agentInfo, &monolithicVersion);
      // The report replaces the stored manifest: what the agent says is
      // newer. Without a monolithic version there is nothing to keep.
      Remove(&toolsManifest);
      if (monolithicVersion != nullptr) {
        toolsManifest = xmlNewChild(root, nullptr, X(kToolsManifest), nullptr);
        xmlNode *monolithic = xmlNewChild(toolsManifest, nullptr, X("monolithic"), nullptr);
        xmlSetProp(monolithic, X("version"), monolithicVersion.get());
      }
    }
  }

  if (!IsNone(guestManifestText) && strcmp(guestManifestText, "null") != 0) {
    if (strcmp(guestManifestText, "no tools") == 0) {
      Remove(&toolsManifest);
    } else {
      gp::UniqueDictionary manifest(Dictionary_Create());
      if (!Dictionary_LoadFromBuffer(manifest.get(), guestManifestText,
                                     strlen(guestManifestText))) {
        UniqueMsgList pending(Msg_GetMessagesAndReset());
        gp::UniqueText why(MsgList_ToEnglishString(pending.get()));
        Log("Error loading dictionary from manifest buffer: %s.\n",
            why != nullptr ? why.get() : "");
        return false;
      }
      Remove(&toolsManifest);
      toolsManifest = xmlNewChild(root, nullptr, X(kToolsManifest), nullptr);
      const int visited =
          Dictionary_Iterate(manifest.get(), ToolsVersionSetManifestAttr, toolsManifest);
      if (visited != Dictionary_NumberOfEntries(manifest.get())) {
        Log("Error iterating through iso version info dictionary.\n");
        return false;
      }
    }
  }

  if (updateCounter != 0) {
    if (installInfo == nullptr) {
      installInfo = xmlNewChild(root, nullptr, X(kToolsInstallInfo), nullptr);
    }
    SetChildNumber(installInfo, "installError", installError);
    SetChildNumber(installInfo, "updateCounter", updateCounter);
  }

  xmlChar *rawDump = nullptr;
  int dumpSize = 0;
  xmlDocDumpMemory(doc.get(), &rawDump, &dumpSize);
  XmlText dump(rawDump);
  // A file that declares an encoding other than UTF-8 may not hold every
  // name a guest sent: libxml2 then writes a character reference inside a
  // tag. What does not read back as XML is not written.
  XmlDoc check(dump != nullptr && dumpSize > 0
                   ? xmlReadMemory(reinterpret_cast<const char *>(dump.get()), dumpSize, nullptr,
                                   nullptr, kToolsVersionXmlOptions)
                   : nullptr);
  if (check == nullptr) {
    Log("Error dumping xml doc to the output buffer.\n");
    return false;
  }

  // A new file beside the old one, renamed over it only when complete: a
  // failure or a crash leaves the old file whole.
  FileIOAtomicWriter writer;
  FileIOResult result = FileIO_AtomicBegin(&writer, path.get(), kFileIOKeepMode, true);
  if (result != FILEIO_SUCCESS) {
    Log("Error opening extended config file for writing: errcode %d.\n", result);
    Log("Failed to save xml buffer in extended config file.\n");
    return false;
  }
  result = FileIO_Write(&writer.fd, dump.get(), static_cast<size_t>(dumpSize), nullptr);
  if (result == FILEIO_SUCCESS) {
    result = FileIO_AtomicCommit(&writer);
  } else {
    FileIO_AtomicAbort(&writer);
  }
  if (result != FILEIO_SUCCESS) {
    Log("Error writing to extended config file: errcode %d.\n", result);
    Log("Failed to save xml buffer in extended config file.\n");
    return false;
  }
  return true;
}

}  // namespace

extern "C" bool ToolsVersion_SaveXmlInfo(const char *configPath, const char *updateAgentXml,
                                         const char *guestManifestText, int32_t installError,
                                         int32_t updateCounter) {
  try {
    return SaveXmlInfo(configPath, updateAgentXml, guestManifestText, installError, updateCounter);
  } catch (...) {
    // Only allocation can throw here.
    Log("ToolsVersion: Out of memory saving the tools information.\n");
    return false;
  }
}
