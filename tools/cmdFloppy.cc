// guestprep floppy: the install floppy "autoinst.flp" that carries a Linux
// guest's answer file to its installer.
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "installSteps.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "platform/fat/fat.h"
#include "platform/file/file.h"
#include "platform/iso9660/iso9660.h"

namespace {

struct Options {
  std::string image;
  std::string osKey;
  std::string answerDir;
  std::string templateDir;
  std::string outDir;
  bool json = false;
  // Windows
  std::string toolsImage;
  std::string driverDir;
  std::string upgraderDir;
  std::string hostFilesDir;
} gOpt;

namespace fs = std::filesystem;

using cli::ScratchDir;

// Creates the output directory and a scratch directory inside it (on the
// same file system, so the floppy can be renamed into place).
bool MakeScratch(const std::string &outDir, ScratchDir *scratch) {
  std::error_code ec;
  fs::create_directories(outDir, ec);
  if (ec) {
    cli::Fail("cannot create " + outDir + ": " + ec.message());
    return false;
  }
  std::string why;
  if (!scratch->Create(outDir + "/.floppy-XXXXXX", &why)) {
    cli::Fail(why);
    return false;
  }
  return true;
}

// Blank template floppies, for callers who have none of their own.
bool MakeBlankTemplates(const std::string &outDir, ScratchDir *scratch) {
  std::string why;
  if (!MakeScratch(outDir, scratch)) {
    return false;
  }
  if (!cli::MakeBlankFloppyTemplates(scratch->path, &why)) {
    cli::Fail(why);
    return false;
  }
  gOpt.templateDir = scratch->path;
  return true;
}

// Where the upgrader lies in the tools image: --upgrader-dir, else the
// image's root when it holds one there, else nowhere.
std::string UpgraderDir() {
  if (!gOpt.upgraderDir.empty() || gOpt.toolsImage.empty()) {
    return gOpt.upgraderDir;
  }
  Iso9660Volume *volume = nullptr;
  if (Iso9660_Open(gOpt.toolsImage.c_str(), ISO9660_FORMAT_JOLIET, &volume) != ISO9660_OK) {
    return "";
  }
  Iso9660DirEntry entry;
  bool there = Iso9660_Stat(volume, "/BrimleToolsUpgrader.exe", &entry) == ISO9660_OK;
  Iso9660_Close(volume);
  return there ? "/" : "";
}

// The Windows floppy: the answer files are staged in a scratch directory
// (the builder consumes them), so the answer directory keeps its own.
int RunWindows(const std::string &osKey) {
  const std::string hostFiles = cli::WindowsDataDir(gOpt.hostFilesDir);
  for (const char *name : {"winnt.sif", "autoun~0.xml"}) {
    if (!fs::is_regular_file(gOpt.answerDir + "/" + name)) {
      cli::Fail("no " + std::string(name) + " in " + gOpt.answerDir +
                " (write it with guestprep answer first)");
      return cli::kExitFailure;
    }
  }
  if (!fs::is_regular_file(hostFiles + "/unattend.cmd")) {
    cli::Fail("no unattend.cmd in " + hostFiles);
    return cli::kExitFailure;
  }
  ScratchDir scratch;
  if (!MakeScratch(gOpt.outDir, &scratch)) {
    return cli::kExitFailure;
  }
  std::vector<std::string> staged = {"winnt.sif", "autoun~0.xml"};
  if (fs::is_regular_file(gOpt.answerDir + "/storePwd.ini")) {
    if (fs::is_regular_file(hostFiles + "/storePwd.exe")) {
      staged.push_back("storePwd.ini");
    } else {
      cli::Fail("note: storePwd.ini left off the floppy: no storePwd.exe in " + hostFiles);
    }
  }
  for (const std::string &name : staged) {
    std::string from = gOpt.answerDir + "/" + name, to = scratch.path + "/" + name;
    if (!File_Copy(from.c_str(), to.c_str(), true)) {
      cli::Fail("cannot copy " + from + " to " + to);
      return cli::kExitFailure;
    }
  }
  const std::string upgrader = UpgraderDir();
  auto orNull = [](const std::string &s) { return s.empty() ? nullptr : s.c_str(); };
  if (!gOpt.toolsImage.empty()) {
    cli::Progress("extracting from " + gOpt.toolsImage);
  }
  if (!AutoInstall_MakeFloppyImg(nullptr, scratch.path.c_str(), orNull(gOpt.toolsImage),
                                 orNull(gOpt.driverDir), orNull(upgrader), hostFiles.c_str())) {
    cli::Fail(cli::FailedStep("cannot build the floppy in " + gOpt.outDir));
    return cli::kExitFailure;
  }
  const std::string floppy = gOpt.outDir + "/autoinst.flp";
  std::error_code ec;
  fs::rename(scratch.path + "/autoinst.flp", floppy, ec);
  if (ec) {
    cli::Fail("cannot move the floppy to " + floppy + ": " + ec.message());
    return cli::kExitFailure;
  }
  nlohmann::ordered_json j;
  j["osKey"] = osKey;
  j["floppy"] = floppy;
  j["files"] = cli::FloppyListing(floppy, gOpt.json);
  cli::PrintRecord(j, gOpt.json);
  return cli::kExitOk;
}

int Run() {
  GuessInfo info{};
  LinuxInstallFamily family = LINUX_FAMILY_NONE;
  std::string osKey = gOpt.osKey;
  if (!gOpt.image.empty()) {
    if (int code = cli::DetectInstall(gOpt.image, &info, &family, true); code != cli::kExitOk) {
      return code;
    }
    osKey = info.osKey;
  } else {
    family = AutoInstallGetLinuxFamily(osKey.c_str());
    if (family == LINUX_FAMILY_NONE && !cli::IsWindowsKey(osKey)) {
      cli::Fail(osKey + ": not a guest that can be installed unattended");
      return cli::kExitFailure;
    }
  }

  if (family == LINUX_FAMILY_NONE) {
    return RunWindows(osKey);
  }
  nlohmann::ordered_json j;
  j["osKey"] = osKey;
  if (!AutoInstall_NeedsFloppy_Linux(osKey.c_str())) {
    j["floppy"] = nullptr;
    j["kernelArgs"] = LinuxFamilyTable[family].kernelArgs;
    if (!gOpt.json) {
      printf("%s: no floppy needed; the installer finds its answer file on the boot medium\n",
             cli::EscapeText(osKey).c_str());
    } else {
      cli::PrintRecord(j, true);
    }
    return cli::kExitOk;
  }

  const std::string answerFile = cli::AnswerFilePath(gOpt.answerDir, family);
  if (!fs::is_regular_file(answerFile)) {
    cli::Fail("no answer file " + answerFile + " (write it with guestprep answer first)");
    return cli::kExitFailure;
  }
  ScratchDir scratch;
  if (gOpt.templateDir.empty() && family != LINUX_FAMILY_UBUNTU
          ? !MakeBlankTemplates(gOpt.outDir, &scratch)
          : !MakeScratch(gOpt.outDir, &scratch)) {
    return cli::kExitFailure;
  }
  if (!AutoInstall_MakeFloppyImg_Linux(gOpt.answerDir.c_str(), gOpt.outDir.c_str(),
                                       gOpt.templateDir.c_str(), osKey.c_str())) {
    cli::Fail(cli::FailedStep("cannot build the floppy in " + gOpt.outDir));
    return cli::kExitFailure;
  }
  const std::string floppy = gOpt.outDir + "/autoinst.flp";
  j["floppy"] = floppy;
  j["files"] = cli::FloppyListing(floppy, gOpt.json);
  j["kernelArgs"] = LinuxFamilyTable[family].kernelArgs;
  cli::PrintRecord(j, gOpt.json);
  return cli::kExitOk;
}

CLI::App *Add(CLI::App &app) {
  CLI::App *cmd = app.add_subcommand(
      "floppy",
      "Build the install floppy \"autoinst.flp\" in DIR from what guestprep answer wrote into "
      "the answer directory. Windows: the answer files, the setup script, storage drivers and "
      "the tools upgrader from a tools image. Linux, for guests whose installer reads its "
      "answer file from a floppy (Ubuntu, SUSE, Mandriva): Ubuntu gets a fresh 1.44 MB floppy; "
      "SUSE and Mandriva start from \"suse.flp\" or \"mandriva.flp\" in the template directory "
      "(blank floppies without one). Red Hat guests need no floppy: the command says so and "
      "builds none. Exit 0 when built or not needed, 1 on failure, 2 when the image cannot be "
      "opened.");
  auto *image = cmd->add_option("IMAGE", gOpt.image, "Installation image the floppy is for");
  auto *key = cmd->add_option("--os-key", gOpt.osKey,
                              "Guest OS key (such as ubuntu-64) instead of an image");
  image->excludes(key);
  key->excludes(image);
  cmd->add_option("--answer-dir", gOpt.answerDir, "Directory guestprep answer wrote into")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--template-dir", gOpt.templateDir,
                  "Directory holding the template floppies suse.flp and mandriva.flp")
      ->type_name("DIR");
  cmd->add_option("--out", gOpt.outDir, "Directory that receives autoinst.flp")
      ->required()
      ->type_name("DIR");
  cmd->add_option("--tools-image", gOpt.toolsImage,
                  "Windows: guest tools image the upgrader and drivers come from")
      ->type_name("ISO");
  cmd->add_option("--driver-dir", gOpt.driverDir,
                  "Windows: storage driver directory, in the tools image when one is given, "
                  "else on the host")
      ->type_name("PATH");
  cmd->add_option("--upgrader-dir", gOpt.upgraderDir,
                  "Windows: directory of BrimleToolsUpgrader.exe in the tools image (default: "
                  "its root, when it is there)")
      ->type_name("PATH");
  cmd->add_option("--host-files", gOpt.hostFilesDir,
                  "Windows: directory holding unattend.cmd and storePwd.exe (default: the "
                  "installed files)")
      ->type_name("DIR");
  cmd->add_flag("--json", gOpt.json, "One JSON object instead of text");
  cmd->callback([]() {
    if (gOpt.image.empty() && gOpt.osKey.empty()) {
      throw CLI::RequiredError("IMAGE or --os-key");
    }
  });
  return cmd;
}

}  // namespace

namespace cli {
const Command kFloppyCommand{Add, Run};
}
