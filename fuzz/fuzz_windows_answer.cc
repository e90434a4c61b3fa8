// Hostile Windows templates: the input is a winnt.sif template, the separator
// line "--8<--" and an unattend XML template (a "txtsetup.oem" besides); the
// answer files are prepared from them and the driver file is registered.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallWindows.h"
#include "platform/file/file.h"
#include "platform/log/log.h"

namespace {

int NoZone(char **name) {
  *name = strdup("W. Europe Standard Time");
  return 110;
}

void Write(const std::string &path, std::string_view data) {
  FILE *f = fopen(path.c_str(), "wb");
  if (f != nullptr) {
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
  }
}

void Quiet(void *, int, const char *, size_t) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static std::string dir = [] {
    Log_SetSink(Quiet, nullptr);
    static char pattern[] = "/tmp/fuzz-windows-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      abort();
    }
    atexit([] { File_DeleteDirectoryTree(pattern); });
    return std::string(pattern);
  }();
  std::string_view in(reinterpret_cast<const char *>(data), size);
  size_t cut = in.find("\n--8<--\n");
  std::string_view winnt = in.substr(0, cut);
  std::string_view xml = cut == in.npos ? in : in.substr(cut + 8);
  const std::string winntPath = dir + "/t.sif", xmlPath = dir + "/t.xml";
  Write(winntPath, winnt);
  Write(xmlPath, xml);
  autoinstall::PrepareWindowsAnswerFiles(
      winntPath.c_str(), xmlPath.c_str(), winntPath.c_str(), "Jane <Doe> & Co", "pässwort",
      "windows9-64", GUESS_VERSION_WINDOWS_81_PLAIN, dir.c_str(), "Japanese",
      "Windows Server 2012 R2 SERVERSTANDARD", false, false, NoZone);
  WriteOEMDriverInfo(winntPath.c_str(), (dir + "/winnt.sif").c_str());
  return 0;
}
