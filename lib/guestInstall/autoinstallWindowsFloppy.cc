/*
 * The Windows install floppy: storage-controller drivers for Windows Setup,
 * both answer files, the password helper with its INI file, the guest-tools
 * upgrader from the tools image and the setup script on one 1.44 MB FAT
 * image, and the registration of a storage driver in "winnt.sif".
 */
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "autoinstallFloppy.h"
#include "guestprep/autoinstall.h"
#include "guestprep/iniutil.h"
#include "platform/fat/fat.h"
#include "platform/file/file.h"
#include "platform/file/fileIO.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

constexpr char kFn[] = "AutoInstall_MakeFloppyImg";

constexpr char kFloppyImageName[] = "autoinst.flp";
constexpr char kUnattendedInstallFile[] = "winnt.sif";
constexpr char kUnattendedXmlInstallFile[] = "autoun~0.xml";
constexpr char kStorePwdIniFileName[] = "storePwd.ini";
constexpr char kStorePwdExeFileName[] = "storePwd.exe";
constexpr char kUpgraderInImage[] = "BrimleToolsUpgrader.exe";
constexpr char kUpgraderExe[] = "upgrader.exe";
constexpr char kUnattendedCmd[] = "unattend.cmd";
constexpr char kScratchDirName[] = "scsi";
constexpr char kTxtSetupOem[] = "txtsetup.oem";

// The tools image is read with its Joliet names: the upgrader's name is
// longer than the primary names allow.
constexpr uint32_t kToolsIsoFormat = ISO9660_FORMAT_JOLIET;

// Driver identifiers of the "scsi" section of a txtsetup.oem, in the order
// they are tried on each line (case-sensitive).
constexpr std::string_view kDriverNames[] = {
    "brmscsi",    "BRMSCSI",     "SYMMPI_32",     "LSI_SCSI_AMD64", "LSI_SAS_AMD64", "SYMMPI_1068",
    "LSI_SAS_32", "LSI_SAS_X64", "LSI_SCSI_IA64", "LSI_SCSI_32",    "SYMMPI_IA64",
};

// Real txtsetup.oem files run to a few kilobytes. A larger file is treated
// like one whose buffer cannot be had, which keeps the memory and the line
// scan of a hostile file small.
constexpr uint64_t kMaxOemFileBytes = 1 << 20;

std::string Join(const char *dir, const char *name) {
  gp::UniqueText path(File_PathJoin(dir, name));
  return path ? std::string(path.get()) : std::string();
}

unsigned long ErrorNumber(FATError err) {
  return static_cast<unsigned long>(err);
}

// An open tools image, closed when it goes out of scope or on Close().
struct ToolsImage {
  Iso9660Volume *volume = nullptr;

  ToolsImage() = default;
  ToolsImage(const ToolsImage &) = delete;
  ToolsImage &operator=(const ToolsImage &) = delete;
  ~ToolsImage() { Close(); }

  Iso9660Result Open(const char *path) {
    Iso9660Volume *opened = nullptr;
    Iso9660Result res = Iso9660_Open(path, kToolsIsoFormat, &opened);
    if (res == ISO9660_OK) {
      volume = opened;
    }
    return res;
  }
  void Close() {
    if (volume != nullptr) {
      Iso9660_Close(volume);
      volume = nullptr;
    }
  }
};

// A listing from File_ListDirectory.
struct NameList {
  char **names = nullptr;
  int count = -1;

  NameList() = default;
  NameList(const NameList &) = delete;
  NameList &operator=(const NameList &) = delete;
  ~NameList() { File_FreeNameList(names, count); }
};

bool IsTxtSetupOem(const std::string &path) {
  char *base = nullptr;
  File_SplitName(path.c_str(), nullptr, nullptr, &base);
  gp::UniqueText owned(base);
  return owned && Str_Strcasecmp(owned.get(), kTxtSetupOem) == 0;
}

// One build of guestConfigDir/"autoinst.flp". The destructor is the
// clean-up, so it runs after every outcome, an exception included.
class WindowsFloppy {
 public:
  WindowsFloppy(const char *floppyTemplatePath, const char *guestConfigDir,
                const char *toolsIsoPath, const char *scsiDriverDir,
                const char *upgraderIsoLocation, const char *hostFilesDir)
      : templatePath_(floppyTemplatePath),
        configDir_(guestConfigDir),
        toolsIso_(toolsIsoPath),
        scsiDriverDir_(scsiDriverDir),
        upgraderLocation_(upgraderIsoLocation),
        hostFilesDir_(hostFilesDir),
        unattendPath_(Join(guestConfigDir, kUnattendedInstallFile)),
        unattendXmlPath_(Join(guestConfigDir, kUnattendedXmlInstallFile)),
        storePwdIniPath_(Join(guestConfigDir, kStorePwdIniFileName)),
        imagePath_(Join(guestConfigDir, kFloppyImageName)),
        upgraderHostPath_(Join(guestConfigDir, kUpgraderInImage)) {}

  WindowsFloppy(const WindowsFloppy &) = delete;
  WindowsFloppy &operator=(const WindowsFloppy &) = delete;
  ~WindowsFloppy() { CleanUp(); }

  bool Build() {
    return OpenVolume() && (scsiDriverDir_ == nullptr || AddDrivers()) && AddAnswerFiles() &&
           AddStorePwd() && AddUpgrader() && AddSetupScript();
  }

 private:
  bool Add(const std::string &srcPath, const char *name) {
    return AddFileToFloppyImg(floppy_->root, srcPath.c_str(), name);
  }

  bool OnFloppy(const char *name) {
    FATFile *file = nullptr;
    if (FAT_OpenFile(floppy_->root, name, &file) != FAT_OK) {
      return false;
    }
    FAT_CloseFile(file);
    return true;
  }

  // A copy that ran out of room leaves the part that fit, which would fill
  // the floppy for every file after it; the entry this build made stays,
  // empty.
  void GiveBackSpace(const char *name) {
    FATFile *file = nullptr;
    if (FAT_OpenFile(floppy_->root, name, &file) == FAT_OK) {
      FAT_SetFileSize(file, 0);
      FAT_CloseFile(file);
    }
  }

  bool OpenVolume() {
    floppy_.emplace();
    FATDevice *device = nullptr;
    FATVolume *volume = nullptr;
    FATError err;
    if (templatePath_ == nullptr) {
      err = FATDevFileIO_Open(imagePath_.c_str(), &device);
      if (err == FAT_OK) {
        err = FAT_FormatVolume(device, kFATFloppy144Size, 0, &volume);
      }
      if (err != FAT_OK) {
        Log("%s: FAT_FormatVolume err=%lu floppyImageFilePath =\"%s\"\n", kFn, ErrorNumber(err),
            imagePath_.c_str());
        return false;
      }
    } else {
      if (!File_Copy(templatePath_, imagePath_.c_str(), true)) {
        Log("%s: File_Copy from=\"%s\" to=\"%s\"\n", kFn, templatePath_, imagePath_.c_str());
        return false;
      }
      err = FATDevFileIO_Open(imagePath_.c_str(), &device);
      if (err == FAT_OK) {
        err = FAT_OpenVolume(device, &volume);
      }
      if (err != FAT_OK) {
        Log("%s: FAT_OpenVolume err=%lu floppyImageFilePath =\"%s\"\n", kFn, ErrorNumber(err),
            imagePath_.c_str());
        return false;
      }
    }
    floppy_->volume = volume;
    err = FAT_SkipVolumeBoot(floppy_->volume);
    if (err != FAT_OK) {
      Log("%s: FAT_SkipVolumeBoot err=%lu\n", kFn, ErrorNumber(err));
      return false;
    }
    err = FAT_OpenRootDirectory(floppy_->volume, &floppy_->root);
    if (err != FAT_OK) {
      Log("%s: FAT_OpenRootDirectory err=%lu\n", kFn, ErrorNumber(err));
      return false;
    }
    return true;
  }

  // Every entry of the driver directory goes onto the floppy and into the
  // "OEMBootFiles" section, so Windows Setup loads them from the floppy.
  bool AddDrivers() {
    if (toolsIso_ != nullptr) {
      driversFromImage_ = true;
      driverDir_ = Join(configDir_, kScratchDirName);
      haveDriverDir_ = true;
      if (!File_CreateDirectory(driverDir_.c_str())) {
        Log("%s: File_CreateDirectory guestConfigDir=\"%s\"\n", kFn, configDir_);
        return false;
      }
      Iso9660Result res = driverImage_.Open(toolsIso_);
      if (res != ISO9660_OK) {
        Log("%s: Iso9660_Open res=%d, also scsi floopy image is no more available. \n", kFn,
            static_cast<int>(res));
        return false;
      }
      res = Iso9660_Extract(driverImage_.volume, scsiDriverDir_, driverDir_.c_str());
      if (res != ISO9660_OK) {
        Log("%s: Iso9660_Extract res=%d scsiDriverDir=\"%s\"tempdir=\"%s\"\n", kFn,
            static_cast<int>(res), scsiDriverDir_, driverDir_.c_str());
        return false;
      }
    } else {
      driverDir_ = scsiDriverDir_;
      haveDriverDir_ = true;
    }

    drivers_.count = File_ListDirectory(driverDir_.c_str(), &drivers_.names);
    if (drivers_.count <= 0) {
      Log("%s: File_ListDirectory nf=%d tempdir=\"%s\"\n", kFn, drivers_.count, driverDir_.c_str());
      return false;
    }
    std::string oemPath;
    for (int i = 0; i < drivers_.count; ++i) {
      const char *name = drivers_.names[i];
      if (name == nullptr) {
        continue;
      }
      std::string path = Join(driverDir_.c_str(), name);
      // A file the floppy cannot take (a subdirectory, a name FAT refuses,
      // no room left) costs that driver file only.
      const bool wasOnFloppy = OnFloppy(name);
      if (!Add(path, name)) {
        Log("%s: AddFileToFloppyImg file=\"%s\"\n", kFn, name);
        if (!wasOnFloppy) {
          GiveBackSpace(name);
        }
        continue;
      }
      // The INI writer refuses a name that would make its own section or
      // line, so a hostile driver file name cannot reshape "winnt.sif".
      if (!IniUtil_WriteIniFileString(unattendPath_.c_str(), "OEMBootFiles", name, "", false)) {
        Log("%s: IniUtil_WriteIniFileString OEMBootFiles=\"%s\"unattendFilePath=\"%s\"\n", kFn,
            name, unattendPath_.c_str());
        return false;
      }
      if (IsTxtSetupOem(path)) {
        oemPath = path;
      }
    }
    if (!oemPath.empty()) {
      WriteOEMDriverInfo(oemPath.c_str(), unattendPath_.c_str());
    }
    return true;
  }

  bool AddAnswerFiles() {
    if (!Add(unattendPath_, kUnattendedInstallFile)) {
      Log("%s: AddFileToFloppyImg UNATTENDED_INSTALL_FILE=\"%s\"\n", kFn, unattendPath_.c_str());
      return false;
    }
    if (!Add(unattendXmlPath_, kUnattendedXmlInstallFile)) {
      Log("%s: AddFileToFloppyImg UNATTENDED_XML_INSTALL_FILE=\"%s\"\n", kFn,
          unattendXmlPath_.c_str());
      return false;
    }
    return true;
  }

  // The password helper goes only with the INI file the answer-file step
  // prepared for it.
  bool AddStorePwd() {
    if (!File_Exists(storePwdIniPath_.c_str())) {
      return true;
    }
    if (!Add(storePwdIniPath_, kStorePwdIniFileName)) {
      Log("%s: AddFileToFloppyImg STOREPWD_INI_FILENAME=\"%s\"\n", kFn, storePwdIniPath_.c_str());
      return false;
    }
    std::string exePath = Join(hostFilesDir_, kStorePwdExeFileName);
    if (!Add(exePath, kStorePwdExeFileName)) {
      Log("%s: AddFileToFloppyImg STOREPWD_EXE_FILENAME=\"%s\"\n", kFn, exePath.c_str());
      return false;
    }
    return true;
  }

  // A host without its tools image still gets an install without the
  // upgrader; an image that is there but lacks it is broken.
  bool AddUpgrader() {
    if (toolsIso_ == nullptr || upgraderLocation_ == nullptr) {
      return true;
    }
    if (upgraderImage_.Open(toolsIso_) == ISO9660_OK) {
      std::string inImage = Join(upgraderLocation_, kUpgraderInImage);
      Iso9660Result res = Iso9660_Extract(upgraderImage_.volume, inImage.c_str(), configDir_);
      if (res != ISO9660_OK) {
        Log("%s: Iso9660_Extract res=%d upgraderIsoLocation=\"%s\"guestConfigDir=\"%s\"\n", kFn,
            static_cast<int>(res), inImage.c_str(), configDir_);
        return false;
      }
    }
    if (!Add(upgraderHostPath_, kUpgraderExe) && File_Exists(toolsIso_)) {
      Log("%s: AddFileToFloppyImg (tools \"%s\") UPGRADER_EXE=\"%s\"\n", kFn, toolsIso_,
          upgraderHostPath_.c_str());
      return false;
    }
    return true;
  }

  bool AddSetupScript() {
    std::string cmdPath = Join(hostFilesDir_, kUnattendedCmd);
    if (!Add(cmdPath, kUnattendedCmd)) {
      Log("%s: AddFileToFloppyImg UNATTENDED_CMD=\"%s\"\n", kFn, cmdPath.c_str());
      return false;
    }
    return true;
  }

  // Leaves "autoinst.flp" and nothing else of this build: the answer files
  // hold the administrator password in clear, and the scratch directory
  // must be creatable again for the next build.
  void CleanUp() noexcept {
    floppy_.reset();
    if (driversFromImage_ && drivers_.names != nullptr) {
      for (int i = 0; i < drivers_.count; ++i) {
        const char *name = drivers_.names[i];
        if (name == nullptr) {
          continue;
        }
        gp::UniqueText path(File_PathJoin(driverDir_.c_str(), name));
        // The scratch directory is ours: a subdirectory extracted with the
        // drivers goes with its contents.
        if (path && File_UnlinkIfExists(path.get()) != 0 && File_IsDirectory(path.get())) {
          File_DeleteDirectoryTree(path.get());
        }
      }
    }
    driverImage_.Close();
    upgraderImage_.Close();
    File_UnlinkIfExists(unattendPath_.c_str());
    File_UnlinkIfExists(unattendXmlPath_.c_str());
    File_UnlinkIfExists(storePwdIniPath_.c_str());
    File_UnlinkIfExists(upgraderHostPath_.c_str());
    if (haveDriverDir_) {
      File_DeleteEmptyDirectory(driverDir_.c_str());
    }
  }

  const char *templatePath_;
  const char *configDir_;
  const char *toolsIso_;
  const char *scsiDriverDir_;
  const char *upgraderLocation_;
  const char *hostFilesDir_;
  const std::string unattendPath_;
  const std::string unattendXmlPath_;
  const std::string storePwdIniPath_;
  const std::string imagePath_;
  const std::string upgraderHostPath_;

  std::optional<autoinstall::OpenFloppy> floppy_;
  ToolsImage driverImage_;
  ToolsImage upgraderImage_;
  std::string driverDir_;
  bool haveDriverDir_ = false;
  bool driversFromImage_ = false;
  NameList drivers_;
};

// The quoted description that a "scsi" section line gives a known driver
// identifier: the first name of the table that occurs before the line's
// "=" and has two double quotes after it. Empty when the line gives none.
std::string_view DriverDescription(std::string_view line) {
  size_t eq = line.find('=');
  if (eq == std::string_view::npos) {
    return {};
  }
  std::string_view key = line.substr(0, eq), rest = line.substr(eq + 1);
  for (std::string_view name : kDriverNames) {
    if (key.find(name) == std::string_view::npos) {
      continue;
    }
    size_t open = rest.find('"');
    if (open == std::string_view::npos) {
      continue;
    }
    size_t close = rest.find('"', open + 1);
    if (close == std::string_view::npos) {
      continue;
    }
    return rest.substr(open, close - open + 1);
  }
  return {};
}

// The file's text up to its first NUL byte, or nothing when it cannot be
// read or is empty or too large.
std::optional<std::string> ReadOemFile(const char *path) {
  gp::ScopedFileIO file;
  if (FileIO_Open(&file.fd, path, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) != FILEIO_SUCCESS) {
    return std::nullopt;
  }
  uint64_t size = FileIO_GetSize(&file.fd);
  if (size < 1 || size > kMaxOemFileBytes) {
    return std::nullopt;
  }
  std::string buffer(static_cast<size_t>(size), '\0');
  if (FileIO_Read(&file.fd, buffer.data(), buffer.size(), nullptr) != FILEIO_SUCCESS) {
    return std::nullopt;
  }
  // Lines are C text: what follows a NUL byte is not read.
  buffer.resize(std::min(buffer.find('\0'), buffer.size()));
  return buffer;
}

}  // namespace

bool AutoInstall_MakeFloppyImg(const char *floppyTemplatePath, const char *guestConfigDir,
                               const char *toolsIsoPath, const char *scsiDriverDir,
                               const char *upgraderIsoLocation, const char *hostFilesDir) {
  if (hostFilesDir == nullptr || guestConfigDir == nullptr) {
    return false;
  }
  try {
    WindowsFloppy floppy(floppyTemplatePath, guestConfigDir, toolsIsoPath, scsiDriverDir,
                         upgraderIsoLocation, hostFilesDir);
    return floppy.Build();
  } catch (...) {
    return false;
  }
}

void WriteOEMDriverInfo(const char *oemPath, const char *winntPath) {
  if (oemPath == nullptr) {
    return;
  }
  try {
    std::optional<std::string> text = ReadOemFile(oemPath);
    if (!text) {
      return;
    }
    std::string_view rest(*text);
    while (!rest.empty()) {
      size_t end = rest.find('\n');
      std::string_view line = rest.substr(0, end);
      rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
      std::string_view description = DriverDescription(line);
      if (!description.empty()) {
        // Windows Setup wants the description as the key and "OEM" as the
        // value. A description the INI file cannot hold as a key (one with
        // "=" in it) is left out without a word, like a failed write.
        IniUtil_WriteIniFileString(winntPath, "MassStorageDrivers",
                                   std::string(description).c_str(), "OEM", false);
        return;
      }
    }
    Warning("%s: Failed to detect the type of driver in %s\n", "WriteOEMDriverInfo", oemPath);
  } catch (...) {
    // Only the buffer can fail, and that counts as an unreadable file.
  }
}

bool AutoInstall_AddFileToFloppyImg(const char *srcPath, const char *name,
                                    const char *guestConfigDir) {
  if (srcPath == nullptr || name == nullptr || guestConfigDir == nullptr) {
    return false;
  }
  try {
    std::string imagePath = Join(guestConfigDir, kFloppyImageName);
    autoinstall::OpenFloppy floppy;
    FATDevice *device = nullptr;
    FATVolume *volume = nullptr;
    if (FATDevFileIO_Open(imagePath.c_str(), &device) != FAT_OK ||
        FAT_OpenVolume(device, &volume) != FAT_OK) {
      return false;
    }
    floppy.volume = volume;
    if (FAT_OpenRootDirectory(floppy.volume, &floppy.root) != FAT_OK) {
      return false;
    }
    return AddFileToFloppyImg(floppy.root, srcPath, name);
  } catch (...) {
    return false;
  }
}
