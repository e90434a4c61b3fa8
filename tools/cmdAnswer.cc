// guestprep answer IMAGE ...: the unattended-install answer file for the
// guest an installation image installs.
#include <strings.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "lib/guestInstall/autoinstallWindows.h"
#include "platform/msg/msg.h"
#include "platform/timeutil/timeutil.h"

#include <openssl/crypto.h>

namespace {

struct Options {
  std::string image;
  std::string user;
  std::string fullName;
  std::string passwordFile;
  std::string rootPasswordFile;
  std::string outDir;
  bool powerOff = false;
  bool nvme = false;
  bool json = false;
  // Windows
  std::string productKey;
  std::string timeZone;
  std::string edition;
  std::string language;
  std::string templateDir;
  bool keepAutoLogon = false;
  bool keepPartitions = false;
} gOpt;

// Long enough for any passphrase, short enough that a wrong file (an image,
// /dev/zero) is refused at once.
constexpr size_t kMaxPasswordBytes = 64 * 1024;

// A password, wiped when dropped.
struct Secret {
  std::string text;
  Secret() = default;
  Secret(const Secret &) = delete;
  Secret &operator=(const Secret &) = delete;
  ~Secret() { OPENSSL_cleanse(text.data(), text.size()); }
};

// One password from a file, or from standard input for "-": the first line,
// without its line ending. Standard input gives one line per "-" in turn.
bool ReadPassword(const std::string &source, const char *option, Secret *out) {
  std::string &text = out->text;
  if (source == "-") {
    int c;
    while ((c = getchar()) != EOF && c != '\n' && text.size() <= kMaxPasswordBytes) {
      text += static_cast<char>(c);
    }
    if (c == EOF && text.empty()) {
      cli::Fail(std::string(option) + ": no password on standard input");
      return false;
    }
  } else {
    std::ifstream in(source, std::ios::binary);
    if (!in) {
      cli::Fail(std::string(option) + ": cannot read " + source + ": " + strerror(errno));
      return false;
    }
    char buf[4096];
    while (text.size() <= kMaxPasswordBytes && in.read(buf, sizeof buf).gcount() > 0) {
      text.append(buf, static_cast<size_t>(in.gcount()));
      OPENSSL_cleanse(buf, sizeof buf);
    }
    size_t end = text.find('\n');
    if (end != std::string::npos) {
      text.resize(end);
    }
  }
  if (!text.empty() && text.back() == '\r') {
    text.pop_back();
  }
  if (text.size() > kMaxPasswordBytes) {
    cli::Fail(std::string(option) + ": the password is longer than 64 KiB");
    return false;
  }
  if (text.find('\0') != std::string::npos) {
    cli::Fail(std::string(option) + ": the password holds a NUL byte");
    return false;
  }
  return true;
}

// Prints the localised reason for each rejected text; true when all pass.
bool CheckTexts(const GuessInfo &info, const Secret &password, const Secret &rootPassword) {
  struct Text {
    const char *option;
    const std::string &value;
    AutoInstallTextKind kind;
  } texts[] = {
      {"--user", gOpt.user, AUTOINSTALL_TEXT_KIND_SHORT_NAME},
      {"--full-name", gOpt.fullName, AUTOINSTALL_TEXT_KIND_NAME},
      {"--password-file", password.text, AUTOINSTALL_TEXT_KIND_PASSWORD},
      {"--root-password-file", rootPassword.text, AUTOINSTALL_TEXT_KIND_PASSWORD},
  };
  bool ok = true;
  for (const Text &t : texts) {
    char *message = nullptr;
    if (AutoInstallValidateLinuxText(&info, t.value.c_str(), t.kind, &message) ==
        AUTOINSTALL_TEXT_OK) {
      if (const char *problem = autoinstall::AnswerTextProblem(t.kind, t.value)) {
        message = Msg_GetString(problem);
      }
    }
    if (message != nullptr) {
      // The message's own line break stays: it is the catalogue's text.
      fprintf(stderr, "guestprep: %s: %s\n", t.option, message);
      free(message);
      ok = false;
    }
  }
  return ok;
}

/* Windows */

std::string Pretty(const std::string &edition) {
  char *pretty = AutoInstall_GetPrettyWindowsName(edition.c_str());
  std::string out = pretty != nullptr ? pretty : edition;
  free(pretty);
  return out;
}

// The edition to install: --edition as listed or as displayed (any case),
// else the image's only one.
bool ChooseEdition(const GuessInfo &info, std::string *edition) {
  std::vector<std::string> editions = cli::ListField(info.editions);
  for (const std::string &e : editions) {
    if (gOpt.edition.empty() ? editions.size() == 1
                             : strcasecmp(e.c_str(), gOpt.edition.c_str()) == 0 ||
                                   strcasecmp(Pretty(e).c_str(), gOpt.edition.c_str()) == 0) {
      *edition = e;
      return true;
    }
  }
  if (editions.empty()) {
    if (gOpt.edition.empty()) {
      cli::Fail(gOpt.image + ": the image lists no editions; name one with --edition");
      return false;
    }
    *edition = gOpt.edition;  // the image's own list could not be read
    return true;
  }
  std::string names;
  for (const std::string &e : editions) {
    names += (names.empty() ? "" : ", ") + Pretty(e);
  }
  cli::Fail(gOpt.edition.empty() ? "choose an edition with --edition: " + names
                                 : "--edition " + gOpt.edition + " is not on the image: " + names);
  return false;
}

// Windows product keys: five groups of five letters and digits.
bool ValidProductKey(std::string *key) {
  if (key->size() != 29) {
    return false;
  }
  for (size_t i = 0; i < key->size(); i++) {
    char &c = (*key)[i];
    if (i % 6 == 5 ? c != '-' : !isalnum(static_cast<unsigned char>(c))) {
      return false;
    }
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  }
  return true;
}

int gZoneIndex = -1;
std::string gZoneName;
int ChosenZone(char **name) {
  *name = gZoneName.empty() ? nullptr : strdup(gZoneName.c_str());
  return gZoneIndex;
}

bool HasControl(const std::string &text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

int RunWindows(const GuessInfo &info, const Secret &password) {
  if (!gOpt.user.empty() || !gOpt.rootPasswordFile.empty()) {
    cli::Fail(std::string(gOpt.user.empty() ? "--root-password-file" : "--user") +
              ": Windows guests have one account, named by --full-name");
    return cli::kExitFailure;
  }
  bool ok = true;
  char *message = nullptr;
  if (AutoInstall_ValidateName("windows", &info, gOpt.fullName.c_str(), &message) !=
      AUTOINSTALL_TEXT_OK) {
    fprintf(stderr, "guestprep: --full-name: %s\n", message);
    free(message);
    ok = false;
  }
  for (auto [option, text] :
       {std::pair<const char *, const std::string *>{"--full-name", &gOpt.fullName},
        std::pair<const char *, const std::string *>{"--password-file", &password.text}}) {
    if (HasControl(*text)) {
      cli::Fail(std::string(option) + ": must not hold line breaks or other control characters");
      ok = false;
    }
  }
  if (!gOpt.productKey.empty() && !ValidProductKey(&gOpt.productKey)) {
    cli::Fail("--product-key: expected five groups of five letters or digits joined by \"-\"");
    ok = false;
  }
  std::string edition;
  if (!ok || !ChooseEdition(info, &edition)) {
    return cli::kExitFailure;
  }
  if (gOpt.timeZone.empty()) {
    char *name = nullptr;
    gZoneIndex = TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&name);
    gZoneName = name != nullptr ? name : "";
    free(name);
  } else {
    gZoneIndex = gp::WindowsTimeZoneFor(gOpt.timeZone, &gZoneName);
    if (gZoneName.empty()) {
      cli::Fail("--time-zone " + gOpt.timeZone + ": no Windows time zone for this zone");
      return cli::kExitFailure;
    }
  }
  std::error_code ec;
  std::filesystem::create_directories(gOpt.outDir, ec);
  if (ec) {
    cli::Fail("cannot create " + gOpt.outDir + ": " + ec.message());
    return cli::kExitFailure;
  }
  const std::string data = cli::WindowsDataDir(gOpt.templateDir);
  const std::string winnt = data + "/winnt.sif", xml = data + "/autounattend.xml",
                    storePwd = data + "/storePwd.ini";
  const std::string language = gOpt.language.empty() ? cli::Field(info.language) : gOpt.language;
  if (!autoinstall::PrepareWindowsAnswerFiles(
          winnt.c_str(), xml.c_str(), storePwd.c_str(), gOpt.fullName.c_str(),
          password.text.c_str(), info.osKey, info.version, gOpt.outDir.c_str(), language.c_str(),
          edition.c_str(), gOpt.keepAutoLogon, gOpt.keepPartitions, ChosenZone) ||
      (!gOpt.productKey.empty() &&
       !autoinstall::SetWindowsProductKey(gOpt.outDir.c_str(), gOpt.productKey.c_str()))) {
    cli::Fail(cli::FailedStep("cannot write the answer files into " + gOpt.outDir));
    return cli::kExitFailure;
  }

  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["edition"] = edition;
  j["editionName"] = Pretty(edition);
  j["language"] = language.empty() ? "(default)" : language;
  j["timeZone"] = gZoneName.empty() ? "(template)" : gZoneName;
  j["zoneIndex"] = gZoneIndex;
  j["answerFiles"] = {gOpt.outDir + "/winnt.sif", gOpt.outDir + "/autoun~0.xml",
                      gOpt.outDir + "/storePwd.ini"};
  cli::PrintRecord(j, gOpt.json);
  return cli::kExitOk;
}

int Run() {
  GuessInfo info;
  LinuxInstallFamily family;
  if (int code = cli::DetectInstall(gOpt.image, &info, &family, true); code != cli::kExitOk) {
    return code;
  }
  if (family == LINUX_FAMILY_NONE) {
    Secret password;
    if (!ReadPassword(gOpt.passwordFile, "--password-file", &password)) {
      return cli::kExitFailure;
    }
    return RunWindows(info, password);
  }
  if (gOpt.user.empty()) {
    cli::Fail("--user: required for Linux guests");
    return cli::kExitUsage;
  }

  Secret password, rootPassword;
  if (!ReadPassword(gOpt.passwordFile, "--password-file", &password)) {
    return cli::kExitFailure;
  }
  if (gOpt.rootPasswordFile.empty()) {
    rootPassword.text = password.text;
  } else if (!ReadPassword(gOpt.rootPasswordFile, "--root-password-file", &rootPassword)) {
    return cli::kExitFailure;
  }
  if (!CheckTexts(info, password, rootPassword)) {
    return cli::kExitFailure;
  }
  if (!AutoInstall_PrepareAnswerFileEx_Linux(
          info.osKey, info.version, gOpt.outDir.c_str(), gOpt.user.c_str(), gOpt.fullName.c_str(),
          password.text.c_str(), rootPassword.text.c_str(), gOpt.powerOff, gOpt.nvme)) {
    cli::Fail(cli::FailedStep("cannot write the answer file into " + gOpt.outDir));
    return cli::kExitFailure;
  }

  const LinuxFamilyRow &row = LinuxFamilyTable[family];
  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["versionName"] = Guess_GetSubString(info.version);
  j["answerFile"] = cli::AnswerFilePath(gOpt.outDir, family);
  j["kernelArgs"] = row.kernelArgs;
  j["needsFloppy"] = row.needsFloppy != 0;
  cli::PrintRecord(j, gOpt.json);
  return cli::kExitOk;
}

CLI::App *Add(CLI::App &app) {
  CLI::App *cmd = app.add_subcommand(
      "answer",
      "Write the unattended-install answer file for the guest an installation image "
      "installs. Linux: \"ks.cfg\", \"custom/preseed.cfg\", \"autoinst.xml\" or "
      "\"auto_i~1.cfg\" in DIR, then print its path, the kernel argument that points the "
      "installer at it and whether it goes on a floppy. Windows: \"winnt.sif\", "
      "\"autoun~0.xml\" and \"storePwd.ini\" in DIR for the chosen edition, the account "
      "--full-name with the password, the time zone and the product key. Passwords are read from "
      "files (the first line), or from "
      "standard input with \"-\", never from the command line. Exit 0 when written, 1 when "
      "the guest cannot be installed unattended or a text is rejected (each rejected text's "
      "reason on stderr), 2 when the image cannot be opened.");
  cmd->add_option("IMAGE", gOpt.image, "Installation image")->required();
  cmd->add_option("--user", gOpt.user, "Linux: user name of the account to create (required)");
  cmd->add_option("--full-name", gOpt.fullName, "Full name of that account")->required();
  cmd->add_option("--password-file", gOpt.passwordFile, "File holding the account's password")
      ->required()
      ->type_name("FILE");
  cmd->add_option("--root-password-file", gOpt.rootPasswordFile,
                  "File holding the administrator's password (default: the account's)")
      ->type_name("FILE");
  cmd->add_flag("--poweroff", gOpt.powerOff, "Power off when the install is done (not reboot)");
  cmd->add_flag("--nvme", gOpt.nvme, "Ubuntu: install to the first NVMe disk");
  cmd->add_option("--out", gOpt.outDir, "Directory that receives the answer file")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--product-key", gOpt.productKey, "Windows: product key XXXXX-XXXXX-...")
      ->type_name("KEY");
  cmd->add_option("--time-zone", gOpt.timeZone,
                  "Windows: IANA time zone such as Europe/Berlin (default: the host's)")
      ->type_name("ZONE");
  cmd->add_option("--edition", gOpt.edition,
                  "Windows: edition to install, as detect lists it or displays it (default: "
                  "the image's only one)");
  cmd->add_option("--language", gOpt.language,
                  "Windows: installation language (default: the image's)");
  cmd->add_flag("--keep-autologon", gOpt.keepAutoLogon,
                "Windows: automatic logon stays on after the first logon");
  cmd->add_flag("--keep-partitions", gOpt.keepPartitions,
                "Windows: keep the template's sized partitions");
  cmd->add_option("--template-dir", gOpt.templateDir,
                  "Windows: directory holding winnt.sif, autounattend.xml and storePwd.ini "
                  "(default: the installed templates)")
      ->type_name("DIR");
  cmd->add_flag("--json", gOpt.json, "One JSON object instead of text");
  return cmd;
}

}  // namespace

namespace cli {
const Command kAnswerCommand{Add, Run};
}
