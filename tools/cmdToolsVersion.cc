// guestprep tools status / tools save: the tools status of a virtual
// machine, and the tools facts kept in its extended configuration file.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "guestprep/toolsversion.h"
#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/dictionary/dictionary.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"
#include "platform/util/str.h"

namespace {

// The guest's texts are read whole; nothing a manifest or a report holds
// comes near this.
constexpr uint64_t kMaxInputSize = DICTIONARY_MAX_FILE_SIZE;

bool ReadInput(const std::string &path, std::string *text) {
  FILE *f = fopen(path.c_str(), "rb");
  if (f == nullptr) {
    cli::Fail(path + ": cannot be read");
    return false;
  }
  text->clear();
  char chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, f)) > 0 && text->size() <= kMaxInputSize) {
    text->append(chunk, n);
  }
  const bool failed = ferror(f) != 0;
  fclose(f);
  if (failed || text->size() > kMaxInputSize) {
    cli::Fail(path + (failed ? ": cannot be read" : ": too large"));
    return false;
  }
  return true;
}

// ---- tools status ----

struct StatusOptions {
  std::string config;
  std::string libdir;
  std::string guestManifest;
  std::string toolsVersion = "disks";
  int32_t installType = 0;
  bool json = false;
  bool verbose = false;
} gStatus;

// Every library line of the call, for --verbose; still forwarded to where
// --log sends them.
std::vector<std::string> gLines;
LogSinkFn gForwardFn = nullptr;
void *gForwardCtx = nullptr;

void CaptureLine(void *, int level, const char *text, size_t len) {
  std::string line(text, len);
  while (!line.empty() && line.back() == '\n') {
    line.pop_back();
  }
  gLines.push_back(line);
  if (gForwardFn != nullptr) {
    gForwardFn(gForwardCtx, level, text, len);
  }
}

// "disks", "none", "unmanaged", a packed number or MAJOR.MINOR.PATCH.
bool ParseToolsVersion(const std::string &text, uint32_t *packed) {
  if (text == "disks") {
    *packed = TOOLS_VERSION_FROM_DISKS;
    return true;
  }
  if (text == "none") {
    *packed = TOOLS_VERSION_NONE;
    return true;
  }
  if (text == "unmanaged") {
    *packed = TOOLS_VERSION_UNMANAGED;
    return true;
  }
  if (text.find('.') == std::string::npos) {
    return StrUtil_StrToUint(packed, text.c_str());
  }
  unsigned major = 0, minor = 0, patch = 0;
  const char *p = text.c_str();
  if (!StrUtil_DecimalStrToUint(&major, &p) || *p++ != '.' ||
      !StrUtil_DecimalStrToUint(&minor, &p) || *p++ != '.' ||
      !StrUtil_DecimalStrToUint(&patch, &p) || *p != '\0') {
    return false;
  }
  if (minor > 31 || patch > 31 || major >= (0x7FFFFFFFu >> 10)) {
    return false;
  }
  *packed = major * 1024 + minor * 32 + patch;
  return true;
}

int RunStatus() {
  uint32_t toolsVersion = 0;
  if (!ParseToolsVersion(gStatus.toolsVersion, &toolsVersion)) {
    cli::Fail("--tools-version " + gStatus.toolsVersion +
              ": not disks, none, unmanaged, a packed number or MAJOR.MINOR.PATCH "
              "(minor and patch up to 31)");
    return cli::kExitUsage;
  }
  gp::UniqueDictionary config(Dictionary_Create());
  MsgList *messages = nullptr;
  if (!Dictionary_LoadEx(config.get(), gStatus.config.c_str(), &messages)) {
    gp::UniqueText why(MsgList_ToEnglishString(messages));
    MsgList_Free(messages);
    cli::Fail(gStatus.config + ": cannot be loaded as a configuration (" + why.get() + ")");
    return cli::kExitFailure;
  }
  if (!gStatus.libdir.empty() &&
      !Dict_SetString(config.get(), gStatus.libdir.c_str(), "%s", "libdir")) {
    cli::Fail("--libdir " + gStatus.libdir + ": cannot be used as a configuration value");
    return cli::kExitUsage;
  }

  if (gStatus.verbose) {
    ToolsVersionForceDebugLogs(true);
    Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
    Log_SetSink(CaptureLine, nullptr, &gForwardFn, &gForwardCtx);
  }
  const ToolsStatus status = ToolsVersion_GetStatus(
      gStatus.config.c_str(), config.get(),
      gStatus.guestManifest.empty() ? nullptr : gStatus.guestManifest.c_str(), nullptr,
      toolsVersion, gStatus.installType);
  if (gStatus.verbose) {
    Log_SetSink(gForwardFn, gForwardCtx);
  }

  nlohmann::ordered_json j;
  j["config"] = gStatus.config;
  j["status"] = status;
  j["name"] = ToolsVersionStatusName(status);
  if (gStatus.json) {
    if (gStatus.verbose) {
      j["log"] = gLines;
    }
    cli::PrintRecord(j, true);
  } else {
    cli::PrintRecord(j, false);
    for (const std::string &line : gLines) {
      printf("  %s\n", cli::EscapeText(line).c_str());
    }
  }
  return cli::kExitOk;
}

CLI::App *AddStatus(CLI::App &tools) {
  CLI::App *cmd = tools.add_subcommand(
      "status",
      "How the guest tools of the virtual machine whose configuration file is CONFIG compare "
      "with the tools this host offers: the host manifest inside the guest's tools image "
      "(read through its signed block hashes), the signed AVR manifest beside it, and the "
      "guest manifest (--guest-manifest, else the extended configuration file). Prints the "
      "status number and name; exit 0 whenever a status was computed, TOOLS_STATUS_UNKNOWN "
      "included.");
  cmd->add_option("CONFIG", gStatus.config, "The virtual machine's configuration file")->required();
  cmd->add_option("--libdir", gStatus.libdir,
                  "The host library directory holding isoimages/ (default: the "
                  "configuration's libdir, else /usr/lib/brimle)");
  cmd->add_option("--guest-manifest", gStatus.guestManifest,
                  "The guest's manifest file, instead of the one the extended configuration "
                  "file keeps");
  cmd->add_option("--tools-version", gStatus.toolsVersion,
                  "The packed tools version the guest reports: disks (read toolsVersion from "
                  "the disks, the default), none, unmanaged, a number or MAJOR.MINOR.PATCH");
  cmd->add_option("--install-type", gStatus.installType,
                  "How the tools were installed: -1, 0, 1 or 2 are assessed, anything else is "
                  "unmanaged (default 0)");
  cmd->add_flag("--json", gStatus.json, "One JSON object instead of text");
  cmd->add_flag("--verbose", gStatus.verbose,
                "Also show the component table and every reason the library logs");
  return cmd;
}

// ---- tools save ----

struct SaveOptions {
  std::string config;
  std::string manifest;
  std::string updateAgent;
  bool noTools = false;
  int32_t installError = 0;
  int32_t updateCounter = 0;
} gSave;

int RunSave() {
  std::string manifest, report;
  if (gSave.noTools) {
    manifest = report = "no tools";
  }
  if (!gSave.manifest.empty() && !ReadInput(gSave.manifest, &manifest)) {
    return cli::kExitFailure;
  }
  if (!gSave.updateAgent.empty() && !ReadInput(gSave.updateAgent, &report)) {
    return cli::kExitFailure;
  }
  // The library takes texts up to their first zero byte.
  if (manifest.find('\0') != std::string::npos || report.find('\0') != std::string::npos) {
    cli::Fail("a manifest or report holds a NUL byte");
    return cli::kExitFailure;
  }
  if (!ToolsVersion_SaveXmlInfo(gSave.config.c_str(), report.c_str(), manifest.c_str(),
                                gSave.installError, gSave.updateCounter)) {
    cli::Fail(cli::FailedStep(gSave.config + ": the tools information was not saved"));
    return cli::kExitFailure;
  }
  return cli::kExitOk;
}

CLI::App *AddSave(CLI::App &tools) {
  CLI::App *cmd = tools.add_subcommand(
      "save",
      "Store what a guest reported in the extended configuration file of the virtual machine "
      "whose configuration file is CONFIG (its extendedConfigFile, which must hold XML): the "
      "guest manifest, the update agent's XML report, and the last install's error and "
      "update counter. Everything else in the file is kept; the file is replaced atomically.");
  cmd->add_option("CONFIG", gSave.config, "The virtual machine's configuration file")->required();
  auto *manifest = cmd->add_option("--manifest", gSave.manifest,
                                   "The guest manifest file (component.version = \"...\" lines)");
  auto *report =
      cmd->add_option("--update-agent", gSave.updateAgent, "The update agent's XML report");
  cmd->add_flag("--no-tools", gSave.noTools,
                "The guest has no tools: remove the stored manifest and the report's tools")
      ->excludes(manifest)
      ->excludes(report);
  auto *counter = cmd->add_option("--update-counter", gSave.updateCounter,
                                  "Store the install information with this counter (not 0)");
  cmd->add_option("--install-error", gSave.installError, "The last install's error code")
      ->needs(counter);
  return cmd;
}

}  // namespace

namespace cli {
const Command kToolsStatusCommand{AddStatus, RunStatus};
const Command kToolsSaveCommand{AddSave, RunSave};
}  // namespace cli
