/*
 * Floppy images of the unattended install: copying host files into and out
 * of an open floppy directory, the Linux answer-file floppy, and the
 * guest-tools upgrader payload staged under the short names the answer
 * files' first-boot scripts rename back.
 */
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "autoinstallFloppy.h"
#include "autoinstallLinux.h"
#include "platform/file/file.h"
#include "platform/file/fileIO.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

// One floppy sector: the transfer unit, kept on the stack.
constexpr size_t kChunk = 512;

constexpr uint64_t kFloppySize = 0x168000;
constexpr char kFloppyImageName[] = "autoinst.flp";

using Text = gp::UniqueText;

struct FatFileCloser {
  void operator()(FATFile *f) const { FAT_CloseFile(f); }
};
using FatFile = std::unique_ptr<FATFile, FatFileCloser>;

unsigned long ErrorNumber(FATError err) {
  return static_cast<unsigned long>(err);
}

const char *TemplateName(LinuxInstallFamily family) {
  return family == LINUX_FAMILY_MANDRIVA ? "mandriva.flp" : "suse.flp";
}

struct PayloadFile {
  const char *source;
  const char *staged;
};

constexpr PayloadFile kToolsPayload[] = {
    {"brimle-tools-upgrader-32", "upgra32"},
    {"brimle-tools-upgrader-64", "upgra64"},
    {"run_upgrader.sh", "upgrade.sh"},
};

}  // namespace

bool AddFileToFloppyImg(FATDirectory *directory, const char *srcPath, const char *name) {
  static const char kFn[] = "AddFileToFloppyImg";
  if (directory == nullptr || name == nullptr) {
    Log("%s: no floppy directory or file name\n", kFn);
    return false;
  }
  gp::ScopedFileIO src;
  FileIOResult r = FileIO_Open(&src.fd, srcPath, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
  if (r != FILEIO_SUCCESS) {
    Log("%s: FileIO_Open failed, error: %d\n", kFn, r);
    return false;
  }
  FATFile *raw = nullptr;
  FATError err = FAT_OpenFile(directory, name, &raw);
  FatFile file(raw);
  if (err == FAT_OK) {
    // Truncated first, so a shorter file leaves no tail of the old one.
    err = FAT_SetFileSize(file.get(), 0);
    if (err != FAT_OK) {
      Log("%s: FAT_SetFileSize failed, error: %lu\n", kFn, ErrorNumber(err));
      return false;
    }
  } else {
    err = FAT_CreateFile(directory, name, &raw);
    if (err != FAT_OK) {
      Log("%s: FAT_CreateFile failed, error: %lu\n", kFn, ErrorNumber(err));
      return false;
    }
    file.reset(raw);
  }
  uint64_t offset = 0;
  for (;;) {
    uint8_t chunk[kChunk];
    size_t got = 0;
    r = FileIO_Read(&src.fd, chunk, sizeof chunk, &got);
    if (r != FILEIO_SUCCESS && r != FILEIO_EOF) {
      Log("%s: FileIO_Read failed, error: %d\n", kFn, r);
      return false;
    }
    size_t written = 0;
    err = FAT_WriteFile(file.get(), offset, chunk, got, &written);
    if (err != FAT_OK) {
      Log("%s: FAT_WriteFile failed, error: %lu\n", kFn, ErrorNumber(err));
      return false;
    }
    offset += written;
    if (r == FILEIO_EOF) {
      // The FAT layer leaves a run of writes' FAT and directory entry for
      // the close, so only a good close means the file is in the image.
      err = FAT_CloseFile(file.release());
      if (err != FAT_OK) {
        Log("%s: FAT_CloseFile failed, error: %lu\n", kFn, ErrorNumber(err));
        return false;
      }
      return true;
    }
  }
}

bool GetFileFromFloppyImg(FATDirectory *directory, const char *name, const char *dstPath) {
  static const char kFn[] = "GetFileFromFloppyImg";
  if (directory == nullptr || name == nullptr) {
    Log("%s: no floppy directory or file name\n", kFn);
    return false;
  }
  FATFile *raw = nullptr;
  FATError err = FAT_OpenFile(directory, name, &raw);
  if (err != FAT_OK) {
    Log("%s: FAT_OpenFile failed, error: %lu\n", kFn, ErrorNumber(err));
    return false;
  }
  FatFile file(raw);
  gp::ScopedFileIO dst;
  FileIOResult r =
      FileIO_Open(&dst.fd, dstPath, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY);
  if (r != FILEIO_SUCCESS) {
    Log("%s: FileIO_Open failed, error: %d\n", kFn, r);
    return false;
  }
  for (uint64_t offset = 0;;) {
    uint8_t chunk[kChunk];
    size_t got = 0;
    err = FAT_ReadFile(file.get(), offset, chunk, sizeof chunk, &got);
    if (err != FAT_OK) {
      Log("%s: FAT_ReadFile failed, error: %lu\n", kFn, ErrorNumber(err));
      return false;
    }
    if (got == 0) {
      return true;
    }
    r = FileIO_Write(&dst.fd, chunk, got, nullptr);
    if (r != FILEIO_SUCCESS) {
      Log("%s: FileIO_Write failed, error: %d\n", kFn, r);
      return false;
    }
    offset += got;
  }
}

bool AutoInstall_NeedsFloppy_Linux(const char *osKey) {
  return LinuxFamilyTable[AutoInstallGetLinuxFamily(osKey)].needsFloppy != 0;
}

bool AutoInstall_MakeFloppyImg_Linux(const char *answerDir, const char *floppyDir,
                                     const char *templateDir, const char *osKey) {
  static const char kFn[] = "AutoInstall_MakeFloppyImg_Linux";
  LinuxInstallFamily family = AutoInstallGetLinuxFamily(osKey);
  if (family == LINUX_FAMILY_NONE || family == LINUX_FAMILY_REDHAT) {
    return true;
  }
  if (answerDir == nullptr || floppyDir == nullptr ||
      (family != LINUX_FAMILY_UBUNTU && templateDir == nullptr)) {
    Log("%s: missing directory argument\n", kFn);
    return false;
  }
  const char *answerName = LinuxFamilyTable[family].answerFileName;
  Text imagePath(File_PathJoin(floppyDir, kFloppyImageName));
  Text answerPath(family == LINUX_FAMILY_UBUNTU
                      ? Str_SafeAsprintf(nullptr, "%s%scustom%s%s", answerDir, "/", "/", answerName)
                      : File_PathJoin(answerDir, answerName));
  if (!File_Exists(answerPath.get())) {
    return false;
  }

  autoinstall::OpenFloppy floppy;
  FATDevice *device = nullptr;
  if (family == LINUX_FAMILY_UBUNTU) {
    if (FATDevFileIO_Open(imagePath.get(), &device) != FAT_OK ||
        FAT_FormatVolume(device, kFloppySize, 0, &floppy.volume) != FAT_OK) {
      Log("%s: FAT_FormatVolume failed floppyImageFilePath=\"%s\"\n", kFn, imagePath.get());
      return false;
    }
  } else {
    Text templatePath(Str_SafeAsprintf(nullptr, "%s/%s", templateDir, TemplateName(family)));
    if (!File_Exists(templatePath.get())) {
      Log("%s: !File_Exists failed templatePath=\"%s\"\n", kFn, templatePath.get());
      return false;
    }
    if (!File_Copy(templatePath.get(), imagePath.get(), true)) {
      Log("%s: File_Copy failed templatePath=\"%s\" floppyImageFilePath=\"%s\"\n", kFn,
          templatePath.get(), imagePath.get());
      return false;
    }
    if (FATDevFileIO_Open(imagePath.get(), &device) != FAT_OK ||
        FAT_OpenVolume(device, &floppy.volume) != FAT_OK) {
      Log("%s: FAT_OpenVolume failed floppyImageFilePath=\"%s\"\n", kFn, imagePath.get());
      return false;
    }
  }
  FATError err = FAT_SkipVolumeBoot(floppy.volume);
  if (err != FAT_OK) {
    Log("%s: FAT_SkipVolumeBoot failed err=%ld\n", kFn, static_cast<long>(err));
    return false;
  }
  err = FAT_OpenRootDirectory(floppy.volume, &floppy.root);
  if (err != FAT_OK) {
    Log("%s: FAT_OpenRootDirectory failed err=%ld\n", kFn, static_cast<long>(err));
    return false;
  }
  if (!AddFileToFloppyImg(floppy.root, answerPath.get(), answerName)) {
    Log("%s: AddFileToFloppyImg failed preseedFilePath=\"%s\"\n", kFn, answerPath.get());
    return false;
  }
  return true;
}

bool AutoInstall_AddTools_Linux(const char *destDir, const char *toolsDir) {
  if (destDir == nullptr || toolsDir == nullptr) {
    Log("AutoInstall_AddTools_Linux: missing directory argument\n");
    return false;
  }
  for (const PayloadFile &file : kToolsPayload) {
    Text from(File_PathJoin(toolsDir, file.source));
    Text to(File_PathJoin(destDir, file.staged));
    if (!File_Copy(from.get(), to.get(), true)) {
      Log("AutoInstall_AddTools_Linux: File_Copy failed from=\"%s\" to=\"%s\"\n", from.get(),
          to.get());
      return false;
    }
  }
  return true;
}
