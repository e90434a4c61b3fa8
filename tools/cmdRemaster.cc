// guestprep remaster IMAGE: a bootable copy of a Linux installation image's
// boot files whose boot entry points the installer at its answer file.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "cli.h"
#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
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

// Debian's isolinux package; Ubuntu 20.10 and later media carry no isolinux.
constexpr char kHostIsolinuxBin[] = "/usr/lib/ISOLINUX/isolinux.bin";

std::string FindOnPath(const char *name) {
  const char *path = getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  for (size_t start = 0; start <= dirs.size();) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) {
      end = dirs.size();
    }
    std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    start = end + 1;
  }
  return "";
}

// The mastering tool's own output goes to a file beside the image while it
// runs, so the command's stdout stays clean and a failure can quote it.
class CapturedOutput {
 public:
  explicit CapturedOutput(const std::string &dir) : path_(dir + "/.autoinst-master-XXXXXX") {
    int fd = mkstemp(path_.data());
    if (fd < 0) {
      path_.clear();
      return;
    }
    fflush(stdout);
    fflush(stderr);
    savedOut_ = dup(STDOUT_FILENO);
    savedErr_ = dup(STDERR_FILENO);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  CapturedOutput(const CapturedOutput &) = delete;
  CapturedOutput &operator=(const CapturedOutput &) = delete;
  ~CapturedOutput() {
    Restore();
    if (!path_.empty()) {
      unlink(path_.c_str());
    }
  }

  // Puts stdout and stderr back; the last non-empty line the tool wrote.
  std::string Restore() {
    if (savedOut_ >= 0) {
      fflush(stdout);
      fflush(stderr);
      dup2(savedOut_, STDOUT_FILENO);
      dup2(savedErr_, STDERR_FILENO);
      close(savedOut_);
      close(savedErr_);
      savedOut_ = savedErr_ = -1;
    }
    std::ifstream in(path_);
    std::string line, last;
    while (std::getline(in, line)) {
      if (!line.empty()) {
        last = line;
      }
    }
    return last;
  }

 private:
  std::string path_;
  int savedOut_ = -1;
  int savedErr_ = -1;
};

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
  if (gOpt.isolinuxBin.empty() && info.version == GUESS_VERSION_UBUNTU_2010_OR_HIGHER) {
    if (!fs::is_regular_file(kHostIsolinuxBin)) {
      cli::Fail(gOpt.image +
                ": the image has no isolinux boot loader; give one with "
                "--isolinux-bin (Debian's isolinux package has it)");
      return cli::kExitFailure;
    }
    gOpt.isolinuxBin = kHostIsolinuxBin;
  }
  if (gOpt.tool.empty()) {
    for (const char *name : {"genisoimage", "xorrisofs", "mkisofs"}) {
      if (gOpt.tool = FindOnPath(name); !gOpt.tool.empty()) {
        break;
      }
    }
    if (gOpt.tool.empty()) {
      cli::Fail("no mastering tool: install genisoimage or xorriso, or give --mastering-tool");
      return cli::kExitFailure;
    }
  }
  // The kickstart may have been written by another process; the boot entry
  // needs the kernel argument that writing it sets.
  if (family == LINUX_FAMILY_REDHAT) {
    autoinstall::SetKickstartKernelArgs(info.version);
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

  cli::Progress("scanning " + gOpt.image + " for its boot files");
  if (!AutoInstall_ScanISO(gOpt.image.c_str(), staging.c_str(), info.osKey, info.version,
                           gOpt.isolinuxBin.empty() ? nullptr : gOpt.isolinuxBin.c_str())) {
    fs::remove_all(staging, ec);
    cli::Fail(gOpt.image +
              ": no usable isolinux boot entry (kernel, initrd and append line) or boot loader");
    return cli::kExitFailure;
  }

  const std::string iso = gOpt.outDir + "/autoinst.iso";
  cli::Progress("mastering " + iso + " with " + gOpt.tool);
  bool mastered;
  std::string toolSaid;
  {
    CapturedOutput captured(gOpt.outDir);
    mastered = AutoInstall_MasterISO(staging.c_str(), gOpt.tool.c_str(), gOpt.outDir.c_str());
    toolSaid = captured.Restore();
  }
  if (!mastered) {
    std::string why = cli::FailedStep("cannot master " + iso + " with " + gOpt.tool);
    cli::Fail(toolSaid.empty() ? why : why + ": " + toolSaid);
    return cli::kExitFailure;
  }

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
