// Steps of an unattended install that the answer, floppy, remaster and
// prepare commands share. Steps that check what the user typed print each
// reason themselves (every rejected text gets its line); steps that build
// something say why they failed in *why, one line with the library's latest
// log line in it when there is one, and leave the reporting to the command.
#ifndef GUESTPREP_TOOLS_INSTALLSTEPS_H
#define GUESTPREP_TOOLS_INSTALLSTEPS_H

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "guestprep/guess.h"
#include "platform/iso9660/iso9660.h"

namespace cli {

// A password, wiped when dropped.
struct Secret {
  std::string text;
  Secret() = default;
  Secret(const Secret &) = delete;
  Secret &operator=(const Secret &) = delete;
  ~Secret();
};

// One password from a file, or from standard input for "-": the first line,
// without its line ending. Standard input gives one line per "-" in turn.
// At most 64 KiB and no NUL byte; false after one line naming option.
bool ReadPassword(const std::string &source, const char *option, Secret *out);

// The Linux account: both passwords read (the administrator's is the
// account's unless rootPasswordFile is given) and every text checked; false
// after the lines saying why.
bool ReadLinuxAccount(const GuessInfo &info, const std::string &user, const std::string &fullName,
                      const std::string &passwordFile, const std::string &rootPasswordFile,
                      Secret *password, Secret *rootPassword);

// The Windows account's password, after refusing the Linux account options
// (Windows has one account, named by the full name).
bool ReadWindowsPassword(const std::string &user, const std::string &rootPasswordFile,
                         const std::string &passwordFile, Secret *password);

// The Linux account texts: prints the localised reason for each rejected
// one (the validators' messages, then what the answer file could not hold
// unchanged); true when all pass.
bool CheckLinuxTexts(const GuessInfo &info, const std::string &user, const std::string &fullName,
                     const Secret &password, const Secret &rootPassword);

// The Windows account texts: the name by the Windows validator, no control
// characters in name or password, a product key of five groups of five
// (upper-cased in place; empty means none). Prints a line per rejected text.
bool CheckWindowsTexts(const GuessInfo &info, const std::string &fullName, const Secret &password,
                       std::string *productKey);

// The display name of an edition entry ("Windows 10 Pro N").
std::string PrettyWindowsName(const std::string &edition);

// The edition to install: wanted as listed or as displayed (any case), else
// the image's only one. Prints why there is none.
bool ChooseEdition(const GuessInfo &info, const std::string &image, const std::string &wanted,
                   std::string *edition);

// The Windows time zone for the answer files: the IANA zone given, else the
// host's. Prints why a given zone has no Windows zone.
struct WindowsZone {
  int index = -1;
  std::string name;  // empty: the template's own zone stays
};
bool ChooseTimeZone(const std::string &zone, WindowsZone *out);

// Writes "winnt.sif", "autoun~0.xml" and "storePwd.ini" into dir from the
// templates in templateDir, then the product key when there is one.
struct WindowsAnswers {
  std::string fullName;
  const Secret *password = nullptr;
  std::string edition;
  std::string language;
  std::string productKey;
  WindowsZone zone;
  bool keepAutoLogon = false;
  bool keepPartitions = false;
};
bool WriteWindowsAnswers(const GuessInfo &info, const WindowsAnswers &answers,
                         const std::string &templateDir, const std::string &dir, std::string *why);

// The mastering tool: given, else genisoimage, xorrisofs or mkisofs on PATH.
bool FindMasteringTool(std::string *tool, std::string *why);

// Stages the image's boot files into staging (which already holds whatever
// else goes on the medium, such as the answer file) and masters
// outDir/"autoinst.iso" from it with tool; staging is gone afterwards,
// whatever the outcome. isolinuxBin empty: the image's own boot loader, or
// the host's for an Ubuntu 20.10-or-later image, which has none.
struct BootImageJob {
  std::string image;
  const GuessInfo *info = nullptr;
  std::string staging;
  std::string tool;
  std::string isolinuxBin;
  std::string outDir;
};
bool MasterBootImage(const BootImageJob &job, std::string *why);

// Blank 1.44 MB floppies "suse.flp" and "mandriva.flp" in dir, for callers
// without template floppies of their own.
bool MakeBlankFloppyTemplates(const std::string &dir, std::string *why);

// The names and sizes in a floppy's root directory: objects for JSON,
// "name (N bytes)" for text.
nlohmann::ordered_json FloppyListing(const std::string &image, bool json);

// Opens a tools image with the names the floppy builder reads it by:
// Joliet when it has them, else Rock Ridge, else the primary names.
Iso9660Result OpenToolsImage(const std::string &image, Iso9660Volume **volume);

// For each of names, the directories of the image (opened as
// OpenToolsImage does) that hold a file of that name, any case, in
// depth-first name order, "/" for the root; one walk for all. Empty lists
// when the image cannot be read.
std::map<std::string, std::vector<std::string>> DirectoriesHolding(
    const std::string &image, const std::vector<std::string> &names);

// A directory removed with everything in it when dropped.
struct ScratchDir {
  std::string path;
  ScratchDir() = default;
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  ~ScratchDir();
  // A new directory named like pattern ("<dir>/.name-XXXXXX").
  bool Create(std::string pattern, std::string *why);
  // Removes it now.
  void Remove();
};

}  // namespace cli

#endif
