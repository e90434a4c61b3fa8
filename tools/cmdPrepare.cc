// guestprep prepare IMAGE ...: everything a new virtual machine needs for an
// unattended install, in the order the hypervisor drives the library:
// detect, check the texts, write the answer files, then master the boot
// image and build the floppy, with the guest tools on them.
//
// All or nothing: the results are built in a directory beside --out and
// moved in only when every step has worked, so a failure leaves --out as
// it was, with one line naming the step.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "guestprep/toolsiso.h"
#include "installSteps.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "platform/fat/fat.h"
#include "platform/iso9660/iso9660.h"
#include "platform/util/str.h"

namespace {

namespace fs = std::filesystem;

struct Options {
  std::string image;
  std::string user;
  std::string fullName;
  std::string passwordFile;
  std::string rootPasswordFile;
  std::string toolsImage;
  std::string libDir;
  std::string productKey;
  std::string edition;
  std::string tool;
  std::string isolinuxBin;
  std::string outDir;
  bool powerOff = false;
  bool json = false;
} gOpt;

int StepFailed(const std::string &step, const std::string &why) {
  cli::Fail("step \"" + step + "\" failed: " + why);
  return cli::kExitFailure;
}

// The output directory's stand-in while the command builds: a directory
// beside it, on the same file system, so its entries can be renamed in.
class PendingOutput {
 public:
  PendingOutput() = default;
  PendingOutput(const PendingOutput &) = delete;
  PendingOutput &operator=(const PendingOutput &) = delete;
  ~PendingOutput() {
    std::error_code ec;
    if (!work_.empty()) {
      fs::remove_all(work_, ec);
    }
    // Parents this command created for an output that never came.
    if (!createdTop_.empty() && !committed_) {
      fs::remove_all(createdTop_, ec);
    }
  }

  bool Begin(const std::string &outDir, std::string *why) {
    std::error_code ec;
    out_ = fs::absolute(outDir, ec).lexically_normal();
    if (!out_.has_filename()) {
      out_ = out_.parent_path();  // "dir/" names dir
    }
    if (ec || out_ == out_.root_path()) {
      *why = "cannot use " + outDir + " as the output directory";
      return false;
    }
    const fs::file_status status = fs::status(out_, ec);
    if (fs::exists(status)) {
      if (!fs::is_directory(status)) {
        *why = outDir + " exists and is not a directory";
        return false;
      }
      // Through a link the work goes beside the real directory, on its
      // file system.
      out_ = fs::canonical(out_, ec);
      if (ec) {
        *why = "cannot resolve " + outDir + ": " + ec.message();
        return false;
      }
      if (access(out_.c_str(), W_OK | X_OK) != 0) {
        *why = "cannot write into " + outDir + ": " + strerror(errno);
        return false;
      }
    }
    const fs::path parent = out_.parent_path();
    if (!fs::exists(parent, ec)) {
      fs::path top = parent;
      while (!fs::exists(top.parent_path(), ec) && top.parent_path() != top) {
        top = top.parent_path();
      }
      if (!fs::create_directories(parent, ec) || ec) {
        *why = "cannot create " + parent.string() + ": " + ec.message();
        return false;
      }
      createdTop_ = top;
    }
    std::string pattern = (parent / ("." + out_.filename().string() + ".prepare-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
      *why = "cannot create a working directory beside " + outDir + ": " + strerror(errno);
      return false;
    }
    work_ = pattern;
    return true;
  }

  const fs::path &dir() const { return work_; }
  const fs::path &out() const { return out_; }

  // Moves the results in: the whole directory when there is no output
  // directory yet, else entry by entry, each replacing its namesake. A
  // failed move puts back what the earlier ones replaced.
  bool Commit(std::string *why) {
    std::error_code ec;
    // Every result carries a password or its hash: the owner's alone.
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(work_, ec)) {
      if (entry.is_regular_file(ec)) {
        fs::permissions(entry.path(), fs::perms::owner_read | fs::perms::owner_write, ec);
      }
    }
    ec.clear();
    if (!fs::exists(out_, ec)) {
      const mode_t mask = umask(0);
      umask(mask);
      chmod(work_.c_str(), 0777 & ~mask);
      if (rename(work_.c_str(), out_.c_str()) != 0) {
        *why = "cannot rename " + work_.string() + " to " + out_.string() + ": " + strerror(errno);
        return false;
      }
      work_.clear();
      committed_ = true;
      return true;
    }
    std::vector<std::pair<fs::path, bool>> moved;  // target, whether it replaced one
    for (const fs::directory_entry &entry : fs::directory_iterator(work_, ec)) {
      const fs::path target = out_ / entry.path().filename();
      std::error_code statusError;
      const bool replaces =
          fs::symlink_status(target, statusError).type() != fs::file_type::not_found;
      if (renameat2(AT_FDCWD, entry.path().c_str(), AT_FDCWD, target.c_str(),
                    replaces ? RENAME_EXCHANGE : RENAME_NOREPLACE) != 0) {
        *why = "cannot move " + entry.path().filename().string() + " into " + out_.string() + ": " +
               strerror(errno);
        for (auto it = moved.rbegin(); it != moved.rend(); ++it) {
          const fs::path from = work_ / it->first.filename();
          if (it->second) {
            renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, it->first.c_str(), RENAME_EXCHANGE);
          } else {
            rename(it->first.c_str(), from.c_str());
          }
        }
        return false;
      }
      moved.emplace_back(target, replaces);
    }
    if (ec) {
      *why = "cannot list " + work_.string() + ": " + ec.message();
      return false;
    }
    committed_ = true;
    return true;
  }

 private:
  fs::path out_;
  fs::path work_;
  fs::path createdTop_;
  bool committed_ = false;
};

// The tools image: --tools-image, else the one the library directory's
// naming gives the guest.
bool FindToolsImage(const GuessInfo &info, std::string *image, std::string *why) {
  if (!gOpt.toolsImage.empty()) {
    *image = gOpt.toolsImage;
  } else if (!gOpt.libDir.empty()) {
    char *path = nullptr;
    if (!ToolsISO_GetImagePath(gOpt.libDir.c_str(), info.osKey, nullptr, false, &path, nullptr,
                               nullptr)) {
      *why =
          cli::FailedStep("no tools image for " + std::string(info.osKey) + " in " + gOpt.libDir);
      return false;
    }
    gp::UniqueText owned(path);
    *image = path;
  } else {
    return true;
  }
  std::error_code ec;
  if (!fs::is_regular_file(*image, ec)) {
    *why = *image + ": no such image";
    return false;
  }
  return true;
}

// Copies the named files of one image directory into hostDir.
bool ExtractFiles(const std::string &image, const std::string &dir,
                  const std::vector<std::string> &names, const std::string &hostDir,
                  std::string *why) {
  Iso9660Volume *volume = nullptr;
  Iso9660Result r = cli::OpenToolsImage(image, &volume);
  for (size_t i = 0; r == ISO9660_OK && i < names.size(); i++) {
    const std::string path = (dir == "/" ? "" : dir) + "/" + names[i];
    r = Iso9660_Extract(volume, path.c_str(), hostDir.c_str());
    if (r != ISO9660_OK) {
      *why = "cannot extract " + path + " from " + image + ": " + Iso9660_ResultString(r);
    }
  }
  if (volume != nullptr) {
    Iso9660_Close(volume);
  } else if (r != ISO9660_OK) {
    *why = "cannot open " + image + ": " + Iso9660_ResultString(r);
  }
  return r == ISO9660_OK;
}

// The Linux upgrader payload of the tools image, under its short names in
// dest (the boot image's root, which the first boot copies).
bool StageLinuxTools(const std::string &image, const std::string &dest, const std::string &scratch,
                     std::string *why) {
  const std::vector<std::string> dirs =
      cli::DirectoriesHolding(image, {"run_upgrader.sh"})["run_upgrader.sh"];
  if (dirs.empty()) {
    *why = image + " holds no run_upgrader.sh (not a Linux tools image?)";
    return false;
  }
  cli::ScratchDir payload;
  if (!payload.Create(scratch + "/.payload-XXXXXX", why)) {
    return false;
  }
  cli::Progress("extracting the tools payload from " + image);
  if (!ExtractFiles(image, dirs.front(),
                    {"brimle-tools-upgrader-32", "brimle-tools-upgrader-64", "run_upgrader.sh"},
                    payload.path, why)) {
    return false;
  }
  if (!AutoInstall_AddTools_Linux(dest.c_str(), payload.path.c_str())) {
    *why = cli::FailedStep("cannot copy the tools payload to the boot image");
    return false;
  }
  return true;
}

uint64_t SizeOf(const fs::path &path) {
  std::error_code ec;
  const uintmax_t size = fs::file_size(path, ec);
  return ec ? 0 : size;
}

// Moves the results into place, then says what was made.
int Finish(PendingOutput &out, const std::string &toolsImage, nlohmann::ordered_json *record) {
  (*record)["toolsImage"] =
      toolsImage.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(toolsImage);
  std::string why;
  if (!out.Commit(&why)) {
    return StepFailed("move the results into " + gOpt.outDir, why);
  }
  cli::PrintRecord(*record, gOpt.json);
  return cli::kExitOk;
}

int RunLinux(const GuessInfo &info, LinuxInstallFamily family) {
  if (gOpt.user.empty()) {
    cli::Fail("--user: required for Linux guests");
    return cli::kExitUsage;
  }
  if (!gOpt.productKey.empty() || !gOpt.edition.empty()) {
    cli::Fail(std::string(gOpt.edition.empty() ? "--product-key" : "--edition") +
              ": for Windows guests only");
    return cli::kExitUsage;
  }
  cli::Secret password, rootPassword;
  if (!cli::ReadLinuxAccount(info, gOpt.user, gOpt.fullName, gOpt.passwordFile,
                             gOpt.rootPasswordFile, &password, &rootPassword)) {
    return cli::kExitFailure;
  }
  std::string why, tool = gOpt.tool, toolsImage;
  if (!cli::FindMasteringTool(&tool, &why)) {
    return StepFailed("find the mastering tool", why);
  }
  if (!FindToolsImage(info, &toolsImage, &why)) {
    return StepFailed("find the tools image", why);
  }
  PendingOutput out;
  if (!out.Begin(gOpt.outDir, &why)) {
    return StepFailed("create the output directory", why);
  }
  const std::string work = out.dir().string();

  // The answer file is written straight onto the boot image's tree, where
  // the kernel argument points; the caller gets a copy.
  cli::ScratchDir medium;
  if (!medium.Create(work + "/.medium-XXXXXX", &why)) {
    return StepFailed("write the answer file", why);
  }
  if (!AutoInstall_PrepareAnswerFileEx_Linux(
          info.osKey, info.version, medium.path.c_str(), gOpt.user.c_str(), gOpt.fullName.c_str(),
          password.text.c_str(), rootPassword.text.c_str(), gOpt.powerOff, false)) {
    return StepFailed("write the answer file", cli::FailedStep("cannot write the answer file"));
  }
  const std::string onMedium = cli::AnswerFilePath(medium.path, family);
  const std::string answerFile = cli::AnswerFilePath(work, family);
  std::error_code ec;
  fs::create_directories(fs::path(answerFile).parent_path(), ec);
  if (ec || !fs::copy_file(onMedium, answerFile, ec)) {
    return StepFailed("write the answer file",
                      "cannot copy it to " + answerFile + ": " + ec.message());
  }
  if (!toolsImage.empty() && !StageLinuxTools(toolsImage, medium.path, work, &why)) {
    return StepFailed("stage the tools payload", why);
  }
  if (!cli::MasterBootImage({gOpt.image, &info, medium.path, tool, gOpt.isolinuxBin, work}, &why)) {
    return StepFailed("master autoinst.iso", why);
  }
  medium.Remove();  // the mastering removed its contents

  const LinuxFamilyRow &row = LinuxFamilyTable[family];
  if (row.needsFloppy != 0) {
    cli::ScratchDir templates;
    if (!templates.Create(work + "/.templates-XXXXXX", &why) ||
        (family != LINUX_FAMILY_UBUNTU && !cli::MakeBlankFloppyTemplates(templates.path, &why))) {
      return StepFailed("build autoinst.flp", why);
    }
    if (!AutoInstall_MakeFloppyImg_Linux(work.c_str(), work.c_str(), templates.path.c_str(),
                                         info.osKey)) {
      return StepFailed("build autoinst.flp", cli::FailedStep("cannot build the floppy"));
    }
  }

  // What the caller gets, by the names it will have once moved into place.
  const fs::path final = out.out();
  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["versionName"] = Guess_GetSubString(info.version);
  j["out"] = final.string();
  j["answerFile"] = cli::AnswerFilePath(final.string(), family);
  j["bootImage"] = (final / "autoinst.iso").string();
  j["bootImageSize"] = SizeOf(fs::path(work) / "autoinst.iso");
  j["kernelArgs"] = row.kernelArgs;
  if (row.needsFloppy != 0) {
    j["floppy"] = (final / "autoinst.flp").string();
    j["floppySize"] = SizeOf(fs::path(work) / "autoinst.flp");
    j["floppyFiles"] = cli::FloppyListing(work + "/autoinst.flp", gOpt.json);
  } else {
    j["floppy"] = nullptr;
  }
  return Finish(out, toolsImage, &j);
}

// Copies a file of the floppy's root directory into dir.
bool CopyFromFloppy(const std::string &floppy, const char *name, const std::string &dir,
                    std::string *why) {
  FATDevice *device = nullptr;
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;
  const std::string dest = dir + "/" + name;
  bool ok = FATDevFileIO_Open(floppy.c_str(), &device) == FAT_OK &&
            FAT_OpenVolume(device, &volume) == FAT_OK &&
            FAT_OpenRootDirectory(volume, &root) == FAT_OK &&
            GetFileFromFloppyImg(root, name, dest.c_str());
  if (root != nullptr) {
    FAT_CloseDirectory(root);
  }
  if (volume != nullptr) {
    FAT_CloseVolume(volume);
  }
  if (!ok) {
    *why = cli::FailedStep("cannot read " + std::string(name) + " back from " + floppy);
  }
  return ok;
}

// The storage driver directory of a tools image: the one holding
// "txtsetup.oem", a 64-bit one first (the guests installed unattended are).
std::string ChooseDriverDir(const std::vector<std::string> &dirs) {
  for (const std::string &dir : dirs) {
    if (strcasestr(dir.c_str(), "amd64") != nullptr || strcasestr(dir.c_str(), "x64") != nullptr) {
      return dir;
    }
  }
  return dirs.empty() ? "" : dirs.front();
}

int RunWindows(const GuessInfo &info) {
  if (gOpt.powerOff) {
    cli::Fail("--poweroff: for Linux guests only");
    return cli::kExitUsage;
  }
  cli::Secret password;
  if (!cli::ReadWindowsPassword(gOpt.user, gOpt.rootPasswordFile, gOpt.passwordFile, &password)) {
    return cli::kExitFailure;
  }
  cli::WindowsAnswers answers;
  answers.fullName = gOpt.fullName;
  answers.password = &password;
  answers.productKey = gOpt.productKey;
  answers.language = cli::Field(info.language);
  if (!cli::CheckWindowsTexts(info, gOpt.fullName, password, &answers.productKey) ||
      !cli::ChooseEdition(info, gOpt.image, gOpt.edition, &answers.edition) ||
      !cli::ChooseTimeZone("", &answers.zone)) {
    return cli::kExitFailure;
  }
  std::string why, toolsImage, driverDir, upgraderDir;
  if (!FindToolsImage(info, &toolsImage, &why)) {
    return StepFailed("find the tools image", why);
  }
  if (!toolsImage.empty()) {
    auto holding = cli::DirectoriesHolding(toolsImage, {"txtsetup.oem", "BrimleToolsUpgrader.exe"});
    driverDir = ChooseDriverDir(holding["txtsetup.oem"]);
    if (driverDir.empty()) {
      return StepFailed("find the storage drivers",
                        toolsImage + " holds no storage driver (no txtsetup.oem)");
    }
    const std::vector<std::string> &upgraders = holding["BrimleToolsUpgrader.exe"];
    if (upgraders.empty()) {
      return StepFailed("find the upgrader", toolsImage + " holds no BrimleToolsUpgrader.exe");
    }
    upgraderDir = upgraders.front();
  }
  const std::string hostFiles = cli::WindowsDataDir("");
  PendingOutput out;
  if (!out.Begin(gOpt.outDir, &why)) {
    return StepFailed("create the output directory", why);
  }
  const std::string work = out.dir().string();
  if (!cli::WriteWindowsAnswers(info, answers, hostFiles, work, &why)) {
    return StepFailed("write the answer files", why);
  }

  // The floppy builder consumes the answer files it is given: it works on
  // copies, so the caller keeps them.
  cli::ScratchDir floppyDir;
  if (!floppyDir.Create(work + "/.floppy-XXXXXX", &why)) {
    return StepFailed("build autoinst.flp", why);
  }
  std::vector<std::string> staged = {"winnt.sif", "autoun~0.xml"};
  if (fs::is_regular_file(hostFiles + "/storePwd.exe")) {
    staged.push_back("storePwd.ini");
  }
  for (const std::string &name : staged) {
    std::error_code ec;
    if (!fs::copy_file(work + "/" + name, floppyDir.path + "/" + name, ec)) {
      return StepFailed("build autoinst.flp", "cannot copy " + name + ": " + ec.message());
    }
  }
  if (!toolsImage.empty()) {
    cli::Progress("extracting the drivers and the upgrader from " + toolsImage);
  }
  auto orNull = [](const std::string &s) { return s.empty() ? nullptr : s.c_str(); };
  if (!AutoInstall_MakeFloppyImg(nullptr, floppyDir.path.c_str(), orNull(toolsImage),
                                 orNull(driverDir), orNull(upgraderDir), hostFiles.c_str())) {
    return StepFailed("build autoinst.flp", cli::FailedStep("cannot build the floppy"));
  }
  if (rename((floppyDir.path + "/autoinst.flp").c_str(), (work + "/autoinst.flp").c_str()) != 0) {
    return StepFailed("build autoinst.flp", std::string("cannot move it: ") + strerror(errno));
  }
  floppyDir.Remove();
  // The builder registered the drivers in the floppy's "winnt.sif": the
  // caller's copy is made the same.
  if (!driverDir.empty() && !CopyFromFloppy(work + "/autoinst.flp", "winnt.sif", work, &why)) {
    return StepFailed("build autoinst.flp", why);
  }

  const fs::path final = out.out();
  nlohmann::ordered_json j;
  j["image"] = gOpt.image;
  j["osKey"] = info.osKey;
  j["edition"] = answers.edition;
  j["editionName"] = cli::PrettyWindowsName(answers.edition);
  j["out"] = final.string();
  j["answerFiles"] = {(final / "winnt.sif").string(), (final / "autoun~0.xml").string(),
                      (final / "storePwd.ini").string()};
  j["floppy"] = (final / "autoinst.flp").string();
  j["floppySize"] = SizeOf(fs::path(work) / "autoinst.flp");
  j["floppyFiles"] = cli::FloppyListing(work + "/autoinst.flp", gOpt.json);
  return Finish(out, toolsImage, &j);
}

int Run() {
  GuessInfo info;
  LinuxInstallFamily family;
  if (int code = cli::DetectInstall(gOpt.image, &info, &family, true); code != cli::kExitOk) {
    return code;
  }
  return family == LINUX_FAMILY_NONE ? RunWindows(info) : RunLinux(info, family);
}

CLI::App *Add(CLI::App &app) {
  CLI::App *cmd = app.add_subcommand(
      "prepare",
      "Everything a new virtual machine needs to install the guest an installation image "
      "installs, unattended. Linux: the answer file, \"autoinst.iso\" (the image's boot files "
      "with a boot entry pointing the installer at the answer file, and the tools upgrader "
      "when a tools image is given) and, for Ubuntu and SUSE, \"autoinst.flp\" "
      "carrying the answer file. Windows: \"winnt.sif\", \"autoun~0.xml\", \"storePwd.ini\" "
      "and \"autoinst.flp\" with the answer files, the storage drivers and the upgrader of the "
      "tools image. Every text is checked first; a rejected one is reported with its reason "
      "and nothing is written. The results are built beside DIR and moved in at the end, so a "
      "failure leaves DIR as it was, with one line naming the failed step. Exit 0 when "
      "prepared, 1 on failure, 2 when the image cannot be opened.");
  cmd->add_option("IMAGE", gOpt.image, "Installation image")->required();
  cmd->add_option("--user", gOpt.user, "Linux: user name of the account to create (required)");
  cmd->add_option("--full-name", gOpt.fullName,
                  "Full name of that account (Windows: the account's name)")
      ->required();
  cmd->add_option("--password-file", gOpt.passwordFile,
                  "File holding the account's password (\"-\": standard input)")
      ->required()
      ->type_name("FILE");
  cmd->add_option("--root-password-file", gOpt.rootPasswordFile,
                  "Linux: file holding the administrator's password (default: the account's)")
      ->type_name("FILE");
  auto *tools = cmd->add_option("--tools-image", gOpt.toolsImage,
                                "Guest tools image the upgrader (and Windows drivers) come from")
                    ->type_name("ISO");
  auto *libdir =
      cmd->add_option("--libdir", gOpt.libDir,
                      "Host library directory: the guest's tools image is the one its naming gives")
          ->type_name("DIR");
  tools->excludes(libdir);
  libdir->excludes(tools);
  cmd->add_flag("--poweroff", gOpt.powerOff, "Linux: power off when the install is done");
  cmd->add_option("--product-key", gOpt.productKey, "Windows: product key XXXXX-XXXXX-...")
      ->type_name("KEY");
  cmd->add_option("--edition", gOpt.edition,
                  "Windows: edition to install (default: the image's only one)");
  cmd->add_option("--mastering-tool", gOpt.tool,
                  "Linux: mkisofs-compatible program to master with (default: genisoimage, "
                  "xorrisofs or mkisofs from PATH)")
      ->type_name("PATH");
  cmd->add_option("--isolinux-bin", gOpt.isolinuxBin,
                  "Linux: boot loader to use instead of the image's own (default for Ubuntu "
                  "20.10 and later: the host's /usr/lib/ISOLINUX/isolinux.bin)")
      ->type_name("FILE");
  cmd->add_option("--out", gOpt.outDir, "Directory that receives the results")
      ->required()
      ->type_name("DIR");
  cmd->add_flag("--quiet", cli::gQuiet, "No progress lines");
  cmd->add_flag("--json", gOpt.json, "One JSON object instead of text");
  return cmd;
}

}  // namespace

namespace cli {
const Command kPrepareCommand{Add, Run};
}
