// guestprep detect IMAGE...: which guest OS does each image install?
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "lib/guessGuest/guessDetect.h"
#include "platform/image/imageReader.h"

namespace {

std::vector<std::string> gImages;
bool gJson = false;

const char *ResultName(GuessResult result) {
  switch (result) {
    case GUESS_RECOGNIZED:
      return "GUESS_RECOGNIZED";
    case GUESS_NOT_RECOGNIZED:
      return "GUESS_NOT_RECOGNIZED";
    default:
      return "GUESS_OPEN_FAILED";
  }
}

// Why an image could not be opened, for the one-line reason on stderr.
std::string OpenFailure(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    return strerror(errno);
  }
  if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    return "not a regular file";
  }
  return "neither an ISO 9660 nor a UDF image";
}

nlohmann::ordered_json Record(const std::string &path, GuessResult result, const GuessInfo &info) {
  nlohmann::ordered_json j;
  j["image"] = path;
  j["result"] = result;
  j["resultName"] = ResultName(result);
  j["osKey"] = info.osKey != nullptr ? nlohmann::json(info.osKey) : nlohmann::json(nullptr);
  j["osKey64"] = info.osKey64 != nullptr ? nlohmann::json(info.osKey64) : nlohmann::json(nullptr);
  j["version"] = info.version;
  const char *versionName = Guess_GetSubString(info.version);
  j["versionName"] = versionName != nullptr ? versionName : "";
  j["versionText"] = cli::Field(info.versionText);
  j["language"] = cli::Field(info.language);
  j["languageShort"] = cli::Field(info.languageShort);
  j["languages"] = cli::ListField(info.languages);
  std::vector<std::string> editions = cli::ListField(info.editions);
  j["editions"] = editions;
  // Each edition's display name, localised as the UI would show it.
  nlohmann::json names = nlohmann::json::array();
  for (const std::string &edition : editions) {
    char *pretty = AutoInstall_GetPrettyWindowsName(edition.c_str());
    names.push_back(pretty != nullptr ? pretty : edition);
    free(pretty);
  }
  j["editionNames"] = names;
  j["displayName"] = cli::Field(info.displayName);
  j["noIsolinuxCfg"] = info.noIsolinuxCfg;
  return j;
}

// Values are escaped so that none can add a line of its own.
void PrintText(const nlohmann::ordered_json &j) {
  for (const auto &[key, value] : j.items()) {
    std::string shown;
    if (value.is_null()) {
      shown = "-";
    } else if (value.is_string()) {
      shown = cli::EscapeText(value.get<std::string>());
    } else if (value.is_array()) {
      for (const auto &item : value) {
        shown += (shown.empty() ? "" : ", ") + cli::EscapeText(item.get<std::string>());
      }
    } else {
      shown = value.dump();
    }
    printf("%-14s %s\n", (key + ":").c_str(), shown.c_str());
  }
}

// At most one line per image: why it could not be opened, or the first damage
// the readers met in it.
void ReportProblem(const std::string &image, GuessResult result,
                   const gp::FirstDamageReporter &damage) {
  std::string what;
  if (result == GUESS_OPEN_FAILED) {
    what = damage.count() > 0 ? damage.first() : OpenFailure(image);
  } else if (damage.count() > 0) {
    // Detection may word its one report as damage already.
    static constexpr std::string_view kDamaged = "damaged image: ";
    what = damage.first().starts_with(kDamaged) ? damage.first()
                                                : std::string(kDamaged) + damage.first();
    if (damage.count() > 1) {
      what += " (" + std::to_string(damage.count()) + " problems)";
    }
  } else {
    return;
  }
  fprintf(stderr, "guestprep: %s: %s\n", cli::EscapeText(image).c_str(),
          cli::EscapeText(what).c_str());
}

int Run() {
  int exitCode = cli::kExitOk;
  bool first = true;
  for (const std::string &image : gImages) {
    GuessInfo info;
    gp::FirstDamageReporter damage;
    GuessResult result = guess::Detect(image.c_str(), nullptr, &info, &damage);
    ReportProblem(image, result, damage);
    if (result == GUESS_OPEN_FAILED) {
      exitCode = cli::kExitUsage;
    } else if (result == GUESS_NOT_RECOGNIZED && exitCode == cli::kExitOk) {
      exitCode = cli::kExitFailure;
    }
    nlohmann::ordered_json record = Record(image, result, info);
    if (gJson) {
      // Image bytes need not be UTF-8: each invalid byte becomes U+FFFD.
      puts(record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
      if (!first) {
        putchar('\n');
      }
      PrintText(record);
    }
    first = false;
  }
  return exitCode;
}

CLI::App *Add(CLI::App &app) {
  CLI::App *cmd = app.add_subcommand(
      "detect",
      "Detect the guest OS an installation image (ISO 9660 or UDF) installs. Exit 0 when every "
      "image was recognised, 1 when one was not, 2 when one could not be opened. At most one "
      "line per image on stderr says why it could not be opened or what is damaged in it. Text "
      "output escapes backslashes, control characters and bytes that are not UTF-8 (\\\\, \\n, "
      "\\t, \\r, \\xNN), so every value stays on its line.");
  cmd->add_option("IMAGE", gImages, "Installation image(s)")->required();
  cmd->add_flag("--json", gJson,
                "One JSON object per image, one per line; bytes that are not UTF-8 become "
                "U+FFFD");
  return cmd;
}

}  // namespace

namespace cli {
const Command kDetectCommand{Add, Run};
}
