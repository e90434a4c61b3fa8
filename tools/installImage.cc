// Pieces the install commands (answer, floppy, remaster) share: detecting
// the image they prepare, the library's last log line as the reason for a
// failed step, and progress lines for the long steps.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "lib/guessGuest/guessDetect.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "platform/guestos/guestos.h"
#include "platform/image/imageReader.h"
#include "platform/log/log.h"

namespace {

std::string gLastLogLine;
LogSinkFn gForwardFn = nullptr;
void *gForwardCtx = nullptr;

// Keeps the latest line and hands it on to the sink that --log chose.
void RecordLogLine(void *, int level, const char *text, size_t len) {
  gLastLogLine.assign(text, len);
  while (!gLastLogLine.empty() && gLastLogLine.back() == '\n') {
    gLastLogLine.pop_back();
  }
  if (gForwardFn != nullptr) {
    gForwardFn(gForwardCtx, level, text, len);
  }
}

}  // namespace

namespace cli {

void Fail(const std::string &what) {
  fprintf(stderr, "guestprep: %s\n", EscapeText(what).c_str());
}

void RecordLibraryLog() {
  Log_SetSink(RecordLogLine, nullptr, &gForwardFn, &gForwardCtx);
}

std::string FailedStep(const std::string &what) {
  std::string line = gLastLogLine;
  gLastLogLine.clear();
  return line.empty() ? what : what + " (" + line + ")";
}

bool gQuiet = false;

void Progress(const std::string &what) {
  if (!gQuiet && isatty(STDERR_FILENO)) {
    fprintf(stderr, "guestprep: %s\n", EscapeText(what).c_str());
  }
}

int DetectInstall(const std::string &image, GuessInfo *info, LinuxInstallFamily *family,
                  bool windowsToo) {
  gp::FirstDamageReporter damage;
  const GuessResult result = guess::Detect(image.c_str(), nullptr, info, &damage);
  if (result == GUESS_OPEN_FAILED) {
    Fail(image + ": " +
         (damage.count() > 0 ? damage.first() : "cannot be opened as an installation image"));
    return kExitUsage;
  }
  if (result != GUESS_RECOGNIZED) {
    Fail(image + ": the guest OS this image installs is not recognised");
    return kExitFailure;
  }
  // The install calls go by the key that names the architecture.
  info->osKey = Guess_GetOsKey(info);
  *family = AutoInstallGetLinuxFamily(info->osKey);
  if (!AutoInstall_IsSupportedGuest(info)) {
    Fail(image + ": " + info->osKey + " cannot be installed unattended");
    return kExitFailure;
  }
  if (*family == LINUX_FAMILY_NONE && !(windowsToo && IsWindowsKey(info->osKey))) {
    Fail(image + ": " + info->osKey + ": this command prepares Linux guests only");
    return kExitFailure;
  }
  return kExitOk;
}

bool IsWindowsKey(const std::string &osKey) {
  return GuestOS_IsWin(GuestOS_GetOSIDByName(osKey.c_str()));
}

std::string WindowsDataDir(const std::string &given) {
  if (!given.empty()) {
    return given;
  }
  // Installed beside the program; a build tree uses its sources.
  std::string installed = GUESTPREP_DATADIR "/windows";
  return access(installed.c_str(), R_OK) == 0 ? installed : GUESTPREP_SOURCE_DIR "/data/windows";
}

std::string AnswerFilePath(const std::string &dir, LinuxInstallFamily family) {
  return dir + (family == LINUX_FAMILY_UBUNTU ? "/custom/" : "/") +
         LinuxFamilyTable[family].answerFileName;
}

void PrintRecord(const nlohmann::ordered_json &record, bool json) {
  if (json) {
    puts(record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return;
  }
  size_t width = 0;
  for (const auto &[key, value] : record.items()) {
    width = std::max(width, key.size() + 1);
  }
  for (const auto &[key, value] : record.items()) {
    std::string shown;
    if (value.is_null()) {
      shown = "-";
    } else if (value.is_string()) {
      shown = value.get<std::string>();
    } else if (value.is_boolean()) {
      shown = value.get<bool>() ? "yes" : "no";
    } else if (value.is_array()) {
      for (const auto &item : value) {
        shown += (shown.empty() ? "" : ", ") +
                 (item.is_string() ? item.get<std::string>() : item.dump());
      }
    } else {
      shown = value.dump();
    }
    printf("%-*s %s\n", static_cast<int>(width), (key + ":").c_str(), EscapeText(shown).c_str());
  }
}

}  // namespace cli
