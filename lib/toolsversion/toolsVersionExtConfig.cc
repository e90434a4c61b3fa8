// The extended configuration file: where it is, reading it whole, and the
// process-wide pieces its reader and its writer share (the XML library
// check, the forced debug switches).
#include <libxml/xmlversion.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "lib/toolsversion/toolsVersionXml.h"
#include "platform/file/fileIO.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

// Set by the first caller, which alone runs the check.
std::atomic<bool> gXmlChecked{false};
std::atomic<bool> gDebugLogsForced{false};

}  // namespace

char *ToolsVersionGetExtConfigPath(const char *configPath, Dictionary *configDict) {
  gp::UniqueText name(Dict_GetString(configDict, nullptr, "extendedConfigFile"));
  if (name == nullptr) {
    Log("Error getting extended config name from config file.\n");
    return nullptr;
  }
  const char *slash = configPath != nullptr ? strrchr(configPath, '/') : nullptr;
  if (slash == nullptr) {
    return name.release();
  }
  return Str_SafeAsprintf(nullptr, "%.*s%s", static_cast<int>(slash - configPath + 1), configPath,
                          name.get());
}

bool ToolsVersionReadExtConfig(const char *path, char **buffer, size_t *size) {
  *buffer = nullptr;
  *size = 0;
  gp::ScopedFileIO file;
  FileIOResult result = FileIO_Open(&file.fd, path, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
  if (result != FILEIO_SUCCESS) {
    Log("Error opening extended config file for reading: errcode %d.\n", result);
    return false;
  }
  const uint64_t fileSize = FileIO_GetSize(&file.fd);
  if (fileSize > 0x7FFFFFFF) {  // also the size of a file that cannot be sized
    Log("Error getting size of extended config file.\n");
    return false;
  }
  gp::UniqueText data(static_cast<char *>(malloc(fileSize + 1)));
  if (data == nullptr) {
    Log("Error reading from extended config file: errcode %d.\n", FILEIO_ERROR);
    return false;
  }
  result = FileIO_Read(&file.fd, data.get(), fileSize, nullptr);
  if (result != FILEIO_SUCCESS) {
    Log("Error reading from extended config file: errcode %d.\n", result);
    return false;
  }
  data.get()[fileSize] = '\0';
  *size = fileSize;
  *buffer = data.release();
  return true;
}

void ToolsVersionCheckXmlLibrary() {
  if (!gXmlChecked.exchange(true)) {
    // Ends the process when the library loaded is older than the one built
    // against: its structures would not be the ones this code reads.
    LIBXML_TEST_VERSION
  }
}

void ToolsVersionForceDebugLogs(bool on) {
  gDebugLogsForced.store(on, std::memory_order_relaxed);
}

bool ToolsVersionDebugLogsForced() {
  return gDebugLogsForced.load(std::memory_order_relaxed);
}

XmlDoc ToolsVersionParseExtConfig(const char *configPath, Dictionary *configDict,
                                  gp::UniqueText *pathOut) {
  gp::UniqueText path(ToolsVersionGetExtConfigPath(configPath, configDict));
  if (path == nullptr) {
    Log("Error getting extended config file path.\n");
    return nullptr;
  }
  char *rawBuffer = nullptr;
  size_t size = 0;
  if (!ToolsVersionReadExtConfig(path.get(), &rawBuffer, &size)) {
    Log("Failed to get xml buffer from extended config file.\n");
    return nullptr;
  }
  gp::UniqueText buffer(rawBuffer);
  ToolsVersionCheckXmlLibrary();
  // The reader refuses files above 0x7FFFFFFF bytes, so the size fits.
  XmlDoc doc(xmlReadMemory(buffer.get(), static_cast<int>(size), path.get(), nullptr,
                           kToolsVersionXmlOptions));
  if (doc == nullptr) {
    Log("Error parsing xml from extended config file.\n");
    return nullptr;
  }
  if (xmlDocGetRootElement(doc.get()) == nullptr) {
    Log("Failed to find root in extended config xml.\n");
    return nullptr;
  }
  if (pathOut != nullptr) {
    *pathOut = std::move(path);
  }
  return doc;
}
