/*
 * Boot media of the unattended Linux install: find the installer's kernel
 * and initial ramdisk through the medium's isolinux configuration, stage
 * them beside the boot loader with a one-entry configuration that adds the
 * family's answer-file arguments, and master the staging tree into a
 * bootable image.
 */
#include "autoinstallRemaster.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "autoinstallLinux.h"
#include "platform/file/file.h"
#include "platform/file/fileIO.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace autoinstall {

namespace {

// Only the start of a configuration is read: the entries that matter come
// first, and a huge file is no configuration.
constexpr size_t kConfigReadSize = 4096;
constexpr size_t kAppendMax = 511;
constexpr size_t kStagedConfigMax = 4096;
// Far deeper than any install medium; bounds the search on a hostile one.
constexpr int kMaxSearchDepth = 32;

constexpr char kStagedConfigFormat[] =
    "default linux\nprompt 0\ntimeout 1\n\nlabel linux\n\tkernel %s\n\tappend initrd=%s %s %s\n";
constexpr char kMasterCommand[] =
    "\"%s\" -o \"%s\" -b isolinux/isolinux.bin -c isolinux/boot.cat -no-emul-boot "
    "-boot-load-size 4 -boot-info-table \"%s\"";

// Ubuntu 20.10 and later boot through GRUB only; their casper kernel is
// booted with this entry.
const IsolinuxEntry kUbuntuCasperEntry{"/casper/vmlinuz", "/casper/initrd",
                                       "file=/cdrom/preseed/ubuntu.seed quiet splash --- "};

// The isolinux.bin of syslinux 5 and later loads this module from its own
// directory and stops without it; older ones are self-contained.
constexpr char kLdlinux[] = "ldlinux.c32";
constexpr char kHostLdlinux[] = "/usr/lib/syslinux/modules/bios/ldlinux.c32";

using Text = gp::UniqueText;

bool CaselessStartsWith(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && Str_Strncasecmp(s.data(), prefix.data(), prefix.size()) == 0;
}

// The blank-separated arguments of a line; runs of blanks give no empty ones.
std::vector<std::string_view> Arguments(std::string_view text) {
  std::vector<std::string_view> out;
  for (size_t at = 0; (at = text.find_first_not_of(' ', at)) != std::string_view::npos;) {
    const size_t end = std::min(text.find(' ', at), text.size());
    out.push_back(text.substr(at, end - at));
    at = end;
  }
  return out;
}

std::string Join(const std::string &dir, const std::string &name) {
  return Text(File_PathJoin(dir.c_str(), name.c_str())).get();
}

std::string DirName(const std::string &path) {
  char *dir = nullptr;
  File_GetPathName(path.c_str(), &dir, nullptr);
  return Text(dir).get();
}

std::string BaseName(const std::string &path) {
  char *base = nullptr;
  File_GetPathName(path.c_str(), nullptr, &base);
  return Text(base).get();
}

// A configuration as the reader sees it: at most 4,095 bytes, up to a NUL.
std::string ConfigText(const char *data, size_t len) {
  std::string_view text(data, std::min(len, kConfigReadSize - 1));
  return std::string(text.substr(0, text.find('\0')));
}

// Where the staged files come from: an ISO 9660 image or a host directory
// tree. Paths on the medium are the medium's own; the configuration
// directory is one of them.
class Medium {
 public:
  explicit Medium(bool logs) : logs_(logs) {}
  virtual ~Medium() = default;
  // The boot entry and the directory of the configuration that named it
  // (none for Ubuntu's fixed entry).
  virtual bool FindEntry(GuessVersion version, IsolinuxEntry *entry,
                         std::optional<std::string> *configDir) = 0;
  // A path of the configuration as a medium path: absolute paths start at
  // the medium's root, others at the configuration's directory.
  virtual std::string Resolve(const std::string &path,
                              const std::optional<std::string> &configDir) const = 0;
  virtual bool HasFile(const std::string &path) = 0;
  // Copies a file of the medium into the host directory under its base name.
  virtual bool Fetch(const std::string &path, const std::string &toDir) = 0;
  // One failure line; only the directory-tree scan logs.
  void Report(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (logs_) {
      va_list args;
      va_start(args, fmt);
      LogV(fmt, args);
      va_end(args);
    }
  }

 private:
  const bool logs_;
};

// A file found in an image, with the still-open handle of the directory
// holding it (for a second pass over its siblings).
struct IsoMatch {
  Iso9660Dir *dir = nullptr;
  std::unique_ptr<Iso9660DirEntry> entry;
  std::string path;
};

class IsoMedium final : public Medium {
 public:
  IsoMedium() : Medium(false) {}
  ~IsoMedium() override {
    if (vol_ != nullptr) {
      Iso9660_Close(vol_);
    }
  }
  bool Open(const char *path) {
    return Iso9660_Open(path, ISO9660_FORMAT_ROCKRIDGE, &vol_) == ISO9660_OK;
  }

  bool FindEntry(GuessVersion version, IsolinuxEntry *entry,
                 std::optional<std::string> *configDir) override {
    std::optional<IsoMatch> cfg = findFileInIso("isolinux.cfg", "", 0);
    if (!cfg.has_value()) {
      if (version != GUESS_VERSION_UBUNTU_2010_OR_HIGHER) {
        return false;
      }
      *entry = kUbuntuCasperEntry;
      return true;
    }
    *configDir = DirName(cfg->path);
    std::optional<std::string> text = ReadConfig(*cfg->entry);
    bool found = text.has_value() && parseIsolinuxConfig(*text, entry);
    if (text.has_value() && !found && Iso9660_RewindDir(vol_, cfg->dir) == ISO9660_OK) {
      // The first configuration may point at a menu; any sibling may hold the entry.
      Iso9660Result rc;
      while (!found && (rc = Iso9660_ReadDir(vol_, cfg->dir, cfg->entry.get())) != ISO9660_EOF) {
        if (rc == ISO9660_OK && StrUtil_EndsWith(cfg->entry->name, ".cfg")) {
          text = ReadConfig(*cfg->entry);
          found = text.has_value() && parseIsolinuxConfig(*text, entry);
        } else if (rc != ISO9660_OK && rc != ISO9660_ERR_CORRUPT) {
          break;
        }
      }
    }
    Iso9660_CloseDir(vol_, cfg->dir);
    return found;
  }

  std::string Resolve(const std::string &path,
                      const std::optional<std::string> &configDir) const override {
    return path.starts_with('/') || !configDir.has_value() ? path : Join(*configDir, path);
  }

  bool HasFile(const std::string &path) override {
    auto e = std::make_unique<Iso9660DirEntry>();
    return Iso9660_Stat(vol_, path.c_str(), e.get()) == ISO9660_OK &&
           (e->flags & ISO9660_ENTRY_DIRECTORY) == 0;
  }

  // Extracting a directory would copy its whole contents.
  bool Fetch(const std::string &path, const std::string &toDir) override {
    return HasFile(path) && Iso9660_Extract(vol_, path.c_str(), toDir.c_str()) == ISO9660_OK;
  }

 private:
  // Finds name (caseless) below dir ("" for the root), depth first in
  // directory order.
  std::optional<IsoMatch> findFileInIso(const char *name, const std::string &dir, int depth) {
    Iso9660Dir *d = nullptr;
    if (Iso9660_OpenDir(vol_, dir.empty() ? "/" : dir.c_str(), &d) != ISO9660_OK) {
      return std::nullopt;
    }
    auto e = std::make_unique<Iso9660DirEntry>();
    Iso9660Result rc;
    while ((rc = Iso9660_ReadDir(vol_, d, e.get())) != ISO9660_EOF) {
      if (rc == ISO9660_ERR_CORRUPT) {
        continue;  // a damaged record is left out; the rest still count
      }
      if (rc != ISO9660_OK) {
        break;
      }
      std::string path = dir + "/" + e->name;
      if (Str_Strcasecmp(e->name, name) == 0) {
        return IsoMatch{d, std::move(e), std::move(path)};
      }
      if ((e->flags & ISO9660_ENTRY_DIRECTORY) != 0 && depth < kMaxSearchDepth) {
        std::optional<IsoMatch> m = findFileInIso(name, path, depth + 1);
        if (m.has_value()) {
          Iso9660_CloseDir(vol_, d);
          return m;
        }
      }
    }
    Iso9660_CloseDir(vol_, d);
    return std::nullopt;
  }

  std::optional<std::string> ReadConfig(const Iso9660DirEntry &e) {
    Iso9660File *file = nullptr;
    if (Iso9660_OpenFile(vol_, &e, &file) != ISO9660_OK) {
      return std::nullopt;
    }
    std::string buf(kConfigReadSize - 1, '\0');
    size_t got = 0;
    Iso9660Result rc = ISO9660_OK;
    while (rc == ISO9660_OK && got < buf.size()) {
      uint32_t len = static_cast<uint32_t>(buf.size() - got);
      rc = Iso9660_ReadFile(vol_, file, buf.data() + got, &len);
      got += len;
    }
    Iso9660_CloseFile(vol_, file);
    if (rc != ISO9660_OK && rc != ISO9660_EOF) {
      return std::nullopt;
    }
    return ConfigText(buf.data(), got);
  }

  Iso9660Volume *vol_ = nullptr;
};

class DiskMedium final : public Medium {
 public:
  explicit DiskMedium(std::string root) : Medium(true), root_(std::move(root)) {
    Text real(realpath(root_.c_str(), nullptr));
    realRoot_ = real != nullptr ? real.get() : root_;
  }

  bool FindEntry(GuessVersion version, IsolinuxEntry *entry,
                 std::optional<std::string> *configDir) override {
    if (parseCfgFilesInDisk(version, entry, configDir)) {
      return true;
    }
    Log("%s: parseIsolinuxConfig failed\n", "AutoInstall_ScanDisk");
    return false;
  }

  std::string Resolve(const std::string &path,
                      const std::optional<std::string> &configDir) const override {
    return path.starts_with('/') || !configDir.has_value() ? root_ + path : Join(*configDir, path);
  }

  bool HasFile(const std::string &path) override { return File_IsFile(path.c_str()); }

  bool Fetch(const std::string &path, const std::string &toDir) override {
    if (Outside(path)) {
      return false;
    }
    const std::string to = Join(toDir, BaseName(path));
    if (!File_Copy(path.c_str(), to.c_str(), true)) {
      Log("%s: File_Copy failed from=\"%s\" to=\"%s\"\n", "AutoInstall_ScanDisk", path.c_str(),
          to.c_str());
      return false;
    }
    return true;
  }

 private:
  bool parseCfgFilesInDisk(GuessVersion version, IsolinuxEntry *entry,
                           std::optional<std::string> *configDir) {
    static constexpr char kFn[] = "parseCfgFilesInDisk";
    std::string cfg;
    if (!findFileInDisk("isolinux.cfg", root_, &cfg, 0)) {
      if (version == GUESS_VERSION_UBUNTU_2010_OR_HIGHER) {
        *entry = kUbuntuCasperEntry;
        return true;
      }
      Log("%s: findFileInDisk failed isolinux.cfg in \"%s\"\n", kFn, root_.c_str());
      return false;
    }
    *configDir = DirName(cfg);
    if (Outside(cfg)) {
      return false;
    }
    gp::ScopedFileIO f;
    if (FileIO_Open(&f.fd, cfg.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) != FILEIO_SUCCESS) {
      Log("%s: FileIO_Open failed pathIsolinuxCfg=\"%s\"\n", kFn, cfg.c_str());
      return false;
    }
    std::optional<std::string> text = ReadConfig(&f.fd);
    if (!text.has_value()) {
      Log("%s: FileIO_Read failed\n", kFn);
      return false;
    }
    if (parseIsolinuxConfig(*text, entry)) {
      return true;
    }
    // The first configuration may point at a menu; any sibling may hold the entry.
    char **names = nullptr;
    const int count = File_ListDirectory(configDir->value().c_str(), &names);
    bool found = false;
    for (int i = 0; i < count && !found; ++i) {
      const std::string path = Join(**configDir, names[i]);
      gp::ScopedFileIO other;
      if (StrUtil_EndsWith(names[i], ".cfg") && !Outside(path) &&
          FileIO_Open(&other.fd, path.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) ==
              FILEIO_SUCCESS) {
        text = ReadConfig(&other.fd);
        found = text.has_value() && parseIsolinuxConfig(*text, entry);
      }
    }
    File_FreeNameList(names, count);
    return found;
  }

  // Links are not followed: a loop on the medium must not trap the search.
  static bool findFileInDisk(const char *name, const std::string &dir, std::string *path,
                             int depth) {
    char **names = nullptr;
    const int count = File_ListDirectory(dir.c_str(), &names);
    bool found = false;
    for (int i = 0; i < count && !found; ++i) {
      const std::string full = Join(dir, names[i]);
      struct stat st;
      if (Str_Strcasecmp(names[i], name) == 0) {
        *path = full;
        found = true;
      } else if (depth < kMaxSearchDepth && lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        found = findFileInDisk(name, full, path, depth + 1);
      }
    }
    File_FreeNameList(names, count);
    return found;
  }

  // The first 4 KiB, at least one byte; nullopt on a read error.
  static std::optional<std::string> ReadConfig(FileIODescriptor *fd) {
    char buf[kConfigReadSize];
    size_t got = 0;
    const FileIOResult rc = FileIO_Read(fd, buf, sizeof buf - 1, &got);
    if ((rc != FILEIO_SUCCESS && rc != FILEIO_EOF) || got == 0) {
      return std::nullopt;
    }
    return ConfigText(buf, got);
  }

  // A link on a hostile medium must not get host files copied into the
  // image the guest boots.
  bool Outside(const std::string &path) {
    Text real(realpath(path.c_str(), nullptr));
    if (real == nullptr || realRoot_ == "/" ||
        StrUtil_StartsWith(real.get(), (realRoot_ + "/").c_str())) {
      return false;  // a missing file fails where it is used
    }
    Log("%s: path leads outside the medium \"%s\"\n", "AutoInstall_ScanDisk", path.c_str());
    return true;
  }

  std::string root_;
  std::string realRoot_;
};

bool WriteStagedConfig(Medium &medium, const std::string &path, const IsolinuxEntry &entry,
                       const char *kernelArgs) {
  char text[kStagedConfigMax];
  const int len =
      Str_Snprintf(text, sizeof text, kStagedConfigFormat, BaseName(*entry.kernel).c_str(),
                   BaseName(*entry.initrd).c_str(), entry.append.value_or("").c_str(), kernelArgs);
  if (len < 0) {
    // A cut line would boot without the answer file.
    medium.Report("%s: isolinux.cfg longer than %zu bytes\n", "AutoInstall_ScanDisk",
                  kStagedConfigMax - 1);
    return false;
  }
  gp::ScopedFileIO f;
  FileIOResult rc =
      FileIO_Open(&f.fd, path.c_str(), FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_EMPTY);
  if (rc != FILEIO_SUCCESS) {
    medium.Report("%s: FileIO_Open failed errio=%d configPath=\"%s\"\n", "AutoInstall_ScanDisk", rc,
                  path.c_str());
    return false;
  }
  rc = FileIO_Write(&f.fd, text, static_cast<size_t>(len), nullptr);
  if (rc != FILEIO_SUCCESS) {
    medium.Report("%s: FileIO_Write failed errio=%d\n", "AutoInstall_ScanDisk", rc);
    return false;
  }
  return true;
}

bool CopyHostFile(Medium &medium, const std::string &from, const std::string &to) {
  if (!File_Copy(from.c_str(), to.c_str(), true)) {
    medium.Report("%s: File_Copy failed from=\"%s\" to=\"%s\"\n", "AutoInstall_ScanDisk",
                  from.c_str(), to.c_str());
    return false;
  }
  return true;
}

// The boot loader, and the ldlinux.c32 that belongs to it when there is one:
// beside the medium's isolinux.bin, or beside the override, else the
// host's own syslinux module.
bool StageBootLoader(Medium &medium, const std::optional<std::string> &configDir,
                     const char *isolinuxBinPath, const std::string &isolinuxDir) {
  if (isolinuxBinPath != nullptr) {
    if (!CopyHostFile(medium, isolinuxBinPath, Join(isolinuxDir, "isolinux.bin"))) {
      return false;
    }
    std::string ldlinux = Join(DirName(isolinuxBinPath), kLdlinux);
    if (!File_IsFile(ldlinux.c_str())) {
      ldlinux = kHostLdlinux;
    }
    return !File_IsFile(ldlinux.c_str()) ||
           CopyHostFile(medium, ldlinux, Join(isolinuxDir, kLdlinux));
  }
  if (!configDir.has_value()) {
    medium.Report("%s: no isolinux.bin for a medium without isolinux.cfg\n",
                  "AutoInstall_ScanDisk");
    return false;
  }
  if (!medium.Fetch(Join(*configDir, "isolinux.bin"), isolinuxDir)) {
    return false;
  }
  const std::string ldlinux = Join(*configDir, kLdlinux);
  return !medium.HasFile(ldlinux) || medium.Fetch(ldlinux, isolinuxDir);
}

bool Stage(Medium &medium, const std::string &isolinuxDir, const char *osKey, GuessVersion version,
           const char *isolinuxBinPath) {
  const LinuxInstallFamily family = AutoInstallGetLinuxFamily(osKey);
  IsolinuxEntry entry;
  std::optional<std::string> configDir;
  if (!medium.FindEntry(version, &entry, &configDir)) {
    return false;
  }
  for (const std::optional<std::string> *file : {&entry.kernel, &entry.initrd}) {
    if (!file->has_value() || BaseName(**file).empty() ||
        !medium.Fetch(medium.Resolve(**file, configDir), isolinuxDir)) {
      return false;
    }
  }
  if (family == LINUX_FAMILY_REDHAT && entry.append.has_value()) {
    removeAskMethod(&*entry.append);
  }
  const char *kernelArgs = LinuxFamilyTable[family].kernelArgs;
  return WriteStagedConfig(medium, Join(isolinuxDir, "isolinux.cfg"), entry,
                           kernelArgs != nullptr ? kernelArgs : "") &&
         StageBootLoader(medium, configDir, isolinuxBinPath, isolinuxDir);
}

// Characters that keep their meaning inside double quotes on a shell line.
bool ShellSafe(const char *name, const char *path) {
  if (strpbrk(path, "\"$`\\\n") == nullptr) {
    return true;
  }
  std::string shown;
  for (const char *p = path; *p != '\0'; ++p) {
    shown += *p == '\n' ? std::string("\\n") : std::string(1, *p);
  }
  Log("%s: path refused for the shell command line %s=\"%s\"\n", "AutoInstall_MasterISO", name,
      shown.c_str());
  return false;
}

}  // namespace

bool parseIsolinuxConfig(std::string_view text, IsolinuxEntry *entry) {
  *entry = {};
  text = text.substr(0, text.find('\0'));
  bool inLabel = false, haveKernel = false, haveInitrd = false, haveAppend = false;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    while (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    if (line.empty()) {
      continue;
    }
    // Only blanks indent a keyword; a tab-indented line is not read.
    const std::string_view trimmed =
        line.substr(std::min(line.find_first_not_of(' '), line.size()));
    const bool label = CaselessStartsWith(line, "label ");
    if (!inLabel) {
      inLabel = label && line.size() > 6;
      continue;
    }
    if (label) {
      if (haveKernel && haveAppend) {
        return haveInitrd;
      }
      *entry = {};
      haveKernel = haveInitrd = haveAppend = false;
    } else if (line.size() > 7 && CaselessStartsWith(trimmed, "kernel ")) {
      entry->kernel = std::string(trimmed.substr(7));
      haveKernel = true;
    } else if (line.size() > 7 && CaselessStartsWith(trimmed, "append ")) {
      std::string &append = entry->append.has_value() ? *entry->append : entry->append.emplace();
      for (std::string_view arg : Arguments(trimmed.substr(7, kAppendMax))) {
        if (CaselessStartsWith(arg, "initrd=")) {
          entry->initrd = std::string(arg.substr(7));
          haveInitrd = true;
        } else {
          append.append(arg).append(" ");
        }
      }
      if (haveKernel) {
        return haveInitrd;
      }
      haveAppend = true;
    }
  }
  return haveKernel && haveAppend && haveInitrd;
}

void removeAskMethod(std::string *append) {
  std::string kept;
  for (std::string_view arg : Arguments(*append)) {
    if (arg != "askmethod") {
      kept.append(arg).append(" ");
    }
  }
  *append = std::move(kept);
}

}  // namespace autoinstall

using namespace autoinstall;

bool AutoInstall_ScanISO(const char *isoPath, const char *stagingDir, const char *osKey,
                         GuessVersion version, const char *isolinuxBinPath) {
  if (isoPath == nullptr || stagingDir == nullptr || osKey == nullptr) {
    return false;
  }
  const std::string isolinuxDir = Join(stagingDir, "isolinux");
  IsoMedium medium;
  return File_CreateDirectoryHierarchy(isolinuxDir.c_str()) && medium.Open(isoPath) &&
         Stage(medium, isolinuxDir, osKey, version, isolinuxBinPath);
}

bool AutoInstall_ScanDisk(const char *mediumRoot, const char *stagingDir, const char *osKey,
                          GuessVersion version, const char *isolinuxBinPath) {
  if (mediumRoot == nullptr || stagingDir == nullptr || osKey == nullptr) {
    return false;
  }
  const std::string isolinuxDir = Join(stagingDir, "isolinux");
  if (!File_CreateDirectoryHierarchy(isolinuxDir.c_str())) {
    Log("%s: File_CreateDirectoryHierarchy failed \"%s\"\n", "AutoInstall_ScanDisk",
        isolinuxDir.c_str());
    return false;
  }
  DiskMedium medium(mediumRoot);
  return Stage(medium, isolinuxDir, osKey, version, isolinuxBinPath);
}

bool AutoInstall_MasterISO(const char *stagingDir, const char *toolPath, const char *outDir) {
  bool ok = stagingDir != nullptr && toolPath != nullptr && outDir != nullptr &&
            ShellSafe("stagingDir", stagingDir) && ShellSafe("toolPath", toolPath) &&
            ShellSafe("outDir", outDir);
  if (ok) {
    const std::string image = Join(outDir, "autoinst.iso");
    Text command(Str_Asprintf(nullptr, kMasterCommand, toolPath, image.c_str(), stagingDir));
    ok = command != nullptr && system(command.get()) == 0;
  }
  if (stagingDir != nullptr) {
    File_DeleteDirectoryTree(stagingDir);
  }
  return ok;
}
