// Steps of an unattended install shared by the install commands.
#include "installSteps.h"

#include <fcntl.h>
#include <stdlib.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <system_error>

#include <openssl/crypto.h>

#include "cli.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "lib/guestInstall/autoinstallWindows.h"
#include "platform/fat/fat.h"
#include "platform/iso9660/iso9660.h"
#include "platform/msg/msg.h"
#include "platform/timeutil/timeutil.h"

namespace cli {

namespace fs = std::filesystem;

namespace {

// Long enough for any passphrase, short enough that a wrong file (an image,
// /dev/zero) is refused at once.
constexpr size_t kMaxPasswordBytes = 64 * 1024;

// Debian's isolinux package; Ubuntu 20.10 and later media carry no isolinux.
constexpr char kHostIsolinuxBin[] = "/usr/lib/ISOLINUX/isolinux.bin";

bool HasControl(const std::string &text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
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

// The answer-file writer asks for the zone through a callback.
WindowsZone gZone;
int ChosenZone(char **name) {
  *name = gZone.name.empty() ? nullptr : strdup(gZone.name.c_str());
  return gZone.index;
}

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

}  // namespace

Secret::~Secret() {
  OPENSSL_cleanse(text.data(), text.size());
}

bool ReadPassword(const std::string &source, const char *option, Secret *out) {
  std::string &text = out->text;
  if (source == "-") {
    int c;
    while ((c = getchar()) != EOF && c != '\n' && text.size() <= kMaxPasswordBytes) {
      text += static_cast<char>(c);
    }
    if (c == EOF && text.empty()) {
      Fail(std::string(option) + ": no password on standard input");
      return false;
    }
  } else {
    std::ifstream in(source, std::ios::binary);
    if (!in) {
      Fail(std::string(option) + ": cannot read " + source + ": " + strerror(errno));
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
    Fail(std::string(option) + ": the password is longer than 64 KiB");
    return false;
  }
  if (text.find('\0') != std::string::npos) {
    Fail(std::string(option) + ": the password holds a NUL byte");
    return false;
  }
  return true;
}

bool CheckLinuxTexts(const GuessInfo &info, const std::string &user, const std::string &fullName,
                     const Secret &password, const Secret &rootPassword) {
  struct Text {
    const char *option;
    const std::string &value;
    AutoInstallTextKind kind;
  } texts[] = {
      {"--user", user, AUTOINSTALL_TEXT_KIND_SHORT_NAME},
      {"--full-name", fullName, AUTOINSTALL_TEXT_KIND_NAME},
      {"--password-file", password.text, AUTOINSTALL_TEXT_KIND_PASSWORD},
      {"--root-password-file", rootPassword.text, AUTOINSTALL_TEXT_KIND_PASSWORD},
  };
  bool ok = true;
  for (const Text &t : texts) {
    // The account's password stands for the administrator's unless one
    // of its own was given: one reason is enough.
    if (&t.value == &rootPassword.text && rootPassword.text == password.text) {
      continue;
    }
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

bool ReadLinuxAccount(const GuessInfo &info, const std::string &user, const std::string &fullName,
                      const std::string &passwordFile, const std::string &rootPasswordFile,
                      Secret *password, Secret *rootPassword) {
  if (!ReadPassword(passwordFile, "--password-file", password)) {
    return false;
  }
  if (rootPasswordFile.empty()) {
    rootPassword->text = password->text;
  } else if (!ReadPassword(rootPasswordFile, "--root-password-file", rootPassword)) {
    return false;
  }
  return CheckLinuxTexts(info, user, fullName, *password, *rootPassword);
}

bool ReadWindowsPassword(const std::string &user, const std::string &rootPasswordFile,
                         const std::string &passwordFile, Secret *password) {
  if (!user.empty() || !rootPasswordFile.empty()) {
    Fail(std::string(user.empty() ? "--root-password-file" : "--user") +
         ": Windows guests have one account, named by --full-name");
    return false;
  }
  return ReadPassword(passwordFile, "--password-file", password);
}

bool CheckWindowsTexts(const GuessInfo &info, const std::string &fullName, const Secret &password,
                       std::string *productKey) {
  bool ok = true;
  char *message = nullptr;
  if (AutoInstall_ValidateName("windows", &info, fullName.c_str(), &message) !=
      AUTOINSTALL_TEXT_OK) {
    fprintf(stderr, "guestprep: --full-name: %s\n", message);
    free(message);
    ok = false;
  }
  for (auto [option, text] :
       {std::pair<const char *, const std::string *>{"--full-name", &fullName},
        std::pair<const char *, const std::string *>{"--password-file", &password.text}}) {
    if (HasControl(*text)) {
      Fail(std::string(option) + ": must not hold line breaks or other control characters");
      ok = false;
    }
  }
  if (!productKey->empty() && !ValidProductKey(productKey)) {
    Fail("--product-key: expected five groups of five letters or digits joined by \"-\"");
    ok = false;
  }
  return ok;
}

std::string PrettyWindowsName(const std::string &edition) {
  char *pretty = AutoInstall_GetPrettyWindowsName(edition.c_str());
  std::string out = pretty != nullptr ? pretty : edition;
  free(pretty);
  return out;
}

bool ChooseEdition(const GuessInfo &info, const std::string &image, const std::string &wanted,
                   std::string *edition) {
  std::vector<std::string> editions = ListField(info.editions);
  for (const std::string &e : editions) {
    if (wanted.empty() ? editions.size() == 1
                       : strcasecmp(e.c_str(), wanted.c_str()) == 0 ||
                             strcasecmp(PrettyWindowsName(e).c_str(), wanted.c_str()) == 0) {
      *edition = e;
      return true;
    }
  }
  if (editions.empty()) {
    if (wanted.empty()) {
      Fail(image + ": the image lists no editions; name one with --edition");
      return false;
    }
    *edition = wanted;  // the image's own list could not be read
    return true;
  }
  std::string names;
  for (const std::string &e : editions) {
    names += (names.empty() ? "" : ", ") + PrettyWindowsName(e);
  }
  Fail(wanted.empty() ? "choose an edition with --edition: " + names
                      : "--edition " + wanted + " is not on the image: " + names);
  return false;
}

bool ChooseTimeZone(const std::string &zone, WindowsZone *out) {
  if (zone.empty()) {
    char *name = nullptr;
    out->index = TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&name);
    out->name = name != nullptr ? name : "";
    free(name);
    return true;
  }
  out->index = gp::WindowsTimeZoneFor(zone, &out->name);
  if (out->name.empty()) {
    Fail("--time-zone " + zone + ": no Windows time zone for this zone");
    return false;
  }
  return true;
}

bool WriteWindowsAnswers(const GuessInfo &info, const WindowsAnswers &a,
                         const std::string &templateDir, const std::string &dir, std::string *why) {
  const std::string winnt = templateDir + "/winnt.sif", xml = templateDir + "/autounattend.xml",
                    storePwd = templateDir + "/storePwd.ini";
  gZone = a.zone;
  if (!autoinstall::PrepareWindowsAnswerFiles(
          winnt.c_str(), xml.c_str(), storePwd.c_str(), a.fullName.c_str(),
          a.password->text.c_str(), info.osKey, info.version, dir.c_str(), a.language.c_str(),
          a.edition.c_str(), a.keepAutoLogon, a.keepPartitions, ChosenZone) ||
      (!a.productKey.empty() &&
       !autoinstall::SetWindowsProductKey(dir.c_str(), a.productKey.c_str()))) {
    *why = FailedStep("cannot write the answer files into " + dir);
    return false;
  }
  return true;
}

bool FindMasteringTool(std::string *tool, std::string *why) {
  if (!tool->empty()) {
    if (access(tool->c_str(), X_OK) != 0 && FindOnPath(tool->c_str()).empty()) {
      *why = "mastering tool " + *tool + ": not found or not executable";
      return false;
    }
    return true;
  }
  for (const char *name : {"genisoimage", "xorrisofs", "mkisofs"}) {
    if (*tool = FindOnPath(name); !tool->empty()) {
      return true;
    }
  }
  *why = "no mastering tool: install genisoimage or xorriso, or give --mastering-tool";
  return false;
}

bool MasterBootImage(const BootImageJob &job, std::string *why) {
  const GuessInfo &info = *job.info;
  std::string isolinuxBin = job.isolinuxBin;
  std::error_code ec;
  if (isolinuxBin.empty() && info.version == GUESS_VERSION_UBUNTU_2010_OR_HIGHER) {
    if (!fs::is_regular_file(kHostIsolinuxBin)) {
      fs::remove_all(job.staging, ec);
      *why = job.image +
             ": the image has no isolinux boot loader; give one with --isolinux-bin (Debian's "
             "isolinux package has it)";
      return false;
    }
    isolinuxBin = kHostIsolinuxBin;
  }
  // The kickstart may have been written by another process; the boot entry
  // needs the kernel argument that writing it sets.
  if (AutoInstallGetLinuxFamily(info.osKey) == LINUX_FAMILY_REDHAT) {
    autoinstall::SetKickstartKernelArgs(info.version);
  }
  Progress("scanning " + job.image + " for its boot files");
  if (!AutoInstall_ScanISO(job.image.c_str(), job.staging.c_str(), info.osKey, info.version,
                           isolinuxBin.empty() ? nullptr : isolinuxBin.c_str())) {
    fs::remove_all(job.staging, ec);
    *why = job.image +
           ": no usable isolinux boot entry (kernel, initrd and append line) or boot loader";
    return false;
  }
  const std::string iso = job.outDir + "/autoinst.iso";
  Progress("mastering " + iso + " with " + job.tool);
  bool mastered;
  std::string toolSaid;
  {
    CapturedOutput captured(job.outDir);
    mastered = AutoInstall_MasterISO(job.staging.c_str(), job.tool.c_str(), job.outDir.c_str());
    toolSaid = captured.Restore();
  }
  if (!mastered) {
    *why = FailedStep("cannot master " + iso + " with " + job.tool);
    if (!toolSaid.empty()) {
      *why += ": " + toolSaid;
    }
    return false;
  }
  return true;
}

bool MakeBlankFloppyTemplates(const std::string &dir, std::string *why) {
  for (const char *name : {"suse.flp", "mandriva.flp"}) {
    std::string path = dir + "/" + name;
    FATDevice *device = nullptr;
    FATVolume *volume = nullptr;
    if (FATDevFileIO_Open(path.c_str(), &device) != FAT_OK ||
        FAT_FormatVolume(device, kFATFloppy144Size, 0, &volume) != FAT_OK) {
      *why = FailedStep("cannot format a blank template floppy " + path);
      return false;
    }
    FAT_CloseVolume(volume);
  }
  return true;
}

nlohmann::ordered_json FloppyListing(const std::string &image, bool json) {
  nlohmann::ordered_json files = nlohmann::json::array();
  FATDevice *device = nullptr;
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;
  if (FATDevFileIO_Open(image.c_str(), &device) != FAT_OK ||
      FAT_OpenVolume(device, &volume) != FAT_OK) {
    return files;
  }
  if (FAT_OpenRootDirectory(volume, &root) == FAT_OK) {
    FATDirEntryInfo info;
    for (uint32_t cursor = 0; FAT_ReadDirectory(root, &cursor, &info) == FAT_OK;) {
      if (json) {
        files.push_back({{"name", info.name}, {"size", info.size}});
      } else {
        files.push_back(std::string(info.name) + " (" + std::to_string(info.size) + " bytes)");
      }
    }
    FAT_CloseDirectory(root);
  }
  FAT_CloseVolume(volume);
  return files;
}

Iso9660Result OpenToolsImage(const std::string &image, Iso9660Volume **volume) {
  uint32_t formats = 0;
  const Iso9660Result r = Iso9660_ListFormats(image.c_str(), &formats);
  if (r != ISO9660_OK) {
    return r;
  }
  return Iso9660_Open(image.c_str(),
                      (formats & ISO9660_FORMAT_JOLIET) != 0 ? ISO9660_FORMAT_JOLIET : formats,
                      volume);
}

std::map<std::string, std::vector<std::string>> DirectoriesHolding(
    const std::string &image, const std::vector<std::string> &names) {
  std::map<std::string, std::vector<std::string>> found;
  for (const std::string &name : names) {
    found[name];
  }
  Iso9660Volume *volume = nullptr;
  if (OpenToolsImage(image, &volume) != ISO9660_OK) {
    return found;
  }
  // Bounded: a tools image has a few hundred entries, a hostile one could
  // claim millions or nest deeply.
  size_t budget = 100000;
  std::function<void(const std::string &, int)> walk = [&](const std::string &dir, int depth) {
    Iso9660Dir *handle = nullptr;
    if (depth > 32 || Iso9660_OpenDir(volume, dir.c_str(), &handle) != ISO9660_OK) {
      return;
    }
    std::vector<std::string> subdirs;
    Iso9660DirEntry entry;
    while (budget > 0 && Iso9660_ReadDir(volume, handle, &entry) == ISO9660_OK) {
      budget--;
      const std::string entryName = entry.name;
      if (entryName.empty() || entryName == "." || entryName == "..") {
        continue;
      }
      if ((entry.flags & ISO9660_ENTRY_DIRECTORY) != 0) {
        subdirs.push_back(entryName);
      } else {
        for (auto &[name, dirs] : found) {
          if (strcasecmp(entryName.c_str(), name.c_str()) == 0 &&
              (dirs.empty() || dirs.back() != dir)) {
            dirs.push_back(dir);
          }
        }
      }
    }
    Iso9660_CloseDir(volume, handle);
    std::sort(subdirs.begin(), subdirs.end());
    for (const std::string &sub : subdirs) {
      walk((dir == "/" ? "" : dir) + "/" + sub, depth + 1);
    }
  };
  walk("/", 0);
  Iso9660_Close(volume);
  return found;
}

ScratchDir::~ScratchDir() {
  Remove();
}

void ScratchDir::Remove() {
  if (!path.empty()) {
    std::error_code ec;
    fs::remove_all(path, ec);
    path.clear();
  }
}

bool ScratchDir::Create(std::string pattern, std::string *why) {
  if (mkdtemp(pattern.data()) == nullptr) {
    *why = "cannot create a scratch directory " + pattern + ": " + strerror(errno);
    return false;
  }
  path = pattern;
  return true;
}

}  // namespace cli
