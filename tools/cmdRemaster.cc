// guestprep remaster IMAGE: a bootable copy of a Linux installation image's
// boot files whose boot entry points the installer at its answer file.
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "installSteps.h"
#include "lib/guestInstall/autoinstallLinux.h"

namespace {

namespace fs = std::filesystem;

struct Options {
  std::string image;
  std::string answerDir;
  std::string outDir;
  std::string isolinuxBin;
  std::string tool;
  bool json = false;
} gOpt;

int Run() {
  GuessInfo info;
  LinuxInstallFamily family;
  if (int code = cli::DetectInstall(gOpt.image, &info, &family, false); code != cli::kExitOk) {
    return code;
  }
  const std::string answerFile = cli::AnswerFilePath(gOpt.answerDir, family);
  if (!fs::is_regular_file(answerFile)) {
    cli::Fail("no answer file " + answerFile + " (write it with guestprep answer first)");
    return cli::kExitFailure;
  }
  std::string why;
  if (!cli::FindMasteringTool(&gOpt.tool, &why)) {
    cli::Fail(why);
    return cli::kExitFailure;
  }

  std::error_code ec;
  fs::create_directories(gOpt.outDir, ec);
  if (ec) {
    cli::Fail("cannot create " + gOpt.outDir + ": " + ec.message());
    return cli::kExitFailure;
  }
  std::string staging = gOpt.outDir + "/.autoinst-staging-XXXXXX";
  if (mkdtemp(staging.data()) == nullptr) {
    cli::Fail("cannot create a staging directory in " + gOpt.outDir + ": " + strerror(errno));
    return cli::kExitFailure;
  }
  // The answer file goes on the medium at the path the kernel argument names.
  const std::string onMedium = cli::AnswerFilePath(staging, family);
  fs::create_directories(fs::path(onMedium).parent_path(), ec);
  if (ec || !fs::copy_file(answerFile, onMedium, ec)) {
    cli::Fail("cannot stage " + answerFile + ": " + ec.message());
    fs::remove_all(staging, ec);
    return cli::kExitFailure;
  }

  if (!cli::MasterBootImage({gOpt.image, &info, staging, gOpt.tool, gOpt.isolinuxBin, gOpt.outDir},
                            &why)) {
    cli::Fail(why);
    return cli::kExitFailure;
  }
  const std::string iso = gOpt.outDir + "/autoinst.iso";

  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["bootImage"] = iso;
  j["size"] = fs::file_size(iso, ec);
  j["answerFile"] = onMedium.substr(staging.size());
  j["kernelArgs"] = LinuxFamilyTable[family].kernelArgs;
  j["needsFloppy"] = LinuxFamilyTable[family].needsFloppy != 0;
  cli::PrintRecord(j, gOpt.json);
  return cli::kExitOk;
}

CLI::App *Add(CLI::App &app) {
  CLI::App *cmd = app.add_subcommand(
      "remaster",
      "Make \"autoinst.iso\" in DIR: a bootable image holding the installation image's kernel "
      "and initrd, its isolinux boot loader, the answer file from the answer directory and a "
      "one-entry isolinux.cfg whose kernel arguments point the installer at it. Write the answer "
      "file with guestprep answer first. The mastering tool (genisoimage, xorrisofs or mkisofs "
      "from PATH) runs through the shell, so paths holding \" $ ` \\ or a line break are "
      "refused. Exit 0 when made, 1 on failure, 2 when the image cannot be opened.");
  cmd->add_option("IMAGE", gOpt.image, "Installation image")->required();
  cmd->add_option("--answer-dir", gOpt.answerDir, "Directory guestprep answer wrote into")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--out", gOpt.outDir, "Directory that receives autoinst.iso")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--isolinux-bin", gOpt.isolinuxBin,
                  "Boot loader to use instead of the image's own (default for Ubuntu 20.10 "
                  "and later: the host's /usr/lib/ISOLINUX/isolinux.bin)")
      ->type_name("FILE");
  cmd->add_option("--mastering-tool", gOpt.tool, "mkisofs-compatible program to master with")
      ->type_name("PATH");
  cmd->add_flag("--quiet", cli::gQuiet, "No progress lines");
  cmd->add_flag("--json", gOpt.json, "One JSON object instead of text");
  return cmd;
}

}  // namespace

namespace cli {
const Command kRemasterCommand{Add, Run};
}
