// guestprep answer IMAGE ...: the unattended-install answer file for the
// guest an installation image installs.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "platform/msg/msg.h"

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

int Run() {
  GuessInfo info;
  LinuxInstallFamily family;
  if (int code = cli::DetectLinuxInstall(gOpt.image, &info, &family); code != cli::kExitOk) {
    return code;
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
      "Write the unattended-install answer file for the Linux guest an installation image "
      "installs: \"ks.cfg\", \"custom/preseed.cfg\", \"autoinst.xml\" or \"auto_i~1.cfg\" in "
      "DIR, then print its path, the kernel argument that points the installer at it and "
      "whether it goes on a floppy. Passwords are read from files (the first line), or from "
      "standard input with \"-\", never from the command line. Exit 0 when written, 1 when "
      "the guest cannot be installed unattended or a text is rejected (each rejected text's "
      "reason on stderr), 2 when the image cannot be opened.");
  cmd->add_option("IMAGE", gOpt.image, "Installation image")->required();
  cmd->add_option("--user", gOpt.user, "User name of the account to create")->required();
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
  cmd->add_flag("--json", gOpt.json, "One JSON object instead of text");
  return cmd;
}

}  // namespace

namespace cli {
const Command kAnswerCommand{Add, Run};
}
