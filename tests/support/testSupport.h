// Helpers shared by the test suites: scratch directories, captured log
// lines, running the real tools that fixtures are built with.
#ifndef GUESTPREP_TESTS_SUPPORT_H
#define GUESTPREP_TESTS_SUPPORT_H

#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "platform/fat/fat.h"

namespace testing_support {

// A fresh directory under the system temp dir, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::filesystem::path &path() const { return path_; }
  std::string str() const { return path_.string(); }
  std::filesystem::path operator/(const std::string &name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Captures every log event while alive; restores the previous sink after.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;
  const std::vector<std::string> &lines() const { return lines_; }
  std::string all() const;
  bool contains(const std::string &needle) const;
  void clear() { lines_.clear(); }

 private:
  static void Sink(void *ctx, int level, const char *text, size_t len);
  std::vector<std::string> lines_;
  void (*prevFn_)(void *, int, const char *, size_t) = nullptr;
  void *prevCtx_ = nullptr;
};

struct CommandResult {
  int exitCode = -1;
  std::string output;     // stdout and stderr together
  bool timedOut = false;  // killed when the time limit ran out
  bool stopped = false;   // killed when the output showed stopAt
  double seconds = 0;     // from start to exit
};

// Runs argv (no shell) and collects its output. With a time limit (seconds,
// 0 for none) or a stop text, the program is killed when the limit runs out
// or its output shows that text.
CommandResult RunCommand(const std::vector<std::string> &argv, int timeLimit = 0,
                         const std::string &stopAt = "");

// The same for the image mastering tools, retried when the tool dies of a
// signal (xorriso has been seen to crash now and then on a good tree).
CommandResult RunMasteringTool(const std::vector<std::string> &argv);

// True when the named program is on PATH.
bool HaveTool(const std::string &name);

void WriteFile(const std::filesystem::path &path, const std::string &contents);

// Takes a string the library allocated and frees it; "<null>" for none.
std::string Take(char *s);
std::string ReadFile(const std::filesystem::path &path);

// A GuessVersion by its name without "GUESS_VERSION_" (a test failure and
// GUESS_VERSION_UNKNOWN for no such name).
unsigned VersionByName(const std::string &name);

// Directory of committed test inputs (tests/data).
std::filesystem::path DataDir();

// One row of a tab-separated table of expectations under tests/data: its
// line number, for names and messages, and its cells ("" in the file is
// the empty text).
struct TsvRow {
  int line = 0;
  std::vector<std::string> cells;
};
void PrintTo(const TsvRow &row, std::ostream *os);

// The rows of DataDir()/path, each cut or padded to columns cells (a short
// row fails its test, not the load); blank lines and "#" lines skipped.
std::vector<TsvRow> ReadTsv(const std::string &path, size_t columns);

// A test name for a row: "L<line>_" and its first cell, every character
// but letters and digits as "_".
std::string TsvRowName(const TsvRow &row);

// The same as a parameterised suite's name generator.
struct TsvRowNamer {
  template <typename Info>
  std::string operator()(const Info &info) const {
    return TsvRowName(info.param);
  }
};

// The pieces of text between the separators, empty pieces dropped.
std::vector<std::string> Split(const std::string &text, const std::string &sep);
// Every from in text replaced by to.
std::string Replace(std::string text, const std::string &from, const std::string &to);
std::string Lower(std::string text);
// Lower-case hex of bytes, so unequal bytes show readably.
std::string Hex(const std::string &bytes);

// Bytes that differ from one offset to the next, so a misplaced block shows.
std::string Pattern(size_t size, unsigned seed);

// A 1.44 MB floppy image at path, freshly formatted or opened, and its root
// directory; both closed in order. error is the first failure.
struct Floppy {
  Floppy(const std::filesystem::path &path, bool format);
  ~Floppy();
  Floppy(const Floppy &) = delete;
  Floppy &operator=(const Floppy &) = delete;
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;
  FATError error = FAT_OK;
};

// The host's boot loader, which media trees take.
extern const char *const kHostIsolinuxBin;
extern const char *const kHostLdlinux;

// A file of DataDir()/isolinux. Two configurations around the 4 KiB the
// medium scan reads are made here instead, their one entry last behind
// comment lines: "edge/entry-before-4k.cfg" (3971 bytes) and
// "edge/entry-after-4k.cfg" (4480 bytes, the entry starting at 4424).
std::string IsolinuxFile(const std::string &name);

// Builds below root the medium a table cell lists: comma-separated paths;
// "path<file" holds IsolinuxFile(file), "path=key" the host file
// sources[key], isolinux.bin and ldlinux.c32 the host's, any other its own
// path. The contents by base name (a later file of the same name wins).
std::map<std::string, std::string> BuildMedium(
    const std::filesystem::path &root, const std::string &files,
    const std::map<std::string, std::filesystem::path> &sources = {});

// fsck.fat's verdict on a FAT image without repairing it: "" when clean.
std::string FsckProblems(const std::filesystem::path &image);
// A file of a FAT image as mtools reads it, or "<mtype failed: ...>".
std::string MtoolsRead(const std::filesystem::path &image, const std::string &name);

}  // namespace testing_support

#endif
