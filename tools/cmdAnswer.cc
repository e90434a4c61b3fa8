// guestprep answer IMAGE ...: the unattended-install answer file for the
// guest an installation image installs.
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "installSteps.h"
#include "lib/guestInstall/autoinstallLinux.h"

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

using cli::Secret;

int RunWindows(const GuessInfo &info, const Secret &password) {
  cli::WindowsAnswers answers;
  answers.fullName = gOpt.fullName;
  answers.password = &password;
  answers.productKey = gOpt.productKey;
  answers.keepAutoLogon = gOpt.keepAutoLogon;
  answers.keepPartitions = gOpt.keepPartitions;
  if (!cli::CheckWindowsTexts(info, gOpt.fullName, password, &answers.productKey) ||
      !cli::ChooseEdition(info, gOpt.image, gOpt.edition, &answers.edition) ||
      !cli::ChooseTimeZone(gOpt.timeZone, &answers.zone)) {
    return cli::kExitFailure;
  }
  std::error_code ec;
  std::filesystem::create_directories(gOpt.outDir, ec);
  if (ec) {
    cli::Fail("cannot create " + gOpt.outDir + ": " + ec.message());
    return cli::kExitFailure;
  }
  answers.language = gOpt.language.empty() ? cli::Field(info.language) : gOpt.language;
  std::string why;
  if (!cli::WriteWindowsAnswers(info, answers, cli::WindowsDataDir(gOpt.templateDir), gOpt.outDir,
                                &why)) {
    cli::Fail(why);
    return cli::kExitFailure;
  }

  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["edition"] = answers.edition;
  j["editionName"] = cli::PrettyWindowsName(answers.edition);
  j["language"] = answers.language.empty() ? "(default)" : answers.language;
  j["timeZone"] = answers.zone.name.empty() ? "(template)" : answers.zone.name;
  j["zoneIndex"] = answers.zone.index;
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
    if (!cli::ReadWindowsPassword(gOpt.user, gOpt.rootPasswordFile, gOpt.passwordFile, &password)) {
      return cli::kExitFailure;
    }
    return RunWindows(info, password);
  }
  if (gOpt.user.empty()) {
    cli::Fail("--user: required for Linux guests");
    return cli::kExitUsage;
  }

  cli::Secret password, rootPassword;
  if (!cli::ReadLinuxAccount(info, gOpt.user, gOpt.fullName, gOpt.passwordFile,
                             gOpt.rootPasswordFile, &password, &rootPassword)) {
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
